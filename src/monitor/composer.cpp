#include "composer.h"

#include "numbers.h"

namespace tessel {

namespace {
// One line without its line end; false with the reason when it is no frame.
bool parseLine(const QString& line, int number, ComposerFrame* frame, QString* error)
{
    frame->line = number;
    frame->id = quint16(qint64(lenientHexValue(QStringView(line).mid(2, 3))) & 0xFFFF);
    const qsizetype separator = line.indexOf(QLatin1Char('>'));
    if (separator < 0) {
        *error = QStringLiteral("Line %1 has no \">\" before its data: \"%2\". The lines before "
                                "it were sent.")
                     .arg(number)
                     .arg(line);
        return false;
    }
    for (qsizetype at = separator + 2;; at += 3) {
        QString field = line.mid(at, 2);
        while (field.endsWith(QLatin1Char(' ')))
            field.chop(1);
        if (field.isEmpty())
            break;
        if (frame->data.size() == 8) {
            *error = QStringLiteral("Line %1 has more than 8 data bytes. The lines before it were "
                                    "sent.")
                         .arg(number);
            return false;
        }
        frame->data.append(char(qint64(lenientHexValue(field)) & 0xFF));
    }
    return true;
}
} // namespace

ComposerScript parseComposerText(const QString& text)
{
    ComposerScript script;
    qsizetype position = 0;
    int number = 0;
    while (position < text.size()) {
        const qsizetype end = text.indexOf(QLatin1Char('\n'), position);
        ++number;
        if (end < 0) {
            script.lastLineUnsent = !text.mid(position).trimmed().isEmpty();
            break;
        }
        QString line = text.mid(position, end - position);
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        position = end + 1;
        if (line.trimmed().isEmpty())
            continue;
        ComposerFrame frame;
        if (!parseLine(line, number, &frame, &script.error))
            break;
        script.frames.append(frame);
    }
    return script;
}

} // namespace tessel

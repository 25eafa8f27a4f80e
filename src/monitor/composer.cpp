#include "composer.h"

#include "numbers.h"

namespace tessel {

namespace {
// One line without its line end; false with the reason when it is no frame.
bool parseLine(const QString& line, int number, ComposerFrame* frame, QString* error)
{
    frame->line = number;
    // A typo is refused, not read up to where it starts: "GG" would go out as 00, "7FG" as 07F.
    const QString id = line.mid(2, 3);
    if (!isHexDigits(id) || id.toUInt(nullptr, 16) > 0x7FF) {
        *error = QStringLiteral("Line %1: the identifier \"%2\" (columns 3-5) is not 000 to 7FF in "
                                "hexadecimal. The lines before it were sent.")
                     .arg(number)
                     .arg(id);
        return false;
    }
    frame->id = quint16(id.toUInt(nullptr, 16));
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
        if (field.size() != 2 || !isHexDigits(field)) {
            *error = QStringLiteral("Line %1: data byte \"%2\" is not two hexadecimal digits. The "
                                    "lines before it were sent.")
                         .arg(number)
                         .arg(field.trimmed());
            return false;
        }
        frame->data.append(char(field.toUInt(nullptr, 16)));
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

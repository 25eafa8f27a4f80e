#include "plotsource.h"

#include "canopendecoder.h"

#include <QFileInfo>
#include <QProcess>
#include <QStringList>

#include <cmath>

namespace tessel {

namespace {

const QString kForms = QStringLiteral(
    "sdo NODE,INDEX[,SUB] [TYPE], frame ID BIT:BITS [signed] [*SCALE], analog CHANNEL, file "
    "PATH column NAME or file PATH frame ID BIT:BITS");

std::optional<int> hexField(const QString& text, int max)
{
    bool ok = false;
    const int v = text.toInt(&ok, 16);
    if (!ok || text.isEmpty() || text.startsWith(QLatin1Char('-')) ||
        text.startsWith(QLatin1Char('+')) || v > max)
        return std::nullopt;
    return v;
}

QString quoted(QString text)
{
    if (!text.isEmpty() && !text.contains(QLatin1Char(' ')) && !text.contains(QLatin1Char('"')))
        return text;
    return QLatin1Char('"') + text.replace(QLatin1Char('"'), QLatin1String("\"\"\"")) +
           QLatin1Char('"');
}

// "ID BIT:BITS [signed] [*SCALE]" from the front of `words`.
bool parseField(QStringList& words, PlotSource* s, QString* error)
{
    if (words.size() < 2) {
        *error = QStringLiteral("a frame field is ID BIT:BITS [signed] [*SCALE], as 181 16:32");
        return false;
    }
    const auto id = hexField(words.takeFirst(), 0x7FF);
    if (!id) {
        *error = QStringLiteral("the identifier is 0 to 7FF, in hexadecimal");
        return false;
    }
    s->id = *id;
    const QStringList place = words.takeFirst().split(QLatin1Char(':'));
    bool okBit = false, okBits = false;
    s->bit = place.value(0).toInt(&okBit);
    s->bits = place.value(1).toInt(&okBits);
    if (place.size() != 2 || !okBit || !okBits || s->bit < 0 || s->bits < 1 ||
        s->bit + s->bits > 64) {
        *error = QStringLiteral("the field is FIRST-BIT:BITS in decimal, within the 64 bits of a "
                                "frame, as 16:32");
        return false;
    }
    while (!words.isEmpty()) {
        const QString w = words.takeFirst();
        if (w == QLatin1String("signed")) {
            s->isSigned = true;
        } else if (w.startsWith(QLatin1Char('*'))) {
            bool ok = false;
            s->scale = w.mid(1).toDouble(&ok);
            if (!ok || !std::isfinite(s->scale) || s->scale == 0) {
                *error = QStringLiteral("the scale '%1' is not a number other than 0").arg(w);
                return false;
            }
        } else {
            *error = QStringLiteral("'%1': a field ends in signed or *SCALE").arg(w);
            return false;
        }
    }
    return true;
}

QString fieldText(const PlotSource& s)
{
    QString t = QStringLiteral("%1 %2:%3").arg(s.id, 0, 16).arg(s.bit).arg(s.bits).toUpper();
    if (s.isSigned)
        t += QStringLiteral(" signed");
    if (s.scale != 1)
        t += QStringLiteral(" *") + QString::number(s.scale, 'g', 17);
    return t;
}

QString entryText(const PlotSource& s)
{
    return QStringLiteral("%1,%2,%3")
        .arg(s.node, 0, 16)
        .arg(s.index, 4, 16, QLatin1Char('0'))
        .arg(s.subIndex, 2, 16, QLatin1Char('0'))
        .toUpper();
}

} // namespace

std::optional<PlotSource> PlotSource::parse(const QString& text, QString* error)
{
    QStringList words = QProcess::splitCommand(text);
    PlotSource s;
    // The endings first: "... on 1 as Speed".
    static const QStringList endings = {"as", "on", "every"};
    while (words.size() >= 3 && endings.contains(words[words.size() - 2])) {
        const QString value = words.takeLast();
        const QString ending = words.takeLast();
        bool ok = false;
        if (ending == QLatin1String("as")) {
            s.name = value;
            continue;
        }
        if (ending == QLatin1String("every")) {
            s.periodMs = value.toInt(&ok);
            if (!ok || s.periodMs < 1 || s.periodMs > 3600000) {
                *error = QStringLiteral("'every %1': the period is 1 to 3600000 ms").arg(value);
                return std::nullopt;
            }
            continue;
        }
        s.controller = value.toInt(&ok);
        if (!ok || s.controller < 0 || s.controller > 3) {
            *error = QStringLiteral("'on %1': the controller is 0 to 3").arg(value);
            return std::nullopt;
        }
    }
    const QString kind = words.isEmpty() ? QString() : words.takeFirst();
    if (kind == QLatin1String("sdo")) {
        s.kind = Kind::Entry;
        const QStringList f = words.value(0).split(QLatin1Char(','));
        const auto node = hexField(f.value(0), 0x7F);
        const auto index = hexField(f.value(1), 0xFFFF);
        const auto sub = f.size() == 3 ? hexField(f[2], 0xFF) : std::optional<int>(0);
        if (words.isEmpty() || f.size() < 2 || f.size() > 3 || !node || *node < 1 || !index ||
            !sub) {
            *error = QStringLiteral("an entry is NODE,INDEX[,SUB] in hexadecimal, node 1 to 7F, "
                                    "as 1,6064,0");
            return std::nullopt;
        }
        s.node = *node;
        s.index = *index;
        // Two fields read as the SDO panel reads them: the sub-index is the index's low byte.
        s.subIndex = f.size() == 3 ? *sub : (*index & 0xFF);
        words.removeFirst();
        if (!words.isEmpty()) {
            static const QStringList types = {"u8", "u16", "u32", "i8", "i16", "i32"};
            s.type = words.takeFirst();
            if (!types.contains(s.type)) {
                *error = QStringLiteral("type '%1': an entry is plotted as u8, u16, u32, i8, i16 "
                                        "or i32")
                             .arg(s.type);
                return std::nullopt;
            }
        }
    } else if (kind == QLatin1String("frame")) {
        s.kind = Kind::Frame;
        if (!parseField(words, &s, error))
            return std::nullopt;
    } else if (kind == QLatin1String("analog")) {
        s.kind = Kind::Analog;
        bool ok = false;
        s.channel = words.value(0).toInt(&ok);
        if (!ok || s.channel < 0 || s.channel > 255) {
            *error = QStringLiteral("an analog channel is a number, 0 to 255");
            return std::nullopt;
        }
        words.removeFirst();
        if (!words.isEmpty() && words.first() == QLatin1String("latched")) {
            s.latched = true;
            words.removeFirst();
        }
    } else if (kind == QLatin1String("file")) {
        s.path = words.isEmpty() ? QString() : words.takeFirst();
        const QString what = words.isEmpty() ? QString() : words.takeFirst();
        if (s.path.isEmpty() || (what != QLatin1String("column") && what != QLatin1String("frame"))) {
            *error = QStringLiteral("a file source is file PATH column NAME or file PATH frame ID "
                                    "BIT:BITS");
            return std::nullopt;
        }
        if (what == QLatin1String("column")) {
            s.kind = Kind::FileColumn;
            s.column = words.isEmpty() ? QString() : words.takeFirst();
            if (s.column.isEmpty()) {
                *error = QStringLiteral("which column of %1? file PATH column NAME").arg(s.path);
                return std::nullopt;
            }
        } else {
            s.kind = Kind::FileFrame;
            if (!parseField(words, &s, error))
                return std::nullopt;
        }
    } else {
        *error = kind.isEmpty() ? QStringLiteral("a source is %1").arg(kForms)
                                : QStringLiteral("'%1' is no source: %2").arg(kind, kForms);
        return std::nullopt;
    }
    if (!words.isEmpty()) {
        *error = QStringLiteral("'%1' is more than the source takes").arg(words.join(' '));
        return std::nullopt;
    }
    if (!s.isLive() && s.controller >= 0) {
        *error = QStringLiteral("a file is not on a controller: no 'on' for it");
        return std::nullopt;
    }
    if (!s.isPeriodic() && s.periodMs > 0) {
        *error = QStringLiteral("only entries and analog channels are read every period");
        return std::nullopt;
    }
    return s;
}

QString PlotSource::text() const
{
    QString t;
    switch (kind) {
    case Kind::Entry:
        t = QStringLiteral("sdo ") + entryText(*this);
        if (!type.isEmpty())
            t += QLatin1Char(' ') + type;
        break;
    case Kind::Frame:
        t = QStringLiteral("frame ") + fieldText(*this);
        break;
    case Kind::Analog:
        t = QStringLiteral("analog %1").arg(channel);
        if (latched)
            t += QStringLiteral(" latched");
        break;
    case Kind::FileColumn:
        t = QStringLiteral("file %1 column %2").arg(quoted(path), quoted(column));
        break;
    case Kind::FileFrame:
        t = QStringLiteral("file %1 frame %2").arg(quoted(path), fieldText(*this));
        break;
    }
    if (isLive() && controller >= 0)
        t += QStringLiteral(" on %1").arg(controller);
    if (isPeriodic() && periodMs > 0)
        t += QStringLiteral(" every %1").arg(periodMs);
    if (!name.isEmpty())
        t += QStringLiteral(" as ") + quoted(name);
    return t;
}

QString PlotSource::label() const
{
    if (!name.isEmpty())
        return name;
    switch (kind) {
    case Kind::Entry:
        return entryText(*this);
    case Kind::Frame:
        return fieldText(*this);
    case Kind::Analog:
        return QStringLiteral("analog %1").arg(channel);
    case Kind::FileColumn:
        return QStringLiteral("%1 (%2)").arg(column, QFileInfo(path).fileName());
    case Kind::FileFrame:
        return QStringLiteral("%1 (%2)").arg(fieldText(*this), QFileInfo(path).fileName());
    }
    return {};
}

std::optional<double> PlotSource::fieldValue(const char* data, int length) const
{
    if ((bit + bits + 7) / 8 > length)
        return std::nullopt;
    const quint64 raw = bitField(data, bit, bits);
    return (isSigned ? double(signExtended(raw, bits)) : double(raw)) * scale;
}

} // namespace tessel

#include "cliparse.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>

namespace tessel::cli {

Exit exitStatusOf(qorcalib::ErrorKind kind)
{
    using qorcalib::ErrorKind;
    switch (kind) {
    case ErrorKind::None:
        return kOk;
    case ErrorKind::BadArgument:
        return kBadArguments;
    case ErrorKind::Unreachable:
        return kUnreachable;
    case ErrorKind::NotSupported:
        return kNotSupported;
    case ErrorKind::Busy:
    case ErrorKind::TimeOut:
    case ErrorKind::Abort:
    case ErrorKind::BusError:
    case ErrorKind::Failed:
        break;
    }
    return kFailed;
}

namespace {
bool hexField(const QString& text, int maxDigits, int* value)
{
    static const QRegularExpression hex(QStringLiteral("^[0-9A-Fa-f]+$"));
    const QString t = text.trimmed();
    if (t.isEmpty() || t.size() > maxDigits || !hex.match(t).hasMatch())
        return false;
    *value = t.toInt(nullptr, 16);
    return true;
}

struct IntType
{
    const char* name;
    int bytes;
    bool isSigned;
};
constexpr IntType kIntTypes[] = {{"u8", 1, false}, {"u16", 2, false}, {"u32", 4, false},
                                 {"i8", 1, true},  {"i16", 2, true},  {"i32", 4, true}};

const IntType* intType(const QString& type)
{
    for (const IntType& t : kIntTypes)
        if (type == QLatin1String(t.name))
            return &t;
    return nullptr;
}
} // namespace

std::optional<Address> parseAddress(const QString& text, QString* error)
{
    const QStringList parts = text.split(QLatin1Char(','));
    Address a;
    if ((parts.size() != 2 && parts.size() != 3) || !hexField(parts[0], 2, &a.node) ||
        !hexField(parts[1], 4, &a.index) ||
        (parts.size() == 3 && !hexField(parts[2], 2, &a.subIndex))) {
        *error = QStringLiteral("address '%1' is not NODE,INDEX[,SUB] in hexadecimal (for "
                                "example 1,1018,1)")
                     .arg(text);
        return std::nullopt;
    }
    if (parts.size() == 2)
        a.subIndex = a.index & 0xFF;
    if (a.node < 1 || a.node > 0x7F) {
        *error = QStringLiteral("node %1 in '%2' is not 1 to 7F").arg(parts[0].trimmed(), text);
        return std::nullopt;
    }
    return a;
}

std::optional<Frame> parseFrame(const QString& text, QString* error)
{
    const auto refuse = [&](const QString& why) {
        *error = QStringLiteral("frame '%1': %2").arg(text, why);
        return std::nullopt;
    };
    const qsizetype hash = text.indexOf(QLatin1Char('#'));
    if (hash < 0)
        return refuse(QStringLiteral("not ID#DATA (for example 601#4018100100000000)"));
    const QString idText = text.left(hash);
    QString rest = text.mid(hash + 1);
    if (rest.startsWith(QLatin1Char('#')))
        return refuse(QStringLiteral("CAN FD frames are not carried by the server"));
    Frame f;
    int id = 0;
    if (idText.size() > 3) {
        if (idText.size() == 8 && hexField(idText, 8, &id))
            return refuse(QStringLiteral("extended (29-bit) identifiers are not carried by the "
                                         "server"));
        return refuse(QStringLiteral("identifier '%1' is not 3 hexadecimal digits").arg(idText));
    }
    if (!hexField(idText, 3, &id) || id > 0x7FF)
        return refuse(QStringLiteral("identifier '%1' is not 000 to 7FF").arg(idText));
    f.id = quint16(id);
    if (rest.startsWith(QLatin1Char('R'), Qt::CaseInsensitive)) {
        f.remote = true;
        const QString len = rest.mid(1);
        int n = 0;
        if (!len.isEmpty() && (!hexField(len, 1, &n) || n > 8))
            return refuse(QStringLiteral("remote length '%1' is not 0 to 8").arg(len));
        f.length = n;
        return f;
    }
    rest.remove(QLatin1Char('.'));
    if (rest.size() % 2 != 0)
        return refuse(QStringLiteral("data '%1' is not whole bytes").arg(rest));
    const QByteArray bytes = QByteArray::fromHex(rest.toLatin1());
    if (bytes.toHex() != rest.toLatin1().toLower())
        return refuse(QStringLiteral("data '%1' is not hexadecimal").arg(rest));
    if (bytes.size() > 8)
        return refuse(QStringLiteral("%1 data bytes, a frame carries 8 at most").arg(bytes.size()));
    f.data = bytes;
    f.length = int(bytes.size());
    return f;
}

std::optional<QList<IdFilter>> parseIdFilters(const QString& text, QString* error)
{
    QList<IdFilter> filters;
    for (const QString& part : text.split(QLatin1Char(','))) {
        const qsizetype at = part.indexOf(QRegularExpression(QStringLiteral("[:~]")));
        int id = 0;
        int mask = 0;
        if (at <= 0 || !hexField(part.left(at), 4, &id) || !hexField(part.mid(at + 1), 4, &mask) ||
            id > 0x7FF || mask > 0x7FF) {
            *error = QStringLiteral("filter '%1' is not ID:MASK or ID~MASK in hexadecimal, 000 "
                                    "to 7FF (for example 700:780)")
                         .arg(part);
            return std::nullopt;
        }
        filters.append({quint16(id), quint16(mask), part[at] == QLatin1Char('~')});
    }
    return filters;
}

bool passes(const QList<IdFilter>& filters, quint16 id)
{
    if (filters.isEmpty())
        return true;
    return std::any_of(filters.begin(), filters.end(), [id](const IdFilter& f) {
        return ((id & f.mask) == (f.id & f.mask)) != f.inverted;
    });
}

QString frameText(quint16 id, const QByteArray& data, bool remote, int length)
{
    // Written for every frame of a dump or a decode: built directly, not by formatting.
    static constexpr char digits[] = "0123456789ABCDEF";
    QString text;
    text.reserve(4 + 2 * 8 + 2);
    for (int shift = 8; shift >= 0; shift -= 4)
        text += QLatin1Char(digits[(id >> shift) & 0xF]);
    text += QLatin1Char('#');
    if (remote) {
        text += QLatin1Char('R');
        if (length)
            text += QString::number(length);
        return text;
    }
    const int n = std::min<int>(length, int(data.size()));
    for (int i = 0; i < n; ++i) {
        text += QLatin1Char(digits[quint8(data[i]) >> 4]);
        text += QLatin1Char(digits[quint8(data[i]) & 0xF]);
    }
    return text;
}

bool knownType(const QString& type)
{
    return intType(type) || type == QLatin1String("str") || type == QLatin1String("hex");
}

std::optional<QByteArray> encodeValue(const QString& type, const QString& text, QString* error)
{
    if (const IntType* t = intType(type)) {
        bool ok = false;
        const QString v = text.trimmed();
        qint64 value = v.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
                           ? qint64(v.mid(2).toULongLong(&ok, 16))
                           : v.toLongLong(&ok);
        const qint64 min = t->isSigned ? -(qint64(1) << (8 * t->bytes - 1)) : 0;
        const qint64 max =
            t->isSigned ? (qint64(1) << (8 * t->bytes - 1)) - 1 : (qint64(1) << (8 * t->bytes)) - 1;
        if (!ok || value < min || value > max) {
            *error = QStringLiteral("value '%1' is not a %2 (%3 to %4)")
                         .arg(text, type)
                         .arg(min)
                         .arg(max);
            return std::nullopt;
        }
        QByteArray data(t->bytes, '\0');
        for (int i = 0; i < t->bytes; ++i)
            data[i] = char(quint64(value) >> (8 * i));
        return data;
    }
    if (type == QLatin1String("str"))
        return text.toLatin1();
    const QString hex = QString(text).remove(QLatin1Char(' ')).remove(QLatin1Char('.'));
    const QByteArray bytes = QByteArray::fromHex(hex.toLatin1());
    if (hex.isEmpty() || hex.size() % 2 != 0 || bytes.toHex() != hex.toLatin1().toLower()) {
        *error = QStringLiteral("data '%1' is not hexadecimal bytes (for example 0A0B)").arg(text);
        return std::nullopt;
    }
    return bytes;
}

int typeBytes(const QString& type)
{
    const IntType* t = intType(type);
    return t ? t->bytes : 0;
}

QString decodeValue(const QString& type, const QByteArray& data)
{
    if (const IntType* t = intType(type)) {
        quint64 raw = 0;
        for (int i = std::min<int>(int(data.size()), t->bytes) - 1; i >= 0; --i)
            raw = (raw << 8) | quint8(data[i]);
        if (t->isSigned && data.size() >= t->bytes && (raw >> (8 * t->bytes - 1)) & 1)
            return QString::number(qint64(raw) - (qint64(1) << (8 * t->bytes)));
        return QString::number(raw);
    }
    if (type == QLatin1String("str"))
        return QString::fromLatin1(data);
    return QString::fromLatin1(data.toHex().toUpper());
}

} // namespace tessel::cli

#include "sdoaddress.h"

#include "numbers.h"

namespace tessel {

namespace {
qint16 field(const QString& text)
{
    return qint16(qint32(lenientHexValue(text.trimmed())));
}
} // namespace

SdoAddress SdoAddress::parse(const QString& text)
{
    SdoAddress a;
    const qsizetype p = text.indexOf(QLatin1Char(','));
    QString rest;
    if (p >= 0) {
        a.node = field(text.left(p));
        rest = p + 1 < text.size() ? text.mid(p + 1) : text;
    } else {
        a.node = field(text);
    }
    const qsizetype q = rest.indexOf(QLatin1Char(','));
    a.index = field(q >= 0 ? rest.left(q) : rest);
    if (q < rest.size()) // also when rest has no comma: the sub-index is then the index field
        a.subIndex = field(q >= 0 ? rest.mid(q + 1) : rest);
    return a;
}

int SdoAddressHistory::remember(const QString& addressText, const QString& dataText)
{
    const SdoAddress address = SdoAddress::parse(addressText);
    for (int row = 0; row < m_addresses.size(); ++row) {
        if (SdoAddress::parse(m_addresses[row]) == address) {
            m_addresses[row] = addressText;
            m_data[m_data.size() - 1 - row] = dataText;
            return row;
        }
    }
    m_addresses.prepend(addressText);
    m_data.append(dataText);
    return 0;
}

QString SdoAddressHistory::dataOf(int row) const
{
    if (row < 0 || row >= m_addresses.size())
        return {};
    return m_data[m_data.size() - 1 - row];
}

QString vectorLine(const QByteArray& bytes, bool hex, bool decimal)
{
    if (bytes.isEmpty())
        return hex || decimal ? QStringLiteral("0") : QString();
    // Most significant (last) byte first, signed; values past 32 bits keep their low part.
    qint64 value = qint8(bytes.back());
    for (qsizetype i = bytes.size() - 2; i >= 0; --i)
        value = value * 256 + quint8(bytes[i]);
    const int digits = int(qMin<qsizetype>(bytes.size(), 8)) * 2;
    const QString hexText =
        QString::number(quint64(value), 16).toUpper().rightJustified(digits, QLatin1Char('0')).right(digits);
    if (hex && decimal)
        return hexText + QLatin1Char(' ') + QString::number(value);
    if (hex)
        return hexText;
    if (decimal)
        return QString::number(value);
    return {};
}

} // namespace tessel

#include "hexhelpers.h"

#include "numbers.h"

#include <algorithm>
#include <cmath>

namespace tessel {

namespace {
// A byte of the data, or 0 past its end.
quint8 byteAt(const QByteArray& data, qsizetype i)
{
    return i >= 0 && i < data.size() ? quint8(data[i]) : 0;
}
} // namespace

qint32 hexToNumber(const QString& text)
{
    static const QString digits = QStringLiteral("0123456789ABCDEF");
    quint32 value = 0;
    for (QChar c : text.toUpper())
        value = value * 16u + quint32(qint32(digits.indexOf(c)));
    return qint32(value);
}

QByteArray numberToText(qint64 value, int n)
{
    QByteArray bytes;
    const quint32 bits = quint32(value);
    for (int i = 0; i < n && i < 4; ++i)
        bytes.append(char((bits >> (8 * i)) & 0xFF));
    return bytes;
}

qint32 bytesToNumber(int n, const QByteArray& bytes, int start)
{
    if (n <= 0)
        return 0;
    quint32 value = 0;
    for (int i = n - 1; i >= 0; --i)
        value = (value << 8) | byteAt(bytes, start + i);
    if (n < 4 && (byteAt(bytes, start + n - 1) & 0x80))
        value |= 0xFFFFFFFFu << (8 * n);
    return qint32(value);
}

qint32 textToNumber(int n, const QByteArray& text)
{
    QByteArray bytes = text.left(n);
    bytes.append(n - bytes.size(), '\0');
    return bytesToNumber(n, bytes);
}

QString bytesToHex(const QByteArray& data)
{
    return QString::fromLatin1(data.toHex()).toUpper();
}

QByteArray hexToBytes(const QString& text)
{
    QByteArray data;
    for (qsizetype i = 0; i < text.size(); i += 2)
        data.append(char(hexToNumber(text.mid(i, 2)) & 0xFF));
    return data;
}

QString sdoResultText(quint32 abortCode, const QString& error)
{
    if (!error.isEmpty())
        return error;
    if (abortCode == 0)
        return {};
    return hexField(abortCode, 8);
}

DataViews viewsOf(const QByteArray& data)
{
    const auto at = [&data](int i) { return quint32(byteAt(data, i)); };
    DataViews v;
    v.hex = bytesToHex(data);
    v.text = QString::fromLatin1(data);
    // Missing bytes count as 0, so a short value still shows in every view; the long view is
    // unsigned, like the word view.
    v.byteValue = QString::number(at(0));
    v.wordValue = QString::number(at(1) * 256 + at(0));
    v.longValue = QString::number(((at(3) * 256 + at(2)) * 256 + at(1)) * 256 + at(0));
    return v;
}

qint64 longViewValue(const QString& text)
{
    const double value = std::nearbyint(lenientValue(text));
    return qint64(std::clamp(value, -2147483648.0, 4294967295.0));
}

QString viewOverflowNote(DataView view, const QString& text)
{
    if (view == DataView::Hex) {
        // Pairs of hexadecimal digits and nothing else; the lenient reading of anything else
        // ("GG", "1 2 3") is shown, as it is what goes out.
        if (text.isEmpty() || (text.size() % 2 == 0 && isHexDigits(text)))
            return {};
        return QStringLiteral("%1 is not whole bytes in hexadecimal: %2 is sent")
            .arg(text.left(40), bytesToHex(hexToBytes(text)));
    }
    const double value = std::nearbyint(lenientValue(text));
    struct Range
    {
        double low;
        double high;
        int bytes;
        const char* unit;
    };
    Range range{0, 0, 0, ""};
    switch (view) {
    case DataView::Byte:
        range = {-128.0, 255.0, 1, "a byte"};
        break;
    case DataView::Word:
        range = {-32768.0, 65535.0, 2, "a word"};
        break;
    case DataView::Long:
        range = {-2147483648.0, 4294967295.0, 4, "a long"};
        break;
    default:
        return {};
    }
    if (value >= range.low && value <= range.high)
        return {};
    return QStringLiteral("%1 does not fit in %2: %3 is sent")
        .arg(text.trimmed(), QLatin1String(range.unit), bytesToHex(dataFromView(view, text)));
}

QByteArray dataFromView(DataView view, const QString& text)
{
    switch (view) {
    case DataView::Hex:
        return hexToBytes(text);
    case DataView::Text:
        return text.toLatin1();
    case DataView::Byte:
        return numberToText(roundToInt32(lenientValue(text)), 1);
    case DataView::Word:
        return numberToText(roundToInt32(lenientValue(text)), 2);
    case DataView::Long:
        return numberToText(longViewValue(text), 4);
    }
    return {};
}

} // namespace tessel

#include "numbers.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tessel {

namespace {

int digitValue(QChar c, int base)
{
    int v = -1;
    if (c >= QLatin1Char('0') && c <= QLatin1Char('9'))
        v = c.unicode() - '0';
    else if (c >= QLatin1Char('a') && c <= QLatin1Char('f'))
        v = c.unicode() - 'a' + 10;
    else if (c >= QLatin1Char('A') && c <= QLatin1Char('F'))
        v = c.unicode() - 'A' + 10;
    return v >= 0 && v < base ? v : -1;
}

double radixValue(QStringView digits, int base)
{
    quint64 value = 0;
    for (QChar c : digits) {
        const int d = digitValue(c, base);
        if (d < 0)
            break;
        value = (value * quint64(base) + quint64(d)) & 0xFFFFFFFFull;
    }
    return double(qint32(quint32(value)));
}

} // namespace

double lenientValue(QStringView text, bool* read)
{
    if (read)
        *read = false;
    qsizetype i = 0;
    while (i < text.size() && text[i].isSpace())
        ++i;
    text = text.mid(i);
    if (text.size() >= 2 && text[0] == QLatin1Char('&')) {
        const QChar kind = text[1].toUpper();
        const int radix = kind == QLatin1Char('H') ? 16 : kind == QLatin1Char('O') ? 8 : 0;
        if (radix == 0)
            return 0.0;
        bool digit = false;
        if (text.size() > 2)
            (void)text.mid(2, 1).toInt(&digit, radix);
        if (read)
            *read = digit;
        return radixValue(text.mid(2), radix);
    }
    // Longest prefix of the form [sign] digits [. digits]: an exponent is not read, so "1e3"
    // is 1.
    QString number;
    qsizetype p = 0;
    if (p < text.size() && (text[p] == QLatin1Char('+') || text[p] == QLatin1Char('-')))
        number += text[p++];
    bool digits = false;
    while (p < text.size() && text[p].isDigit() && text[p].unicode() < 128) {
        number += text[p++];
        digits = true;
    }
    if (p < text.size() && text[p] == QLatin1Char('.')) {
        number += text[p++];
        while (p < text.size() && text[p].isDigit() && text[p].unicode() < 128) {
            number += text[p++];
            digits = true;
        }
    }
    if (!digits)
        return 0.0;
    if (read)
        *read = true;
    bool ok = false;
    const double value = number.toDouble(&ok);
    return ok && std::isfinite(value) ? value : 0.0;
}

bool isHexDigits(QStringView text)
{
    return !text.isEmpty() &&
           std::all_of(text.begin(), text.end(), [](QChar c) { return digitValue(c, 16) >= 0; });
}

double lenientHexValue(QStringView text)
{
    return radixValue(text, 16);
}

namespace {
template <typename T>
T roundTo(double value)
{
    if (std::isnan(value))
        return 0;
    const double r = std::nearbyint(value); // the default rounding mode: halves to even
    if (r <= double(std::numeric_limits<T>::min()))
        return std::numeric_limits<T>::min();
    if (r >= double(std::numeric_limits<T>::max()))
        return std::numeric_limits<T>::max();
    return T(r);
}
} // namespace

qint16 roundToInt16(double value)
{
    return roundTo<qint16>(value);
}

qint32 roundToInt32(double value)
{
    return roundTo<qint32>(value);
}

QString hexField(quint32 value, int width)
{
    const QString digits = QString::number(value, 16).toUpper();
    if (digits.size() >= width)
        return digits.right(width);
    return QString(width - digits.size(), QLatin1Char('0')) + digits;
}

} // namespace tessel

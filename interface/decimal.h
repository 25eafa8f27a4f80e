#pragma once

#include <QtGlobal>

namespace qorcalib {

// Writes `value` in decimal at `out` (at most 20 characters) and returns the end. For what is
// written once per frame (trace lines, acquisition files, decoded texts), where formatting
// through QString::number or arg costs more than the rest of the line.
template<typename Char>
Char* writeDecimal(Char* out, qint64 value)
{
    quint64 magnitude = quint64(value);
    if (value < 0) {
        *out++ = Char('-');
        magnitude = 0 - magnitude;
    }
    Char digits[20];
    int count = 0;
    do {
        digits[count++] = Char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    while (count > 0)
        *out++ = digits[--count];
    return out;
}

} // namespace qorcalib

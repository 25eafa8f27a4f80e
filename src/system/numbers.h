#pragma once

#include <QString>
#include <QStringView>

namespace tessel {

// The program's lenient number conversion, used for every number a user types: leading blanks
// are skipped, then an optional sign and a decimal number (digits and one decimal point; no
// exponent: "1e3" is 1), or "&H" hexadecimal / "&O" octal digits; reading stops at the first
// character that does not belong. Empty or unreadable text is 0. Hexadecimal and octal
// values above 0x7FFFFFFF wrap to negative, as 32-bit two's complement.
// `read`, when given, says whether the text began with a number at all (a box holding "abc"
// reads as 0, which is rarely what was meant).
double lenientValue(QStringView text, bool* read = nullptr);
// The same for a hexadecimal text without prefix: the value of "&H" + text.
double lenientHexValue(QStringView text);
// Hexadecimal digits and nothing else, at least one: where a typo must be refused rather than
// read up to where it starts.
bool isHexDigits(QStringView text);

// Rounding to 16- and 32-bit integers: to nearest, halves to even; values beyond the range
// saturate at its ends.
qint16 roundToInt16(double value);
qint32 roundToInt32(double value);

// Upper-case hexadecimal, left-padded with "0" to width, or its rightmost width digits when
// longer.
QString hexField(quint32 value, int width);

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QString>

namespace tessel {

// Little-endian conversions between numbers, byte strings and hexadecimal text, as the SDO
// panel and the firmware tools use them.

// Hexadecimal text to a number, upper-cased, digit by digit; a character that is not a
// hexadecimal digit counts as -1 (deliberately, without an error). No prefix.
qint32 hexToNumber(const QString& text);
// The n least significant bytes of value, least significant first (n up to 4).
QByteArray numberToText(qint64 value, int n);
// n bytes from start as a sign-extended 32-bit value: one byte 0x80 is -128.
qint32 bytesToNumber(int n, const QByteArray& bytes, int start = 0);
// The first n characters' codes as bytes (missing ones 0), then bytesToNumber.
qint32 textToNumber(int n, const QByteArray& text);

// Data as hexadecimal pairs, upper case, no separators: "01AB00".
QString bytesToHex(const QByteArray& data);
// Hexadecimal pairs to data; each pair through hexToNumber, an odd last character alone.
QByteArray hexToBytes(const QString& text);

// The result text of an SDO transfer: empty, the abort code as 8 hexadecimal digits, or the
// error description.
QString sdoResultText(quint32 abortCode, const QString& error);

// The five views of the SDO panel's data; `source` is the view being edited (its text stays).
enum class DataView
{
    Hex = 1,
    Text = 2,
    Byte = 3,
    Word = 4,
    Long = 5
};
struct DataViews
{
    QString hex;
    QString text;
    QString byteValue;
    QString wordValue;
    QString longValue;
};
DataViews viewsOf(const QByteArray& data);
// The data an edit of one view stands for. The byte and word views keep the low bytes of what
// is typed; the long view takes -2147483648..4294967295, a negative number as its two's
// complement, so that what it shows (unsigned) can be typed back.
QByteArray dataFromView(DataView view, const QString& text);
qint64 longViewValue(const QString& text);
// Empty when the number typed into a byte, word or long view fits it (negative numbers down to
// the lowest two's complement); else what is sent instead, for the user to see.
QString viewOverflowNote(DataView view, const QString& text);

} // namespace tessel

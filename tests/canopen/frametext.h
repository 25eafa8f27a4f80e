#pragma once

#include "canmsg.h"

#include <QString>
#include <QtEndian>

namespace qorcalib::test {

// Frames as "ID:HEX" text, so that expected exchanges read like a bus trace.
inline QString hexOf(const CanFrame& f)
{
    return QStringLiteral("%1:%2")
        .arg(f.id, 3, 16, QLatin1Char('0'))
        .arg(QString::fromLatin1(
            QByteArray(reinterpret_cast<const char*>(f.data.data()), f.len).toHex(' ')));
}

// A frame written out by hand: its bytes in hexadecimal, at most 8.
inline CanFrame fromHex(quint16 id, const char* hex)
{
    CanFrame f;
    f.id = id;
    const QByteArray bytes = QByteArray::fromHex(hex);
    f.len = quint8(qMin<qsizetype>(bytes.size(), 8));
    for (int i = 0; i < f.len; ++i)
        f.data[i] = quint8(bytes[i]);
    return f;
}

// A value as the bus carries it: little-endian, its first `bytes` bytes.
inline QByteArray le(qint64 value, int bytes)
{
    QByteArray b(8, '\0');
    qToLittleEndian(value, b.data());
    return b.left(bytes);
}

} // namespace qorcalib::test

#pragma once

#include <QByteArray>
#include <QtEndian>

namespace qorcalib {

// A value of up to four bytes, little-endian, as an unsigned number; missing bytes are 0.
inline quint32 unsignedOf(const QByteArray& data)
{
    QByteArray padded = data.left(4);
    padded.append(4 - padded.size(), '\0');
    return qFromLittleEndian<quint32>(padded.constData());
}

// A node's object dictionary as its protocol engines see it: entries by index and sub-index,
// values little-endian as on the bus. The engines keep their parameters (PDO, EMCY) there, so
// that SDO reads and writes them like any entry and resets bring back their defaults.
class ObjectValues
{
public:
    virtual ~ObjectValues() = default;
    // An entry's value; empty when there is no such entry.
    virtual QByteArray value(quint16 index, quint8 subIndex) const = 0;
    // Sets an entry's value (nothing when there is no such entry).
    virtual void write(quint16 index, quint8 subIndex, const QByteArray& value) = 0;
    // An entry of up to four bytes as an unsigned number; 0 when there is no such entry.
    quint32 unsignedValue(quint16 index, quint8 subIndex) const
    {
        return unsignedOf(value(index, subIndex));
    }
};

} // namespace qorcalib

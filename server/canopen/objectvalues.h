#pragma once

#include <QByteArray>

namespace qorcalib {

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
};

} // namespace qorcalib

#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <optional>

namespace qorcalib {

// CANopen basic data types (CiA 301) the drive's dictionary uses.
enum class OdType : quint16
{
    Boolean = 0x0001,
    Integer8 = 0x0002,
    Integer16 = 0x0003,
    Integer32 = 0x0004,
    Unsigned8 = 0x0005,
    Unsigned16 = 0x0006,
    Unsigned32 = 0x0007,
    Real32 = 0x0008,
    VisibleString = 0x0009,
    OctetString = 0x000A,
    Domain = 0x000F,
    Integer64 = 0x0015,
    Unsigned64 = 0x001B,
};

// Bytes of a fixed-size type; 0 for strings and domains.
int odTypeSize(quint16 dataType);
bool odTypeIsSigned(quint16 dataType);

enum class OdAccess
{
    ReadOnly,
    WriteOnly,
    ReadWrite,
    Const
};

struct OdEntry
{
    quint16 index = 0;
    quint8 subIndex = 0;
    QString name;
    quint16 dataType = quint16(OdType::Unsigned32);
    OdAccess access = OdAccess::ReadWrite;
    QByteArray defaultValue; // little-endian, as on the bus
    QByteArray value;
    // The EDS's default when it names $NODEID (COB-IDs, 1014, ...): evaluated again with the
    // node-ID in force whenever the node takes one.
    QString nodeIdDefault;
    std::optional<qint64> lowLimit;
    std::optional<qint64> highLimit;
    bool pdoMapping = false; // the EDS's PDOMapping=1: the entry may be mapped into PDOs

    bool readable() const { return access != OdAccess::WriteOnly; }
    bool writable() const { return access == OdAccess::ReadWrite || access == OdAccess::WriteOnly; }
};

// The object dictionary of a simulated node, built from its EDS.
class ObjectDictionary
{
public:
    // Reads an EDS; "$NODEID" in default values stands for nodeId. Objects that cannot be read
    // are left out and named in warnings; a file that cannot be read at all gives an error.
    static std::optional<ObjectDictionary> fromEds(const QString& path, quint8 nodeId,
                                                   QString* error, QStringList* warnings = nullptr);

    const OdEntry* find(quint16 index, quint8 subIndex) const;
    OdEntry* find(quint16 index, quint8 subIndex);
    bool hasObject(quint16 index) const;
    int size() const { return int(m_entries.size()); }
    const QMap<quint32, OdEntry>& entries() const { return m_entries; }

    void insert(OdEntry entry);
    // Unsigned reading of a fixed-size entry; fallback when it is missing or not numeric.
    quint64 unsignedValue(quint16 index, quint8 subIndex, quint64 fallback = 0) const;
    // A fixed-size entry's default and value (a drive's own serial number, ...); false when
    // there is no such entry or the value does not fit it.
    bool setUnsigned(quint16 index, quint8 subIndex, quint64 value);
    // The node-ID in force (0 while the node has none): entries whose default names $NODEID
    // take their default again, evaluated with it.
    void setNodeId(quint8 nodeId);
    // Back to the default values for indices first..last: what resets and power loss do.
    void restoreDefaults(quint16 first, quint16 last);

    // Encodes a default-value text of the EDS for a type; nullopt when it does not fit.
    static std::optional<QByteArray> encodeValue(const QString& text, quint16 dataType,
                                                 quint8 nodeId);

private:
    static quint32 key(quint16 index, quint8 subIndex) { return (quint32(index) << 8) | subIndex; }
    QMap<quint32, OdEntry> m_entries;
};

} // namespace qorcalib

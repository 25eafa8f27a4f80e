#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

#include <array>
#include <memory>
#include <optional>

namespace tessel {

// What a frame is in CANopen's pre-defined connection set (CiA 301, LSS of CiA 305), and what
// it says. A frame whose length does not fit its service is "malformed", with the reason; an
// identifier no service uses is "unknown". Nothing is guessed: a PDO's bytes are shown as they
// are, an emergency code no table has is said to be unknown.
struct DecodedFrame
{
    QString service; // NMT, SYNC, EMCY, TIME, TPDO1..4, RPDO1..4, SDO request, SDO answer,
                     // heartbeat, boot-up, guarding, LSS, unknown
    int node = 0;    // the node the frame is from or for; 0 for the bus's own services
    QString meaning;
    bool malformed = false;
};

// What a device's EDS tells the decoder: the names of its entries, and what its PDOs carry by
// their default mappings. A PDO's mapping can be changed on the drive; these are the EDS's.
struct DeviceDictionary
{
    struct Field
    {
        quint16 index = 0;
        quint8 subIndex = 0;
        int bits = 0;
        bool isSigned = false;
    };
    QHash<quint32, QString> names;    // index << 8 | sub-index: "Object" or "Object/Sub-entry"
    std::array<QList<Field>, 4> tpdo; // TPDO1..4
    std::array<QList<Field>, 4> rpdo; // RPDO1..4
    QString name(quint16 index, quint8 subIndex) const
    {
        return names.value(quint32(index) << 8 | subIndex);
    }
    QList<Field>& mapping(bool transmit, int pdo) { return (transmit ? tpdo : rpdo)[size_t(pdo)]; }
    const QList<Field>& mapping(bool transmit, int pdo) const
    {
        return (transmit ? tpdo : rpdo)[size_t(pdo)];
    }
};

// The PDO an identifier of the pre-defined connection set is: TPDO1..4 at 180, 280, 380, 480 +
// node, RPDO1..4 at 200, 300, 400, 500 + node; pdo 0..3.
struct PdoIdentifier
{
    bool transmit = false;
    int pdo = 0;
    int node = 0;
};
std::optional<PdoIdentifier> pdoOfIdentifier(quint16 id);

// Decodes frames in bus order. SDO transfers are followed per node, so that the segments of a
// segmented or block transfer name the entry their transfer began with, and the transfer's end
// says how many bytes went.
class CanopenDecoder
{
public:
    DecodedFrame decode(quint16 id, bool remote, const QByteArray& data);
    // "SERVICE node N: MEANING" (no node for the bus's own services); "malformed" before the
    // reason of a malformed frame.
    static QString text(const DecodedFrame& frame);
    void clear() { m_transfers.clear(); }
    // With a dictionary, SDO transfers name their entry and PDOs show their values, for every
    // node (nodes of one kind share an EDS).
    void setDictionary(std::shared_ptr<const DeviceDictionary> dictionary)
    {
        m_dictionary = std::move(dictionary);
    }

private:
    struct Transfer
    {
        quint16 index = 0;
        quint8 subIndex = 0;
        bool started = false; // its first frame was seen
        bool upload = false;
        bool block = false;
        bool blockData = false; // the block's segments are on the bus
        bool lastBlock = false; // the segment marked last has been seen
        qint64 bytes = 0;       // carried so far
    };
    DecodedFrame sdo(int node, bool request, const QByteArray& data);
    QString entry(const Transfer& t) const;
    DecodedFrame pdo(const QString& service, int node, const QList<DeviceDictionary::Field>& map,
                     const QByteArray& data) const;

    QHash<int, Transfer> m_transfers;
    std::shared_ptr<const DeviceDictionary> m_dictionary;
};

// The field of `bits` bits (at most 64) from bit `first` of little-endian data, which must hold
// it: PDO fields need not start on a byte.
quint64 bitField(const char* data, int first, int bits);
// A field of `bits` bits read as two's complement.
qint64 signExtended(quint64 raw, int bits);

// The text of an emergency error code: the generic codes of CiA 301 and those of the drive
// profile (CiA 402), the most specific known; empty when no table has it.
QString emcyText(quint16 code);
// Bytes as the decoder shows them: "37 02 A0".
QString hexBytes(const QByteArray& data);
// The error register's bits by name ("generic, voltage").
QString errorRegisterText(quint8 bits);
// An NMT state as heartbeats and guarding answers carry it; empty when it is none.
QString nmtStateText(quint8 state);

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <array>

namespace qorcalib {

// A CAN frame inside the server and in the frame records exchanged with clients.
struct CanFrame
{
    quint16 id = 0; // 11-bit COB-ID
    quint8 len = 0; // 0..8
    bool remote = false;
    std::array<quint8, 8> data{};
    quint32 timeUs = 0; // receive time stamp, microseconds since the server started, wrapping

    static CanFrame make(quint16 id, std::initializer_list<quint8> bytes);
    bool operator==(const CanFrame& other) const;
};

// The most one SDO transfer of this system carries, either way: a value with its answer fits in
// one packet between server and client (at most 16 MiB).
constexpr qint64 kMaxSdoBytes = 15 * 1024 * 1024;

// The 16-byte record of FilteredRxCan, little-endian, no padding:
//   bytes 0-1  Id   int16
//   bytes 2-3  Len  int16
//   bytes 4-11 Data 8 bytes (bytes past Len are zero)
//   bytes 12-15 Time uint32
constexpr int kRecordSize = 16;
// Added to Id (in FilteredRxCan and SendTimed records alike): the frame is a remote request of
// Len bytes, and its Data are zero.
constexpr int kRemoteRecordFlag = 0x4000;
void appendRecord(QByteArray& records, const CanFrame& frame);
// The frame of record `index`; its length clamped to 0..8, a remote request marked as such.
CanFrame recordAt(const QByteArray& records, int index);
// The Len field of record `index` as it stands, for a receiver that must refuse a record whose
// length is not a frame's.
int recordLength(const QByteArray& records, int index);
inline int recordCount(const QByteArray& records)
{
    return int(records.size() / kRecordSize);
}

// Status bits of a controller as GetStatus reports them.
enum ControllerStatus : quint32
{
    StatusTransmitPending = 1,
    StatusOverrun = 2,
    StatusErrorWarning = 4,
    StatusBusOff = 8,
};

// A controller's transmit and receive error counters; -1 where it reports none. GetErrorCounters
// carries them in one number: the transmit counter in the low 16 bits, the receive counter in
// the high 16, or -1.
struct ErrorCounters
{
    int transmit = -1;
    int receive = -1;
    bool known() const { return transmit >= 0 && receive >= 0; }
    int packed() const
    {
        return known() ? int(quint32(transmit & 0xFFFF) | quint32(receive & 0xFFFF) << 16) : -1;
    }
    static ErrorCounters unpacked(int value)
    {
        if (value == -1)
            return {};
        return {int(quint32(value) & 0xFFFF), int(quint32(value) >> 16)};
    }
};

// Bit-rate list indices as the controller panel lists them; -1 for an index out of range.
constexpr int kBitRateCount = 9;
int bitRateOfIndex(int index);
QString bitRateText(int index);
// The index of a bit rate written as the list shows it ("500K") or in kbit/s ("500"); -1 if none.
int bitRateIndexOfText(const QString& text);

// Connection greeting (handshake.h): on a new connection the server writes
// "<kGreeting> <session>\n"; the client answers "<kAttach>\n" and from then on the connection
// carries Qt Remote Objects. TCP adds a challenge and its answer.
inline constexpr char kGreeting[] = "QORCALIB/2";
inline constexpr char kAttach[] = "ATTACH";
constexpr quint16 kDefaultTcpPort = 17420;

// "$XDG_RUNTIME_DIR/qorcalib", else "qorcalib" in a private folder under the temporary folder
// (privateSocketFolder). Empty, with *error set, when that folder is not safe to use.
QString defaultLocalSocketPath(QString* error = nullptr);

} // namespace qorcalib

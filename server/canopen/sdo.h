#pragma once

#include "canmsg.h"
#include "sdoabort.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <optional>

namespace qorcalib {

// CRC of SDO block transfers: CRC-16-CCITT, polynomial 0x1021, initial value 0, no reflection.
quint16 sdoCrc(const char* data, qsizetype size, quint16 crc = 0);
inline quint16 sdoCrc(const QByteArray& data) { return sdoCrc(data.constData(), data.size()); }

// SDO frames: COB-ID 0x600 + node from client to server, 0x580 + node back; always 8 bytes.
// Byte 0 is the command specifier; "m" below is the multiplexer, index (2 bytes, little-endian)
// and sub-index, in bytes 1-3.
//
//   client                                    server
//   initiate download  001 - n n e s, m, d    011 00000, m          (n: bytes without data in
//   download segment   000 t n n n c, 7 data  001 t 0000             d or the segment; e:
//   initiate upload    010 00000, m           010 - n n e s, m, d    expedited; s: size given;
//   upload segment     011 t 0000             000 t n n n c, 7 data  t: toggle; c: last)
//   abort              100 00000, m, code     (either side)
//
//   block download: initiate 110 00 cc s 0, m, size -> 101 00 sc 00, m, blksize;
//     segments c seqno(7 bits), 7 data; after blksize segments or the last one the server
//     acknowledges 101 000 10, ackseq, blksize; end 110 nnn 01, crc -> 101 000 01.
//   block upload: initiate 101 00 cc 00, m, blksize, pst -> 110 00 sc s 0, m, size;
//     start 101 000 11; the server sends segments; the client acknowledges 101 000 10,
//     ackseq, blksize; end 110 nnn 01, crc -> 101 000 01.
namespace sdo {
constexpr quint16 kRequestBase = 0x600;
constexpr quint16 kResponseBase = 0x580;
constexpr int kBlockSize = 127; // segments per sub-block that our side asks for

CanFrame frame(quint16 id, quint8 command, quint16 index, quint8 subIndex,
               const QByteArray& payload = {});
// A frame of the command byte alone, the rest reserved (zero): segment and block frames.
CanFrame commandFrame(quint16 id, quint8 command, quint8 byte1 = 0, quint8 byte2 = 0);
CanFrame abortFrame(quint16 id, quint16 index, quint8 subIndex, quint32 code);
inline quint16 indexOf(const CanFrame& f) { return quint16(f.data[1] | (f.data[2] << 8)); }
inline quint8 subIndexOf(const CanFrame& f) { return f.data[3]; }
quint32 u32At(const CanFrame& f, int offset);
QByteArray u32Bytes(quint32 value);

// The sending half of a block transfer (the client's in a download, the server's in an upload):
// sub-blocks of up to blockSize 7-byte segments numbered from 1, the last segment marked; an
// acknowledgement names the last segment taken, and what follows it is sent again, numbered
// from 1 in the next sub-block.
class BlockSender
{
public:
    void start(const QByteArray* data, int blockSize);
    void sendSubBlock(quint16 id, const std::function<void(const CanFrame&)>& send);
    // An acknowledgement (ackseq, new block size); an abort code when it cannot be right.
    quint32 acknowledge(int ackSeq, int blockSize);
    bool allTaken() const { return m_allTaken; }
    qsizetype bytesTaken() const { return m_offset; }
    // 110 nnn 01 with the CRC of the data (0 when no CRC was agreed).
    CanFrame endFrame(quint16 id, bool crc) const;

private:
    const QByteArray* m_data = nullptr;
    qsizetype m_offset = 0;
    qsizetype m_subBlockStart = 0;
    int m_blockSize = kBlockSize;
    int m_segments = 0;
    bool m_allTaken = false;
};

// The receiving half: takes segments in order, drops the others, and acknowledges at the end of
// each sub-block with the last segment taken in order.
class BlockReceiver
{
public:
    void start(int blockSize);
    // The acknowledgement to send when this segment ends a sub-block.
    std::optional<CanFrame> onSegment(const CanFrame& segment, quint16 id);
    // The last segment arrived in order and was acknowledged: the end frame comes next.
    bool complete() const { return m_complete; }
    qsizetype bytesReceived() const { return m_data.size(); }
    // The end frame: drops the unused bytes of the last segment and checks the CRC; an abort
    // code, or 0 with the data.
    quint32 finish(const CanFrame& end, bool crc, QByteArray* data);

private:
    QByteArray m_data;
    int m_blockSize = kBlockSize;
    int m_expectedSeq = 1;
    bool m_lastSeen = false;
    bool m_complete = false;
};
} // namespace sdo

} // namespace qorcalib

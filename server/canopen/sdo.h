#pragma once

#include "canmsg.h"

#include <QByteArray>
#include <QString>

namespace qorcalib {

// SDO abort codes (CiA 301), with their standard texts in sdoAbortText.
enum class SdoAbort : quint32 {
    None = 0,
    ToggleNotAlternated = 0x05030000,
    Timeout = 0x05040000,
    InvalidCommand = 0x05040001,
    InvalidBlockSize = 0x05040002,
    InvalidSequence = 0x05040003,
    CrcError = 0x05040004,
    OutOfMemory = 0x05040005,
    UnsupportedAccess = 0x06010000,
    WriteOnly = 0x06010001,
    ReadOnly = 0x06010002,
    NoObject = 0x06020000,
    CannotMap = 0x06040041,
    PdoTooLong = 0x06040042,
    ParameterIncompatible = 0x06040043,
    DeviceIncompatible = 0x06040047,
    Hardware = 0x06060000,
    TypeMismatch = 0x06070010,
    TooLong = 0x06070012,
    TooShort = 0x06070013,
    NoSubIndex = 0x06090011,
    InvalidValue = 0x06090030,
    ValueTooHigh = 0x06090031,
    ValueTooLow = 0x06090032,
    MaxBelowMin = 0x06090036,
    ResourceUnavailable = 0x060A0023,
    General = 0x08000000,
    DataTransfer = 0x08000020,
    LocalControl = 0x08000021,
    DeviceState = 0x08000022,
    NoDictionary = 0x08000023,
    NoData = 0x08000024,
};

QString sdoAbortText(quint32 code);

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
} // namespace sdo

} // namespace qorcalib

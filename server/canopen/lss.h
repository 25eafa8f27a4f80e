#pragma once

#include "canmsg.h"

#include <QString>

#include <array>

namespace qorcalib {

// Layer setting services (CiA 305). Every frame has 8 bytes; byte 0 is the command specifier
// (cs), numbers are little-endian.
//
//   master -> slaves on 0x7E5                         slave -> master on 0x7E4
//   04 mode                 switch state global        (no answer; mode 0 waiting, 1 configuration)
//   40..43 u32              switch state selective:    44 when all four matched, in order
//                           vendor, product, revision, serial
//   11 node                 configure node-ID          11 error          (1..127, FF unconfigures)
//   13 table index          configure bit timing       13 error          (table 0: the bit-rate
//   list) 15 delay(u16, ms)       activate bit timing        (no answer; the slave is silent for
//                                                      delay, switches, and is silent for delay)
//   17                      store configuration        17 error
//   5A 5B 5C 5D             inquire vendor, product,   same cs, u32
//                           revision, serial
//   5E                      inquire node-ID            5E node
//   46 47 u32, 48 49 u32,   identify remote slave:     4F from every slave in all ranges
//   4A 4B u32               vendor, product, revision
//                           low/high, serial low/high
//   4C                      identify non-configured    50 from every slave without a node-ID
//   51 id(u32) bit sub next Fastscan                   4F from every unconfigured slave whose
//                                                      id[sub] matches id in bits bit..31
//
// Error codes of the confirmations: 0 success; configure node-ID 1 out of range; configure
// bit timing 1 not supported; store 1 not supported, 2 storage access error; FF implementation
// specific, with that code in byte 2.
namespace lss {

constexpr quint16 kMasterId = 0x7E5;
constexpr quint16 kSlaveId = 0x7E4;
constexpr quint8 kUnconfigured = 0xFF;
// Fastscan's BitCheck value that restarts every slave's scan.
constexpr quint8 kFastscanReset = 0x80;

enum Command : quint8
{
    SwitchGlobal = 0x04,
    ConfigureNodeId = 0x11,
    ConfigureBitTiming = 0x13,
    ActivateBitTiming = 0x15,
    StoreConfiguration = 0x17,
    SwitchSelectiveVendor = 0x40,
    SwitchSelectiveProduct = 0x41,
    SwitchSelectiveRevision = 0x42,
    SwitchSelectiveSerial = 0x43,
    SwitchSelectiveAnswer = 0x44,
    IdentifyVendor = 0x46,
    IdentifyProduct = 0x47,
    IdentifyRevisionLow = 0x48,
    IdentifyRevisionHigh = 0x49,
    IdentifySerialLow = 0x4A,
    IdentifySerialHigh = 0x4B,
    IdentifyNonConfigured = 0x4C,
    IdentifySlaveAnswer = 0x4F,
    NonConfiguredAnswer = 0x50,
    Fastscan = 0x51,
    InquireVendor = 0x5A,
    InquireProduct = 0x5B,
    InquireRevision = 0x5C,
    InquireSerial = 0x5D,
    InquireNodeId = 0x5E,
};

// The LSS address: vendor-ID, product code, revision number and serial number (0x1018 sub 1..4).
using Address = std::array<quint32, 4>;

CanFrame frame(quint16 id, quint8 command, quint32 value = 0, quint8 byte5 = 0, quint8 byte6 = 0,
               quint8 byte7 = 0);
// A frame with byte 1 and 2 set (node-ID, table selector and index, error and specific error).
CanFrame frameBytes(quint16 id, quint8 command, quint8 byte1, quint8 byte2 = 0);
quint32 valueOf(const CanFrame& frame); // bytes 1..4

// The text of a confirmation's error code.
QString errorText(quint8 command, quint8 code, quint8 specific);

} // namespace lss
} // namespace qorcalib

#pragma once

#include "errorkind.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace tessel::cli {

// Exit codes of tessel-cli, for line scripts.
enum Exit
{
    kOk = 0,
    kSdoAbort = 1,     // the node aborted the transfer (code printed, 8 hex digits)
    kBadArguments = 2, // unknown command, malformed address, frame or value
    kUnreachable = 3,  // the CAN server cannot be reached (or started)
    kFailed = 4,       // the service ran and failed: no node answered, bus error, file error
    kNotSupported = 5, // the server does not offer the service
};

// The exit status for a failure of the server or the link, by its kind: a request the server
// found wrong is a bad argument like one found here; a refused or cancelled operation, a
// time-out or a bus error is a service that failed. (An SDO abort code is told apart by the
// command, which prints it.)
Exit exitStatusOf(qorcalib::ErrorKind kind);

// "NODE,INDEX[,SUB]" in hexadecimal, as the SDO panel writes it; with two fields the sub-index
// is the index's low byte, as there. Strict: anything but hexadecimal digits is refused.
struct Address
{
    int node = 0;
    int index = 0;
    int subIndex = 0;
};
std::optional<Address> parseAddress(const QString& text, QString* error);

// A frame in candump's syntax: "123#11223344", "123#11.22.33", "123#R" (remote, length 0),
// "123#R4" (remote, length 4). 11-bit identifiers only (at most three hexadecimal digits).
struct Frame
{
    quint16 id = 0;
    QByteArray data;
    bool remote = false;
    int length = 0;
};
std::optional<Frame> parseFrame(const QString& text, QString* error);
// Receive filters as candump takes them: "ID:MASK" (a frame passes when its identifier and ID
// agree in every bit of MASK) or "ID~MASK" (when they do not), several joined by ",", in
// hexadecimal; a frame passes when any filter lets it.
struct IdFilter
{
    quint16 id = 0;
    quint16 mask = 0;
    bool inverted = false;
};
std::optional<QList<IdFilter>> parseIdFilters(const QString& text, QString* error);
bool passes(const QList<IdFilter>& filters, quint16 id);

// "ID#DATA" back, as candump writes it.
QString frameText(quint16 id, const QByteArray& data, bool remote, int length);

// Typed values: u8 u16 u32 i8 i16 i32 (little-endian), str (the bytes as text), hex (the bytes
// as hexadecimal pairs, the default).
bool knownType(const QString& type);
std::optional<QByteArray> encodeValue(const QString& type, const QString& text, QString* error);
QString decodeValue(const QString& type, const QByteArray& data);
// Bytes of an integer type; 0 for str and hex, which take any length.
int typeBytes(const QString& type);

} // namespace tessel::cli

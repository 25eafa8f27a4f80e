#pragma once

#include <QtGlobal>

namespace qorcalib {

// What kind of failure a server's answer reports, beside its text. Clients react to the kind
// (an exit status, a retry, which message box), never to the wording, which may change. It
// travels as an int in every answer; 0 with an empty error.
enum class ErrorKind : int {
    None = 0,
    BadArgument = 1,  // the request is wrong: a value out of range, an unknown controller
    Busy = 2,         // a queue is full or another operation holds what the request needs
    TimeOut = 3,      // nothing answered in time
    Abort = 4,        // the node refused (SDO abort, LSS error) or the transfer was cancelled
    NotSupported = 5, // the server does not offer the service
    BusError = 6,     // the controller is stopped or bus off, or its device failed
    Unreachable = 7,  // no server answers (said by the client's side)
    Failed = 8,       // any other failure
};

// The kind of an answer's error: None without an error; a number this program does not know,
// or none at all beside an error, is a plain failure.
inline ErrorKind errorKindOf(bool failed, int wireKind)
{
    if (!failed)
        return ErrorKind::None;
    return wireKind > int(ErrorKind::None) && wireKind <= int(ErrorKind::Failed)
               ? ErrorKind(wireKind)
               : ErrorKind::Failed;
}

} // namespace qorcalib

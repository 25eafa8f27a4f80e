#pragma once

#include <QtGlobal>

namespace qorcalib {

// Microseconds since the server process started (monotonic). Frame time stamps are this value
// truncated to 32 bits.
qint64 serverTimeUs();

} // namespace qorcalib

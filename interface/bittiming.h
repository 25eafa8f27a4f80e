#pragma once

#include "canmsg.h"

namespace qorcalib {

// Bits a base-format frame occupies on the bus, stuff bits and the 3-bit intermission included:
// 47 + 8 * len unstuffed, at most 24 stuff bits more for 8 data bytes.
int frameBitCount(const CanFrame& frame);

// Time the frame takes on a bus at the given bit rate, in microseconds.
double frameDurationUs(const CanFrame& frame, int bitsPerSecond);

} // namespace qorcalib

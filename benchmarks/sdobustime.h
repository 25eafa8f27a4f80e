#pragma once

#include <QByteArray>

namespace qorcalib {

// The bus time of exactly the frames an SDO transfer of `data` needs (their stuffed bit lengths
// at that bit rate, no gap between frames), found by letting the client and server engines talk
// to each other directly.
double sdoBusTimeUs(bool upload, bool block, const QByteArray& data, int bitsPerSecond);

} // namespace qorcalib

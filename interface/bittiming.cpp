#include "bittiming.h"

#include <vector>

namespace qorcalib {

namespace {

void appendBits(std::vector<bool>& bits, quint32 value, int count)
{
    for (int i = count - 1; i >= 0; --i)
        bits.push_back((value >> i) & 1u);
}

quint16 crc15(const std::vector<bool>& bits)
{
    quint16 crc = 0;
    for (bool bit : bits) {
        const bool next = bit ^ bool((crc >> 14) & 1u);
        crc = quint16((crc << 1) & 0x7FFF);
        if (next)
            crc ^= 0x4599;
    }
    return crc;
}

} // namespace

int frameBitCount(const CanFrame& frame)
{
    // Start of frame to the end of the CRC sequence: the part the transmitter stuffs.
    std::vector<bool> bits;
    bits.reserve(100);
    bits.push_back(false); // start of frame
    appendBits(bits, frame.id & 0x7FFu, 11);
    bits.push_back(frame.remote); // RTR: recessive for a remote request
    bits.push_back(false);        // IDE: base format
    bits.push_back(false);        // r0
    const int len = qMin<int>(frame.len, 8);
    appendBits(bits, quint32(len), 4);
    if (!frame.remote)
        for (int i = 0; i < len; ++i)
            appendBits(bits, frame.data[i], 8);
    appendBits(bits, crc15(bits), 15);

    // After five equal bits the transmitter inserts one of the other level, which itself
    // starts the next run.
    int stuffBits = 0;
    int run = 0;
    bool last = true;
    for (bool bit : bits) {
        if (run > 0 && bit == last) {
            ++run;
        } else {
            last = bit;
            run = 1;
        }
        if (run == 5) {
            ++stuffBits;
            last = !last;
            run = 1;
        }
    }
    // CRC delimiter, ACK slot, ACK delimiter, end of frame (7), intermission (3).
    constexpr int trailer = 1 + 1 + 1 + 7 + 3;
    return int(bits.size()) + stuffBits + trailer;
}

double frameDurationUs(const CanFrame& frame, int bitsPerSecond)
{
    if (bitsPerSecond <= 0)
        return 0.0;
    return frameBitCount(frame) * 1e6 / bitsPerSecond;
}

} // namespace qorcalib

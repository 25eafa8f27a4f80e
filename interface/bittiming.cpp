#include "bittiming.h"

#include <array>

namespace qorcalib {

namespace {

// The stuffed part of a base-format frame: at most 1 + 11 + 3 + 4 + 64 + 15 = 98 bits. On the
// stack: every frame the simulated bus carries and the monitor counts is measured.
struct Bits
{
    std::array<bool, 98> bit{};
    int size = 0;
    void push(bool b) { bit[size_t(size++)] = b; }
    void append(quint32 value, int count)
    {
        for (int i = count - 1; i >= 0; --i)
            push((value >> i) & 1u);
    }
};

quint16 crc15(const Bits& bits)
{
    quint16 crc = 0;
    for (int i = 0; i < bits.size; ++i) {
        const bool bit = bits.bit[size_t(i)];
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
    Bits bits;
    bits.push(false); // start of frame
    bits.append(frame.id & 0x7FFu, 11);
    bits.push(frame.remote); // RTR: recessive for a remote request
    bits.push(false);        // IDE: base format
    bits.push(false);        // r0
    const int len = qMin<int>(frame.len, 8);
    bits.append(quint32(len), 4);
    if (!frame.remote)
        for (int i = 0; i < len; ++i)
            bits.append(frame.data[i], 8);
    bits.append(crc15(bits), 15);

    // After five equal bits the transmitter inserts one of the other level, which itself
    // starts the next run.
    int stuffBits = 0;
    int run = 0;
    bool last = true;
    for (int i = 0; i < bits.size; ++i) {
        const bool bit = bits.bit[size_t(i)];
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
    return bits.size + stuffBits + trailer;
}

double frameDurationUs(const CanFrame& frame, int bitsPerSecond)
{
    if (bitsPerSecond <= 0)
        return 0.0;
    return frameBitCount(frame) * 1e6 / bitsPerSecond;
}

} // namespace qorcalib

#include "bittiming.h"

#include <algorithm>
#include <array>

namespace qorcalib {

namespace {

// CRC-15 of the bus, a byte at a time for the data field.
constexpr quint16 kCrcPolynomial = 0x4599;

quint16 crcStep(quint16 crc, bool bit)
{
    const bool next = bit ^ bool((crc >> 14) & 1u);
    crc = quint16((crc << 1) & 0x7FFF);
    return next ? quint16(crc ^ kCrcPolynomial) : crc;
}

struct CrcTable
{
    std::array<quint16, 256> entry{};
    CrcTable()
    {
        for (int byte = 0; byte < 256; ++byte) {
            quint16 crc = 0;
            for (int i = 7; i >= 0; --i)
                crc = crcStep(crc, (byte >> i) & 1);
            entry[size_t(byte)] = crc;
        }
    }
};

quint16 crcByte(quint16 crc, quint8 byte)
{
    static const CrcTable table;
    return quint16(((crc << 8) ^ table.entry[((crc >> 7) ^ byte) & 0xFFu]) & 0x7FFF);
}

// Bit stuffing as a machine over (level, length of the run of that level so far, 0..4): a table
// takes it over a whole byte at once, giving the stuff bits inserted and the state after.
struct StuffTable
{
    static constexpr int kStates = 10;
    static constexpr int stateOf(bool level, int run) { return (level ? 5 : 0) + run; }
    // Low nibble: the state after the bits; high nibble: stuff bits inserted.
    std::array<std::array<quint8, 256>, kStates> entry{};
    static int step(int& state, bool bit)
    {
        bool level = state >= 5;
        int run = state % 5;
        int stuffed = 0;
        if (run > 0 && bit == level) {
            ++run;
        } else {
            level = bit;
            run = 1;
        }
        if (run == 5) {
            ++stuffed;
            level = !level;
            run = 1;
        }
        state = stateOf(level, run);
        return stuffed;
    }
    StuffTable()
    {
        for (int from = 0; from < kStates; ++from) {
            for (int byte = 0; byte < 256; ++byte) {
                int state = from;
                int stuffed = 0;
                for (int i = 7; i >= 0; --i)
                    stuffed += step(state, (byte >> i) & 1);
                entry[size_t(from)][size_t(byte)] = quint8(stuffed << 4 | state);
            }
        }
    }
};

} // namespace

int frameBitCount(const CanFrame& frame)
{
    // Every frame the simulated bus carries and the monitor counts is measured: the bits are
    // kept in one integer, and the CRC and the stuffing taken a byte at a time.
    //
    // Start of frame to the end of the CRC sequence: the part the transmitter stuffs.
    unsigned __int128 bits = 0;
    int size = 0;
    const auto append = [&](quint32 value, int count) {
        bits = (bits << count) | value;
        size += count;
    };
    append(0, 1); // start of frame
    append(frame.id & 0x7FFu, 11);
    append(frame.remote ? 1 : 0, 1); // RTR: recessive for a remote request
    append(0, 2);                    // IDE (base format) and r0
    const int len = qMin<int>(frame.len, 8);
    append(quint32(len), 4);
    // The 19 header bits: 3 one by one, then two whole bytes.
    quint16 crc = 0;
    for (int i = size - 1; i >= 16; --i)
        crc = crcStep(crc, bool((bits >> i) & 1u));
    crc = crcByte(crcByte(crc, quint8(bits >> 8)), quint8(bits));
    if (!frame.remote) {
        for (int i = 0; i < len; ++i) {
            append(frame.data[size_t(i)], 8);
            crc = crcByte(crc, frame.data[size_t(i)]);
        }
    }
    append(crc, 15);

    // After five equal bits the transmitter inserts one of the other level, which itself
    // starts the next run. The bus is recessive before the start of frame.
    static const StuffTable stuffing;
    int state = StuffTable::stateOf(true, 0);
    int stuffBits = 0;
    int at = size;
    for (; at >= 8; at -= 8) {
        const quint8 next = stuffing.entry[size_t(state)][quint8(bits >> (at - 8))];
        stuffBits += next >> 4;
        state = next & 0xF;
    }
    while (at > 0)
        stuffBits += StuffTable::step(state, bool((bits >> --at) & 1u));
    // CRC delimiter, ACK slot, ACK delimiter, end of frame (7), intermission (3).
    constexpr int trailer = 1 + 1 + 1 + 7 + 3;
    return size + stuffBits + trailer;
}

double frameDurationUs(const CanFrame& frame, int bitsPerSecond)
{
    if (bitsPerSecond <= 0)
        return 0.0;
    return frameBitCount(frame) * 1e6 / bitsPerSecond;
}

} // namespace qorcalib

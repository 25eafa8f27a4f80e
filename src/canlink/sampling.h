#pragma once

#include <QtGlobal>

namespace tessel {

// Reading an entry again and again at a period: the smallest period the bus carries, and when
// each read is due.

// The shortest period at which one node's entry can be read by expedited SDO and leave the bus
// at least half free for everything else: a request and an answer of 8 bytes with the most
// stuff bits, twice over, at the bit rate; never below kMinSamplePeriodMs.
constexpr int kMinSamplePeriodMs = 10;
int smallestSamplePeriodMs(int bitsPerSecond);

// Reads due at fixed times, 0, P, 2P ...: a read that ends late does not bring the next ones
// closer together to catch up, the times it missed are skipped (and counted), so the bus never
// gets a burst of reads and each value's time stays on the grid.
class SampleSchedule
{
public:
    explicit SampleSchedule(qint64 periodMs) : m_periodMs(qMax<qint64>(1, periodMs)) {}
    qint64 dueMs() const { return m_next * m_periodMs; }
    // A read ended at `nowMs` (on the schedule's clock): the next one is due at the first time
    // of the grid after the one just taken that is not past yet.
    void taken(qint64 nowMs);
    qint64 skipped() const { return m_skipped; }

private:
    qint64 m_periodMs;
    qint64 m_next = 0;
    qint64 m_skipped = 0;
};

} // namespace tessel

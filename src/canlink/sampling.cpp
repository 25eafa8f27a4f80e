#include "sampling.h"

#include "bittiming.h"

#include <cmath>

namespace tessel {

int smallestSamplePeriodMs(int bitsPerSecond)
{
    if (bitsPerSecond <= 0)
        return kMinSamplePeriodMs;
    // 8 data bytes that stuff the most: all bits equal.
    qorcalib::CanFrame worst;
    worst.id = 0x7FF;
    worst.len = 8;
    worst.data.fill(0xFF);
    const double exchangeUs = 2 * qorcalib::frameDurationUs(worst, bitsPerSecond);
    return qMax(kMinSamplePeriodMs, int(std::ceil(2 * exchangeUs / 1000.0)));
}

void SampleSchedule::taken(qint64 nowMs)
{
    ++m_next;
    if (nowMs > dueMs()) {
        const qint64 late = (nowMs - dueMs() - 1) / m_periodMs + 1;
        m_next += late;
        m_skipped += late;
    }
}

} // namespace tessel

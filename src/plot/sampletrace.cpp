#include "sampletrace.h"

#include <QIODevice>
#include <QLocale>

#include <algorithm>
#include <cmath>
#include <limits>

namespace tessel {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Reasons of gaps pushed out of the ring are forgotten in batches, not at every sample.
constexpr qint64 kReasonPruneEvery = 4096;
} // namespace

SampleRing::SampleRing(qsizetype capacity) : m_capacity(qMax<qsizetype>(1, capacity)) {}

void SampleRing::push(const Sample& s)
{
    Sample sample = s;
    if (!m_data.empty() && sample.t < last().t)
        sample.t = last().t;
    if (size() < m_capacity) {
        // Grown by doubling, but never past the ring's bound.
        if (m_data.size() == m_data.capacity())
            m_data.reserve(size_t(qMin(m_capacity, qMax<qsizetype>(1024, 2 * size()))));
        m_data.push_back(sample);
        return;
    }
    m_data[size_t(m_head)] = sample;
    m_head = (m_head + 1) % m_capacity;
    if (++m_dropped % kReasonPruneEvery == 0 && !m_reasons.isEmpty()) {
        const double oldest = at(0).t;
        while (!m_reasons.isEmpty() && m_reasons.firstKey() < oldest)
            m_reasons.erase(m_reasons.begin());
    }
}

void SampleRing::append(double t, double v)
{
    push({t, v});
}

void SampleRing::appendGap(double t, const QString& reason)
{
    push({t, kNaN});
    // The reason is kept once for a run of gaps that say the same.
    const double at = last().t;
    if (m_reasons.isEmpty() || m_reasons.last() != reason)
        m_reasons.insert(at, reason);
}

void SampleRing::clear()
{
    m_data.clear();
    m_data.shrink_to_fit();
    m_head = 0;
    m_dropped = 0;
    m_reasons.clear();
}

void SampleRing::setCapacity(qsizetype capacity)
{
    capacity = qMax<qsizetype>(1, capacity);
    const qsizetype keep = qMin(size(), capacity);
    std::vector<Sample> next;
    next.reserve(size_t(keep));
    for (qsizetype i = size() - keep; i < size(); ++i)
        next.push_back(at(i));
    m_dropped += size() - keep;
    m_data = std::move(next);
    m_head = 0;
    m_capacity = capacity;
}

qsizetype SampleRing::lowerBound(double t) const
{
    qsizetype lo = 0, hi = size();
    while (lo < hi) {
        const qsizetype mid = lo + (hi - lo) / 2;
        if (at(mid).t < t)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo;
}

QString SampleRing::gapReason(double t) const
{
    auto it = m_reasons.upperBound(t);
    if (it == m_reasons.begin())
        return {};
    return (--it).value();
}

const Sample* SampleRing::valueAt(double t) const
{
    qsizetype i = lowerBound(t);
    if (i < size() && at(i).t == t)
        return &at(i);
    return i == 0 ? nullptr : &at(i - 1);
}

QVector<QPointF> decimate(const SampleRing& ring, double t0, double t1, int columns)
{
    QVector<QPointF> out;
    if (ring.isEmpty() || columns < 1 || !(t1 > t0))
        return out;
    const qsizetype begin = qMax<qsizetype>(0, ring.lowerBound(t0) - 1);
    const qsizetype end = qMin(ring.size(), ring.lowerBound(t1) + 1);
    const double width = (t1 - t0) / columns;
    out.reserve(int(qMin<qsizetype>(end - begin, qsizetype(columns) * 4 + 8)));
    bool lastWasGap = false;
    // The stretch without a gap being scanned in the column: its first, lowest, highest, last.
    qsizetype first = -1, low = 0, high = 0, last = 0;
    double lowValue = 0, highValue = 0;
    const auto flush = [&] {
        if (first < 0)
            return;
        qsizetype picks[4] = {first, low, high, last};
        std::sort(picks, picks + 4);
        for (int k = 0; k < 4; ++k)
            if (k == 0 || picks[k] != picks[k - 1])
                out.append(QPointF(ring.at(picks[k]).t, ring.at(picks[k]).v));
        first = -1;
        lastWasGap = false;
    };
    // One column's samples, from..to-1.
    const auto scan = [&](qsizetype from, qsizetype to) {
        ring.forEach(from, to, [&](const Sample* p, qsizetype count, qsizetype index) {
            for (qsizetype k = 0; k < count; ++k) {
                const double v = p[k].v;
                if (v != v) {
                    flush();
                    if (!lastWasGap)
                        out.append(QPointF(p[k].t, v));
                    lastWasGap = true;
                } else if (first < 0) {
                    first = low = high = last = index + k;
                    lowValue = highValue = v;
                } else {
                    if (v < lowValue) {
                        lowValue = v;
                        low = index + k;
                    }
                    if (v > highValue) {
                        highValue = v;
                        high = index + k;
                    }
                    last = index + k;
                }
            }
        });
        flush();
    };
    qsizetype i = begin;
    // The sample before the range is a column of its own, as is the one after it.
    if (ring.at(i).t < t0) {
        scan(i, i + 1);
        ++i;
    }
    for (int c = 0; c < columns && i < end; ++c) {
        const qsizetype next = qMin(end, ring.lowerBound(t0 + (c + 1) * width));
        scan(i, next);
        i = qMax(i, next);
    }
    if (i < end)
        scan(i, end);
    return out;
}

QString sampleText(double v)
{
    if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 9007199254740992.0)
        return QString::number(qint64(v));
    return QString::number(v, 'g', QLocale::FloatingPointShortest);
}

bool writeSamplesCsv(QIODevice* device, const QVector<NamedRing>& traces, double t0, double t1)
{
    // A field with a comma or a quote is quoted, its quotes doubled.
    const auto field = [](QString text) {
        if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')))
            return text;
        return QLatin1Char('"') + text.replace(QLatin1Char('"'), QLatin1String("\"\"")) +
               QLatin1Char('"');
    };
    QVector<qsizetype> next, stop;
    for (const NamedRing& n : traces) {
        next.append(n.ring->lowerBound(t0));
        stop.append(n.ring->lowerBound(std::nextafter(t1, std::numeric_limits<double>::max())));
    }
    QByteArray out = "time_s,trace,value,error\n";
    for (;;) {
        int pick = -1;
        for (int k = 0; k < traces.size(); ++k)
            if (next[k] < stop[k] &&
                (pick < 0 || traces[k].ring->at(next[k]).t < traces[pick].ring->at(next[pick]).t))
                pick = k;
        if (pick < 0)
            break;
        const SampleRing& ring = *traces[pick].ring;
        const Sample& s = ring.at(next[pick]++);
        out += QString::number(s.t, 'f', 6).toUtf8() + ',' + field(traces[pick].name).toUtf8() +
               ',' + (s.isGap() ? QByteArray() : sampleText(s.v).toUtf8()) + ',' +
               (s.isGap() ? field(ring.gapReason(s.t)).toUtf8() : QByteArray()) + '\n';
        if (out.size() >= (1 << 20)) {
            if (device->write(out) != out.size())
                return false;
            out.clear();
        }
    }
    return device->write(out) == out.size();
}

} // namespace tessel

#pragma once

#include <QMap>
#include <QPointF>
#include <QString>
#include <QVector>

#include <vector>

class QIODevice;

namespace tessel {

// One value of a trace at a time (seconds on the plot's clock). A value that is not a number
// marks a gap: the source had no value then, and the curve is not drawn across it.
struct Sample
{
    double t = 0;
    double v = 0;
    bool isGap() const { return v != v; }
};

// A trace's samples, oldest first, in a ring of a fixed number of samples: once full, each new
// sample pushes out the oldest, so an hour of 1 kHz samples or a day of them takes the same
// memory. Times only go forward; a sample older than the newest is taken at the newest's time.
class SampleRing
{
public:
    static constexpr qsizetype kDefaultCapacity = 3'600'000; // an hour at 1 kHz
    static constexpr qsizetype kBytesPerSample = sizeof(Sample);

    explicit SampleRing(qsizetype capacity = kDefaultCapacity);
    void append(double t, double v);
    // No value at t, and why (said by the cursor over the gap).
    void appendGap(double t, const QString& reason);
    void clear();
    // Keeps the newest samples that fit.
    void setCapacity(qsizetype capacity);
    qsizetype capacity() const { return m_capacity; }
    qsizetype size() const { return qsizetype(m_data.size()); }
    bool isEmpty() const { return m_data.empty(); }
    const Sample& at(qsizetype i) const
    {
        const qsizetype n = size();
        return m_data[size_t(n < m_capacity ? i : (m_head + i) % n)];
    }
    const Sample& last() const { return at(size() - 1); }
    // The first sample at or after t (size() when none).
    qsizetype lowerBound(double t) const;
    // Calls visit(samples, count, index) for the samples first..end-1 in at most two stretches
    // that lie together in memory, so that a scan needs no index arithmetic per sample.
    template <typename Visit> void forEach(qsizetype first, qsizetype end, Visit visit) const
    {
        const qsizetype n = size();
        const qsizetype start = n < m_capacity ? 0 : m_head;
        while (first < end) {
            const qsizetype at = (start + first) % n;
            const qsizetype count = qMin(end - first, n - at);
            visit(m_data.data() + at, count, first);
            first += count;
        }
    }
    // Samples pushed out since the last clear.
    qint64 dropped() const { return m_dropped; }
    // Why there was no value at the gap at t (or the last one before t).
    QString gapReason(double t) const;
    // The last sample at or before t, if any.
    const Sample* valueAt(double t) const;

private:
    void push(const Sample& s);

    std::vector<Sample> m_data;
    qsizetype m_capacity;
    qsizetype m_head = 0; // the oldest sample once the ring is full
    qint64 m_dropped = 0;
    QMap<double, QString> m_reasons;
};

// The points to draw for the samples between t0 and t1 in `columns` columns of the screen: in
// each column the first, the smallest, the largest and the last value of each stretch without a
// gap, in their order of time, so that every extreme of the data is drawn however many samples a
// column holds; a gap is a point whose value is not a number. The samples just outside the range
// are included, so the curve runs to the edges.
QVector<QPointF> decimate(const SampleRing& ring, double t0, double t1, int columns);

// The traces' samples between t0 and t1 as CSV: "time_s,trace,value,error", one line a sample
// in order of time, values exactly as taken, a gap with its reason.
struct NamedRing
{
    QString name;
    const SampleRing* ring = nullptr;
};
bool writeSamplesCsv(QIODevice* device, const QVector<NamedRing>& traces, double t0, double t1);
// A value as the CSV writes it: whole numbers without a point, others as short as they stay
// exact.
QString sampleText(double v);

} // namespace tessel

#pragma once

#include "plotsource.h"
#include "sampletrace.h"

#include <QElapsedTimer>
#include <QObject>

#include <memory>
#include <vector>

class QIODevice;

namespace tessel {

class CanLink;
class LiveSampler;

// A plot's traces without their drawing: each source's values come into its ring as they come,
// on one clock (seconds since the set was made): the reads of the entries and fixture channels
// (while reads run, that is while the plot is open), the fields of the frames received, and a
// recording, read on a thread of its own so that nothing waits for a large file.
class TraceSet : public QObject
{
    Q_OBJECT
public:
    struct Trace
    {
        PlotSource source;
        SampleRing ring;
        std::unique_ptr<LiveSampler> sampler;
        int controller = 0;
        QString note; // what reading its file passed over
    };

    explicit TraceSet(CanLink* link, QObject* parent = nullptr);
    ~TraceSet() override;

    // Where a live source without "on" is read (the main window's selection).
    void setController(int controller) { m_controller = controller; }
    // The period of a periodic source without "every".
    void setPeriodMs(int periodMs) { m_periodMs = periodMs; }
    // The samples each trace keeps; the rings there are keep their newest.
    void setCapacity(qsizetype capacity);
    qsizetype capacity() const { return m_capacity; }

    // The source as its text says: a live one is added at once, a recording once read
    // (traceAdded, or failed with the reason). False with the reason when the text is no source.
    bool add(const QString& text, QString* error);
    void remove(int trace);
    // Every trace's values forgotten; the traces stay.
    void clearValues();
    int count() const { return int(m_traces.size()); }
    const Trace& at(int trace) const { return *m_traces[size_t(trace)]; }

    // The periodic sources are read from now on, until stopReads.
    void startReads();
    void stopReads();
    // Seconds on the set's clock.
    double now() const { return double(m_clock.nsecsElapsed()) / 1e9; }
    // The newest time of any trace, or now when one is live.
    double newest() const;
    bool hasLive() const;

signals:
    void traceAdded(int trace);
    void valuesChanged();
    // What the user is told beside the plot (a period too short, a recording read).
    void said(const QString& text);
    // A recording that could not be read.
    void failed(const QString& error);

private:
    void addTrace(const PlotSource& source, const QString& note, SampleRing ring);
    void startSampler(Trace* trace);
    void onFrames(int controller, const QByteArray& records, int count);
    double frameTime(quint32 serverUs);

    CanLink* m_link;
    std::vector<std::unique_ptr<Trace>> m_traces;
    QElapsedTimer m_clock;
    int m_controller = 0;
    int m_periodMs = 100;
    qsizetype m_capacity = SampleRing::kDefaultCapacity;
    bool m_reading = false;
    // The server's frame times on the set's clock: where they met, and the wraps since.
    bool m_anchored = false;
    double m_anchorClock = 0;
    qint64 m_anchorServer = 0;
    quint32 m_lastServerUs = 0;
    qint64 m_serverWraps = 0;
};

} // namespace tessel

#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <optional>

namespace qorcalib {
class ServerConnection;
}

namespace tessel {

class CanLink;

// Reading an entry again and again at a period: the smallest period the bus carries, and when
// each read is due.

// The shortest period at which one node's entry can be read by expedited SDO and leave the bus
// at least half free for everything else: a request and an answer of 8 bytes with the most
// stuff bits, twice over, at the bit rate; never below kMinSamplePeriodMs. Entries read at the
// same period on the same bus share that half.
constexpr int kMinSamplePeriodMs = 10;
int smallestSamplePeriodMs(int bitsPerSecond, int entries = 1);

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

// An entry's bytes as a number: by type (u8 u16 u32 i8 i16 i32), or unsigned of the entry's
// own size when no type is given; nullopt with *why when they are not one.
std::optional<double> sampleValue(const QByteArray& data, const QString& type, QString* why);

// Reads one value again and again on a SampleSchedule without waiting for it: an SDO entry of a
// node, or an analog channel of the bench fixture. Each read is asked of the server and its
// answer taken when it comes, so the window that shows the values goes on meanwhile; the server
// queues the SDO reads with every other transfer of all its sessions and serves them in turn.
// The next read is asked only after the last one ended. A read that fails is a gap with its
// reason (an abort, no answer, the server gone), and the next is asked at its time as usual.
class LiveSampler : public QObject
{
    Q_OBJECT
public:
    struct Target
    {
        bool analog = false;
        int controller = 0;
        int node = 0;
        int index = 0;
        int subIndex = 0;
        QString type;    // of the entry's value (see sampleValue)
        int channel = 0; // of the fixture, when analog
        bool acquireFirst = false; // the board latches its readings: acquire before each read
    };
    // Times are read from `clock`, which the caller started (the plot's shared clock).
    LiveSampler(CanLink* link, const Target& target, int periodMs, const QElapsedTimer* clock,
                QObject* parent = nullptr);
    ~LiveSampler() override;
    void start();
    // No read is asked any more; an SDO read still running is cancelled on the bus.
    void stop();
    qint64 skipped() const { return m_schedule.skipped(); }
    int periodMs() const { return m_periodMs; }

signals:
    // A value, at the time its read was asked (seconds on the clock).
    void sampled(double t, double value);
    void failed(double t, const QString& reason);

private:
    void ask();
    void finish(std::optional<double> value, const QString& reason);
    void onDone(int requestId, const QByteArray& data, quint32 abortCode, const QString& error);
    void release();

    CanLink* m_link;
    Target m_target;
    int m_periodMs;
    const QElapsedTimer* m_clock;
    SampleSchedule m_schedule;
    qint64 m_startMs = 0;
    double m_askedAt = 0;
    bool m_running = false;
    bool m_pending = false;
    int m_requestId = -1; // of the SDO read running; -1 before the server numbered it
    QPointer<qorcalib::ServerConnection> m_connection;
    QList<QMetaObject::Connection> m_watch;
    QTimer m_due;
    QTimer m_watchdog;
};

} // namespace tessel

#pragma once

#include "canmsg.h"
#include "tracefile.h"

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <memory>

namespace tessel {

// A frame of the replay with the server time at which it is to go out.
struct ScheduledFrame
{
    TraceRecord record;
    quint32 serverUs = 0;
    // As the server takes it: timeUs is the time it is due at.
    qorcalib::CanFrame busFrame() const;
};

// Replays a trace file: its frames go out with the spacing they were recorded with (divided by
// the speed factor). They are handed to the server a little ahead, each with its time on the
// server's clock, so that neither this program nor the server being held up for a moment moves
// a frame; the file is read as the frames come due, so a file of any size takes the same memory.
class TraceReplay : public QObject
{
    Q_OBJECT
public:
    // The first frame goes out this long after the start.
    static constexpr qint64 kLeadUs = 20000;
    // Frames are handed over once they are due within this time...
    static constexpr qint64 kAheadUs = 100000;
    // ...but no more than this many at a time wait on the server.
    static constexpr int kMaxAhead = 200;
    // A frame handed over less than this before its time is late: the rest of the file moves
    // with it, keeping its spacing, rather than rushing out what is overdue back to back.
    static constexpr qint64 kMarginUs = 5000;
    static constexpr int kTickMs = 10;

    // The server's time now; empty on success.
    std::function<QString(quint32* serverUs)> serverTime;
    // Queues frames on the server, each to go out at its serverUs at the earliest; returns how
    // many the server took. When it did not take them all, the replay ends with the error
    // once those it took are out.
    std::function<int(const QList<ScheduledFrame>&, QString* error)> sendTimed;
    // Takes back the frames still waiting on the server (the replay was stopped); how many
    // there were, -1 when the server could not say.
    std::function<int()> dropQueued;
    // A frame's time has come (shortly after it went out, within a tick).
    std::function<void(const ScheduledFrame&)> frameDue;

    // False, with the reason, when the file cannot be opened, its format is not known or the
    // server's time cannot be read.
    bool start(const QString& fileName, double speed, QString* error);
    // Stops at once: the frames already handed over are taken back.
    void stop();
    bool isRunning() const { return m_reader != nullptr || !m_ahead.empty(); }
    // Frames handed to the server and not taken back.
    qint64 sent() const { return m_sent; }
    // Lines of the file passed over: error frames and comments.
    qint64 skippedErrorFrames() const { return m_errorFrames; }
    qint64 skippedComments() const { return m_comments; }

signals:
    // The end, when the last frame handed over is due: error empty when the whole file went
    // out (or it was stopped); otherwise the bad line or the refused frame.
    void finished(const QString& error, qint64 frames);

private:
    struct Ahead
    {
        ScheduledFrame frame;
        qint64 localUs;
    };
    void tick();
    qint64 localDueUs(const TraceRecord& record) const;
    void closeFile();
    void finish(const QString& error);
    void announceDue(qint64 nowUs);

    QFile m_file;
    std::unique_ptr<TraceReader> m_reader;
    TraceRecord m_next; // read, not yet handed over, while the file is open
    QString m_error;    // the bad line, or the frame the server refused
    qint64 m_firstUs = 0;
    qint64 m_shiftUs = 0; // how far the schedule moved for hold-ups and stamps gone back
    bool m_haveLast = false;
    qint64 m_lastStampUs = 0; // the file's time of the frame handed over last
    qint64 m_lastDueUs = 0;   // and its place in the schedule
    double m_speed = 1.0;
    quint32 m_serverStartUs = 0;
    QElapsedTimer m_clock;
    QTimer m_timer;
    std::deque<Ahead> m_ahead; // handed over, not yet due
    qint64 m_sent = 0;
    qint64 m_errorFrames = 0;
    qint64 m_comments = 0;
};

} // namespace tessel

#pragma once

#include "canmsg.h"
#include "tracefile.h"

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>

#include <QMap>

#include <deque>
#include <functional>
#include <memory>
#include <set>

namespace tessel {

// A frame of the replay with the controller and the server time at which it is to go out.
struct ScheduledFrame
{
    TraceRecord record;
    quint32 serverUs = 0;
    int controller = 0;
    // As the server takes it: timeUs is the time it is due at.
    qorcalib::CanFrame busFrame() const;
};

// How a trace file is replayed.
struct ReplayOptions
{
    // The recorded spacing is divided by this.
    double speed = 1.0;
    // The file is sent this many times, each pass right after the one before.
    int loops = 1;
    // Above 0, the recorded times are left aside: frames go back to back at the pace of a bus
    // of this many bits a second.
    int paceBitsPerSecond = 0;
    // The file's channel (canN: N) to the controller its frames go out on; frames of channels
    // not named are passed over. Empty: every frame goes out on `controller`.
    QMap<int, int> channels;
    int controller = 0;
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
    // Queues frames on the server's controller, each to go out at its time at the earliest;
    // returns how many the server took. When it did not take them all, the replay ends with
    // the error once those it took are out.
    std::function<int(int controller, const QVector<qorcalib::CanFrame>&, QString* error)>
        sendTimed;
    // Takes back the frames still waiting on the controller (the replay was stopped); how
    // many there were, -1 when the server could not say.
    std::function<int(int controller)> dropQueued;
    // A frame's time has come (shortly after it went out, within a tick).
    std::function<void(const ScheduledFrame&)> frameDue;

    // False, with the reason, when the file cannot be opened, its format is not known or the
    // server's time cannot be read.
    bool start(const QString& fileName, const ReplayOptions& options, QString* error);
    // Stops at once: the frames already handed over are taken back.
    void stop();
    bool isRunning() const { return m_reader != nullptr || !m_ahead.empty(); }
    // Frames handed to the server and not taken back.
    qint64 sent() const { return m_sent; }
    // Lines of the file passed over: error frames and comments.
    qint64 skippedErrorFrames() const { return m_errorFrames; }
    qint64 skippedComments() const { return m_comments; }
    // Frames of channels the channel map does not name.
    qint64 skippedUnmapped() const { return m_unmapped; }

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
    // The next frame to send into m_next; false at the end of the last pass or at a bad line
    // (m_error).
    bool readNext();
    qint64 localDueUs(const TraceRecord& record) const;
    void closeFile();
    void countSkipped();
    // Hands the frames to the server, controller by controller; how many it took.
    int handOver(const QList<ScheduledFrame>& batch, QString* error);
    void finish(const QString& error);
    void announceDue(qint64 nowUs);

    QFile m_file;
    TraceFormat m_format = TraceFormat::CandumpLog;
    std::unique_ptr<TraceReader> m_reader;
    ReplayOptions m_options;
    int m_pass = 0;
    qint64 m_passFrames = 0; // frames of this pass to send
    double m_paceUs = 0; // the next frame's time when the recorded times are left aside
    TraceRecord m_next;  // read, not yet handed over, while the file is open
    int m_nextController = 0;
    std::set<int> m_controllers; // those frames went to: a stop takes back from each
    QString m_error;    // the bad line, or the frame the server refused
    qint64 m_firstUs = 0;
    qint64 m_shiftUs = 0; // how far the schedule moved for hold-ups and stamps gone back
    bool m_haveLast = false;
    qint64 m_lastStampUs = 0; // the file's time of the frame handed over last
    qint64 m_lastDueUs = 0;   // and its place in the schedule
    quint32 m_serverStartUs = 0;
    QElapsedTimer m_clock;
    QTimer m_timer;
    std::deque<Ahead> m_ahead; // handed over, not yet due
    qint64 m_sent = 0;
    qint64 m_errorFrames = 0;
    qint64 m_comments = 0;
    qint64 m_unmapped = 0;
};

} // namespace tessel

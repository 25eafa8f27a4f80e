#pragma once

#include "canchannel.h"
#include "lssmaster.h"
#include "requestqueue.h"

#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <optional>

namespace qorcalib {

class ServerCore;

// Runs the LSS services sessions ask for on one controller, one after another.
//
// Inquire finds the node on the controller: at the controller's own bit rate first, then at the
// other rates of the list. After each switch of rate it lets one answer window pass before it
// asks: an answer that comes that late belongs to the rate before and is not counted for the
// new one. At each rate it asks for unconfigured nodes and, when any answer,
// isolates one with Fastscan (several would answer every question at once); otherwise it asks
// the configured nodes for their node-ID. It reports the node-ID (FF: none configured yet) and
// the rate at which the node answered, and puts the controller back to its own rate.
//
// Configure gives a node that waits for a node-ID (the one Fastscan isolates) a node-ID and a
// bit rate, stores both and activates the new bit timing; then, at the new rate, it
// switches the node back to waiting, so that a node that had no node-ID starts up with the new
// one, and puts the controller back to its own rate.
class LssRunner : public QObject
{
    Q_OBJECT
public:
    static inline const QString kNoneWaiting =
        QStringLiteral("no drive on this controller waits for a node-ID; configured drives are "
                       "left as they are");
    static constexpr int kTimeoutMs = 25;
    static constexpr int kMinTimeoutMs = 1;
    static constexpr int kMaxTimeoutMs = 5000;
    struct Outcome
    {
        QString error; // empty on success
        quint8 nodeId = 0;
        int bitRateIndex = -1;
        ErrorKind kind = ErrorKind::None;
    };
    struct Request
    {
        quint64 session = 0;
        int requestId = 0;
        bool configure = false;
        quint8 nodeId = 0;
        int bitRateIndex = 0;
        int timeoutMs = kTimeoutMs; // how long each service waits for answers
        std::function<void(const Outcome&)> done;
    };
    static constexpr int kMaxWaitingPerSession = 4;
    static constexpr quint16 kSwitchDelayMs = 50;

    LssRunner(ServerCore* core, int controller, QObject* parent = nullptr);

    // Empty when queued, else why not.
    QString submit(Request request);
    // The session went away: its waiting requests go, its running one reports to nobody.
    void dropSession(quint64 session);
    // Ends the session's request with "LSS service cancelled" (the controller gets its own rate
    // back); false when this controller has no such request.
    bool cancel(quint64 session, int requestId);

private:
    using Next = std::function<void(const LssMaster::Result&)>;
    void startNext();
    void begin();
    // Runs next after one answer window in which the master listens to nothing; dropped when
    // the request has ended meanwhile.
    void afterQuiet(std::function<void()> next);
    void run(const std::function<void()>& service, Next next);
    void setRate(int bitRateIndex);
    void finish(Outcome outcome);
    static Outcome failure(ErrorKind kind, const QString& error)
    {
        Outcome o;
        o.error = error;
        o.kind = kind;
        return o;
    }
    void inquireAt(size_t i);
    void askAt(size_t i);
    void inquireConfigured(size_t i);
    void configureSelected();
    void onFrames(const QVector<BusFrame>& frames);
    void rearm();

    ServerCore* m_core;
    int m_controller;
    CanChannel* m_channel;
    LssMaster m_master;
    QTimer m_timer;
    RequestQueue<Request> m_queue;
    std::optional<Request> m_current;
    std::vector<int> m_rates; // the order in which inquire tries the rates
    int m_ownRate = 0;
    quint64 m_generation = 0; // counts finished requests; a late step of an earlier one is dropped
    bool m_wasRunning = false;
};

} // namespace qorcalib

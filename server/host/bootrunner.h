#pragma once

#include "bootcatch.h"
#include "canchannel.h"
#include "errorkind.h"
#include "requestqueue.h"

#include <QObject>
#include <QTimer>

#include <functional>
#include <optional>

namespace qorcalib {

class ServerCore;

// Runs the boot catches that sessions ask for on one controller, one after another. A catch
// runs at the bit rate it names: a controller at another rate is switched to it (every session
// hears of it) and stays there, since the caught boot loader talks at that rate; a stopped
// controller is started. The catch ends with the first boot loader that answers (the named
// node, or any when the node is 0) or, without one, after the server's catch time with
// version 0.
class BootRunner : public QObject
{
    Q_OBJECT
public:
    struct Outcome
    {
        QString error; // empty when the catch ran, caught or not
        quint8 node = 0;
        quint32 version = 0; // 0: no boot loader answered
        ErrorKind kind = ErrorKind::None;
    };
    struct Request
    {
        quint64 session = 0;
        int requestId = 0;
        quint8 node = 0;
        int bitRateIndex = 0;
        std::function<void(const Outcome&)> done;
    };
    static constexpr int kDefaultCatchMs = 5000;
    static constexpr int kMaxWaitingPerSession = 2;

    BootRunner(ServerCore* core, int controller, int catchMs, QObject* parent = nullptr);

    // Empty when queued, else why not.
    QString submit(Request request);
    void dropSession(quint64 session);
    // Ends the session's catch with "boot catch cancelled"; false when this controller has no
    // such request.
    bool cancel(quint64 session, int requestId);

private:
    void startNext();
    void finish(const Outcome& outcome);
    void onFrames(const QVector<BusFrame>& frames);
    void rearm();

    ServerCore* m_core;
    int m_controller;
    int m_catchMs;
    CanChannel* m_channel;
    BootCatcher m_catcher;
    QTimer m_timer;
    RequestQueue<Request> m_queue;
    std::optional<Request> m_current;
    quint64 m_generation = 0; // counts finished requests; a late end of an earlier one is dropped
};

} // namespace qorcalib

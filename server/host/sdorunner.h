#pragma once

#include "canchannel.h"
#include "requestqueue.h"
#include "sdoclient.h"

#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <optional>

namespace qorcalib {

// Runs the SDO transfers that sessions ask for on one controller, one after another (two
// transfers to the same node at once would share its COB-IDs). Sessions take turns, one
// transfer each, in the order of their numbers, so that a session with many requests waiting
// delays another's by one transfer at most; each session may have kMaxWaitingPerSession
// requests waiting. Its frames go out as service frames of the asking session; the node's
// answers to a running transfer count as that session's too, so other sessions see them only
// when they receive everything.
class SdoRunner : public QObject
{
    Q_OBJECT
public:
    struct Request
    {
        quint64 session = 0;
        int requestId = 0;
        bool upload = true;
        quint8 node = 0;
        quint16 index = 0;
        quint8 subIndex = 0;
        QByteArray data;
        int timeoutMs = 1000;
        std::function<void(double)> progress;
        std::function<void(const SdoClient::Result&)> done;
    };

    static constexpr int kMaxWaitingPerSession = 16;

    explicit SdoRunner(CanChannel* channel, QObject* parent = nullptr);

    // Empty when queued, else why not (the session has too many requests waiting).
    QString submit(Request request);
    void setBlockTransfer(bool allowed) { m_client.setBlockTransfer(allowed); }
    // The session went away: its waiting transfers are dropped, its running one is aborted on
    // the bus (abort code 08000000) and reports to nobody.
    void dropSession(quint64 session);
    // Ends the session's request: a running transfer with an abort on the bus (08000000), a
    // waiting one at once with the error "SDO transfer cancelled". False when this controller
    // has no such request.
    bool cancel(quint64 session, int requestId);
    // The session whose transfer a received frame belongs to, or 0.
    quint64 ownerOf(const CanFrame& frame) const;

private:
    void startNext();
    void onFrames(const QVector<BusFrame>& frames);
    void complete(const SdoClient::Result& result);
    void rearm();

    CanChannel* m_channel;
    SdoClient m_client;
    QTimer m_timer;
    RequestQueue<Request> m_queue;
    std::optional<Request> m_current;
    // The answers of a transfer that just ended still belong to it for the rest of the batch.
    quint64 m_owner = 0;
    quint64 m_lastServed = 0;
    quint16 m_responseId = 0;
};

} // namespace qorcalib

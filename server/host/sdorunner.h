#pragma once

#include "canchannel.h"
#include "requestqueue.h"
#include "sdoclient.h"

#include <QObject>
#include <QTimer>

#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace qorcalib {

// Runs the SDO transfers that sessions ask for on one controller. A node's SDO channel carries
// one transfer at a time (two would share its COB-IDs), but transfers to different nodes run
// at the same time: a node that does not answer holds up only the transfers waiting for it.
// Sessions take turns, one transfer each, in the order of their numbers, so that a session with
// many requests waiting delays another's by one transfer at most; each session may have
// kMaxWaitingPerSession requests waiting. Its frames go out as service frames of the asking
// session; the node's answers to a running transfer count as that session's too, so other
// sessions see them only when they receive everything.
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
    ~SdoRunner() override;

    // Empty when queued, else why not (the session has too many requests waiting).
    QString submit(Request request);
    void setBlockTransfer(bool allowed) { m_blockTransfer = allowed; }
    // The session went away: its waiting transfers are dropped, its running ones are aborted on
    // the bus (abort code 08000000) and report to nobody.
    void dropSession(quint64 session);
    // Ends the session's request: a running transfer with an abort on the bus (08000000), a
    // waiting one at once with the error "SDO transfer cancelled". False when this controller
    // has no such request.
    bool cancel(quint64 session, int requestId);
    // The session whose transfer a received frame belongs to, or 0.
    quint64 ownerOf(const CanFrame& frame) const;

private:
    // The SDO channel of one node: its client, and the transfer it runs.
    struct NodeChannel
    {
        explicit NodeChannel(std::function<void(const CanFrame&)> send) : client(std::move(send)) {}
        SdoClient client;
        QTimer timer;
        std::optional<Request> current;
        // The answers of a transfer that just ended still belong to it for the rest of the
        // batch.
        quint64 owner = 0;
    };

    NodeChannel& channelOf(quint8 node);
    bool isFree(quint8 node) const;
    void send(NodeChannel& channel, const CanFrame& frame);
    void startNext();
    void start(NodeChannel& channel, Request request);
    void onFrames(const QVector<BusFrame>& frames);
    void complete(NodeChannel& channel, const SdoClient::Result& result);
    void rearm(NodeChannel& channel);

    CanChannel* m_channel;
    bool m_blockTransfer = true;
    RequestQueue<Request> m_queue;
    std::map<quint8, std::unique_ptr<NodeChannel>> m_nodes; // made on a node's first transfer
    quint64 m_lastServed = 0;
};

} // namespace qorcalib

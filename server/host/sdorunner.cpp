#include "sdorunner.h"

#include "serverclock.h"

#include <algorithm>

namespace qorcalib {

SdoRunner::SdoRunner(CanChannel* channel, QObject* parent) : QObject(parent), m_channel(channel)
{
    connect(m_channel, &CanChannel::framesReceived, this, &SdoRunner::onFrames);
}

SdoRunner::~SdoRunner() = default;

SdoRunner::NodeChannel& SdoRunner::channelOf(quint8 node)
{
    auto& slot = m_nodes[node];
    if (slot)
        return *slot;
    slot = std::make_unique<NodeChannel>(
        [this, node](const CanFrame& frame) { send(*m_nodes.at(node), frame); });
    NodeChannel* c = slot.get();
    c->client.done = [this, c](const SdoClient::Result& result) { complete(*c, result); };
    c->client.progress = [c](double fraction) {
        if (c->current && c->current->progress)
            c->current->progress(fraction);
    };
    c->timer.setSingleShot(true);
    c->timer.setTimerType(Qt::PreciseTimer);
    connect(&c->timer, &QTimer::timeout, this, [this, c] {
        c->client.onTimer(serverTimeUs());
        rearm(*c);
    });
    return *c;
}

void SdoRunner::send(NodeChannel& c, const CanFrame& frame)
{
    QString error;
    const quint64 session = c.current ? c.current->session : 0;
    if (m_channel->transmit(frame, session | kServiceOrigin, &error) || !c.current)
        return;
    // The controller cannot send: the transfer ends here with the reason.
    SdoClient::Result result;
    result.error = error;
    result.kind = ErrorKind::BusError;
    NodeChannel* channel = &c;
    QMetaObject::invokeMethod(
        this,
        [this, channel, result] {
            if (channel->current && channel->client.isBusy()) {
                channel->client.cancel();
                complete(*channel, result);
            }
        },
        Qt::QueuedConnection);
}

bool SdoRunner::isFree(quint8 node) const
{
    const auto it = m_nodes.find(node);
    return it == m_nodes.end() || !it->second->current;
}

QString SdoRunner::submit(Request request)
{
    if (m_queue.waiting(request.session) >= kMaxWaitingPerSession)
        return QStringLiteral("too many SDO requests waiting on this controller (at most %1)")
            .arg(kMaxWaitingPerSession);
    m_queue.push(std::move(request));
    QMetaObject::invokeMethod(this, &SdoRunner::startNext, Qt::QueuedConnection);
    return {};
}

void SdoRunner::dropSession(quint64 session)
{
    m_queue.drop(session);
    for (auto& [node, c] : m_nodes) {
        if (!c->current || c->current->session != session)
            continue;
        c->current->done = nullptr;
        c->current->progress = nullptr;
        if (c->client.isBusy())
            c->client.abort(quint32(SdoAbort::General));
    }
}

bool SdoRunner::cancel(quint64 session, int requestId)
{
    for (auto& [node, c] : m_nodes) {
        if (c->current && c->current->session == session && c->current->requestId == requestId) {
            if (c->client.isBusy())
                c->client.abort(quint32(SdoAbort::General));
            return true;
        }
    }
    SdoClient::Result result;
    result.error = QStringLiteral("SDO transfer cancelled");
    result.kind = ErrorKind::Abort;
    return m_queue.cancelWaiting(session, requestId, result);
}

quint64 SdoRunner::ownerOf(const CanFrame& frame) const
{
    if (frame.id <= sdo::kResponseBase || frame.id > sdo::kResponseBase + 127)
        return 0;
    const auto it = m_nodes.find(quint8(frame.id - sdo::kResponseBase));
    return it == m_nodes.end() ? 0 : it->second->owner;
}

void SdoRunner::startNext()
{
    while (!m_queue.empty()) {
        std::optional<Request> next =
            m_queue.takeInTurn(m_lastServed, [this](const Request& r) { return isFree(r.node); });
        if (!next)
            return;
        m_lastServed = next->session;
        start(channelOf(next->node), std::move(*next));
    }
}

void SdoRunner::start(NodeChannel& c, Request request)
{
    c.current = std::move(request);
    c.owner = c.current->session;
    if (!m_channel->isRunning()) {
        SdoClient::Result result;
        result.error = QStringLiteral("controller %1 is not started").arg(m_channel->name());
        result.kind = ErrorKind::BusError;
        complete(c, result);
        return;
    }
    c.client.setBlockTransfer(m_blockTransfer);
    c.client.setTimeoutMs(c.current->timeoutMs);
    const qint64 now = serverTimeUs();
    if (c.current->upload)
        c.client.startUpload(c.current->node, c.current->index, c.current->subIndex, now);
    else
        c.client.startDownload(c.current->node, c.current->index, c.current->subIndex,
                               c.current->data, now);
    rearm(c);
}

void SdoRunner::onFrames(const QVector<BusFrame>& frames)
{
    const qint64 now = serverTimeUs();
    for (const BusFrame& f : frames) {
        // Only what the nodes sent; our own requests come back here too.
        if (f.origin != 0 || f.frame.id <= sdo::kResponseBase ||
            f.frame.id > sdo::kResponseBase + 127)
            continue;
        const auto it = m_nodes.find(quint8(f.frame.id - sdo::kResponseBase));
        if (it == m_nodes.end() || !it->second->client.isBusy())
            continue;
        it->second->client.onFrame(f.frame, now);
        rearm(*it->second);
    }
}

void SdoRunner::complete(NodeChannel& c, const SdoClient::Result& result)
{
    c.timer.stop();
    std::optional<Request> finished = std::move(c.current);
    c.current.reset();
    if (finished && finished->done)
        finished->done(result);
    // The owner tag outlives the transfer until the batch that ended it has been handed on.
    NodeChannel* channel = &c;
    QMetaObject::invokeMethod(
        this,
        [this, channel] {
            if (!channel->current)
                channel->owner = 0;
            startNext();
        },
        Qt::QueuedConnection);
}

void SdoRunner::rearm(NodeChannel& c)
{
    const qint64 deadline = c.client.nextDeadlineUs();
    if (deadline < 0) {
        c.timer.stop();
        return;
    }
    c.timer.start(int(std::max<qint64>(0, (deadline - serverTimeUs() + 999) / 1000)));
}

} // namespace qorcalib

#include "sdorunner.h"

#include "serverclock.h"

#include <algorithm>

namespace qorcalib {

SdoRunner::SdoRunner(CanChannel* channel, QObject* parent)
    : QObject(parent), m_channel(channel), m_client([this](const CanFrame& frame) {
          QString error;
          const quint64 session = m_current ? m_current->session : 0;
          if (!m_channel->transmit(frame, session | kServiceOrigin, &error) && m_current) {
              // The controller cannot send: the transfer ends here with the reason.
              SdoClient::Result result;
              result.error = error;
              QMetaObject::invokeMethod(
                  this,
                  [this, result] {
                      if (m_current && m_client.isBusy()) {
                          m_client.cancel();
                          complete(result);
                      }
                  },
                  Qt::QueuedConnection);
          }
      })
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_client.onTimer(serverTimeUs());
        rearm();
    });
    connect(m_channel, &CanChannel::framesReceived, this, &SdoRunner::onFrames);
    m_client.done = [this](const SdoClient::Result& result) { complete(result); };
    m_client.progress = [this](double fraction) {
        if (m_current && m_current->progress)
            m_current->progress(fraction);
    };
}

QString SdoRunner::submit(Request request)
{
    if (m_queue.waiting(request.session) >= kMaxWaitingPerSession)
        return QStringLiteral("too many SDO requests waiting on this controller (at most %1)")
            .arg(kMaxWaitingPerSession);
    m_queue.push(std::move(request));
    if (!m_current)
        QMetaObject::invokeMethod(this, &SdoRunner::startNext, Qt::QueuedConnection);
    return {};
}

void SdoRunner::dropSession(quint64 session)
{
    m_queue.drop(session);
    if (m_current && m_current->session == session) {
        m_current->done = nullptr;
        m_current->progress = nullptr;
        if (m_client.isBusy())
            m_client.abort(quint32(SdoAbort::General));
    }
}

bool SdoRunner::cancel(quint64 session, int requestId)
{
    if (m_current && m_current->session == session && m_current->requestId == requestId) {
        if (m_client.isBusy())
            m_client.abort(quint32(SdoAbort::General));
        return true;
    }
    SdoClient::Result result;
    result.error = QStringLiteral("SDO transfer cancelled");
    return m_queue.cancelWaiting(session, requestId, result);
}

quint64 SdoRunner::ownerOf(const CanFrame& frame) const
{
    return m_owner != 0 && frame.id == m_responseId ? m_owner : 0;
}

void SdoRunner::startNext()
{
    if (m_current || m_queue.empty())
        return;
    m_current = m_queue.takeInTurn(m_lastServed);
    m_lastServed = m_current->session;
    m_owner = m_current->session;
    m_responseId = quint16(sdo::kResponseBase + m_current->node);
    if (!m_channel->isRunning()) {
        SdoClient::Result result;
        result.error = QStringLiteral("controller %1 is not started").arg(m_channel->name());
        complete(result);
        return;
    }
    m_client.setTimeoutMs(m_current->timeoutMs);
    const qint64 now = serverTimeUs();
    if (m_current->upload)
        m_client.startUpload(m_current->node, m_current->index, m_current->subIndex, now);
    else
        m_client.startDownload(m_current->node, m_current->index, m_current->subIndex,
                               m_current->data, now);
    rearm();
}

void SdoRunner::onFrames(const QVector<BusFrame>& frames)
{
    if (!m_client.isBusy())
        return;
    const qint64 now = serverTimeUs();
    for (const BusFrame& f : frames) {
        // Only what the node sent; our own requests come back here too.
        if (f.origin == 0 && m_client.onFrame(f.frame, now) && !m_client.isBusy())
            break;
    }
    rearm();
}

void SdoRunner::complete(const SdoClient::Result& result)
{
    m_timer.stop();
    std::optional<Request> finished = std::move(m_current);
    m_current.reset();
    if (finished && finished->done)
        finished->done(result);
    // The owner tag outlives the transfer until the batch that ended it has been handed on.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!m_current)
                m_owner = 0;
            startNext();
        },
        Qt::QueuedConnection);
}

void SdoRunner::rearm()
{
    const qint64 deadline = m_client.nextDeadlineUs();
    if (deadline < 0) {
        m_timer.stop();
        return;
    }
    m_timer.start(int(std::max<qint64>(0, (deadline - serverTimeUs() + 999) / 1000)));
}

} // namespace qorcalib

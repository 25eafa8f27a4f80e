#include "bootrunner.h"

#include "serverclock.h"
#include "servercore.h"

#include <algorithm>

namespace qorcalib {

BootRunner::BootRunner(ServerCore* core, int controller, int catchMs, QObject* parent)
    : QObject(parent), m_core(core), m_controller(controller), m_catchMs(catchMs),
      m_channel(core->channel(controller)), m_catcher([this](const CanFrame& frame) {
          QString error;
          const quint64 session = m_current ? m_current->session : 0;
          m_channel->transmit(frame, session | kServiceOrigin, &error);
      })
{
    m_catcher.done = [this](const BootCatcher::Result& r) {
        // Called from inside the catcher: the request ends once it has returned.
        QMetaObject::invokeMethod(
            this,
            [this, r, generation = m_generation] {
                if (generation == m_generation)
                    finish({{}, r.node, r.caught ? r.version : 0});
            },
            Qt::QueuedConnection);
    };
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_catcher.onTimer(serverTimeUs());
        rearm();
    });
    connect(m_channel, &CanChannel::framesReceived, this, &BootRunner::onFrames);
}

QString BootRunner::submit(Request request)
{
    if (bitRateOfIndex(request.bitRateIndex) < 0)
        return QStringLiteral("bit-rate index %1 out of range (0..%2)")
            .arg(request.bitRateIndex)
            .arg(kBitRateCount - 1);
    if (m_queue.waiting(request.session) >= kMaxWaitingPerSession)
        return QStringLiteral("too many boot catches waiting on this controller");
    m_queue.push(std::move(request));
    if (!m_current)
        QMetaObject::invokeMethod(this, &BootRunner::startNext, Qt::QueuedConnection);
    return {};
}

void BootRunner::dropSession(quint64 session)
{
    m_queue.drop(session);
    if (m_current && m_current->session == session) {
        m_catcher.cancel();
        m_current->done = nullptr;
        finish({});
    }
}

bool BootRunner::cancel(quint64 session, int requestId)
{
    static const QString cancelled = QStringLiteral("boot catch cancelled");
    if (m_current && m_current->session == session && m_current->requestId == requestId) {
        m_catcher.cancel();
        finish({cancelled, 0, 0, ErrorKind::Abort});
        return true;
    }
    return m_queue.cancelWaiting(session, requestId, Outcome{cancelled, 0, 0, ErrorKind::Abort});
}

void BootRunner::startNext()
{
    if (m_current || m_queue.empty())
        return;
    m_current = m_queue.takeFront();
    QString error;
    if (m_channel->bitRateIndex() != m_current->bitRateIndex &&
        (!m_core->setBitRate(m_controller, m_current->bitRateIndex, &error) ||
         (m_channel->isRunning() && !m_core->restartController(m_controller, &error)))) {
        finish({error, 0, 0, ErrorKind::BusError});
        return;
    }
    if (!m_channel->isRunning() && !m_core->startController(m_controller, &error)) {
        finish({error, 0, 0, ErrorKind::BusError});
        return;
    }
    m_catcher.start(m_current->node, m_catchMs, serverTimeUs());
    rearm();
}

void BootRunner::finish(const Outcome& outcome)
{
    m_timer.stop();
    ++m_generation;
    std::optional<Request> finished = std::move(m_current);
    m_current.reset();
    if (finished->done)
        finished->done(outcome);
    QMetaObject::invokeMethod(this, &BootRunner::startNext, Qt::QueuedConnection);
}

void BootRunner::onFrames(const QVector<BusFrame>& frames)
{
    if (!m_catcher.isBusy())
        return;
    const qint64 now = serverTimeUs();
    for (const BusFrame& f : frames)
        if (f.origin == 0 && m_catcher.onFrame(f.frame, now))
            break;
    rearm();
}

void BootRunner::rearm()
{
    const qint64 deadline = m_catcher.nextDeadlineUs();
    if (deadline < 0) {
        m_timer.stop();
        return;
    }
    m_timer.start(int(std::max<qint64>(0, (deadline - serverTimeUs() + 999) / 1000)));
}

} // namespace qorcalib

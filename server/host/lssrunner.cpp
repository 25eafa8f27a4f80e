#include "lssrunner.h"

#include "serverclock.h"
#include "servercore.h"

#include <algorithm>

namespace qorcalib {

LssRunner::LssRunner(ServerCore* core, int controller, QObject* parent)
    : QObject(parent), m_core(core), m_controller(controller), m_channel(core->channel(controller)),
      m_master([this](const CanFrame& frame) {
          QString error;
          const quint64 session = m_current ? m_current->session : 0;
          m_channel->transmit(frame, session | kServiceOrigin, &error);
      })
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        m_master.onTimer(serverTimeUs());
        rearm();
    });
    connect(m_channel, &CanChannel::framesReceived, this, &LssRunner::onFrames);
}

QString LssRunner::submit(Request request)
{
    if (request.configure) {
        if (request.nodeId < 1 || request.nodeId > 127)
            return QStringLiteral("node-ID 0x%1 out of range (1..0x7F)")
                .arg(QString::number(request.nodeId, 16).toUpper());
        if (bitRateOfIndex(request.bitRateIndex) < 0)
            return QStringLiteral("bit-rate index %1 out of range (0..%2)")
                .arg(request.bitRateIndex)
                .arg(kBitRateCount - 1);
    }
    if (m_queue.waiting(request.session) >= kMaxWaitingPerSession)
        return QStringLiteral("too many LSS requests waiting on this controller");
    m_queue.push(std::move(request));
    if (!m_current)
        QMetaObject::invokeMethod(this, &LssRunner::startNext, Qt::QueuedConnection);
    return {};
}

void LssRunner::dropSession(quint64 session)
{
    m_queue.drop(session);
    if (m_current && m_current->session == session)
        m_current->done = nullptr; // it runs to its end, so the controller gets its rate back
}

bool LssRunner::cancel(quint64 session, int requestId)
{
    static const QString cancelled = QStringLiteral("LSS service cancelled");
    if (m_current && m_current->session == session && m_current->requestId == requestId) {
        m_master.cancel();
        m_master.done = nullptr;
        finish(failure(ErrorKind::Abort, cancelled));
        return true;
    }
    return m_queue.cancelWaiting(session, requestId, failure(ErrorKind::Abort, cancelled));
}

void LssRunner::startNext()
{
    if (m_current || m_queue.empty())
        return;
    m_current = m_queue.takeFront();
    m_master.setTimeoutMs(std::clamp(m_current->timeoutMs, kMinTimeoutMs, kMaxTimeoutMs));
    m_ownRate = m_channel->bitRateIndex();
    m_wasRunning = m_channel->isRunning();
    if (!m_wasRunning) {
        QString error;
        if (!m_core->startController(m_controller, &error)) {
            finish(failure(ErrorKind::BusError, error));
            return;
        }
        // A device that has just joined its bus may not hear the first answers yet (a virtual
        // bus accepts its clients asynchronously).
        afterQuiet([this] { begin(); });
        return;
    }
    begin();
}

void LssRunner::afterQuiet(std::function<void()> next)
{
    const quint64 generation = m_generation;
    QTimer::singleShot(m_current->timeoutMs, this, [this, next = std::move(next), generation] {
        if (generation == m_generation)
            next();
    });
}

void LssRunner::begin()
{
    if (m_current->configure) {
        // Only a node that waits for a node-ID is configured, isolated by Fastscan (which
        // configured nodes do not answer). Configured nodes are never switched to configuration
        // all at once: every one of them would take the same node-ID.
        run([this] { m_master.identifyNonConfigured(serverTimeUs()); },
            [this](const LssMaster::Result& r) {
                if (!r.answered) {
                    finish(failure(ErrorKind::Failed, kNoneWaiting));
                    return;
                }
                run([this] { m_master.fastscan(serverTimeUs()); },
                    [this](const LssMaster::Result& f) {
                        if (!f.error.isEmpty() || !f.answered)
                            finish(f.error.isEmpty()
                                       ? failure(ErrorKind::TimeOut, LssMaster::kNoAnswer)
                                       : failure(f.kind, f.error));
                        else
                            configureSelected();
                    });
            });
        return;
    }
    m_rates.clear();
    m_rates.push_back(m_ownRate);
    for (int r = 0; r < kBitRateCount; ++r)
        if (r != m_ownRate)
            m_rates.push_back(r);
    inquireAt(0);
}

void LssRunner::run(const std::function<void()>& service, Next next)
{
    m_master.done = [this, next](const LssMaster::Result& r) {
        // Called from inside the master: the next service starts once this one has ended.
        QMetaObject::invokeMethod(
            this, [next, r] { next(r); }, Qt::QueuedConnection);
    };
    service();
    rearm();
}

void LssRunner::setRate(int bitRateIndex)
{
    QString error;
    if (m_channel->bitRateIndex() != bitRateIndex) {
        m_core->setBitRate(m_controller, bitRateIndex, &error);
        m_core->restartController(m_controller, &error);
    }
}

void LssRunner::inquireAt(size_t i)
{
    if (i >= m_rates.size()) {
        finish(failure(ErrorKind::TimeOut, LssMaster::kNoAnswer));
        return;
    }
    if (m_channel->bitRateIndex() != m_rates[i]) {
        setRate(m_rates[i]);
        // One answer window with the master idle: whatever answers in it answered at the rate
        // before and is dropped (onFrames passes frames to a busy master only).
        afterQuiet([this, i] { askAt(i); });
        return;
    }
    askAt(i);
}

void LssRunner::askAt(size_t i)
{
    run([this] { m_master.identifyNonConfigured(serverTimeUs()); },
        [this, i](const LssMaster::Result& r) {
            if (!r.answered) {
                inquireConfigured(i);
                return;
            }
            run([this] { m_master.fastscan(serverTimeUs()); },
                [this, i](const LssMaster::Result& f) {
                    if (!f.error.isEmpty() || !f.answered) {
                        inquireConfigured(i);
                        return;
                    }
                    run([this] { m_master.inquireNodeId(serverTimeUs()); },
                        [this, i](const LssMaster::Result& n) {
                            const quint8 node =
                                n.error.isEmpty() ? quint8(n.value) : lss::kUnconfigured;
                            run([this] { m_master.switchGlobal(false, serverTimeUs()); },
                                [this, i, node](const LssMaster::Result&) {
                                    finish({{}, node, m_rates[i]});
                                });
                        });
                });
        });
}

void LssRunner::inquireConfigured(size_t i)
{
    run([this] { m_master.switchGlobal(true, serverTimeUs()); },
        [this, i](const LssMaster::Result&) {
            run([this] { m_master.inquireNodeId(serverTimeUs()); },
                [this, i](const LssMaster::Result& n) {
                    run([this] { m_master.switchGlobal(false, serverTimeUs()); },
                        [this, i, n](const LssMaster::Result&) {
                            if (n.error.isEmpty())
                                finish({{}, quint8(n.value), m_rates[i]});
                            else
                                inquireAt(i + 1);
                        });
                });
        });
}

void LssRunner::configureSelected()
{
    const quint8 node = m_current->nodeId;
    const int rate = m_current->bitRateIndex;
    // On an error the node is switched back to waiting, unchanged.
    const auto fail = [this](const LssMaster::Result& refused) {
        run([this] { m_master.switchGlobal(false, serverTimeUs()); },
            [this, refused](const LssMaster::Result&) {
                finish(failure(refused.kind, refused.error));
            });
    };
    run([this, node] { m_master.configureNodeId(node, serverTimeUs()); },
        [=, this](const LssMaster::Result& c) {
            if (!c.error.isEmpty())
                return fail(c);
            run([this, rate] { m_master.configureBitTiming(quint8(rate), serverTimeUs()); },
                [=, this](const LssMaster::Result& b) {
                    if (!b.error.isEmpty())
                        return fail(b);
                    run([this] { m_master.storeConfiguration(serverTimeUs()); },
                        [=, this](const LssMaster::Result& s) {
                            if (!s.error.isEmpty())
                                return fail(s);
                            run(
                                [this] {
                                    m_master.activateBitTiming(kSwitchDelayMs, serverTimeUs());
                                },
                                [=, this](const LssMaster::Result&) {
                                    // The node listens at its new rate now.
                                    const bool switched = m_channel->bitRateIndex() != rate;
                                    setRate(rate);
                                    const auto release = [=, this] {
                                        run(
                                            [this] {
                                                m_master.switchGlobal(false, serverTimeUs());
                                            },
                                            [=, this](const LssMaster::Result&) {
                                                // Its boot-up goes out at the new rate before
                                                // the controller goes back to its own.
                                                const quint64 generation = m_generation;
                                                QTimer::singleShot(kSwitchDelayMs, this, [=, this] {
                                                    if (generation == m_generation)
                                                        finish({{}, node, rate});
                                                });
                                            });
                                    };
                                    if (switched)
                                        afterQuiet(release);
                                    else
                                        release();
                                });
                        });
                });
        });
}

void LssRunner::finish(Outcome outcome)
{
    m_timer.stop();
    setRate(m_ownRate);
    if (!m_wasRunning) {
        QString error;
        m_core->stopController(m_controller, &error);
    }
    std::optional<Request> finished = std::move(m_current);
    m_current.reset();
    ++m_generation;
    if (finished && finished->done)
        finished->done(outcome);
    QMetaObject::invokeMethod(this, &LssRunner::startNext, Qt::QueuedConnection);
}

void LssRunner::onFrames(const QVector<BusFrame>& frames)
{
    if (!m_master.isBusy())
        return;
    const qint64 now = serverTimeUs();
    for (const BusFrame& f : frames)
        if (f.origin == 0)
            m_master.onFrame(f.frame, now);
    rearm();
}

void LssRunner::rearm()
{
    const qint64 deadline = m_master.nextDeadlineUs();
    if (deadline < 0) {
        m_timer.stop();
        return;
    }
    m_timer.start(int(std::max<qint64>(0, (deadline - serverTimeUs() + 999) / 1000)));
}

} // namespace qorcalib

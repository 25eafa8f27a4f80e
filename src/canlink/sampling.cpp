#include "sampling.h"

#include "bittiming.h"
#include "canlink.h"
#include "sdoabort.h"

#include <QtEndian>

#include <cmath>

namespace tessel {

int smallestSamplePeriodMs(int bitsPerSecond, int entries)
{
    if (bitsPerSecond <= 0)
        return kMinSamplePeriodMs;
    // 8 data bytes that stuff the most: all bits equal.
    qorcalib::CanFrame worst;
    worst.id = 0x7FF;
    worst.len = 8;
    worst.data.fill(0xFF);
    const double exchangeUs = 2 * qorcalib::frameDurationUs(worst, bitsPerSecond);
    return qMax(kMinSamplePeriodMs, int(std::ceil(qMax(1, entries) * 2 * exchangeUs / 1000.0)));
}

void SampleSchedule::taken(qint64 nowMs)
{
    ++m_next;
    if (nowMs > dueMs()) {
        const qint64 late = (nowMs - dueMs() - 1) / m_periodMs + 1;
        m_next += late;
        m_skipped += late;
    }
}

std::optional<double> sampleValue(const QByteArray& data, const QString& type, QString* why)
{
    const int size = int(data.size());
    const int want = type.isEmpty() ? ((size == 1 || size == 2 || size == 4) ? size : 0)
                                    : type.mid(1).toInt() / 8;
    if (want == 0 || size != want) {
        *why = QStringLiteral("%1 bytes are not a number").arg(size);
        return std::nullopt;
    }
    const auto* p = reinterpret_cast<const uchar*>(data.constData());
    const bool isSigned = type.startsWith(QLatin1Char('i'));
    switch (want) {
    case 1:
        return isSigned ? double(qint8(p[0])) : double(p[0]);
    case 2:
        return isSigned ? double(qFromLittleEndian<qint16>(p))
                        : double(qFromLittleEndian<quint16>(p));
    default:
        return isSigned ? double(qFromLittleEndian<qint32>(p))
                        : double(qFromLittleEndian<quint32>(p));
    }
}

LiveSampler::LiveSampler(CanLink* link, const Target& target, int periodMs,
                         const QElapsedTimer* clock, QObject* parent)
    : QObject(parent), m_link(link), m_target(target), m_periodMs(qMax(1, periodMs)),
      m_clock(clock), m_schedule(m_periodMs)
{
    m_due.setSingleShot(true);
    m_due.setTimerType(Qt::PreciseTimer);
    connect(&m_due, &QTimer::timeout, this, &LiveSampler::ask);
    m_watchdog.setSingleShot(true);
    connect(&m_watchdog, &QTimer::timeout, this,
            [this] { finish(std::nullopt, QStringLiteral("no answer from the CAN server")); });
}

LiveSampler::~LiveSampler()
{
    stop();
}

void LiveSampler::start()
{
    m_running = true;
    m_schedule = SampleSchedule(m_periodMs);
    m_startMs = m_clock->elapsed();
    ask();
}

void LiveSampler::stop()
{
    m_running = false;
    m_due.stop();
    m_watchdog.stop();
    if (m_pending && m_requestId >= 0 && m_connection && m_connection->isConnected())
        m_connection->service()->CancelRequest(m_requestId);
    release();
}

void LiveSampler::release()
{
    for (const auto& c : std::as_const(m_watch))
        disconnect(c);
    m_watch.clear();
    m_pending = false;
    m_requestId = -1;
}

void LiveSampler::ask()
{
    if (!m_running)
        return;
    m_askedAt = double(m_clock->nsecsElapsed()) / 1e9;
    QString error;
    qorcalib::ServerConnection* c = m_link->pollConnection(&error);
    if (!c) {
        finish(std::nullopt, error);
        return;
    }
    m_connection = c;
    m_pending = true;
    m_watch << connect(c, &qorcalib::ServerConnection::connectionLost, this,
                       [this] { finish(std::nullopt, qorcalib::ServerConnection::kNotReachable); });
    m_watchdog.start(m_link->sdoTimeoutMs() + CanLink::kSdoGraceMs);
    if (m_target.analog) {
        // The server takes one session's calls in order: the acquisition is done before the
        // read.
        if (m_target.acquireFirst)
            c->benchIo()->Acquire();
        auto* watcher =
            new QRemoteObjectPendingCallWatcher(c->benchIo()->ReadAnalog(m_target.channel), this);
        m_watch << connect(watcher, &QRemoteObjectPendingCallWatcher::finished, this,
                           [this](QRemoteObjectPendingCallWatcher* w) {
                               const auto r = w->returnValue().value<DoubleReply>();
                               if (r.error().isEmpty())
                                   finish(r.value(), {});
                               else
                                   finish(std::nullopt, r.error());
                           });
        connect(watcher, &QRemoteObjectPendingCallWatcher::finished, watcher,
                &QObject::deleteLater);
        return;
    }
    // The end may come before the number of the request: it is kept until the number is known.
    auto early = std::make_shared<QList<OperationResult>>();
    m_watch << connect(c->notify(), &QCSNotifyReplica::OperationDone, this,
                       [this, early](const OperationResult& r) {
                           if (m_requestId < 0)
                               early->append(r);
                           else
                               onDone(r.requestId(), r.data(), r.abortCode(), r.error());
                       });
    auto* watcher = new QRemoteObjectPendingCallWatcher(
        c->service()->SdoUpload(m_target.controller, m_target.node, m_target.index,
                                m_target.subIndex),
        this);
    m_watch << connect(watcher, &QRemoteObjectPendingCallWatcher::finished, this,
                       [this, early](QRemoteObjectPendingCallWatcher* w) {
                           const auto r = w->returnValue().value<RequestReply>();
                           if (!r.error().isEmpty()) {
                               finish(std::nullopt, r.error());
                               return;
                           }
                           m_requestId = r.requestId();
                           for (const OperationResult& e : std::as_const(*early))
                               onDone(e.requestId(), e.data(), e.abortCode(), e.error());
                       });
    connect(watcher, &QRemoteObjectPendingCallWatcher::finished, watcher, &QObject::deleteLater);
}

void LiveSampler::onDone(int requestId, const QByteArray& data, quint32 abortCode,
                         const QString& error)
{
    if (!m_pending || requestId != m_requestId)
        return;
    if (!error.isEmpty()) {
        finish(std::nullopt, error);
    } else if (abortCode != 0) {
        finish(std::nullopt, qorcalib::sdoAbortDescription(abortCode));
    } else {
        QString why;
        const auto value = sampleValue(data, m_target.type, &why);
        finish(value, why);
    }
}

void LiveSampler::finish(std::optional<double> value, const QString& reason)
{
    release();
    m_watchdog.stop();
    if (!m_running)
        return;
    if (value)
        emit sampled(m_askedAt, *value);
    else
        emit failed(m_askedAt, reason);
    if (!m_running) // stopped by whoever took the value
        return;
    m_schedule.taken(m_clock->elapsed() - m_startMs);
    m_due.start(int(qMax<qint64>(0, m_startMs + m_schedule.dueMs() - m_clock->elapsed())));
}

} // namespace tessel

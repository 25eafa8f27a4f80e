#include "syncproducer.h"

#include "serverclock.h"

namespace qorcalib {

namespace {
// SYNCs are queued this far ahead, refilled at every tick of the timer: a stall of the server
// shorter than this delays none.
constexpr qint64 kAheadUs = 100000;
constexpr int kTickMs = 20;
} // namespace

SyncProducer::SyncProducer(CanChannel* channel, QObject* parent)
    : QObject(parent), m_channel(channel)
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(kTickMs);
    connect(&m_timer, &QTimer::timeout, this, &SyncProducer::queueAhead);
}

QString SyncProducer::start(quint64 session, int periodUs)
{
    if (m_owner != 0 && m_owner != session)
        return QStringLiteral("another session produces SYNC on controller %1")
            .arg(m_channel->name());
    if (periodUs == 0) {
        stop();
        return {};
    }
    if (periodUs < kMinPeriodUs || periodUs > kMaxPeriodUs)
        return QStringLiteral("SYNC period %1 us out of range (%2..%3)")
            .arg(periodUs)
            .arg(kMinPeriodUs)
            .arg(kMaxPeriodUs);
    if (!m_channel->isRunning())
        return QStringLiteral("controller %1 is not started").arg(m_channel->name());
    m_owner = session;
    m_periodUs = periodUs;
    m_nextDueUs = serverTimeUs();
    m_produced = 0;
    queueAhead();
    m_timer.start();
    return {};
}

// The SYNCs already queued (kAheadUs of them) still go out; a session that ends takes its
// queued frames with it.
void SyncProducer::stop()
{
    m_timer.stop();
    m_owner = 0;
    m_periodUs = 0;
}

void SyncProducer::dropSession(quint64 session)
{
    if (session == m_owner)
        stop();
}

void SyncProducer::queueAhead()
{
    if (!m_channel->isRunning()) {
        stop();
        return;
    }
    const qint64 now = serverTimeUs();
    // After a stall of the server the lost SYNCs are not sent in a burst: the next one is now.
    if (m_nextDueUs < now - m_periodUs)
        m_nextDueUs = now;
    CanFrame sync;
    sync.id = kCobId;
    while (m_nextDueUs <= now + kAheadUs) {
        QString error;
        if (!m_channel->transmitAt(sync, m_owner, m_nextDueUs, &error))
            return; // a full queue: the next tick tries again
        m_nextDueUs += m_periodUs;
        ++m_produced;
    }
}

} // namespace qorcalib

#include "simulatedchannel.h"

#include "bittiming.h"

#include <cmath>

namespace qorcalib {

SimulatedChannel::SimulatedChannel(SimulatedSegment* segment, int index, int bitRateIndex,
                                   QObject* parent)
    : CanChannel(parent), m_segment(segment), m_index(index), m_bitRateIndex(bitRateIndex)
{
    m_segment->attach(this);
}

SimulatedChannel::~SimulatedChannel()
{
    m_segment->detach(this);
}

QString SimulatedChannel::name() const
{
    return QStringLiteral("sim:%1").arg(m_index);
}

bool SimulatedChannel::start(QString*)
{
    resetQueue();
    m_running = true;
    return true;
}

void SimulatedChannel::stop()
{
    m_running = false;
    resetQueue();
}

void SimulatedChannel::resetQueue()
{
    m_segment->resetPort(this);
    m_budget.clear();
    m_clientReadyUs = 0.0;
    m_timedReadyUs = 0.0;
}

qint64 SimulatedChannel::clientFrameUs(const CanFrame& frame) const
{
    return qint64(std::ceil(frameDurationUs(frame, bitRateOfIndex(m_bitRateIndex))));
}

bool SimulatedChannel::setBitRateIndex(int index, QString* error)
{
    if (bitRateOfIndex(index) < 0) {
        if (error)
            *error = QStringLiteral("bit-rate index %1 out of range (0..%2)")
                         .arg(index)
                         .arg(kBitRateCount - 1);
        return false;
    }
    m_bitRateIndex = index;
    return true;
}

bool SimulatedChannel::transmit(const CanFrame& frame, FrameOrigin origin, QString* error)
{
    if (!m_running) {
        if (error)
            *error = QStringLiteral("controller %1 is not started").arg(m_index);
        return false;
    }
    if (!isClientFrame(origin)) {
        m_segment->transmit(this, frame, origin);
        return true;
    }
    const qint64 us = clientFrameUs(frame);
    const double now = double(m_segment->nowUs());
    const bool paced = m_segment->isPaced();
    if ((paced && m_clientReadyUs - now > double(kControllerQueueUs)) ||
        !m_budget.admit(sessionOfOrigin(origin), us)) {
        if (error)
            *error = QStringLiteral("%1 on controller %2")
                         .arg(QLatin1String(TransmitBudget::kFullText))
                         .arg(m_index);
        return false;
    }
    qint64 notBefore = 0;
    if (paced) {
        const double ready = std::max(now, m_clientReadyUs);
        m_clientReadyUs = ready + double(us) / kClientShare;
        notBefore = qint64(std::ceil(ready));
    }
    m_segment->transmit(this, frame, origin, notBefore);
    return true;
}

bool SimulatedChannel::transmitAt(const CanFrame& frame, FrameOrigin origin, qint64 dueUs,
                                  QString* error)
{
    if (!m_running) {
        *error = QStringLiteral("controller %1 is not started").arg(m_index);
        return false;
    }
    *error = leadError(dueUs, m_segment->nowUs());
    if (!error->isEmpty())
        return false;
    const qint64 us = clientFrameUs(frame);
    if (!m_budget.admit(sessionOfOrigin(origin), us)) {
        *error = QStringLiteral("%1 on controller %2")
                     .arg(QLatin1String(TransmitBudget::kFullText))
                     .arg(m_index);
        return false;
    }
    // Timed frames too leave the nodes their share of the bus; they are paced among
    // themselves, so that a session's untimed frames are not held up behind them.
    const double ready = std::max(double(dueUs), m_timedReadyUs);
    m_timedReadyUs = ready + double(us) / kClientShare;
    m_segment->transmit(this, frame, origin, qint64(std::ceil(ready)));
    return true;
}

int SimulatedChannel::dropSession(quint64 session)
{
    const int dropped = m_segment->dropFrames(this, [session](FrameOrigin origin) {
        return isClientFrame(origin) && sessionOfOrigin(origin) == session;
    });
    m_budget.forget(session);
    // The schedule of what was dropped holds up no one: a replay started again at once keeps
    // its first spacings.
    m_timedReadyUs = 0.0;
    return dropped;
}

quint32 SimulatedChannel::status() const
{
    return m_running ? m_segment->status(this) : 0;
}

ErrorCounters SimulatedChannel::errorCounters() const
{
    if (!m_running)
        return {};
    return {m_segment->transmitErrorCount(this), m_segment->receiveErrorCount(this)};
}

void SimulatedChannel::receive(const BusFrame& frame)
{
    m_batch.append(frame);
}

void SimulatedChannel::transmitted(const BusFrame& frame, bool acknowledged)
{
    if (isClientFrame(frame.origin))
        m_budget.release(sessionOfOrigin(frame.origin), clientFrameUs(frame.frame));
    // The controller's own frames are handed on with the received ones, in bus order, so that
    // sessions can report them to their sender and show them to everyone else.
    if (acknowledged)
        m_batch.append(frame);
}

void SimulatedChannel::deliveryBatchEnded()
{
    if (m_batch.isEmpty())
        return;
    QVector<BusFrame> batch;
    batch.swap(m_batch);
    emit framesReceived(batch);
}

} // namespace qorcalib

#include "simulatedchannel.h"

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
    m_segment->resetPort(this);
    m_running = true;
    return true;
}

void SimulatedChannel::stop()
{
    m_running = false;
    m_segment->resetPort(this);
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
    m_segment->transmit(this, frame, origin);
    return true;
}

quint32 SimulatedChannel::status() const
{
    return m_running ? m_segment->status(this) : 0;
}

void SimulatedChannel::receive(const BusFrame& frame)
{
    m_batch.append(frame);
}

void SimulatedChannel::transmitted(const BusFrame& frame, bool acknowledged)
{
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

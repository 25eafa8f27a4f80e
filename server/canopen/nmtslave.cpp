#include "nmtslave.h"

namespace qorcalib {

NmtSlave::NmtSlave(Hooks hooks) : m_hooks(std::move(hooks)) {}

void NmtSlave::setHeartbeatPeriodMs(quint16 periodMs, qint64 nowUs)
{
    m_heartbeatMs = periodMs;
    // A new period starts counting now, as a producer restarts its timer on a write of 0x1017.
    m_nextHeartbeatUs =
        (m_powered && configured() && periodMs > 0 && m_state != State::Initialising)
            ? nowUs + qint64(periodMs) * 1000
            : -1;
}

void NmtSlave::bootUp(qint64 nowUs)
{
    m_powered = true;
    m_state = State::Initialising;
    m_nextHeartbeatUs = -1;
    if (!configured())
        return;
    sendState(0x00);
    m_state = State::PreOperational;
    if (m_heartbeatMs > 0)
        m_nextHeartbeatUs = nowUs + qint64(m_heartbeatMs) * 1000;
}

void NmtSlave::powerOff()
{
    m_powered = false;
    m_state = State::Initialising;
    m_nextHeartbeatUs = -1;
}

void NmtSlave::onFrame(const CanFrame& frame, qint64 nowUs)
{
    if (!m_powered || !configured() || m_state == State::Initialising)
        return;
    if (frame.id != 0x000 || frame.remote || frame.len != 2)
        return;
    const quint8 node = frame.data[1];
    if (node != 0 && node != m_nodeId)
        return;
    switch (frame.data[0]) {
    case 0x01:
        m_state = State::Operational;
        break;
    case 0x02:
        m_state = State::Stopped;
        break;
    case 0x80:
        m_state = State::PreOperational;
        break;
    case 0x81:
        m_state = State::Initialising;
        m_nextHeartbeatUs = -1;
        if (m_hooks.resetNode)
            m_hooks.resetNode();
        break;
    case 0x82:
        m_state = State::Initialising;
        if (m_hooks.resetCommunication)
            m_hooks.resetCommunication();
        bootUp(nowUs);
        break;
    default:
        break;
    }
}

void NmtSlave::onTimer(qint64 nowUs)
{
    if (m_nextHeartbeatUs < 0 || nowUs < m_nextHeartbeatUs)
        return;
    sendState(quint8(m_state));
    // Keep the period's grid unless the node fell behind by more than one period.
    const qint64 period = qint64(m_heartbeatMs) * 1000;
    m_nextHeartbeatUs += period;
    if (m_nextHeartbeatUs <= nowUs)
        m_nextHeartbeatUs = nowUs + period;
}

qint64 NmtSlave::nextDeadlineUs() const
{
    return m_nextHeartbeatUs;
}

void NmtSlave::sendState(quint8 value)
{
    if (m_hooks.send)
        m_hooks.send(CanFrame::make(quint16(0x700 + m_nodeId), {value}));
}

} // namespace qorcalib

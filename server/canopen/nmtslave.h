#pragma once

#include "canmsg.h"

#include <functional>

namespace qorcalib {

// The NMT slave of a CANopen node: its state machine, boot-up message and heartbeat producer.
// Frames come in through onFrame, time through onTimer, frames go out through the send hook;
// times are microseconds on any monotonic base.
//
// Frames (CiA 301):
//   NMT command, COB-ID 0x000, 2 bytes: [command specifier, node-ID (0 = all nodes)]
//     0x01 start, 0x02 stop, 0x80 enter pre-operational, 0x81 reset node,
//     0x82 reset communication. Frames of another length are not NMT commands.
//   Boot-up, COB-ID 0x700 + node-ID, 1 byte: 0x00
//   Heartbeat, COB-ID 0x700 + node-ID, 1 byte: state 0x04 stopped, 0x05 operational,
//     0x7F pre-operational; every heartbeat period (object 0x1017, ms; 0 = none).
class NmtSlave
{
public:
    enum class State : quint8 {
        Initialising = 0x00,
        Stopped = 0x04,
        Operational = 0x05,
        PreOperational = 0x7F,
    };
    static constexpr quint8 kUnconfigured = 0xFF;

    struct Hooks
    {
        std::function<void(const CanFrame&)> send;
        // Reset node: the node restores its application and communication values and reboots;
        // it calls bootUp when it is ready again.
        std::function<void()> resetNode;
        // Reset communication: the node restores its communication values (0x1000-0x1FFF);
        // boot-up follows at once.
        std::function<void()> resetCommunication;
    };

    explicit NmtSlave(Hooks hooks);

    // 1..127; kUnconfigured leaves the node silent (it waits for LSS).
    void setNodeId(quint8 nodeId) { m_nodeId = nodeId; }
    quint8 nodeId() const { return m_nodeId; }
    void setHeartbeatPeriodMs(quint16 periodMs, qint64 nowUs);
    quint16 heartbeatPeriodMs() const { return m_heartbeatMs; }

    // Power-on or the end of a reset: boot-up message, then pre-operational.
    void bootUp(qint64 nowUs);
    void powerOff();
    bool isPowered() const { return m_powered; }

    void onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    // When onTimer wants to run next; -1 for never.
    qint64 nextDeadlineUs() const;

    State state() const { return m_state; }
    // SDO and PDO services answer only in these states.
    bool acceptsSdo() const
    {
        return m_state == State::PreOperational || m_state == State::Operational;
    }

private:
    bool configured() const { return m_nodeId >= 1 && m_nodeId <= 127; }
    void sendState(quint8 value);

    Hooks m_hooks;
    quint8 m_nodeId = kUnconfigured;
    quint16 m_heartbeatMs = 0;
    bool m_powered = false;
    State m_state = State::Initialising;
    qint64 m_nextHeartbeatUs = -1;
};

} // namespace qorcalib

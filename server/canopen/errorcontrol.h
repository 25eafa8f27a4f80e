#pragma once

#include "canmsg.h"
#include "objectvalues.h"

#include <QList>

#include <array>
#include <functional>

namespace qorcalib {

// A node's error control beside its heartbeat (CiA 301): node guarding, life guarding and the
// heartbeat consumer. Frames in through onFrame, time through onTimer, frames out through the
// send hook; times in microseconds. Parameters in the node's dictionary: 100C guard time (ms),
// 100D life time factor, 1016 sub 1..4 heartbeat consumer (node-ID << 16 | time in ms).
//
// Node guarding: a remote request on 0x700 + node-ID is answered with one byte, the NMT state
// and a toggle bit (bit 7) that starts at 0 and alternates. Life guarding: once guarding has
// begun, a node that hears no request for guard time x life time factor has lost its master.
// Heartbeat consumer: a monitored node whose heartbeat, once heard, stays away longer than its
// time is lost. Both are told through `changed`; anyLost says whether something is lost now.
class ErrorControl
{
public:
    static constexpr int kConsumers = 4;
    static constexpr quint16 kLifeGuardOrHeartbeatError = 0x8130;

    ErrorControl(ObjectValues* dictionary, std::function<void(const CanFrame&)> send);
    std::function<void()> changed;

    // The node (re)starts: guarding and monitoring start over.
    void reset();
    // True when the frame was a guarding request to this node (answered) or a heartbeat it
    // monitors.
    bool onFrame(const CanFrame& frame, quint8 nodeId, quint8 nmtState, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const;
    bool lifeGuardingLost() const { return m_lifeLost; }
    bool heartbeatLost(quint8 node) const;
    bool anyLost() const;

private:
    qint64 lifeTimeUs() const;

    ObjectValues* m_dictionary;
    std::function<void(const CanFrame&)> m_send;
    bool m_toggle = false;
    qint64 m_lastGuardUs = -1;
    bool m_lifeLost = false;
    struct Monitored
    {
        qint64 lastUs = -1;
        bool lost = false;
    };
    std::array<Monitored, kConsumers> m_consumers{};
};

} // namespace qorcalib

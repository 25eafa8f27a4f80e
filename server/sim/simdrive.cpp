#include "simdrive.h"

#include "serverclock.h"

#include <algorithm>

namespace qorcalib {

SimDrive::SimDrive(SimulatedSegment* segment, ObjectDictionary dictionary, quint8 nodeId,
                   int bitRateIndex, QObject* parent)
    : QObject(parent), m_segment(segment), m_dictionary(std::move(dictionary)),
      m_access(&m_dictionary),
      m_nmt(NmtSlave::Hooks{[this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); },
                            [this] {
                                // A reset node restarts the processor: boot loader first, values
                                // back to default.
                                m_lss.applyPendingNodeId();
                                takeNodeId(m_lss.activeNodeId());
                                m_sdo.reset();
                                m_dictionary.restoreDefaults(0x0000, 0xFFFF);
                                m_bootTimer.start(kBootLoaderWindowMs);
                            },
                            [this] {
                                m_lss.applyPendingNodeId();
                                takeNodeId(m_lss.activeNodeId());
                                m_sdo.reset();
                                m_dictionary.restoreDefaults(0x1000, 0x1FFF);
                                applyHeartbeatPeriod();
                            }}),
      m_sdo(&m_access, [this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); }),
      m_lss({quint32(m_dictionary.unsignedValue(0x1018, 1, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 2, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 3, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 4, 0))},
            nodeId, bitRateIndex,
            LssSlave::Hooks{[this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); },
                            [this](int rate) { m_bitRateIndex = rate; },
                            [this](quint8 node, int rate) {
                                m_startNodeId = node;
                                m_startBitRate = rate;
                                return true;
                            },
                            [this](quint8 node) {
                                takeNodeId(node);
                                m_nmt.bootUp(serverTimeUs());
                                rearm();
                            }}),
      m_bitRateIndex(bitRateIndex), m_startNodeId(nodeId), m_startBitRate(bitRateIndex)
{
    takeNodeId(nodeId);
    m_access.written = [this](quint16 index, quint8) {
        if (index == 0x1017)
            applyHeartbeatPeriod();
    };
    m_bootTimer.setSingleShot(true);
    connect(&m_bootTimer, &QTimer::timeout, this, &SimDrive::boot);
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        const qint64 now = serverTimeUs();
        m_nmt.onTimer(now);
        m_sdo.onTimer(now);
        m_lss.onTimer(now);
        rearm();
    });
    m_segment->attach(this);
}

SimDrive::~SimDrive()
{
    m_segment->detach(this);
}

void SimDrive::setPowered(bool powered)
{
    if (powered == m_powered)
        return;
    m_powered = powered;
    m_timer.stop();
    m_bootTimer.stop();
    m_nmt.powerOff();
    m_sdo.reset();
    // Downloaded values live in RAM: losing power brings back the defaults.
    m_dictionary.restoreDefaults(0x0000, 0xFFFF);
    if (powered) {
        m_bitRateIndex = m_startBitRate;
        m_lss.restart(m_startNodeId, m_startBitRate);
        takeNodeId(m_startNodeId);
        m_bootTimer.start(kBootLoaderWindowMs);
    }
}

void SimDrive::takeNodeId(quint8 nodeId)
{
    m_nmt.setNodeId(nodeId);
    m_sdo.setNodeId(nodeId == NmtSlave::kUnconfigured ? 0 : nodeId);
}

void SimDrive::boot()
{
    if (!m_powered)
        return;
    applyHeartbeatPeriod();
    m_nmt.bootUp(serverTimeUs());
    rearm();
}

void SimDrive::applyHeartbeatPeriod()
{
    m_nmt.setHeartbeatPeriodMs(quint16(m_dictionary.unsignedValue(0x1017, 0, 0)), serverTimeUs());
}

void SimDrive::receive(const BusFrame& frame)
{
    const qint64 now = serverTimeUs();
    if (m_lss.onFrame(frame.frame, now)) {
        rearm();
        return;
    }
    m_nmt.onFrame(frame.frame, now);
    // A stopped node, or one still booting, has no SDO service.
    if (m_nmt.acceptsSdo())
        m_sdo.onFrame(frame.frame, now);
    rearm();
}

void SimDrive::rearm()
{
    qint64 deadline = -1;
    for (const qint64 d : {m_nmt.nextDeadlineUs(), m_sdo.nextDeadlineUs(), m_lss.nextDeadlineUs()})
        if (d >= 0 && (deadline < 0 || d < deadline))
            deadline = d;
    if (deadline < 0) {
        m_timer.stop();
        return;
    }
    const qint64 delayUs = std::max<qint64>(0, deadline - serverTimeUs());
    m_timer.start(int((delayUs + 999) / 1000));
}

} // namespace qorcalib

#include "lssslave.h"

#include <QtEndian>

namespace qorcalib {

using namespace lss;

LssSlave::LssSlave(Address address, quint8 nodeId, int bitRateIndex, Hooks hooks)
    : m_address(address), m_hooks(std::move(hooks)), m_activeNodeId(nodeId),
      m_pendingNodeId(nodeId), m_bitRate(bitRateIndex), m_pendingBitRate(bitRateIndex)
{
}

void LssSlave::restart(quint8 nodeId, int bitRateIndex)
{
    m_state = State::Waiting;
    m_activeNodeId = m_pendingNodeId = nodeId;
    m_bitRate = m_pendingBitRate = bitRateIndex;
    m_selectiveStep = 0;
    m_identifyStep = 0;
    m_fastscanPos = 0;
    m_switchAtUs = -1;
    m_silentUntilUs = -1;
}

void LssSlave::answer(quint8 command, quint8 byte1, quint8 byte2)
{
    if (m_hooks.send)
        m_hooks.send(frameBytes(kSlaveId, command, byte1, byte2));
}

void LssSlave::answerValue(quint8 command, quint32 value)
{
    if (m_hooks.send)
        m_hooks.send(frame(kSlaveId, command, value));
}

bool LssSlave::inIdentifyRanges() const
{
    return m_identify[0] == m_address[0] && m_identify[1] == m_address[1] &&
           m_address[2] >= m_identify[2] && m_address[2] <= m_identify[3] &&
           m_address[3] >= m_identify[4] && m_address[3] <= m_identify[5];
}

bool LssSlave::onFrame(const CanFrame& f, qint64 nowUs)
{
    if (f.id != kMasterId || f.remote || f.len != 8)
        return false;
    // While it changes its bit rate the node takes part in nothing.
    if (m_silentUntilUs >= 0 && nowUs < m_silentUntilUs)
        return true;
    const quint8 cs = f.data[0];
    const bool configuring = m_state == State::Configuration;
    switch (cs) {
    case SwitchGlobal:
        if (f.data[1] <= 1) {
            const bool leaving = configuring && f.data[1] == 0;
            m_state = f.data[1] == 1 ? State::Configuration : State::Waiting;
            if (leaving && m_activeNodeId == kUnconfigured && m_pendingNodeId != kUnconfigured) {
                m_activeNodeId = m_pendingNodeId;
                if (m_hooks.nodeIdTaken)
                    m_hooks.nodeIdTaken(m_activeNodeId);
            }
        }
        m_selectiveStep = 0;
        break;
    case SwitchSelectiveVendor:
    case SwitchSelectiveProduct:
    case SwitchSelectiveRevision:
    case SwitchSelectiveSerial: {
        const int part = cs - SwitchSelectiveVendor;
        // The four parts come in order; a vendor-ID always starts the sequence anew.
        if (part == 0)
            m_selectiveStep = 0;
        if (part == m_selectiveStep && valueOf(f) == m_address[size_t(part)])
            ++m_selectiveStep;
        else
            m_selectiveStep = 0;
        if (m_selectiveStep == 4) {
            m_selectiveStep = 0;
            m_state = State::Configuration;
            answer(SwitchSelectiveAnswer);
        }
        break;
    }
    case ConfigureNodeId:
        if (configuring) {
            const quint8 node = f.data[1];
            const bool valid = (node >= 1 && node <= 127) || node == kUnconfigured;
            if (valid)
                m_pendingNodeId = node;
            answer(ConfigureNodeId, valid ? 0 : 1);
        }
        break;
    case ConfigureBitTiming:
        if (configuring) {
            const bool valid = f.data[1] == 0 && f.data[2] < kBitRates;
            if (valid)
                m_pendingBitRate = f.data[2];
            answer(ConfigureBitTiming, valid ? 0 : 1);
        }
        break;
    case ActivateBitTiming:
        if (configuring) {
            m_delayUs = qint64(qFromLittleEndian<quint16>(f.data.data() + 1)) * 1000;
            m_switchAtUs = nowUs + m_delayUs;
            m_silentUntilUs = nowUs + 2 * m_delayUs;
        }
        break;
    case StoreConfiguration:
        if (configuring) {
            if (!m_storeSupported)
                answer(StoreConfiguration, 1);
            else
                answer(StoreConfiguration,
                       !m_hooks.store || m_hooks.store(m_pendingNodeId, m_pendingBitRate) ? 0 : 2);
        }
        break;
    case InquireVendor:
    case InquireProduct:
    case InquireRevision:
    case InquireSerial:
        if (configuring)
            answerValue(cs, m_address[size_t(cs - InquireVendor)]);
        break;
    case InquireNodeId:
        if (configuring)
            answer(InquireNodeId, m_activeNodeId);
        break;
    case IdentifyVendor:
    case IdentifyProduct:
    case IdentifyRevisionLow:
    case IdentifyRevisionHigh:
    case IdentifySerialLow:
    case IdentifySerialHigh: {
        const int part = cs - IdentifyVendor;
        if (part == 0)
            m_identifyStep = 0;
        if (part != m_identifyStep) {
            m_identifyStep = 0;
            break;
        }
        m_identify[size_t(part)] = valueOf(f);
        if (++m_identifyStep == 6) {
            m_identifyStep = 0;
            if (inIdentifyRanges())
                answer(IdentifySlaveAnswer);
        }
        break;
    }
    case IdentifyNonConfigured:
        if (m_activeNodeId == kUnconfigured)
            answer(NonConfiguredAnswer);
        break;
    case Fastscan:
        onFastscan(f);
        break;
    default:
        break;
    }
    return true;
}

void LssSlave::onFastscan(const CanFrame& f)
{
    // Only a node without a node-ID, waiting, takes part.
    if (m_state != State::Waiting || m_activeNodeId != kUnconfigured)
        return;
    const quint32 id = valueOf(f);
    const quint8 bitCheck = f.data[5];
    const quint8 sub = f.data[6];
    const quint8 next = f.data[7];
    if (bitCheck == kFastscanReset) {
        m_fastscanPos = 0;
        answer(IdentifySlaveAnswer);
        return;
    }
    if (bitCheck > 31 || sub > 3 || next > 3 || sub != m_fastscanPos)
        return;
    const quint32 mask = 0xFFFFFFFFu << bitCheck;
    if (((id ^ m_address[sub]) & mask) != 0)
        return;
    answer(IdentifySlaveAnswer);
    if (bitCheck == 0) {
        m_fastscanPos = next;
        // The whole address has matched: this node is now the one being configured.
        if (next < sub) {
            m_fastscanPos = 0;
            m_state = State::Configuration;
        }
    }
}

void LssSlave::onTimer(qint64 nowUs)
{
    if (m_switchAtUs >= 0 && nowUs >= m_switchAtUs) {
        m_switchAtUs = -1;
        m_bitRate = m_pendingBitRate;
        if (m_hooks.switchBitRate)
            m_hooks.switchBitRate(m_bitRate);
    }
    if (m_silentUntilUs >= 0 && nowUs >= m_silentUntilUs)
        m_silentUntilUs = -1;
}

} // namespace qorcalib

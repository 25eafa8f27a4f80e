#include "lssmaster.h"

namespace qorcalib {

using namespace lss;

LssMaster::LssMaster(std::function<void(const CanFrame&)> send) : m_send(std::move(send)) {}

void LssMaster::start(std::deque<Step> plan, qint64 nowUs)
{
    m_busy = true;
    m_scanning = false;
    m_result = Result{};
    m_plan = std::move(plan);
    next(nowUs);
}

void LssMaster::next(qint64 nowUs)
{
    while (!m_plan.empty()) {
        m_current = m_plan.front();
        m_plan.pop_front();
        if (m_current.sendFrame)
            m_send(m_current.frame);
        switch (m_current.wait) {
        case Wait::None:
            continue;
        case Wait::Pause:
            m_deadlineUs = nowUs + m_current.pauseUs;
            return;
        case Wait::Answer:
        case Wait::Collect:
            m_deadlineUs = nowUs + m_timeoutUs;
            return;
        }
    }
    finish();
}

void LssMaster::finish(const QString& error, ErrorKind kind)
{
    m_busy = false;
    m_scanning = false;
    m_deadlineUs = -1;
    m_plan.clear();
    if (m_result.error.isEmpty()) {
        m_result.error = error;
        m_result.kind = error.isEmpty() ? ErrorKind::None : kind;
    }
    if (done)
        done(m_result);
}

void LssMaster::cancel()
{
    m_busy = false;
    m_scanning = false;
    m_deadlineUs = -1;
    m_plan.clear();
}

namespace {
CanFrame request(quint8 command, quint32 value = 0)
{
    return frame(kMasterId, command, value);
}
} // namespace

void LssMaster::switchGlobal(bool configuration, qint64 nowUs)
{
    start({{frameBytes(kMasterId, SwitchGlobal, configuration ? 1 : 0)}}, nowUs);
}

void LssMaster::switchSelective(const Address& address, qint64 nowUs)
{
    start({{request(SwitchSelectiveVendor, address[0])},
           {request(SwitchSelectiveProduct, address[1])},
           {request(SwitchSelectiveRevision, address[2])},
           {request(SwitchSelectiveSerial, address[3]), true, Wait::Answer, SwitchSelectiveAnswer}},
          nowUs);
}

void LssMaster::configureNodeId(quint8 nodeId, qint64 nowUs)
{
    start({{frameBytes(kMasterId, ConfigureNodeId, nodeId), true, Wait::Answer, ConfigureNodeId}},
          nowUs);
}

void LssMaster::configureBitTiming(quint8 bitRateIndex, qint64 nowUs)
{
    start({{frameBytes(kMasterId, ConfigureBitTiming, 0, bitRateIndex), true, Wait::Answer,
            ConfigureBitTiming}},
          nowUs);
}

void LssMaster::activateBitTiming(quint16 delayMs, qint64 nowUs)
{
    start({{frameBytes(kMasterId, ActivateBitTiming, quint8(delayMs & 0xFF), quint8(delayMs >> 8)),
            true, Wait::Pause, 0, 2 * qint64(delayMs) * 1000}},
          nowUs);
}

void LssMaster::storeConfiguration(qint64 nowUs)
{
    start({{request(StoreConfiguration), true, Wait::Answer, StoreConfiguration}}, nowUs);
}

void LssMaster::inquireNodeId(qint64 nowUs)
{
    start({{request(InquireNodeId), true, Wait::Answer, InquireNodeId}}, nowUs);
}

void LssMaster::inquireAddress(qint64 nowUs)
{
    std::deque<Step> plan;
    for (quint8 cs = InquireVendor; cs <= InquireSerial; ++cs)
        plan.push_back({request(cs), true, Wait::Answer, cs});
    start(std::move(plan), nowUs);
}

void LssMaster::identifyRemote(const Address& low, const Address& high, qint64 nowUs)
{
    start({{request(IdentifyVendor, low[0])},
           {request(IdentifyProduct, low[1])},
           {request(IdentifyRevisionLow, low[2])},
           {request(IdentifyRevisionHigh, high[2])},
           {request(IdentifySerialLow, low[3])},
           {request(IdentifySerialHigh, high[3]), true, Wait::Collect, IdentifySlaveAnswer}},
          nowUs);
}

void LssMaster::identifyNonConfigured(qint64 nowUs)
{
    start({{request(IdentifyNonConfigured), true, Wait::Collect, NonConfiguredAnswer}}, nowUs);
}

bool LssMaster::onFrame(const CanFrame& f, qint64 nowUs)
{
    if (f.id != kSlaveId || f.remote || f.len != 8)
        return false;
    if (!m_busy || (m_current.wait != Wait::Answer && m_current.wait != Wait::Collect) ||
        f.data[0] != m_current.answer)
        return true;
    if (m_scanning) {
        // One answer is enough: the bit is 0 for at least one slave.
        fastscanStep(true, nowUs);
        return true;
    }
    if (m_current.wait == Wait::Collect) {
        m_result.answered = true;
        return true;
    }
    onAnswer(f, nowUs);
    return true;
}

void LssMaster::onAnswer(const CanFrame& f, qint64 nowUs)
{
    const quint8 cs = f.data[0];
    switch (cs) {
    case ConfigureNodeId:
    case ConfigureBitTiming:
    case StoreConfiguration:
        m_result.errorCode = f.data[1];
        if (f.data[1] != 0) {
            finish(errorText(cs, f.data[1], f.data[2]), ErrorKind::Abort);
            return;
        }
        break;
    case InquireNodeId:
        m_result.value = f.data[1];
        break;
    case InquireVendor:
    case InquireProduct:
    case InquireRevision:
    case InquireSerial:
        m_result.address[size_t(cs - InquireVendor)] = valueOf(f);
        m_result.value = valueOf(f);
        break;
    default:
        break;
    }
    m_result.answered = true;
    m_current.wait = Wait::None;
    next(nowUs);
}

void LssMaster::onTimer(qint64 nowUs)
{
    if (!m_busy || m_deadlineUs < 0 || nowUs < m_deadlineUs)
        return;
    m_deadlineUs = -1;
    if (m_scanning) {
        fastscanStep(false, nowUs);
        return;
    }
    switch (m_current.wait) {
    case Wait::Answer:
        finish(kNoAnswer, ErrorKind::TimeOut);
        return;
    case Wait::Collect:
    case Wait::Pause:
    case Wait::None:
        m_current.wait = Wait::None;
        next(nowUs);
        return;
    }
}

void LssMaster::fastscan(qint64 nowUs)
{
    m_result = Result{};
    m_plan.clear();
    m_busy = true;
    m_scanning = true;
    m_confirming = false;
    m_sub = -1; // -1: the reset that every unconfigured slave answers
    m_current = Step{frame(kMasterId, Fastscan, 0, kFastscanReset, 0, 0), true, Wait::Collect,
                     IdentifySlaveAnswer};
    m_send(m_current.frame);
    m_deadlineUs = nowUs + m_timeoutUs;
}

void LssMaster::probe(qint64 nowUs)
{
    // Bits above m_bit as found; bit m_bit asked as 0.
    const quint8 next = m_confirming ? quint8((m_sub + 1) % 4) : quint8(m_sub);
    m_current.frame =
        frame(kMasterId, Fastscan, m_id, quint8(m_confirming ? 0 : m_bit), quint8(m_sub), next);
    m_send(m_current.frame);
    m_deadlineUs = nowUs + m_timeoutUs;
}

void LssMaster::fastscanStep(bool answered, qint64 nowUs)
{
    if (m_sub < 0) {
        if (!answered) {
            finish(); // no unconfigured slave: answered stays false
            return;
        }
        m_result.answered = true;
        m_sub = 0;
        m_bit = 31;
        m_id = 0;
        probe(nowUs);
        return;
    }
    if (m_confirming) {
        if (!answered) {
            finish(QStringLiteral("the LSS slave stopped answering during Fastscan"),
                   ErrorKind::TimeOut);
            return;
        }
        m_result.address[size_t(m_sub)] = m_id;
        m_confirming = false;
        if (++m_sub == 4) {
            finish(); // the slave found is in configuration state now
            return;
        }
        m_bit = 31;
        m_id = 0;
        probe(nowUs);
        return;
    }
    if (!answered)
        m_id |= quint32(1) << m_bit;
    if (m_bit == 0)
        m_confirming = true;
    else
        --m_bit;
    probe(nowUs);
}

} // namespace qorcalib

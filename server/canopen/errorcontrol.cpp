#include "errorcontrol.h"

namespace qorcalib {

namespace {
constexpr quint16 kGuardTime = 0x100C;
constexpr quint16 kLifeTimeFactor = 0x100D;
constexpr quint16 kConsumerTimes = 0x1016;
} // namespace

ErrorControl::ErrorControl(ObjectValues* dictionary, std::function<void(const CanFrame&)> send)
    : m_dictionary(dictionary), m_send(std::move(send))
{
}

qint64 ErrorControl::lifeTimeUs() const
{
    return qint64(m_dictionary->unsignedValue(kGuardTime, 0) & 0xFFFF) * 1000 *
           qint64(m_dictionary->unsignedValue(kLifeTimeFactor, 0) & 0xFF);
}

void ErrorControl::reset()
{
    const bool wasLost = anyLost();
    m_toggle = false;
    m_lastGuardUs = -1;
    m_lifeLost = false;
    m_consumers = {};
    if (wasLost && changed)
        changed();
}

bool ErrorControl::heartbeatLost(quint8 node) const
{
    for (int i = 0; i < kConsumers; ++i)
        if (m_consumers[i].lost &&
            quint8(m_dictionary->unsignedValue(kConsumerTimes, quint8(i + 1)) >> 16) == node)
            return true;
    return false;
}

bool ErrorControl::anyLost() const
{
    if (m_lifeLost)
        return true;
    for (const Monitored& m : m_consumers)
        if (m.lost)
            return true;
    return false;
}

bool ErrorControl::onFrame(const CanFrame& frame, quint8 nodeId, quint8 nmtState, qint64 nowUs)
{
    if (frame.id == 0x700 + nodeId && frame.remote) {
        CanFrame answer;
        answer.id = frame.id;
        answer.len = 1;
        answer.data[0] = quint8((nmtState & 0x7F) | (m_toggle ? 0x80 : 0x00));
        m_toggle = !m_toggle;
        m_lastGuardUs = nowUs;
        if (m_send)
            m_send(answer);
        if (m_lifeLost) {
            m_lifeLost = false;
            if (changed)
                changed();
        }
        return true;
    }
    if (frame.remote || frame.len != 1 || frame.id <= 0x700 || frame.id > 0x77F)
        return false;
    const quint8 node = quint8(frame.id - 0x700);
    bool monitored = false;
    for (int i = 0; i < kConsumers; ++i) {
        const quint32 entry = m_dictionary->unsignedValue(kConsumerTimes, quint8(i + 1));
        if ((entry & 0xFFFF) == 0 || quint8(entry >> 16) != node)
            continue;
        monitored = true;
        Monitored& m = m_consumers[i];
        // A boot-up starts the monitoring over: the node's first heartbeat is still to come.
        m.lastUs = frame.data[0] == 0x00 ? -1 : nowUs;
        if (m.lost) {
            m.lost = false;
            if (changed)
                changed();
        }
    }
    return monitored;
}

void ErrorControl::onTimer(qint64 nowUs)
{
    bool changedNow = false;
    const qint64 life = lifeTimeUs();
    if (!m_lifeLost && life > 0 && m_lastGuardUs >= 0 && nowUs - m_lastGuardUs >= life) {
        m_lifeLost = true;
        changedNow = true;
    }
    for (int i = 0; i < kConsumers; ++i) {
        Monitored& m = m_consumers[i];
        const qint64 time =
            qint64(m_dictionary->unsignedValue(kConsumerTimes, quint8(i + 1)) & 0xFFFF) * 1000;
        if (!m.lost && time > 0 && m.lastUs >= 0 && nowUs - m.lastUs >= time) {
            m.lost = true;
            changedNow = true;
        }
    }
    if (changedNow && changed)
        changed();
}

qint64 ErrorControl::nextDeadlineUs() const
{
    qint64 next = -1;
    const auto consider = [&next](qint64 d) {
        if (d >= 0 && (next < 0 || d < next))
            next = d;
    };
    const qint64 life = lifeTimeUs();
    if (!m_lifeLost && life > 0 && m_lastGuardUs >= 0)
        consider(m_lastGuardUs + life);
    for (int i = 0; i < kConsumers; ++i) {
        const Monitored& m = m_consumers[i];
        const qint64 time =
            qint64(m_dictionary->unsignedValue(kConsumerTimes, quint8(i + 1)) & 0xFFFF) * 1000;
        if (!m.lost && time > 0 && m.lastUs >= 0)
            consider(m.lastUs + time);
    }
    return next;
}

} // namespace qorcalib

#include "bootcatch.h"

#include <algorithm>

namespace qorcalib {

namespace boot {

CanFrame request(quint8 node)
{
    return CanFrame::make(kRequestId, {kRequestCode, node});
}

bool isRequestFor(const CanFrame& frame, quint8 nodeId)
{
    return frame.id == kRequestId && !frame.remote && frame.len == 2 &&
           frame.data[0] == kRequestCode && (frame.data[1] == 0 || frame.data[1] == nodeId);
}

CanFrame answer(quint8 node, quint32 version)
{
    return CanFrame::make(kAnswerId, {node, quint8(version), quint8(version >> 8),
                                      quint8(version >> 16), quint8(version >> 24)});
}

} // namespace boot

BootCatcher::BootCatcher(std::function<void(const CanFrame&)> send) : m_send(std::move(send)) {}

void BootCatcher::start(quint8 node, int timeoutMs, qint64 nowUs)
{
    m_busy = true;
    m_node = node;
    m_endUs = nowUs + qint64(std::max(0, timeoutMs)) * 1000;
    m_nextRequestUs = nowUs;
    onTimer(nowUs);
}

bool BootCatcher::onFrame(const CanFrame& frame, qint64)
{
    if (!m_busy || frame.id != boot::kAnswerId || frame.remote || frame.len < 5)
        return false;
    const quint8 node = frame.data[0];
    // With a node named, another node's boot loader is not the one asked for.
    if (m_node != 0 && node != m_node)
        return false;
    const quint32 version = quint32(frame.data[1]) | quint32(frame.data[2]) << 8 |
                            quint32(frame.data[3]) << 16 | quint32(frame.data[4]) << 24;
    finish({true, node, version});
    return true;
}

void BootCatcher::onTimer(qint64 nowUs)
{
    if (!m_busy || nowUs < m_nextRequestUs)
        return;
    if (nowUs >= m_endUs) {
        finish({});
        return;
    }
    m_send(boot::request(m_node));
    m_nextRequestUs = std::min(m_endUs, nowUs + qint64(boot::kRepeatMs) * 1000);
}

void BootCatcher::finish(const Result& result)
{
    m_busy = false;
    if (done)
        done(result);
}

} // namespace qorcalib

#include "transmitbudget.h"

namespace qorcalib {

bool TransmitBudget::admit(quint64 session, qint64 us)
{
    qint64& queued = m_queuedUs[session];
    // A single frame is always let through, however long it takes at a slow bit rate.
    if (queued > 0 && queued + us > m_limitUs)
        return false;
    queued += us;
    return true;
}

void TransmitBudget::release(quint64 session, qint64 us)
{
    const auto it = m_queuedUs.find(session);
    if (it == m_queuedUs.end())
        return;
    // The controller's bit rate may have changed while the frame waited: never below zero.
    it->second -= us;
    if (it->second <= 0)
        m_queuedUs.erase(it);
}

qint64 TransmitBudget::queuedUs(quint64 session) const
{
    const auto it = m_queuedUs.find(session);
    return it == m_queuedUs.end() ? 0 : it->second;
}

} // namespace qorcalib

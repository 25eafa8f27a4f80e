#pragma once

#include <QtGlobal>

#include <unordered_map>

namespace qorcalib {

// How much bus time each client session has waiting in a controller's transmit queue. A
// session may queue up to one second of bus time; past that its frames are refused ("transmit
// queue full") until the bus has taken some, so that no client can make the server hold hours
// of frames, nor keep the bus busy long after it stopped sending.
class TransmitBudget
{
public:
    static constexpr qint64 kPerSessionUs = 1000 * 1000;
    static constexpr const char* kFullText = "transmit queue full";

    explicit TransmitBudget(qint64 perSessionUs = kPerSessionUs) : m_limitUs(perSessionUs) {}

    // Charges the session for a frame of `us` bus time; false (nothing charged) when it would
    // go past its share.
    bool admit(quint64 session, qint64 us);
    // The frame left the queue (sent, or dropped).
    void release(quint64 session, qint64 us);
    void forget(quint64 session) { m_queuedUs.erase(session); }
    void clear() { m_queuedUs.clear(); }
    qint64 queuedUs(quint64 session) const;

private:
    qint64 m_limitUs;
    std::unordered_map<quint64, qint64> m_queuedUs;
};

} // namespace qorcalib

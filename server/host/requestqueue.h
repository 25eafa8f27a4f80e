#pragma once

#include <QtGlobal>

#include <algorithm>
#include <deque>
#include <optional>

namespace qorcalib {

// The requests of sessions waiting for a controller's service (SDO, LSS), in the order they
// came. Request has `session` and `requestId`.
template <typename Request> class RequestQueue
{
public:
    bool empty() const { return m_requests.empty(); }
    int waiting(quint64 session) const
    {
        return int(std::count_if(m_requests.begin(), m_requests.end(),
                                 [session](const Request& r) { return r.session == session; }));
    }
    void push(Request request) { m_requests.push_back(std::move(request)); }
    Request takeFront() { return take(m_requests.begin()); }
    // The session went away: its requests go, unanswered.
    void drop(quint64 session)
    {
        m_requests.erase(
            std::remove_if(m_requests.begin(), m_requests.end(),
                           [session](const Request& r) { return r.session == session; }),
            m_requests.end());
    }
    // Takes one request out, when it is there.
    std::optional<Request> take(quint64 session, int requestId)
    {
        const auto it = std::find_if(m_requests.begin(), m_requests.end(), [&](const Request& r) {
            return r.session == session && r.requestId == requestId;
        });
        if (it == m_requests.end())
            return std::nullopt;
        return take(it);
    }
    // Ends a waiting request at once with `result` (its done hook gets it); false when the
    // session has no such request waiting.
    template <typename Result>
    bool cancelWaiting(quint64 session, int requestId, const Result& result)
    {
        std::optional<Request> request = take(session, requestId);
        if (!request)
            return false;
        if (request->done)
            request->done(result);
        return true;
    }
    // Sessions in turn: the first request of the session numbered next after `lastServed`,
    // wrapping round to the lowest number.
    Request takeInTurn(quint64 lastServed)
    {
        return *takeInTurn(lastServed, [](const Request&) { return true; });
    }
    // The same among the requests that can run now; nullopt when none can.
    template <typename CanRun>
    std::optional<Request> takeInTurn(quint64 lastServed, const CanRun& canRun)
    {
        auto after = m_requests.end();
        auto lowest = m_requests.end();
        for (auto it = m_requests.begin(); it != m_requests.end(); ++it) {
            if (!canRun(*it))
                continue;
            if (it->session > lastServed &&
                (after == m_requests.end() || it->session < after->session))
                after = it;
            if (lowest == m_requests.end() || it->session < lowest->session)
                lowest = it;
        }
        if (lowest == m_requests.end())
            return std::nullopt;
        return take(after != m_requests.end() ? after : lowest);
    }

private:
    Request take(typename std::deque<Request>::iterator it)
    {
        Request request = std::move(*it);
        m_requests.erase(it);
        return request;
    }

    std::deque<Request> m_requests;
};

} // namespace qorcalib

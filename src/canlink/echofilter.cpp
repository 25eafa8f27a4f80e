#include "echofilter.h"

namespace tessel {

namespace {
// Frames sent but not yet reported back; older ones were never acknowledged on the bus.
constexpr qsizetype kNowMemory = 256;
// A replay has up to 200 frames waiting on the server at once.
constexpr qsizetype kTimedMemory = 1024;
} // namespace

void EchoFilter::remember(Kind kind, int controller, quint16 id, const QByteArray& data)
{
    queue(kind).enqueue({controller, id, data});
}

void EchoFilter::forgetLast(Kind kind, qsizetype count)
{
    QQueue<Sent>& sent = queue(kind);
    for (qsizetype i = 0; i < count && !sent.isEmpty(); ++i)
        sent.removeLast();
}

void EchoFilter::bound(Kind kind)
{
    QQueue<Sent>& sent = queue(kind);
    const qsizetype limit = kind == Kind::Now ? kNowMemory : kTimedMemory;
    while (sent.size() > limit)
        sent.dequeue();
}

void EchoFilter::forgetTimed(int controller)
{
    m_timed.removeIf([controller](const Sent& s) { return s.controller == controller; });
}

bool EchoFilter::takeOwn(int controller, int id, const QByteArray& data)
{
    return take(m_now, controller, id, data) || take(m_timed, controller, id, data);
}

bool EchoFilter::take(QQueue<Sent>& sent, int controller, int id, const QByteArray& data)
{
    for (qsizetype i = 0; i < sent.size(); ++i) {
        const Sent& s = sent[i];
        if (s.controller == controller && s.id == id && s.data == data) {
            // Reports come in send order: what is before this one was never on the bus.
            sent.erase(sent.begin(), sent.begin() + i + 1);
            return true;
        }
    }
    return false;
}

} // namespace tessel

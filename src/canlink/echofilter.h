#pragma once

#include <QByteArray>
#include <QQueue>

namespace tessel {

// The server reports every frame sent for this program (TxCan), and the sender has already
// traced its own: the filter remembers what was sent so that its report is passed over.
// Frames sent at once and timed frames (which go out after frames sent later) are matched
// apart; both memories are bounded, for reports that never come.
class EchoFilter
{
public:
    enum class Kind { Now, Timed };

    // Remembered before the send call: a busy client may read the report with the answer.
    void remember(Kind kind, int controller, quint16 id, const QByteArray& data);
    // The last `count` frames remembered of a kind were refused: no report comes for them.
    void forgetLast(Kind kind, qsizetype count = 1);
    // After a call: the oldest frames beyond the memory's bound are forgotten.
    void bound(Kind kind);
    // Timed frames taken back from a controller's queue are never reported.
    void forgetTimed(int controller);
    // A transmit report: true when it is one of this program's own frames (then consumed,
    // with every frame remembered before it, which was never on the bus).
    bool takeOwn(int controller, int id, const QByteArray& data);

private:
    struct Sent
    {
        int controller;
        quint16 id;
        QByteArray data;
    };
    QQueue<Sent>& queue(Kind kind) { return kind == Kind::Now ? m_now : m_timed; }
    static bool take(QQueue<Sent>& sent, int controller, int id, const QByteArray& data);

    QQueue<Sent> m_now;
    QQueue<Sent> m_timed;
};

} // namespace tessel

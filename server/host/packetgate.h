#pragma once

#include "packetrules.h"

#include <QIODevice>
#include <QPointer>
#include <QTimer>

#include <memory>

namespace qorcalib {

// Stands between one client's connection and the remote objects node, which trusts every
// packet it is given. Packets from the client pass only whole and only when PacketRules accept
// them; packets to the client pass through PacketRules' filter. The client's unread backlog is
// bounded. When the client breaks a rule, or leaves too much unread for too long, the gate
// stops passing anything and reports it once through refused(), for the host to end the
// connection; the server itself never sees the packet.
class PacketGate : public QIODevice
{
    Q_OBJECT
public:
    struct Limits
    {
        // The largest packet a client may send: an SDO download or a serial image of a few
        // MiB fits many times over.
        qint64 maxPacket = 16 * 1024 * 1024;
        // Unread data the client may leave behind. The session stops sending it frames past
        // this; a client that keeps half of it unread for `stallMs` has stopped reading, and
        // one that leaves twice as much is gone at once.
        qint64 backlog = 16 * 1024 * 1024;
        int stallMs = 5000;
        // A packet that has begun must make progress: one that gets no byte further for this
        // long ends its connection (a client that sends most of a large packet and stops would
        // otherwise hold that memory for good).
        int packetProgressMs = 5000;
    };
    // The bytes of packets that have begun but are not yet whole, over all connections of a
    // server: past `limit`, a connection that already holds some waits (its data stays in the
    // kernel) until others have completed or been ended, so that many clients each sending most
    // of a large packet cannot take the server's memory.
    struct UnfinishedBudget
    {
        qint64 limit = 64 * 1024 * 1024;
        qint64 held = 0;
    };
    // What a gate reads from its connection at a time; the connection's own read buffer need
    // hold no more.
    static constexpr qint64 kReadPiece = 256 * 1024;

    PacketGate(QIODevice* connection, PacketRules rules, Limits limits,
               std::shared_ptr<UnfinishedBudget> budget = nullptr, QObject* parent = nullptr);
    ~PacketGate() override;

    QIODevice* connection() const { return m_connection; }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override;
    qint64 bytesToWrite() const override;

signals:
    void refused(const QString& reason);

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    void pull();
    // Moves the next whole packet from m_in to m_accepted when the rules let it pass: its
    // size, 0 when m_in holds no whole packet, -1 when refused.
    qsizetype takePacket();
    void checkBacklog();
    void refuse(const QString& reason);
    // Brings the budget's count and the progress timer up to what m_in holds now.
    void accountUnfinished(bool progressed);

    QPointer<QIODevice> m_connection;
    PacketRules m_rules;
    Limits m_limits;
    QByteArray m_in; // from the client, from m_inStart on not yet passed on
    qsizetype m_inStart = 0;
    QByteArray m_accepted; // whole packets for the node
    QByteArray m_out;      // from the node, not yet a whole packet
    QTimer m_stall;
    QTimer m_progress;
    std::shared_ptr<UnfinishedBudget> m_budget; // shared by the gates of one server
    qint64 m_held = 0;                          // what this gate counts in m_budget
    bool m_refused = false;
    bool m_pullQueued = false;
};

} // namespace qorcalib

#pragma once

#include "packetgate.h"
#include "tlsidentity.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

#include <map>
#include <memory>

class QIODevice;
class QLocalServer;
class QRemoteObjectHost;
class QTcpServer;
class QTimer;

namespace qorcalib {

class ServerCore;
class Session;

// Listens for clients on the local socket and, when asked, on TCP. Each connection is greeted
// with its session name (and, on TCP, a challenge that only holders of the server's secret can
// answer); once the client answers, the connection carries Qt Remote Objects through a
// PacketGate, and the session's objects are offered on a node of the session's own, so that no
// connection can see or reach another session's objects. When the connection ends, or the
// gate refuses what the client sent, the session goes.
//
// Connections that have not answered their greeting are bounded, so that nobody can take the
// server's file descriptors or memory without the secret: at most kMaxPendingTcp on TCP, of them
// kMaxPendingPerAddress from one address, and apart from them kMaxPendingLocal on the local
// socket, so that the user's own clients always find room. Past a bound the oldest such
// connection of the kind goes. An address whose answers failed kMaxFailuresPerPeriod times in a
// period is turned away at once for the rest of it, and its failures are logged once a period
// with their count.
class ServerHost : public QObject
{
    Q_OBJECT
public:
    static constexpr int kGreetingTimeoutMs = 5000;
    static constexpr int kTcpGreetingTimeoutMs = 2000;
    static constexpr int kMaxPendingLocal = 64;
    static constexpr int kMaxPendingTcp = 64;
    static constexpr int kMaxPendingPerAddress = 8;
    static constexpr int kMaxFailuresPerPeriod = 20;
    static constexpr int kFailurePeriodMs = 10000;

    explicit ServerHost(ServerCore* core, QObject* parent = nullptr);
    ~ServerHost() override;

    // The socket is made reachable by this user only. A stale socket file of a dead server is
    // replaced; a live server on the same path is an error.
    bool listenLocal(const QString& path, QString* error);
    // "tcp://ADDR:PORT", in TLS with the server's identity. Clients must prove that they hold
    // `secret`, bound to the identity's certificate (handshake.h).
    bool listenTcp(const QUrl& url, const QByteArray& secret, const TlsIdentity& identity,
                   QString* error);
    QString localPath() const;
    quint16 tcpPort() const;

    void setGateLimits(const PacketGate::Limits& limits) { m_limits = limits; }
    const PacketGate::Limits& gateLimits() const { return m_limits; }

    int sessionCount() const { return int(m_clients.size()); }
    QStringList sessionDescriptions() const;

signals:
    void sessionsChanged();

private:
    struct Pending
    {
        quint64 id;
        QString peer;
        QByteArray nonce; // TCP: the challenge
        QString address;  // TCP: the peer's address; empty on the local socket
    };
    // Failed answers from one address in the current period.
    struct Failures
    {
        int count = 0;
        int unlogged = 0;   // failures not yet in the log
        int turnedAway = 0; // connections closed unheard because of them
    };
    struct Client
    {
        QPointer<PacketGate> gate;
        QRemoteObjectHost* node = nullptr;
        QPointer<QObject> nodeConnection; // the node's own wrapper of the gate
        std::unique_ptr<Session> session;
    };

    void greet(QIODevice* connection, const QString& peer, const QString& address);
    // Writes the greeting of a pending connection.
    void sendGreeting(QIODevice* connection);
    // Drops the oldest waiting connection of the same kind (and address) while there are as
    // many as the bounds allow.
    void makeRoom(const QString& address);
    void noteFailure(const QString& address, const QString& peer);
    void logFailures();
    void readAttach(QIODevice* connection);
    void attach(QIODevice* connection, const Pending& pending);
    void dropConnection(QIODevice* connection, const QString& reason = {});

    ServerCore* m_core;
    QLocalServer* m_local = nullptr;
    int m_socketLock = -1; // the lock beside the local socket (handshake::takeSocketLock)
    QTcpServer* m_tcp = nullptr;
    QByteArray m_secret;
    TlsIdentity m_identity;
    QByteArray m_certificateDigest; // SHA-256 of the certificate, as clients bind proofs to it
    PacketGate::Limits m_limits;
    std::shared_ptr<PacketGate::UnfinishedBudget> m_budget =
        std::make_shared<PacketGate::UnfinishedBudget>();
    std::map<QString, Failures> m_failures;
    QTimer* m_failurePeriod = nullptr;
    quint64 m_nextSession = 1;
    std::map<QIODevice*, Pending> m_pending;
    std::map<QIODevice*, Client> m_clients;
};

} // namespace qorcalib

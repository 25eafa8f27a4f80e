#pragma once

#include "packetgate.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

#include <map>
#include <memory>

class QIODevice;
class QLocalServer;
class QRemoteObjectHost;
class QTcpServer;

namespace qorcalib {

class ServerCore;
class Session;

// Listens for clients on the local socket and, when asked, on TCP. Each connection is greeted
// with its session name (and, on TCP, a challenge that only holders of the server's secret can
// answer); once the client answers, the connection carries Qt Remote Objects through a
// PacketGate, and the session's objects are offered on a node of the session's own, so that no
// connection can see or reach another session's objects. When the connection ends, or the
// gate refuses what the client sent, the session goes.
class ServerHost : public QObject
{
    Q_OBJECT
public:
    static constexpr int kGreetingTimeoutMs = 5000;

    explicit ServerHost(ServerCore* core, QObject* parent = nullptr);
    ~ServerHost() override;

    // The socket is made reachable by this user only. A stale socket file of a dead server is
    // replaced; a live server on the same path is an error.
    bool listenLocal(const QString& path, QString* error);
    // "tcp://ADDR:PORT". Clients must prove that they hold `secret` (handshake.h).
    bool listenTcp(const QUrl& url, const QByteArray& secret, QString* error);
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
    };
    struct Client
    {
        QPointer<PacketGate> gate;
        QRemoteObjectHost* node = nullptr;
        QPointer<QObject> nodeConnection; // the node's own wrapper of the gate
        std::unique_ptr<Session> session;
    };

    void greet(QIODevice* connection, const QString& peer, bool challenge);
    void readAttach(QIODevice* connection);
    void attach(QIODevice* connection, const Pending& pending);
    void dropConnection(QIODevice* connection, const QString& reason = {});

    ServerCore* m_core;
    QLocalServer* m_local = nullptr;
    QTcpServer* m_tcp = nullptr;
    QByteArray m_secret;
    PacketGate::Limits m_limits;
    quint64 m_nextSession = 1;
    std::map<QIODevice*, Pending> m_pending;
    std::map<QIODevice*, Client> m_clients;
};

} // namespace qorcalib

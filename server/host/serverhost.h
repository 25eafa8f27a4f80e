#pragma once

#include <QObject>
#include <QPointer>
#include <QRemoteObjectHost>
#include <QUrl>

#include <map>
#include <memory>

class QIODevice;
class QLocalServer;
class QTcpServer;

namespace qorcalib {

class ServerCore;
class Session;

// Listens for clients on the local socket and, when asked, on TCP. Each connection is greeted
// with its session name; once the client answers, the connection carries Qt Remote Objects
// and the session's objects are offered on it. When the connection ends the session goes.
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
    // "tcp://ADDR:PORT"
    bool listenTcp(const QUrl& url, QString* error);
    QString localPath() const;
    quint16 tcpPort() const;

    int sessionCount() const { return int(m_sessions.size()); }
    QStringList sessionDescriptions() const;

signals:
    void sessionsChanged();

private:
    void greet(QIODevice* connection, const QString& peer);
    void readAttach(QIODevice* connection);
    void dropConnection(QIODevice* connection);

    ServerCore* m_core;
    QRemoteObjectHost m_node;
    QLocalServer* m_local = nullptr;
    QTcpServer* m_tcp = nullptr;
    quint64 m_nextSession = 1;
    struct Pending
    {
        quint64 id;
        QString peer;
    };
    std::map<QIODevice*, Pending> m_pending;
    std::map<QIODevice*, std::unique_ptr<Session>> m_sessions;
    // The remote objects node's own wrapper of each connection (see dropConnection).
    std::map<QIODevice*, QPointer<QObject>> m_wrappers;
};

} // namespace qorcalib

#pragma once

#include "rep_qorcalib_replica.h"

#include <QObject>
#include <QPointer>
#include <QRemoteObjectNode>

#include <memory>
#include <optional>

class QIODevice;

namespace qorcalib {

// Where the server is: its local socket, or a machine and port on TCP.
struct ServerAddress
{
    QString localPath; // set for the local server
    QString host;
    quint16 port = 0;

    // "localhost" (exactly) is the local server; "NAME" or "NAME:PORT" is a server on TCP.
    static ServerAddress fromMachineName(const QString& machine, const QString& localPath);
    bool isLocal() const { return !localPath.isEmpty(); }
    QString display() const;
};

// One session on the CAN server and its objects. Every call through it ends within its time-out
// with an error description when the server is gone or does not answer.
class ServerConnection : public QObject
{
    Q_OBJECT
public:
    static constexpr int kDefaultTimeoutMs = 5000;
    static inline const QString kNotReachable = QStringLiteral("CAN server not reachable");

    explicit ServerConnection(QObject* parent = nullptr);
    ~ServerConnection() override;

    // The secret a server on TCP asks for (handshake.h); without one, this user's own server's
    // secret file is tried.
    void setSecret(const QByteArray& secret) { m_secret = secret; }
    // Where the certificates of servers met before are pinned (handshake::pinPath() unless
    // set).
    void setPinFile(const QString& path) { m_pinFile = path; }
    bool open(const ServerAddress& address, int timeoutMs, QString* error);
    bool isConnected() const;
    // Something on the stack still works with it: a wait for a reply, or the tale of its loss
    // (whose message may run an event loop of its own). It must outlive that.
    bool inUse() const { return m_inUse > 0; }
    QString sessionName() const { return m_session; }

    QCSCanConnectorReplica* connector() const { return m_connector.get(); }
    QCSBusReplica* bus() const { return m_bus.get(); }
    QCSNotifyReplica* notify() const { return m_notify.get(); }
    QCSServiceReplica* service() const { return m_service.get(); }
    QCSTestConnectorReplica* testConnector() const { return m_test.get(); }
    QCSBenchBoardReplica* benchBoard() const { return m_board.get(); }
    QCSBenchIoReplica* benchIo() const { return m_io.get(); }
    QCSServerWindowReplica* serverWindow() const { return m_window.get(); }

    // Waits for a reply while events run; the user's input meanwhile is dropped (InputBlocker).
    // nullopt, with *error set, when the server is lost or the reply does not come in time.
    template <typename T>
    std::optional<T> wait(QRemoteObjectPendingReply<T> reply, QString* error,
                          int timeoutMs = kDefaultTimeoutMs)
    {
        if (!waitFor(reply, timeoutMs)) {
            if (error)
                *error = kNotReachable;
            return std::nullopt;
        }
        return reply.returnValue();
    }

signals:
    void connectionLost();

private:
    bool waitFor(QRemoteObjectPendingCall& call, int timeoutMs);
    template <typename R>
    bool acquire(std::unique_ptr<R>& replica, const char* className, int timeoutMs, QString* error);
    void lose();

    QRemoteObjectNode m_node;
    QPointer<QIODevice> m_socket;
    QString m_session;
    QByteArray m_secret;
    QString m_pinFile;
    QByteArray m_certificateDigest; // of the TLS server's certificate
    bool m_lost = false;
    int m_inUse = 0;
    std::unique_ptr<QCSCanConnectorReplica> m_connector;
    std::unique_ptr<QCSBusReplica> m_bus;
    std::unique_ptr<QCSNotifyReplica> m_notify;
    std::unique_ptr<QCSServiceReplica> m_service;
    std::unique_ptr<QCSTestConnectorReplica> m_test;
    std::unique_ptr<QCSBenchBoardReplica> m_board;
    std::unique_ptr<QCSBenchIoReplica> m_io;
    std::unique_ptr<QCSServerWindowReplica> m_window;
};

} // namespace qorcalib

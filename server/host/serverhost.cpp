#include "serverhost.h"

#include "canmsg.h"
#include "servercore.h"
#include "session.h"

#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace qorcalib {

namespace {
constexpr qint64 kMaxGreetingLine = 64;
}

ServerHost::ServerHost(ServerCore* core, QObject* parent) : QObject(parent), m_core(core) {}

ServerHost::~ServerHost()
{
    m_sessions.clear();
}

bool ServerHost::listenLocal(const QString& path, QString* error)
{
    m_local = new QLocalServer(this);
    m_local->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_local->listen(path)) {
        QLocalSocket probe;
        probe.connectToServer(path);
        if (probe.waitForConnected(500)) {
            *error = QStringLiteral("another qorcalib-server already listens on %1").arg(path);
            return false;
        }
        // Left behind by a server that did not end cleanly.
        QLocalServer::removeServer(path);
        if (!m_local->listen(path)) {
            *error = QStringLiteral("cannot listen on %1: %2").arg(path, m_local->errorString());
            return false;
        }
    }
    // The socket's own mode is not enough on every system: the file must be ours alone.
    QFile::setPermissions(m_local->fullServerName(), QFile::ReadOwner | QFile::WriteOwner);
    connect(m_local, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_local->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, this,
                    [this, socket] { dropConnection(socket); });
            greet(socket, QStringLiteral("local"));
        }
    });
    return true;
}

bool ServerHost::listenTcp(const QUrl& url, QString* error)
{
    if (url.scheme() != QLatin1String("tcp") || url.host().isEmpty() || url.port() < 0) {
        *error = QStringLiteral("listen address '%1' is not of the form tcp://ADDR:PORT")
                     .arg(url.toString());
        return false;
    }
    QHostAddress address;
    if (url.host() == QLatin1String("localhost"))
        address = QHostAddress::LocalHost;
    else if (!address.setAddress(url.host())) {
        *error = QStringLiteral("listen address '%1' is not an IP address").arg(url.host());
        return false;
    }
    m_tcp = new QTcpServer(this);
    if (!m_tcp->listen(address, quint16(url.port()))) {
        *error = QStringLiteral("cannot listen on %1: %2").arg(url.toString(), m_tcp->errorString());
        return false;
    }
    connect(m_tcp, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_tcp->nextPendingConnection()) {
            // A client whose machine vanished is noticed by keep-alive instead of never.
            socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            connect(socket, &QTcpSocket::disconnected, this,
                    [this, socket] { dropConnection(socket); });
            greet(socket, QStringLiteral("tcp %1:%2")
                              .arg(socket->peerAddress().toString())
                              .arg(socket->peerPort()));
        }
    });
    return true;
}

QString ServerHost::localPath() const
{
    return m_local ? m_local->fullServerName() : QString();
}

quint16 ServerHost::tcpPort() const
{
    return m_tcp ? m_tcp->serverPort() : 0;
}

QStringList ServerHost::sessionDescriptions() const
{
    QStringList list;
    for (const auto& [connection, session] : m_sessions)
        list.append(session->description());
    return list;
}

void ServerHost::greet(QIODevice* connection, const QString& peer)
{
    const quint64 id = m_nextSession++;
    m_pending[connection] = Pending{id, peer};
    connection->write(QByteArray(kGreeting) + " session-" + QByteArray::number(id) + '\n');
    connect(connection, &QIODevice::readyRead, this, [this, connection] { readAttach(connection); });
    QTimer::singleShot(kGreetingTimeoutMs, connection, [this, connection] {
        if (m_pending.count(connection))
            dropConnection(connection);
    });
}

void ServerHost::readAttach(QIODevice* connection)
{
    const auto pending = m_pending.find(connection);
    if (pending == m_pending.end())
        return;
    if (!connection->canReadLine()) {
        if (connection->bytesAvailable() > kMaxGreetingLine)
            dropConnection(connection);
        return;
    }
    const QByteArray line = connection->readLine(kMaxGreetingLine).trimmed();
    if (line != kAttach) {
        dropConnection(connection);
        return;
    }
    const Pending p = pending->second;
    m_pending.erase(pending);
    disconnect(connection, &QIODevice::readyRead, this, nullptr);

    // From here on the connection belongs to the remote objects node. Its first bytes may
    // already wait in the buffer, so tell the node about them.
    const QObjectList before = m_node.children();
    m_node.addHostSideConnection(connection);
    for (QObject* child : m_node.children())
        if (!before.contains(child) && child->metaObject()->indexOfSignal("disconnected()") >= 0)
            m_wrappers[connection] = child;
    auto session = std::make_unique<Session>(m_core, this, p.id, p.peer, connection);
    QString error;
    if (!session->enableRemoting(&m_node, &error)) {
        qWarning("qorcalib-server: %s", qPrintable(error));
        dropConnection(connection);
        return;
    }
    m_sessions[connection] = std::move(session);
    if (connection->bytesAvailable() > 0)
        QMetaObject::invokeMethod(connection, "readyRead", Qt::QueuedConnection);
    emit sessionsChanged();
}

void ServerHost::dropConnection(QIODevice* connection)
{
    m_pending.erase(connection);
    const auto it = m_sessions.find(connection);
    const bool hadSession = it != m_sessions.end();
    if (hadSession)
        m_sessions.erase(it);
    disconnect(connection, nullptr, this, nullptr);
    // Qt Remote Objects 6.4 never hears that an external connection ended (it looks up the
    // device's disconnected() signal under a wrong name), keeps writing to it and would use
    // the device after it is gone. Its wrapper of the connection has the signal it waits for:
    // emit that, so the node forgets the connection first.
    if (const auto wrapper = m_wrappers.find(connection); wrapper != m_wrappers.end()) {
        if (wrapper->second)
            QMetaObject::invokeMethod(wrapper->second, "disconnected", Qt::DirectConnection);
        m_wrappers.erase(wrapper);
    }
    if (connection->isOpen())
        connection->close();
    // The remote objects node may still be handling this connection's last packet.
    connection->deleteLater();
    if (hadSession)
        emit sessionsChanged();
}

} // namespace qorcalib

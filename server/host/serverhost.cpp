#include "serverhost.h"

#include "canmsg.h"
#include "handshake.h"
#include "servercore.h"
#include "session.h"

#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QRemoteObjectHost>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <unistd.h>

namespace qorcalib {

namespace {
// Hands out its connections as TLS sockets, not yet encrypted: the host bounds and greets them
// like any other, and starts the encryption itself.
class TlsListener : public QTcpServer
{
public:
    using QTcpServer::QTcpServer;

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QSslSocket(this);
        if (socket->setSocketDescriptor(descriptor))
            addPendingConnection(socket);
        else
            delete socket;
    }
};

constexpr qint64 kMaxGreetingLine = 160;
// The greeting is all a connection may send before it is attached; its socket keeps no more.
constexpr qint64 kGreetingBuffer = 4096;
} // namespace

ServerHost::ServerHost(ServerCore* core, QObject* parent) : QObject(parent), m_core(core)
{
    m_failurePeriod = new QTimer(this);
    m_failurePeriod->setInterval(kFailurePeriodMs);
    connect(m_failurePeriod, &QTimer::timeout, this, &ServerHost::logFailures);
}

ServerHost::~ServerHost()
{
    while (!m_clients.empty())
        dropConnection(m_clients.begin()->first);
    // The socket goes first (QLocalServer removes it), then the lock that guarded it.
    delete m_local;
    m_local = nullptr;
    if (m_socketLock >= 0)
        ::close(m_socketLock);
}

bool ServerHost::listenLocal(const QString& path, QString* error)
{
    // Held for the host's life: a second server on the same path stops here, before it could
    // take the first one's socket away.
    m_socketLock = takeSocketLock(path, error);
    if (m_socketLock < 0)
        return false;
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
    if (!QFile::setPermissions(m_local->fullServerName(), QFile::ReadOwner | QFile::WriteOwner)) {
        *error =
            QStringLiteral("cannot make %1 private to this user").arg(m_local->fullServerName());
        m_local->close();
        return false;
    }
    connect(m_local, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket* socket = m_local->nextPendingConnection()) {
            socket->setReadBufferSize(kGreetingBuffer);
            connect(socket, &QLocalSocket::disconnected, this,
                    [this, socket] { dropConnection(socket); });
            makeRoom({});
            greet(socket, QStringLiteral("local"), {});
        }
    });
    return true;
}

bool ServerHost::listenTcp(const QUrl& url, const QByteArray& secret, const TlsIdentity& identity,
                           QString* error)
{
    if (url.scheme() != QLatin1String("tcp") || url.host().isEmpty() || url.port() < 0) {
        *error = QStringLiteral("listen address '%1' is not of the form tcp://ADDR:PORT")
                     .arg(url.toString());
        return false;
    }
    if (secret.isEmpty()) {
        *error = QStringLiteral("TCP clients cannot be admitted without a secret");
        return false;
    }
    QHostAddress address;
    if (url.host() == QLatin1String("localhost"))
        address = QHostAddress::LocalHost;
    else if (!address.setAddress(url.host())) {
        *error = QStringLiteral("listen address '%1' is not an IP address").arg(url.host());
        return false;
    }
    auto* server = new TlsListener(this);
    if (!server->listen(address, quint16(url.port()))) {
        *error =
            QStringLiteral("cannot listen on %1: %2").arg(url.toString(), server->errorString());
        delete server;
        return false;
    }
    m_secret = secret;
    m_identity = identity;
    m_certificateDigest = identity.certificate.digest(QCryptographicHash::Sha256);
    if (!m_tcp)
        m_tcp = server;
    connect(server, &QTcpServer::newConnection, this, [this, server] {
        while (QTcpSocket* socket = server->nextPendingConnection()) {
            const QString address = socket->peerAddress().toString();
            const auto failures = m_failures.find(address);
            if (failures != m_failures.end() && failures->second.count >= kMaxFailuresPerPeriod) {
                ++failures->second.turnedAway;
                socket->abort();
                socket->deleteLater();
                continue;
            }
            socket->setReadBufferSize(kGreetingBuffer);
            // A client whose machine vanished is noticed by keep-alive instead of never.
            socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
            socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
            connect(socket, &QTcpSocket::disconnected, this,
                    [this, socket] { dropConnection(socket); });
            makeRoom(address);
            greet(socket, QStringLiteral("tcp %1:%2").arg(address).arg(socket->peerPort()),
                  address);
            // The greeting goes out once the connection is encrypted; a peer that fails the
            // handshake is dropped, and one that never finishes it meets the greeting's
            // time-out.
            auto* tls = static_cast<QSslSocket*>(socket);
            QSslConfiguration config = QSslConfiguration::defaultConfiguration();
            config.setLocalCertificate(m_identity.certificate);
            config.setPrivateKey(m_identity.key);
            config.setProtocol(QSsl::TlsV1_2OrLater);
            config.setPeerVerifyMode(QSslSocket::VerifyNone);
            tls->setSslConfiguration(config);
            connect(tls, &QSslSocket::encrypted, this, [this, tls] { sendGreeting(tls); });
            connect(tls, &QSslSocket::sslErrors, this, [this, tls] { dropConnection(tls); });
            tls->startServerEncryption();
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
    for (const auto& [connection, client] : m_clients)
        if (client.session)
            list.append(client.session->description());
    return list;
}

void ServerHost::makeRoom(const QString& address)
{
    const bool tcp = !address.isEmpty();
    const auto count = [&](bool sameAddress) {
        int n = 0;
        QIODevice* oldest = nullptr;
        quint64 oldestId = 0;
        for (const auto& [connection, p] : m_pending) {
            if (p.address.isEmpty() == tcp || (sameAddress && p.address != address))
                continue;
            ++n;
            if (!oldest || p.id < oldestId) {
                oldest = connection;
                oldestId = p.id;
            }
        }
        return std::pair{n, oldest};
    };
    if (tcp)
        for (auto [n, oldest] = count(true); n >= kMaxPendingPerAddress; --n) {
            dropConnection(oldest);
            oldest = count(true).second;
        }
    const int limit = tcp ? kMaxPendingTcp : kMaxPendingLocal;
    for (auto [n, oldest] = count(false); n >= limit; --n) {
        dropConnection(oldest);
        oldest = count(false).second;
    }
}

void ServerHost::greet(QIODevice* connection, const QString& peer, const QString& address)
{
    const quint64 id = m_nextSession++;
    const bool challenge = !address.isEmpty();
    Pending pending{id, peer, challenge ? handshake::newNonce() : QByteArray(), address};
    m_pending[connection] = pending;
    connect(connection, &QIODevice::readyRead, this,
            [this, connection] { readAttach(connection); });
    if (!challenge)
        sendGreeting(connection);
    QTimer::singleShot(challenge ? kTcpGreetingTimeoutMs : kGreetingTimeoutMs, connection,
                       [this, connection] {
                           if (m_pending.count(connection))
                               dropConnection(connection);
                       });
}

void ServerHost::sendGreeting(QIODevice* connection)
{
    const auto pending = m_pending.find(connection);
    if (pending == m_pending.end())
        return;
    connection->write(handshake::greetingLine("session-" + QByteArray::number(pending->second.id),
                                              pending->second.nonce));
}

void ServerHost::noteFailure(const QString& address, const QString& peer)
{
    Failures& f = m_failures[address];
    // The first failure of an address in a period is told at once, the rest with their count
    // when the period ends: a client trying thousands of answers cannot flood the log.
    if (f.count++ == 0)
        qWarning("qorcalib-server: %s refused: it does not hold the secret for TCP clients",
                 qPrintable(peer));
    else
        ++f.unlogged;
    if (!m_failurePeriod->isActive())
        m_failurePeriod->start();
}

void ServerHost::logFailures()
{
    for (const auto& [address, f] : m_failures)
        if (f.unlogged > 0 || f.turnedAway > 0)
            qWarning("qorcalib-server: %s: %d more refused for not holding the secret, %d turned "
                     "away unheard, in the last %d s",
                     qPrintable(address), f.unlogged, f.turnedAway, kFailurePeriodMs / 1000);
    m_failures.clear();
    m_failurePeriod->stop();
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
    QByteArray proof;
    const QByteArray line = connection->readLine(kMaxGreetingLine);
    if (!handshake::parseAttach(line, &proof)) {
        dropConnection(connection);
        return;
    }
    const Pending p = pending->second;
    if (!p.nonce.isEmpty()) {
        const QByteArray want = handshake::proof(
            m_secret, p.nonce, "session-" + QByteArray::number(p.id), m_certificateDigest);
        if (!handshake::sameProof(proof, want)) {
            noteFailure(p.address, p.peer);
            dropConnection(connection);
            return;
        }
    }
    m_pending.erase(pending);
    disconnect(connection, &QIODevice::readyRead, this, nullptr);
    attach(connection, p);
}

void ServerHost::attach(QIODevice* connection, const Pending& pending)
{
    // The gate reads a piece at a time; what the client sends beyond that waits in the
    // kernel, not in the server.
    if (auto* socket = qobject_cast<QAbstractSocket*>(connection))
        socket->setReadBufferSize(PacketGate::kReadPiece);
    else if (auto* local = qobject_cast<QLocalSocket*>(connection))
        local->setReadBufferSize(PacketGate::kReadPiece);

    const QString sessionName = QStringLiteral("session-%1").arg(pending.id);
    Client& client = m_clients[connection];
    client.gate = new PacketGate(connection, PacketRules(RemoteContract::server(), sessionName),
                                 m_limits, m_budget, connection);
    connect(client.gate, &PacketGate::refused, this,
            [this, connection](const QString& reason) { dropConnection(connection, reason); });
    client.node = new QRemoteObjectHost;
    const QObjectList before = client.node->children();
    client.node->addHostSideConnection(client.gate);
    for (QObject* child : client.node->children())
        if (!before.contains(child) && child->metaObject()->indexOfSignal("disconnected()") >= 0)
            client.nodeConnection = child;
    client.session =
        std::make_unique<Session>(m_core, this, pending.id, pending.peer, client.gate.data());
    QString error;
    if (!client.session->enableRemoting(client.node, &error)) {
        qWarning("qorcalib-server: %s", qPrintable(error));
        dropConnection(connection);
        return;
    }
    emit sessionsChanged();
}

void ServerHost::dropConnection(QIODevice* connection, const QString& reason)
{
    m_pending.erase(connection);
    disconnect(connection, nullptr, this, nullptr);
    const auto it = m_clients.find(connection);
    const bool hadSession = it != m_clients.end();
    if (hadSession) {
        Client client = std::move(it->second);
        m_clients.erase(it);
        if (!reason.isEmpty() && client.session)
            qWarning("qorcalib-server: %s (%s) disconnected: %s",
                     qPrintable(client.session->name()), qPrintable(client.session->description()),
                     qPrintable(reason));
        client.session.reset();
        // Qt Remote Objects 6.4 never hears that an external connection ended (it looks up the
        // device's disconnected() signal under a wrong name), keeps writing to it and would use
        // the device after it is gone. Its wrapper of the connection has the signal it waits
        // for: emit that, so the node forgets the connection first.
        if (client.nodeConnection)
            QMetaObject::invokeMethod(client.nodeConnection, "disconnected", Qt::DirectConnection);
        // The node may still be handling this connection's last packet.
        if (client.node)
            client.node->deleteLater();
    }
    if (connection->isOpen())
        connection->close();
    connection->deleteLater();
    if (hadSession)
        emit sessionsChanged();
}

} // namespace qorcalib

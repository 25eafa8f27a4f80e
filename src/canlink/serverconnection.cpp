#include "serverconnection.h"

#include "canmsg.h"
#include "handshake.h"
#include "inputblocker.h"

#include <QDeadlineTimer>
#include <QEventLoop>
#include <QLocalSocket>
#include <QRemoteObjectPendingCallWatcher>
#include <QScopeGuard>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>

namespace qorcalib {

ServerAddress ServerAddress::fromMachineName(const QString& machine, const QString& localPath)
{
    ServerAddress address;
    if (machine == QLatin1String("localhost")) {
        address.localPath = localPath;
        return address;
    }
    address.host = machine;
    address.port = kDefaultTcpPort;
    // "NAME:PORT", "[IPv6]:PORT"; a bare IPv6 address has more than one colon and no port.
    QString portText;
    if (machine.startsWith(QLatin1Char('['))) {
        const qsizetype close = machine.indexOf(QLatin1Char(']'));
        if (close > 0) {
            address.host = machine.mid(1, close - 1);
            if (machine.mid(close + 1).startsWith(QLatin1Char(':')))
                portText = machine.mid(close + 2);
        }
    } else if (machine.count(QLatin1Char(':')) == 1) {
        const qsizetype colon = machine.indexOf(QLatin1Char(':'));
        address.host = machine.left(colon);
        portText = machine.mid(colon + 1);
    }
    if (!portText.isEmpty()) {
        bool ok = false;
        const uint port = portText.toUInt(&ok);
        // A port that is not a number is left for the connection to report as unreachable.
        address.port = ok && port <= 65535 ? quint16(port) : 0;
    }
    return address;
}

QString ServerAddress::display() const
{
    return isLocal() ? localPath : QStringLiteral("%1:%2").arg(host).arg(port);
}

ServerConnection::ServerConnection(QObject* parent) : QObject(parent) {}

ServerConnection::~ServerConnection()
{
    // Replicas go before the node they belong to.
    m_window.reset();
    m_io.reset();
    m_board.reset();
    m_test.reset();
    m_service.reset();
    m_notify.reset();
    m_bus.reset();
    m_connector.reset();
    if (m_socket)
        m_socket->close();
}

bool ServerConnection::isConnected() const
{
    return m_socket && m_socket->isOpen() && !m_lost;
}

bool ServerConnection::open(const ServerAddress& address, int timeoutMs, QString* error)
{
    const QDeadlineTimer deadline(timeoutMs);
    const auto fail = [&](const QString& why) {
        *error = QStringLiteral("%1 (%2): %3").arg(kNotReachable, address.display(), why);
        if (m_socket)
            m_socket->close();
        return false;
    };
    if (address.isLocal()) {
        auto* socket = new QLocalSocket(this);
        m_socket = socket;
        socket->connectToServer(address.localPath);
        if (!socket->waitForConnected(int(deadline.remainingTime())))
            return fail(socket->errorString());
        connect(socket, &QLocalSocket::disconnected, this, &ServerConnection::lose);
    } else {
        auto* socket = new QSslSocket(this);
        m_socket = socket;
        // The server's certificate is its own, signed by nobody: it is pinned, not verified.
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.setPeerVerifyMode(QSslSocket::QueryPeer);
        config.setProtocol(QSsl::TlsV1_2OrLater);
        socket->setSslConfiguration(config);
        socket->connectToHostEncrypted(address.host, address.port);
        if (!socket->waitForConnected(int(deadline.remainingTime())))
            return fail(socket->errorString());
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
        if (!socket->waitForEncrypted(int(deadline.remainingTime())))
            return fail(QStringLiteral("no TLS with the server: %1").arg(socket->errorString()));
        m_certificateDigest = socket->peerCertificate().digest(QCryptographicHash::Sha256);
        const QString pins = m_pinFile.isEmpty() ? handshake::pinPath() : m_pinFile;
        const QString server = address.display();
        const QByteArray pinned = handshake::pinnedDigest(pins, server);
        if (pinned.isEmpty()) {
            QString pinError;
            if (!handshake::pin(pins, server, m_certificateDigest, &pinError))
                return fail(pinError);
        } else if (pinned != m_certificateDigest) {
            return fail(QStringLiteral("the server presents another certificate (SHA-256 %1) "
                                       "than the one pinned for it in %2 (%3): someone may stand "
                                       "between this machine and the server; if the server was "
                                       "set up anew, remove its line from that file")
                            .arg(QString::fromLatin1(m_certificateDigest.toHex()), pins,
                                 QString::fromLatin1(pinned.toHex())));
        }
        connect(socket, &QTcpSocket::disconnected, this, &ServerConnection::lose);
    }

    // The greeting names our session; nothing else arrives before we answer it.
    while (!m_socket->canReadLine()) {
        if (deadline.hasExpired() || !m_socket->waitForReadyRead(int(deadline.remainingTime())))
            return fail(QStringLiteral("no greeting from the server"));
    }
    const handshake::Greeting greeting = handshake::parseGreeting(m_socket->readLine(256));
    if (greeting.session.isEmpty())
        return fail(QStringLiteral("this is not a CAN server of a known version"));
    m_session = QString::fromLatin1(greeting.session);
    QByteArray proof;
    if (!greeting.nonce.isEmpty()) {
        const QByteArray secret = m_secret.isEmpty() ? handshake::loadSecret() : m_secret;
        if (secret.isEmpty())
            return fail(QStringLiteral("the server admits only clients that hold its secret "
                                       "(%1 on the server's machine): copy that file to the "
                                       "same place here, readable by this user only")
                            .arg(handshake::secretPath()));
        proof = handshake::proof(secret, greeting.nonce, greeting.session, m_certificateDigest);
    }
    m_socket->write(handshake::attachLine(proof));
    m_node.addClientSideConnection(m_socket);

    const int remaining = int(qMax<qint64>(1, deadline.remainingTime()));
    if (!acquire(m_connector, "QCSCanConnector", remaining, error) ||
        !acquire(m_bus, "QCSBus", remaining, error) ||
        !acquire(m_notify, "QCSNotify", remaining, error) ||
        !acquire(m_service, "QCSService", remaining, error) ||
        !acquire(m_test, "QCSTestConnector", remaining, error) ||
        !acquire(m_board, "QCSBenchBoard", remaining, error) ||
        !acquire(m_io, "QCSBenchIo", remaining, error) ||
        !acquire(m_window, "QCSServerWindow", remaining, error)) {
        // A server on TCP hangs up at once on a wrong answer to its challenge.
        if (!greeting.nonce.isEmpty() && m_lost)
            return fail(QStringLiteral("the server did not accept this client's secret"));
        return fail(*error);
    }
    return true;
}

template <typename R>
bool ServerConnection::acquire(std::unique_ptr<R>& replica, const char* className, int timeoutMs,
                               QString* error)
{
    replica.reset(m_node.acquire<R>(m_session + QLatin1Char('/') + QLatin1String(className)));
    if (!replica || !replica->waitForSource(timeoutMs)) {
        *error = QStringLiteral("the server did not offer %1").arg(QLatin1String(className));
        return false;
    }
    return true;
}

bool ServerConnection::waitFor(QRemoteObjectPendingCall& call, int timeoutMs)
{
    if (call.isFinished())
        return call.error() == QRemoteObjectPendingCall::NoError;
    if (!isConnected())
        return false;
    ++m_inUse;
    const auto done = qScopeGuard([this] { --m_inUse; });
    QRemoteObjectPendingCallWatcher watcher(call);
    QEventLoop loop;
    connect(&watcher, &QRemoteObjectPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    connect(this, &ServerConnection::connectionLost, &loop, &QEventLoop::quit);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    // Input made during the call is dropped: deferred, it would be carried out afterwards.
    tessel::InputBlocker blocker;
    loop.exec();
    return call.isFinished() && call.error() == QRemoteObjectPendingCall::NoError;
}

void ServerConnection::lose()
{
    if (m_lost)
        return;
    m_lost = true;
    ++m_inUse;
    const auto done = qScopeGuard([this] { --m_inUse; });
    emit connectionLost();
}

} // namespace qorcalib

#include "wire.h"

#include "handshake.h"

#include <QtNetwork>
#include <QtTest>

namespace qorcalib::test {

namespace wire {

namespace {
QDataStream& prepared(QDataStream& s)
{
    s.setVersion(QDataStream::Qt_6_2);
    s.setByteOrder(QDataStream::LittleEndian);
    return s;
}
} // namespace

QByteArray packet(quint16 type, const QByteArray& body)
{
    QByteArray out;
    QDataStream s(&out, QIODevice::WriteOnly);
    prepared(s) << quint32(body.size() + 2) << type;
    out.append(body);
    return out;
}

QByteArray body(const QByteArray& packet)
{
    return packet.mid(4);
}

QByteArray string(const QString& text)
{
    QByteArray out;
    QDataStream s(&out, QIODevice::WriteOnly);
    prepared(s) << text;
    return out;
}

QByteArray addObject(const QString& name, bool dynamic)
{
    QByteArray b;
    QDataStream s(&b, QIODevice::WriteOnly);
    prepared(s) << name << dynamic;
    return packet(4, b);
}

QByteArray removeObject(const QString& name)
{
    return packet(5, string(name));
}

QByteArray invoke(const QString& name, int methodIndex, const QVariantList& args, int serial,
                  int call, qint64 declaredCount)
{
    QByteArray b;
    QDataStream s(&b, QIODevice::WriteOnly);
    prepared(s) << name << qint32(call) << qint32(methodIndex)
                << quint32(declaredCount < 0 ? args.size() : declaredCount);
    for (const QVariant& arg : args)
        s << arg;
    s << qint32(serial) << qint32(-1);
    return packet(6, b);
}

QByteArray objectList(const QStringList& names)
{
    QByteArray b;
    QDataStream s(&b, QIODevice::WriteOnly);
    prepared(s) << quint32(names.size());
    for (const QString& name : names)
        s << name << name.section('/', 1) << QByteArray("0123456789abcdef");
    return packet(9, b);
}

QByteArray randomPacket(QRandomGenerator& random, const QString& session)
{
    static const char* const classes[] = {"QCSBus",        "QCSService",      "QCSNotify",
                                          "QCSBenchBoard", "QCSServerWindow", "QCSNope"};
    const int pick = random.bounded(10);
    QString name = session + '/' + classes[random.bounded(6)];
    if (pick == 0)
        name = QStringLiteral("session-1/QCSBus");
    else if (pick == 1)
        name = QString(random.bounded(300), QChar(0x41 + random.bounded(26)));
    const QVariant choices[] = {QVariant(random.bounded(-3, 130)),
                                QVariant(QString(random.bounded(40), 'q')),
                                QVariant(QByteArray(random.bounded(64), '\x5A')),
                                QVariant(random.bounded(2) == 1),
                                QVariant(double(random.generate())),
                                QVariant(QStringList{"a", "b"}),
                                QVariant(QVariantList{1, 2, 3})};
    QVariantList args;
    for (int i = random.bounded(6); i > 0; --i)
        args.append(choices[random.bounded(7)]);
    QByteArray p;
    switch (random.bounded(8)) {
    case 0:
        p = addObject(name, random.bounded(2));
        break;
    case 1:
        p = removeObject(name);
        break;
    case 2:
        p = packet(quint16(random.bounded(14)),
                   string(name) + QByteArray(random.bounded(20), '\1'));
        break;
    case 3:
        p = invoke(name, random.bounded(-2, 16), args, 1, random.bounded(3) == 0 ? 2 : 0,
                   random.bounded(4) == 0 ? qint64(random.generate()) : -1);
        break;
    default:
        p = invoke(name, random.bounded(0, 14), args, random.bounded(100));
    }
    switch (random.bounded(6)) {
    case 0: { // declared size off, up to 2 GiB
        const quint32 size =
            random.bounded(2) ? random.generate() & 0x7FFFFFFF : random.bounded(64);
        p.replace(0, 4, QByteArray(reinterpret_cast<const char*>(&size), 4));
        break;
    }
    case 1:
        p.truncate(random.bounded(int(p.size())));
        break;
    case 2:
        if (p.size() > 6)
            p[6 + random.bounded(int(p.size()) - 6)] = char(random.generate());
        break;
    default:
        break;
    }
    return p;
}

} // namespace wire

RogueClient::RogueClient() = default;
RogueClient::~RogueClient() = default;

bool RogueClient::open(const QString& socketPath, bool attach)
{
    m_socket = std::make_unique<QLocalSocket>();
    m_socket->connectToServer(socketPath);
    if (!m_socket->waitForConnected(3000))
        return false;
    const QDeadlineTimer deadline(3000);
    while (!m_socket->canReadLine())
        if (deadline.hasExpired() || !m_socket->waitForReadyRead(int(deadline.remainingTime())))
            return false;
    const handshake::Greeting greeting = handshake::parseGreeting(m_socket->readLine());
    m_session = QString::fromLatin1(greeting.session);
    if (m_session.isEmpty())
        return false;
    if (attach)
        send(handshake::attachLine({}));
    return true;
}

void RogueClient::send(const QByteArray& bytes)
{
    m_socket->write(bytes);
    m_socket->flush();
}

void RogueClient::stopReading()
{
    m_socket->setReadBufferSize(1);
}

bool RogueClient::waitClosed(int timeoutMs)
{
    m_socket->setReadBufferSize(0);
    const QDeadlineTimer deadline(timeoutMs);
    while (m_socket->state() != QLocalSocket::UnconnectedState && !deadline.hasExpired()) {
        m_socket->waitForReadyRead(50);
        m_socket->readAll();
        QCoreApplication::processEvents();
    }
    return m_socket->state() == QLocalSocket::UnconnectedState;
}

bool RogueClient::isConnected() const
{
    return m_socket && m_socket->state() == QLocalSocket::ConnectedState;
}

QIODevice* RogueClient::device() const
{
    return m_socket.get();
}

QByteArray RogueClient::received()
{
    m_socket->waitForReadyRead(10);
    return m_socket->readAll();
}

} // namespace qorcalib::test

#include "packetgate.h"

#include <QtEndian>

namespace qorcalib {

namespace {
// Packets handed to the node in one turn of the event loop.
constexpr int kPacketsPerTurn = 32;

// The declared size of the packet at the start of `buffer` (type and body), or -1 while the
// size field is incomplete.
qint64 declaredSize(const QByteArray& buffer)
{
    if (buffer.size() < packet::kHeaderSize)
        return -1;
    return qint64(qFromLittleEndian<quint32>(buffer.constData()));
}
} // namespace

PacketGate::PacketGate(QIODevice* connection, PacketRules rules, Limits limits,
                       std::shared_ptr<UnfinishedBudget> budget, QObject* parent)
    : QIODevice(parent), m_connection(connection), m_rules(std::move(rules)), m_limits(limits),
      m_budget(std::move(budget))
{
    m_progress.setSingleShot(true);
    m_progress.setInterval(m_limits.packetProgressMs);
    connect(&m_progress, &QTimer::timeout, this, [this] {
        refuse(QStringLiteral("its packet got no further for %1 s (%2 bytes of it arrived)")
                   .arg(m_limits.packetProgressMs / 1000)
                   .arg(m_in.size() - m_inStart));
    });
    open(QIODevice::ReadWrite | QIODevice::Unbuffered);
    connect(connection, &QIODevice::readyRead, this, &PacketGate::pull);
    connect(connection, &QIODevice::bytesWritten, this, &PacketGate::checkBacklog);
    m_stall.setSingleShot(true);
    m_stall.setInterval(m_limits.stallMs);
    connect(&m_stall, &QTimer::timeout, this, [this] {
        if (bytesToWrite() > m_limits.backlog / 2)
            refuse(QStringLiteral("it has not read its last %1 KiB for %2 s")
                       .arg(bytesToWrite() / 1024)
                       .arg(m_limits.stallMs / 1000));
    });
    // What arrived right after the greeting is already waiting.
    if (connection->bytesAvailable() > 0)
        QMetaObject::invokeMethod(this, &PacketGate::pull, Qt::QueuedConnection);
}

PacketGate::~PacketGate()
{
    if (m_budget)
        m_budget->held -= m_held;
}

void PacketGate::accountUnfinished(bool progressed)
{
    const qint64 now = m_refused ? 0 : m_in.size() - m_inStart;
    if (m_budget)
        m_budget->held += now - m_held;
    m_held = now;
    if (now == 0)
        m_progress.stop();
    else if (progressed || !m_progress.isActive())
        m_progress.start();
}

qint64 PacketGate::bytesAvailable() const
{
    return m_accepted.size() + QIODevice::bytesAvailable();
}

qint64 PacketGate::bytesToWrite() const
{
    return m_connection ? m_connection->bytesToWrite() : 0;
}

qint64 PacketGate::readData(char* data, qint64 maxSize)
{
    const qint64 n = qMin<qint64>(maxSize, m_accepted.size());
    std::memcpy(data, m_accepted.constData(), size_t(n));
    m_accepted.remove(0, n);
    return n;
}

void PacketGate::pull()
{
    m_pullQueued = false;
    if (m_refused || !m_connection)
        return;
    int packets = 0;
    bool progressed = false;
    while (packets < kPacketsPerTurn) {
        const qsizetype taken = takePacket();
        if (taken < 0)
            return; // refused
        if (taken > 0) {
            ++packets;
            continue;
        }
        // Read on only when no whole packet is left: what the client sends beyond that waits
        // in the kernel, which slows the client down instead of filling the server.
        if (m_connection->bytesAvailable() <= 0)
            break;
        // A connection that already holds part of a packet waits while the server holds its
        // budget's worth of unfinished packets; it is looked at again shortly.
        if (m_budget && m_held > 0 && m_budget->held + kReadPiece > m_budget->limit) {
            if (!m_pullQueued) {
                m_pullQueued = true;
                QTimer::singleShot(20, this, &PacketGate::pull);
            }
            break;
        }
        m_in.remove(0, m_inStart);
        m_inStart = 0;
        m_in.append(m_connection->read(kReadPiece));
        progressed = true;
    }
    accountUnfinished(progressed);
    if (!m_accepted.isEmpty())
        emit readyRead();
    // A client that sends a burst is served in turns, so that the others and the bus's own
    // timers get the event loop in between.
    if (packets == kPacketsPerTurn && !m_pullQueued && !m_refused) {
        m_pullQueued = true;
        QMetaObject::invokeMethod(this, &PacketGate::pull, Qt::QueuedConnection);
    }
}

qsizetype PacketGate::takePacket()
{
    const QByteArray rest =
        QByteArray::fromRawData(m_in.constData() + m_inStart, m_in.size() - m_inStart);
    const qint64 size = declaredSize(rest);
    if (size < 0)
        return 0;
    if (size < 2 || size > m_limits.maxPacket) {
        refuse(QStringLiteral("it sent a packet of %1 bytes (at most %2)")
                   .arg(size)
                   .arg(m_limits.maxPacket));
        return -1;
    }
    if (rest.size() < packet::kHeaderSize + size)
        return 0;
    const QString error = m_rules.checkIncoming(rest.mid(packet::kHeaderSize, size));
    if (!error.isEmpty()) {
        refuse(error);
        return -1;
    }
    m_accepted.append(rest.constData(), packet::kHeaderSize + size);
    m_inStart += packet::kHeaderSize + size;
    return packet::kHeaderSize + size;
}

qint64 PacketGate::writeData(const char* data, qint64 size)
{
    if (m_refused || !m_connection)
        return size;
    m_out.append(data, size);
    qsizetype start = 0;
    while (true) {
        const QByteArray rest =
            QByteArray::fromRawData(m_out.constData() + start, m_out.size() - start);
        const qint64 packetSize = declaredSize(rest);
        if (packetSize < 0 || rest.size() < packet::kHeaderSize + packetSize)
            break;
        const QByteArray shown =
            m_rules.filterOutgoing(rest.left(packet::kHeaderSize + packetSize));
        if (!shown.isEmpty())
            m_connection->write(shown);
        start += packet::kHeaderSize + packetSize;
    }
    m_out.remove(0, start);
    checkBacklog();
    return size;
}

void PacketGate::checkBacklog()
{
    const qint64 waiting = bytesToWrite();
    if (waiting > 2 * m_limits.backlog) {
        refuse(QStringLiteral("it left %1 KiB unread").arg(waiting / 1024));
    } else if (waiting > m_limits.backlog / 2) {
        if (!m_stall.isActive())
            m_stall.start();
    } else {
        m_stall.stop();
    }
}

void PacketGate::refuse(const QString& reason)
{
    if (m_refused)
        return;
    m_refused = true;
    m_stall.stop();
    m_in.clear();
    m_inStart = 0;
    m_out.clear();
    accountUnfinished(false);
    // Told from the event loop: the node may be in the middle of writing to us.
    QMetaObject::invokeMethod(
        this, [this, reason] { emit refused(reason); }, Qt::QueuedConnection);
}

} // namespace qorcalib

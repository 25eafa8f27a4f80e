#pragma once

#include <QtCore>

#include <memory>

class QLocalSocket;
class QRandomGenerator;

namespace qorcalib::test {

// Remote-objects packets written by hand, as a client that does not use Qt Remote Objects
// (or uses it wrongly) would send them. Each returns the whole packet, size field included;
// body() leaves the size off.
namespace wire {

QByteArray packet(quint16 type, const QByteArray& body);
QByteArray body(const QByteArray& packet);
QByteArray string(const QString& text);
QByteArray addObject(const QString& name, bool dynamic = false);
QByteArray removeObject(const QString& name);
// `declaredCount` < 0: the number of `args`.
QByteArray invoke(const QString& name, int methodIndex, const QVariantList& args, int serial = 1,
                  int call = 0, qint64 declaredCount = -1);
// An ObjectList as the node announces objects, for the outgoing filter.
QByteArray objectList(const QStringList& names);

// A packet for a fuzzer: mostly of the protocol's shape, with one thing or another wrong (an
// object of another session or of no class, a method index out of range, too few or too many
// arguments, arguments of the wrong type, a declared size far from the real one, bytes cut
// off or added), and now and then right.
QByteArray randomPacket(QRandomGenerator& random, const QString& session);

// Method indices of the contract's classes, in the order of their SLOTs.
enum BusMethod
{
    StartController = 0,
    Advise = 3,
    Send = 6,
    GetControllerCount = 11,
    BusMethodCount = 20
};
enum ServiceMethod
{
    SetSdoTimeout = 2,
    SdoDownload = 3,
    SdoUpload = 4
};

} // namespace wire

// A client that speaks the connection's greeting and then writes packets of its own making.
class RogueClient
{
public:
    RogueClient();
    ~RogueClient();
    // Connects to the local socket and reads the greeting; attaches when asked.
    bool open(const QString& socketPath, bool attach = true);
    QString session() const { return m_session; }
    QString object(const char* className) const { return m_session + '/' + className; }
    void send(const QByteArray& bytes);
    // Reads no more from the connection than it has: what the server sends stays with it.
    void stopReading();
    // True once the server has closed the connection (waits up to timeoutMs).
    bool waitClosed(int timeoutMs);
    QIODevice* device() const;
    bool isConnected() const;
    // Everything the server sent after the greeting so far.
    QByteArray received();

private:
    std::unique_ptr<QLocalSocket> m_socket;
    QString m_session;
};

} // namespace qorcalib::test

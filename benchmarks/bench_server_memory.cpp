// What a crowd of clients, or one hostile client, costs the server in memory.
//
// Starts qorcalib-server on a private socket and prints its resident memory:
//   - idle, with one session;
//   - with N more sessions that attach and then never read (default 1000);
//   - after one more client declared a packet of 2 GiB and sent 256 MiB of it.
//
//   bench_server_memory [sessions]

#include "handshake.h"
#include "serverconnection.h"
#include "serverprocess.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

using namespace qorcalib;
using qorcalib::test::residentKib;
using qorcalib::test::sessionCount;

namespace {

void settle(int ms)
{
    QDeadlineTimer deadline(ms);
    while (!deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int crowd = argc > 1 ? QByteArray(argv[1]).toInt() : 1000;
    QTemporaryDir dir;
    const QString socket = dir.filePath(QStringLiteral("qorcalib"));
    QProcess server;
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(QStringLiteral(QORCALIB_SERVER_PATH), {QStringLiteral("--socket"), socket});
    ServerConnection good;
    QString error;
    for (int i = 0;
         i < 100 && !good.open(ServerAddress::fromMachineName("localhost", socket), 1000, &error);
         ++i)
        QThread::msleep(50);
    if (!good.isConnected()) {
        std::fprintf(stderr, "server not reachable: %s\n", qPrintable(error));
        return 1;
    }
    const qint64 pid = server.processId();
    settle(500);
    const qint64 idle = residentKib(pid);

    std::vector<std::unique_ptr<QLocalSocket>> clients;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < crowd; ++i) {
        auto s = std::make_unique<QLocalSocket>();
        s->setReadBufferSize(1); // never reads what the server sends
        s->connectToServer(socket);
        if (!s->waitForConnected(3000))
            break;
        s->write(handshake::attachLine({}));
        s->flush();
        clients.push_back(std::move(s));
        if (i % 50 == 0)
            QCoreApplication::processEvents();
    }
    QDeadlineTimer deadline(120000);
    while (sessionCount(&good) < int(clients.size()) + 1 && !deadline.hasExpired())
        settle(200);
    const double attachSeconds = double(timer.elapsed()) / 1000.0;
    settle(1000);
    const qint64 crowded = residentKib(pid);

    QLocalSocket hostile;
    hostile.connectToServer(socket);
    hostile.waitForConnected(3000);
    hostile.write(handshake::attachLine({}));
    QByteArray header(6, '\0');
    const quint32 size = 0x7FFFFFF0; // little-endian size field: about 2 GiB to come
    std::memcpy(header.data(), &size, 4);
    header[4] = 6;
    hostile.write(header);
    const QByteArray chunk(1 << 20, 'x');
    qint64 sent = 0;
    for (int i = 0; i < 256 && hostile.state() == QLocalSocket::ConnectedState; ++i) {
        hostile.write(chunk);
        hostile.waitForBytesWritten(200);
        sent += chunk.size();
    }
    settle(1000);
    const qint64 attacked = residentKib(pid);
    const bool alive = sessionCount(&good) > 0;

    std::printf("server resident memory\n");
    std::printf("  idle, one session:                     %8lld KiB\n", idle);
    std::printf("  %d more sessions (attached in %.1f s): %8lld KiB (%.1f KiB a session)\n",
                int(clients.size()), attachSeconds, crowded,
                double(crowded - idle) / double(qMax<size_t>(1, clients.size())));
    std::printf("  after a declared 2 GiB packet (%lld MiB sent before the server hung up, "
                "connection %s): %lld KiB\n",
                sent >> 20, hostile.state() == QLocalSocket::ConnectedState ? "open" : "closed",
                attacked);
    std::printf("  server still serving: %s\n", alive ? "yes" : "no");
    clients.clear();
    server.terminate();
    server.waitForFinished(10000);
    return alive ? 0 : 1;
}

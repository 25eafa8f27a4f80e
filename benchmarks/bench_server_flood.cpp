// Floods controller 0 of the unpaced simulated bus and measures how many frames per second
// reach one client session over the local socket.
//
// The server's world and host run on their own thread, as they would in qorcalib-server; a
// flood node on controller 0's segment sends numbered frames as fast as the segment takes them.
// The client counts FilteredRxCan records and checks that none is lost or out of order.
//
//   bench_server_flood [frames]     (default 1000000)

#include "canmsg.h"
#include "floodserver.h"
#include "serverconnection.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <cstdio>
#include <ctime>

using namespace qorcalib;

namespace {

double cpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 total = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1000000;
    QTemporaryDir dir;
    const QString socketPath = dir.filePath(QStringLiteral("qorcalib"));

    FloodServer server(socketPath, total);
    if (!server.start())
        return 1;

    ServerConnection client;
    QString error;
    bool connected = false;
    for (int attempt = 0; attempt < 100 && !connected; ++attempt) {
        connected =
            client.open(ServerAddress::fromMachineName("localhost", socketPath), 2000, &error);
        if (!connected)
            QThread::msleep(20);
    }
    if (!connected || !client.wait(client.bus()->Advise(), &error) ||
        !client.wait(client.bus()->StartController(0), &error)) {
        std::fprintf(stderr, "client: %s\n", qPrintable(error));
        return 1;
    }

    qint64 received = 0;
    qint64 events = 0;
    qint64 outOfOrder = 0;
    QElapsedTimer clock;
    double cpuStart = 0;
    QObject::connect(client.notify(), &QCSNotifyReplica::FilteredRxCan, &app,
                     [&](int controller, const QByteArray& frames, int count) {
                         if (controller != 0)
                             return;
                         ++events;
                         for (int i = 0; i < count; ++i) {
                             const CanFrame f = recordAt(frames, i);
                             if (f.id != 0x181)
                                 continue; // the drive's heartbeat
                             if (qFromLittleEndian<quint64>(f.data.data()) != quint64(received))
                                 ++outOfOrder;
                             ++received;
                         }
                         if (received >= total)
                             app.quit();
                     });
    QTimer::singleShot(120000, &app, [&] {
        std::fprintf(stderr, "timed out after %lld of %lld frames\n", received, total);
        app.exit(1);
    });
    clock.start();
    cpuStart = cpuSeconds();
    server.flood();
    const int rc = app.exec();
    const double seconds = clock.nsecsElapsed() * 1e-9;
    const double cpu = cpuSeconds() - cpuStart;

    if (rc != 0)
        return rc;
    std::printf("frames delivered to one session: %lld in %.3f s = %.0f frames/s\n", received,
                seconds, received / seconds);
    std::printf("events: %lld (%.0f frames per FilteredRxCan); frames lost or out of order: %lld\n",
                events, double(received) / double(events), outOfOrder);
    std::printf("process CPU (server thread + client): %.2f s, %.2f us per frame\n", cpu,
                cpu * 1e6 / double(received));
    return outOfOrder == 0 ? 0 : 2;
}

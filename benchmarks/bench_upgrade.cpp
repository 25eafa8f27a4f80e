// A firmware upgrade on the paced bus at 1000K: the boot catch holds the simulated drive in its
// boot loader, then a 512 KiB hybrid image goes to 0x1F50 sub 1 in one SDO download. Prints the
// seconds of the download next to the bus-limited time: the bus time of exactly the frames the
// transfer needs, with no gap between frames.
//
//   bench_upgrade [kibibytes]     (default 512)

#include "bittiming.h"
#include "sdobustime.h"
#include "serverconnection.h"
#include "servercore.h"
#include "serverthread.h"
#include "srecords.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <cstdio>
#include <optional>

using namespace qorcalib;

namespace {

// Runs a long operation and waits for its OperationDone.
std::optional<OperationResult>
run(ServerConnection& c, const QRemoteObjectPendingReply<RequestReply>& pending, QString* error)
{
    std::optional<OperationResult> result;
    int requestId = -1;
    QList<OperationResult> early;
    QEventLoop loop;
    QObject::connect(c.notify(), &QCSNotifyReplica::OperationDone, &loop,
                     [&](const OperationResult& r) {
                         if (requestId < 0)
                             early << r;
                         else if (r.requestId() == requestId) {
                             result = r;
                             loop.quit();
                         }
                     });
    const auto reply = c.wait(pending, error);
    if (!reply || !reply->error().isEmpty()) {
        if (reply)
            *error = reply->error();
        return std::nullopt;
    }
    requestId = reply->requestId();
    for (const OperationResult& r : std::as_const(early))
        if (r.requestId() == requestId)
            result = r;
    QTimer::singleShot(600000, &loop, &QEventLoop::quit);
    if (!result)
        loop.exec();
    if (!result)
        *error = QStringLiteral("no end reported");
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int kib = argc > 1 ? QByteArray(argv[1]).toInt() : 512;
    QByteArray image = tessel::test::s3Record(
        0x8000000, tessel::test::identificationBlock(0x12, 0x00030000, 0x1234, 4));
    image += '\x02';
    for (int i = 0; image.size() < kib * 1024; ++i)
        image += char((i * 7 + (i >> 10)) & 0xFF);

    ServerCore::Config config;
    config.paced = true;
    config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
    ServerThread server;
    if (!server.start(config))
        return 1;

    ServerConnection c;
    QString error;
    if (!c.open(ServerAddress::fromMachineName("localhost", server.socketPath()), 5000, &error) ||
        !c.wait(c.bus()->StartController(0), &error) ||
        !c.wait(c.benchBoard()->BoardCommand(16, 0), &error)) {
        std::fprintf(stderr, "client: %s\n", qPrintable(error));
        return 1;
    }
    const auto caught = run(c, c.service()->StopOnBoot(0, 0, 0), &error);
    if (!caught || caught->value() == 0) {
        std::fprintf(stderr, "boot catch: %s\n",
                     qPrintable(error.isEmpty() ? QStringLiteral("no boot loader") : error));
        return 1;
    }
    QElapsedTimer clock;
    clock.start();
    const auto done = run(c, c.service()->SdoDownload(0, 1, 0x1F50, 1, image), &error);
    const double seconds = clock.nsecsElapsed() * 1e-9;
    if (!done || done->abortCode() != 0 || !done->error().isEmpty()) {
        std::fprintf(stderr, "download: %s %08X\n", qPrintable(done ? done->error() : error),
                     done ? done->abortCode() : 0u);
        return 1;
    }
    const double limit = sdoBusTimeUs(false, true, image, bitRateOfIndex(0)) * 1e-6;
    std::printf("%d KiB image to 0x1F50 sub 1 at 1000K, paced bus (block transfer)\n", kib);
    std::printf("download %.2f s, bus-limited %.2f s: %.1f %% of the bus limit\n", seconds, limit,
                100.0 * limit / seconds);
    c.wait(c.benchBoard()->BoardCommand(17, 0), &error);
    return 0;
}

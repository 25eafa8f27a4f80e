// SDO throughput to the simulated drive on the paced bus: 256 KiB downloaded into and uploaded
// from a domain entry, block and segmented, at 1000K and 125K. Prints bytes/s next to the
// bus-limited rate: the same data divided by the bus time of exactly the frames the transfer
// needs (their stuffed bit lengths at that bit rate), with no gap between frames; the CPU time
// the transfer cost (server and client, one process) and the progress messages the client got.
//
//   bench_sdo [kibibytes]     (default 256)

#include "bittiming.h"
#include "sdobustime.h"
#include "sdoclient.h"
#include "sdoserver.h"
#include "serverconnection.h"
#include "servercore.h"
#include "serverthread.h"
#include "simdrive.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMap>
#include <QThread>
#include <QTimer>

#include <cstdio>

#include <deque>
#include <sys/resource.h>

using namespace qorcalib;

namespace {

struct Run
{
    double seconds = 0;
    double cpuSeconds = 0; // the process's: the server's and the client's work together
    int progressMessages = 0;
    QString error;
};

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

Run transfer(ServerConnection& c, bool upload, const QByteArray& data)
{
    Run run;
    QEventLoop loop;
    int requestId = -1;
    bool done = false;
    QObject::connect(
        c.notify(), &QCSNotifyReplica::OperationDone, &loop, [&](const OperationResult& r) {
            if (r.requestId() != requestId)
                return;
            done = true;
            if (!r.error().isEmpty() || r.abortCode() != 0)
                run.error = r.error().isEmpty() ? QString::number(r.abortCode(), 16) : r.error();
            else if (upload && r.data() != data)
                run.error = QStringLiteral("uploaded data differ");
            loop.quit();
        });
    QObject::connect(c.notify(), &QCSNotifyReplica::ProgressNotify, &loop,
                     [&run](double) { ++run.progressMessages; });
    QElapsedTimer clock;
    clock.start();
    const double cpuBefore = cpuSeconds();
    QString error;
    const auto reply = upload ? c.wait(c.service()->SdoUpload(0, 1, 0x2040, 0), &error)
                              : c.wait(c.service()->SdoDownload(0, 1, 0x2040, 0, data), &error);
    if (!reply || !reply->error().isEmpty()) {
        run.error = reply ? reply->error() : error;
        return run;
    }
    requestId = reply->requestId();
    QTimer::singleShot(600000, &loop, &QEventLoop::quit);
    if (!done)
        loop.exec();
    run.seconds = clock.nsecsElapsed() * 1e-9;
    run.cpuSeconds = cpuSeconds() - cpuBefore;
    if (!done)
        run.error = QStringLiteral("no end reported");
    return run;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int kib = argc > 1 ? QByteArray(argv[1]).toInt() : 256;
    QByteArray data(kib * 1024, '\0');
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 7 + (i >> 10)) & 0xFF);

    std::printf("%d KiB to and from the simulated drive, paced bus\n", kib);
    std::printf("%-6s %-10s %-9s %12s %14s %8s %9s %9s\n", "rate", "mode", "direction", "bytes/s",
                "bus limit B/s", "of limit", "CPU ms", "progress");
    for (const int rateIndex : {0, 4}) {
        for (const bool block : {true, false}) {
            ServerCore::Config config;
            config.paced = true;
            config.sdoBlockTransfer = block;
            config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
            ServerThread server;
            if (!server.start(config, [rateIndex](ServerCore* core) {
                    core->drive(0)->setBitRateIndex(rateIndex);
                }))
                return 1;
            ServerConnection c;
            QString error;
            if (!c.open(ServerAddress::fromMachineName("localhost", server.socketPath()), 5000,
                        &error) ||
                !c.wait(c.bus()->SetBitRate(0, rateIndex), &error) ||
                !c.wait(c.bus()->StartController(0), &error)) {
                std::fprintf(stderr, "client: %s\n", qPrintable(error));
                return 1;
            }
            QThread::msleep(400); // the drive boots
            const int bitsPerSecond = bitRateOfIndex(rateIndex);
            for (const bool upload : {false, true}) {
                const Run run = transfer(c, upload, data);
                if (!run.error.isEmpty()) {
                    std::fprintf(stderr, "transfer failed: %s\n", qPrintable(run.error));
                    return 1;
                }
                const double limit =
                    data.size() / (sdoBusTimeUs(upload, block, data, bitsPerSecond) * 1e-6);
                const double rate = data.size() / run.seconds;
                std::printf("%-6s %-10s %-9s %12.0f %14.0f %7.1f%% %9.0f %9d\n",
                            qPrintable(bitRateText(rateIndex)), block ? "block" : "segmented",
                            upload ? "upload" : "download", rate, limit, 100.0 * rate / limit,
                            run.cpuSeconds * 1e3, run.progressMessages);
                std::fflush(stdout);
            }
        }
    }
    return 0;
}

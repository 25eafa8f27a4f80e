// Four simulated drives on one paced 1000K segment, each sending two 8-byte TPDOs on every SYNC
// of the server's SYNC producer at 2 ms (about 4,500 frames/s, over half the bus). Runs for the
// given seconds and prints: the SYNCs and TPDOs seen on the bus, the longest gap between two
// SYNCs (late by more than a period is a failure), TPDOs missing after a SYNC, the bus load,
// and the process's CPU time per frame (the server's controller, segment and drives all run in
// it, as in qorcalib-server).
//
//   bench_sync_pdo [seconds] [period_us]     (default 60 s, 2000 us)

#include "bittiming.h"
#include "objectdictionary.h"
#include "simdrive.h"
#include "simulatedchannel.h"
#include "simulatedsegment.h"
#include "syncproducer.h"

#include <QCoreApplication>
#include <QTimer>

#include <sys/resource.h>

#include <cstdio>

using namespace qorcalib;

namespace {

constexpr int kDrives = 4;

// What the bus carries, seen by a listening port.
struct Listener : SimPort
{
    int bitRateIndex() const override { return 0; }
    bool isActive() const override { return true; }
    void receive(const BusFrame& f) override
    {
        // The frame's end on the bus, not when the segment's timer handed it over.
        const qint64 now = f.frame.timeUs;
        bits += frameBitCount(f.frame);
        ++frames;
        if (f.frame.id == SyncProducer::kCobId) {
            if (lastSyncUs >= 0) {
                maxGapUs = std::max(maxGapUs, qint64(quint32(now - lastSyncUs)));
                // Each SYNC is answered by every drive's two TPDOs before the next one.
                if (sinceSync != 2 * kDrives)
                    missing += std::abs(2 * kDrives - sinceSync);
            }
            lastSyncUs = now;
            sinceSync = 0;
            ++syncs;
        } else if ((f.frame.id & 0x780) == 0x180 || (f.frame.id & 0x780) == 0x280) {
            ++tpdos;
            ++sinceSync;
        }
    }
    void transmitted(const BusFrame&, bool) override {}

    qint64 bits = 0;
    qint64 frames = 0;
    qint64 syncs = 0;
    qint64 tpdos = 0;
    qint64 missing = 0;
    int sinceSync = 0;
    qint64 lastSyncUs = -1;
    qint64 maxGapUs = 0;
};

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Both TPDOs on every SYNC, eight bytes each: statusword, position, error code; velocity and
// target position.
void mapTwoTpdos(ObjectDictionary& od, quint8 node)
{
    od.setUnsigned(0x1800, 1, 0x180 + node);
    od.setUnsigned(0x1801, 1, 0x280 + node);
    od.setUnsigned(0x1800, 2, 1);
    od.setUnsigned(0x1801, 2, 1);
    od.setUnsigned(0x1A00, 0, 3);
    od.setUnsigned(0x1A00, 1, 0x60410010);
    od.setUnsigned(0x1A00, 2, 0x60640020);
    od.setUnsigned(0x1A00, 3, 0x603F0010);
    od.setUnsigned(0x1A01, 0, 2);
    od.setUnsigned(0x1A01, 1, 0x606C0020);
    od.setUnsigned(0x1A01, 2, 0x607A0020);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const double seconds = argc > 1 ? QByteArray(argv[1]).toDouble() : 60.0;
    const int periodUs = argc > 2 ? QByteArray(argv[2]).toInt() : 2000;

    SimulatedSegment segment;
    segment.setPaced(true);
    SimulatedChannel controller(&segment, 0, 0);
    Listener listener;
    segment.attach(&listener);
    QString error;
    std::vector<std::unique_ptr<SimDrive>> drives;
    for (int i = 0; i < kDrives; ++i) {
        const quint8 node = quint8(i + 1);
        auto od =
            ObjectDictionary::fromEds(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"), node, &error);
        if (!od) {
            std::fprintf(stderr, "bench_sync_pdo: %s\n", qPrintable(error));
            return 1;
        }
        giveOwnSerial(&*od, i);
        drives.push_back(std::make_unique<SimDrive>(&segment, std::move(*od), node, 0));
        drives.back()->setPowered(true);
    }
    if (!controller.start(&error)) {
        std::fprintf(stderr, "bench_sync_pdo: %s\n", qPrintable(error));
        return 1;
    }
    SyncProducer sync(&controller);
    // The drives boot (boot loader window, then the application), then all start.
    // The TPDOs are configured once the application runs (its COB-IDs follow the node-ID it
    // took at power-up), as a master would configure them in pre-operational.
    QTimer::singleShot(SimDrive::kBootLoaderWindowMs + 200, [&] {
        for (int i = 0; i < kDrives; ++i)
            mapTwoTpdos(drives[i]->dictionary(), quint8(i + 1));
        controller.transmit(CanFrame::make(0x000, {0x01, 0x00}), 1, &error);
    });
    double cpuAtStart = 0;
    Listener before;
    QTimer::singleShot(SimDrive::kBootLoaderWindowMs + 400, [&] {
        if (const QString e = sync.start(1, periodUs); !e.isEmpty())
            std::fprintf(stderr, "bench_sync_pdo: %s\n", qPrintable(e));
        cpuAtStart = cpuSeconds();
    });
    // The first SYNCs are left out: the drives' TPDO mappings were read at start.
    QTimer::singleShot(SimDrive::kBootLoaderWindowMs + 600, [&] {
        before = listener;
        before.missing = listener.missing;
    });
    const int runMs = SimDrive::kBootLoaderWindowMs + 600 + int(seconds * 1000);
    QTimer::singleShot(runMs, &app, &QCoreApplication::quit);
    app.exec();

    const double cpu = cpuSeconds() - cpuAtStart;
    // Rates over the bus time between the first and the last SYNC counted.
    const double busSeconds = double(quint32(listener.lastSyncUs - before.lastSyncUs)) / 1e6;
    const qint64 frames = listener.frames - before.frames;
    const qint64 syncs = listener.syncs - before.syncs;
    const qint64 tpdos = listener.tpdos - before.tpdos;
    const double load = double(listener.bits - before.bits) / (busSeconds * 1e6);
    std::printf("%d drives, SYNC every %d us, %.0f s on a paced 1000K segment\n", kDrives, periodUs,
                seconds);
    std::printf("  SYNC: %lld (%.1f/s), longest gap %lld us (%s: at most %d us)\n",
                (long long)syncs, double(syncs) / busSeconds, (long long)listener.maxGapUs,
                listener.maxGapUs <= 2 * periodUs ? "in time" : "LATE", 2 * periodUs);
    std::printf("  TPDO: %lld (%.1f/s), missing after a SYNC: %lld\n", (long long)tpdos,
                double(tpdos) / busSeconds, (long long)(listener.missing - before.missing));
    std::printf("  frames: %.0f/s, bus load %.1f %%\n", double(frames) / busSeconds, load * 100.0);
    std::printf("  CPU: %.2f s, %.1f us per frame\n", cpu,
                frames > 0 ? cpu * 1e6 / double(frames) : 0.0);
    return listener.maxGapUs <= 2 * periodUs && listener.missing == before.missing ? 0 : 1;
}

// The simulated drive's boot loader and the server's boot catch: frames written out by hand
// against the drive, then the server's own runners against it, on an unpaced segment.
#include "bootrunner.h"
#include "datatable.h"
#include "frametext.h"
#include "sdorunner.h"
#include "servercore.h"
#include "simbench.h"
#include "simdrive.h"
#include "simulatedsegment.h"
#include "srecords.h"

#include <QFile>
#include <QTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// A node of our own on the drive's segment: sends frames written by hand, records the rest.
class Peer : public SimPort
{
public:
    explicit Peer(SimulatedSegment* segment) : m_segment(segment) { segment->attach(this); }
    ~Peer() override { m_segment->detach(this); }
    int bitRateIndex() const override { return 0; }
    bool isActive() const override { return true; }
    void receive(const BusFrame& frame) override { heard << hexOf(frame.frame); }
    void transmitted(const BusFrame&, bool) override {}
    void send(quint16 id, const char* hex) { m_segment->transmit(this, fromHex(id, hex), 0); }
    bool waitFor(const QString& frame, int ms = 2000)
    {
        return QTest::qWaitFor([&] { return heard.contains(frame); }, ms);
    }
    QStringList heard;

private:
    SimulatedSegment* m_segment;
};

std::unique_ptr<ServerCore> makeCore(int catchMs = 400)
{
    ServerCore::Config config;
    config.paced = false;
    config.bootCatchMs = catchMs;
    config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
    QString error;
    auto core = ServerCore::create(config, &error);
    if (core && !core->startController(0, &error))
        core.reset();
    return core;
}

void cycleSupply(ServerCore* core)
{
    int status = 0;
    QString error;
    core->bench()->command(16, 0, &status, &error);
}

SdoClient::Result transfer(ServerCore* core, bool upload, quint16 index, quint8 sub,
                           const QByteArray& data = {})
{
    std::optional<SdoClient::Result> result;
    SdoRunner::Request request;
    request.session = 1;
    request.upload = upload;
    request.node = 1;
    request.index = index;
    request.subIndex = sub;
    request.data = data;
    request.done = [&result](const SdoClient::Result& r) { result = r; };
    if (!core->sdoRunner(0)->submit(std::move(request)).isEmpty() ||
        !QTest::qWaitFor([&] { return result.has_value(); }, 20000)) {
        SdoClient::Result failed;
        failed.error = QStringLiteral("no result");
        return failed;
    }
    return *result;
}

BootRunner::Outcome stopOnBoot(ServerCore* core, int node, int rate)
{
    std::optional<BootRunner::Outcome> outcome;
    BootRunner::Request request;
    request.session = 1;
    request.node = quint8(node);
    request.bitRateIndex = rate;
    request.done = [&outcome](const BootRunner::Outcome& o) { outcome = o; };
    const QString refused = core->bootRunner(0)->submit(std::move(request));
    if (!refused.isEmpty())
        return {refused};
    if (!QTest::qWaitFor([&] { return outcome.has_value(); }, 10000))
        return {QStringLiteral("no outcome")};
    return *outcome;
}

QByteArray sample(const char* name)
{
    QFile file(QStringLiteral(QORCALIB_DATA_DIR "/firmware/") + QLatin1String(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TstBootLoader : public QObject
{
    Q_OBJECT
private slots:
    void heldAndReleasedByHandWrittenFrames()
    {
        const auto core = makeCore();
        QVERIFY(core);
        Peer peer(core->segment(0));
        cycleSupply(core.get());
        // As a catcher does: ask until the boot loader answers.
        QVERIFY(QTest::qWaitFor(
            [&] {
                peer.send(0x6A0, "b000");
                return peer.heard.contains("6a1:01 03 02 01 00");
            },
            2000));
        QCOMPARE(core->drive(0)->mode(), SimDrive::Mode::BootHeld);
        QTest::qWait(SimDrive::kBootLoaderWindowMs + 100);
        QVERIFY(!peer.heard.contains("701:00")); // held: no application boot-up
        // Identity by SDO from the boot loader; the application's objects are not there.
        peer.send(0x601, "4018100100000000");
        QVERIFY(peer.waitFor("581:43 18 10 01 a1 03 00 00"));
        peer.send(0x601, "4000200000000000");
        QVERIFY(peer.waitFor("581:80 00 20 00 00 00 02 06"));
        // A wrong key is refused, the right one starts the application.
        peer.send(0x601, "23f05e00516f7258");
        QVERIFY(peer.waitFor("581:80 f0 5e 00 30 00 09 06"));
        QCOMPARE(core->drive(0)->mode(), SimDrive::Mode::BootHeld);
        peer.send(0x601, "23f05e00516f7253");
        QVERIFY(peer.waitFor("581:60 f0 5e 00 00 00 00 00"));
        QVERIFY(peer.waitFor("701:00"));
        QCOMPARE(core->drive(0)->mode(), SimDrive::Mode::Application);
    }

    void images_data()
    {
        columns<QByteArray, quint32, QString, quint32>(
            {"image", "abortCode", "version", "revision"});

        using tessel::test::identificationBlock;
        using tessel::test::s3Record;
        row("hybrid sample", sample("drive-2.1.7.sx"), 0u, "FW 2.1.7", 0x00020107u);
        row("version-word sample", sample("drive-2.0.9.S"), 0u, "FW 2.0.9", 0x00020009u);
        row("raw sample: not post-processed", sample("raw-2.2.0.S"), 0x08000020u, "FW 3.4.12",
            0x00020003u);
        const QByteArray block = s3Record(0x8000000, identificationBlock(1, 0x00050607, 0, 0));
        row("bad checksum", QByteArray(block).replace(block.size() - 4, 2, "00"), 0x08000020u,
            "FW 3.4.12", 0x00020003u);
        row("malformed hexadecimal", "S3GG" + block.mid(4), 0x08000020u, "FW 3.4.12", 0x00020003u);
        row("no identification", s3Record(0x100, QByteArray(16, 'x')), 0x08000020u, "FW 3.4.12",
            0x00020003u);
        row("records only after STX", "\x02" + block, 0x08000020u, "FW 3.4.12", 0x00020003u);
        row("binary garbage", QByteArray(300, '\xA5'), 0x08000020u, "FW 3.4.12", 0x00020003u);
        row("larger than the flash", QByteArray(3 * 1024 * 1024, 'S'), 0x05040005u, "FW 3.4.12",
            0x00020003u);
    }

    void images()
    {
        auto [image, abortCode, version] =
            fetch<QByteArray, quint32, QString>("image", "abortCode", "version");
        QVERIFY(!image.isEmpty());
        const auto core = makeCore();
        QVERIFY(core);
        cycleSupply(core.get());
        const BootRunner::Outcome caught = stopOnBoot(core.get(), 0, 0);
        QCOMPARE(caught.error, QString());
        QCOMPARE(caught.version, BootLoader::kVersion);
        QCOMPARE(transfer(core.get(), false, 0x1F50, 1, image).abortCode, abortCode);
        QCOMPARE(transfer(core.get(), false, 0x5EF0, 0, "QorS").abortCode, 0u);
        QVERIFY(QTest::qWaitFor(
            [&] { return core->drive(0)->mode() == SimDrive::Mode::Application; }, 2000));
        QTest::qWait(20);
        QCOMPARE(QString::fromLatin1(transfer(core.get(), true, 0x100A, 0).data), version);
        const QByteArray rev = transfer(core.get(), true, 0x1018, 3).data;
        QCOMPARE(rev.size(), 4);
        QTEST(qFromLittleEndian<quint32>(rev.constData()), "revision");
        // Flashed firmware stays through a power cycle.
        cycleSupply(core.get());
        QVERIFY(QTest::qWaitFor(
            [&] { return core->drive(0)->mode() == SimDrive::Mode::Application; }, 2000));
        QTest::qWait(20);
        QCOMPARE(QString::fromLatin1(transfer(core.get(), true, 0x100A, 0).data), version);
    }

    void runnerCatches_data()
    {
        columns<bool, int, quint32>({"cycle", "node", "version"});
        row("any node, supply cycled", true, 0, BootLoader::kVersion);
        row("node 1, supply cycled", true, 1, BootLoader::kVersion);
        row("node 5 is not there", true, 5, 0u);
        row("nothing boots", false, 0, 0u);
    }

    void runnerCatches()
    {
        auto [cycle, node, version] = fetch<bool, int, quint32>("cycle", "node", "version");
        const auto core = makeCore(300);
        QVERIFY(core);
        QTest::qWait(SimDrive::kBootLoaderWindowMs + 50); // the drive's first start is over
        if (cycle)
            cycleSupply(core.get());
        const BootRunner::Outcome caught = stopOnBoot(core.get(), node, 0);
        QCOMPARE(caught.error, QString());
        QCOMPARE(caught.version, version);
        if (version != 0)
            QCOMPARE(int(caught.node), 1);
        QCOMPARE(core->drive(0)->mode(),
                 version != 0 ? SimDrive::Mode::BootHeld : SimDrive::Mode::Application);
        // A held boot loader answers a second catch at once.
        if (version != 0)
            QCOMPARE(stopOnBoot(core.get(), 1, 0).version, BootLoader::kVersion);
    }

    void catchAtAnotherRateMovesTheController()
    {
        const auto core = makeCore(200);
        QVERIFY(core);
        QCOMPARE(stopOnBoot(core.get(), 0, 99).error,
                 QString("bit-rate index 99 out of range (0..8)"));
        // The drive runs at 1000K: at 500K nobody answers, and the controller stays at 500K.
        cycleSupply(core.get());
        const BootRunner::Outcome caught = stopOnBoot(core.get(), 0, 2);
        QCOMPARE(caught.error, QString());
        QCOMPARE(caught.version, 0u);
        QCOMPARE(core->channel(0)->bitRateIndex(), 2);
    }
};

QTEST_GUILESS_MAIN(TstBootLoader)
#include "tst_bootloader.moc"

// The server's LSS service with two drives that have no node-ID on one bus: Fastscan isolates
// one at a time, so that each gets a node-ID of its own.
#include "lssrunner.h"
#include "objectdictionary.h"
#include "servercore.h"
#include "simdrive.h"
#include "simulatedsegment.h"

#include <QTest>
#include <QtEndian>

using namespace qorcalib;

class TstLssRunner : public QObject
{
    Q_OBJECT
private slots:
    void twoUnconfiguredDrivesGetANodeIdEach();
};

void TstLssRunner::twoUnconfiguredDrivesGetANodeIdEach()
{
    ServerCore::Config config;
    config.paced = false;
    config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
    QString error;
    const auto core = ServerCore::create(config, &error);
    QVERIFY2(core, qPrintable(error));
    // A second drive beside the unconfigured one of controller 1, with a lower serial number
    // (the simulated drive's is 0x12345).
    auto dictionary = ObjectDictionary::fromEds(config.edsPath, 0, &error);
    QVERIFY(dictionary);
    QByteArray serial(4, '\0');
    qToLittleEndian<quint32>(0x00000077, serial.data());
    dictionary->find(0x1018, 4)->value = serial;
    SimDrive second(core->segment(1), std::move(*dictionary), NmtSlave::kUnconfigured, 3);
    second.setPowered(true);
    QVERIFY(core->startController(1, &error));
    QTest::qWait(300);

    const auto run = [&](bool configure, quint8 node) {
        std::optional<LssRunner::Outcome> outcome;
        LssRunner::Request request;
        request.session = 1;
        request.configure = configure;
        request.nodeId = node;
        request.bitRateIndex = 3;
        request.done = [&outcome](const LssRunner::Outcome& o) { outcome = o; };
        const QString refused = core->lssRunner(1)->submit(std::move(request));
        if (!refused.isEmpty())
            return LssRunner::Outcome{refused};
        if (!QTest::qWaitFor([&outcome] { return outcome.has_value(); }, 20000))
            return LssRunner::Outcome{QStringLiteral("no outcome")};
        return outcome.value_or(LssRunner::Outcome{QStringLiteral("no outcome")});
    };

    // Node-IDs 0 and 0x80 are none: refused before any frame.
    QVERIFY(run(true, 0).error.startsWith("node-ID 0x0 out of range"));
    QVERIFY(run(true, 0x80).error.startsWith("node-ID 0x80 out of range"));
    const LssRunner::Outcome first = run(false, 0);
    QCOMPARE(first.error, QString());
    QCOMPARE(first.nodeId, lss::kUnconfigured);
    QCOMPARE(first.bitRateIndex, 3);
    // The lower LSS address first: the second drive.
    QCOMPARE(run(true, 0x30).error, QString());
    QCOMPARE(second.nodeId(), quint8(0x30));
    QCOMPARE(core->drive(1)->nodeId(), lss::kUnconfigured);
    QCOMPARE(run(false, 0).nodeId, lss::kUnconfigured); // the other one is still there
    QCOMPARE(run(true, 0x31).error, QString());
    QCOMPARE(core->drive(1)->nodeId(), quint8(0x31));
    QCOMPARE(second.nodeId(), quint8(0x30));
    QCOMPARE(core->channel(1)->bitRateIndex(), 3);
}

QTEST_GUILESS_MAIN(TstLssRunner)
#include "tst_lssrunner.moc"

// LSS through the server against the simulated drives: the unconfigured drive on controller 1
// (250K), the configured one on controller 0 (node 1, 1000K).
#include "datatable.h"
#include "lssrunner.h"
#include "objectdictionary.h"
#include "servercore.h"
#include "serverprocess.h"
#include "simdrive.h"
#include "simulatedsegment.h"

#include <QtEndian>
#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// One LSS request through the server: its refusal, or its OperationDone.
Outcome lssRequest(ServerConnection* c, bool configure, int channel, int node = 0, int rate = 0)
{
    return finish(c, [&] {
        return configure ? c->service()->LssConfigure(channel, node, rate)
                         : c->service()->LssInquire(channel);
    });
}

int bitRate(ServerConnection* c, int controller)
{
    QString error;
    const auto reply = c->wait(c->bus()->GetBitRate(controller), &error);
    return reply ? reply->value() : -1;
}

} // namespace

class TstLssService : public QObject
{
    Q_OBJECT
private slots:
    void init() { m_server = std::make_unique<ServerProcess>(); }
    void cleanup() { QVERIFY2(m_server->stopIfRunning(), qPrintable(m_server->output())); }

    void inquireFindsEachDrive_data()
    {
        // ownRate: the controller's rate before asking (-1: as it is)
        columns<int, int, int, int>({"controller", "ownRate", "node", "rate"});
        row("unconfigured drive at its rate", 1, -1, 0xFF, 3);
        row("unconfigured drive, controller at 500K", 1, 2, 0xFF, 3);
        row("drive with node-ID 1", 0, -1, 1, 0);
        row("drive with node-ID 1, controller at 125K", 0, 4, 1, 0);
    }

    void inquireFindsEachDrive()
    {
        auto [controller, ownRate, rate] = fetch<int, int, int>("controller", "ownRate", "rate");
        QVERIFY(m_server->start({"--eds", fastHeartbeatEds(m_dir)}));
        auto a = m_server->attach();
        QVERIFY(a);
        if (ownRate >= 0)
            CALL_OK(a, bus()->SetBitRate(controller, ownRate));
        CALL_OK(a, bus()->StartController(controller));
        QTest::qWait(300); // the drives boot
        const int before = bitRate(a.get(), controller);
        const Outcome found = lssRequest(a.get(), false, controller);
        QVERIFY2(found.result, qPrintable(found.refused));
        QCOMPARE(found.result->error(), QString());
        QTEST(found.result->value(), "node");
        QCOMPARE(found.result->data(), QByteArray(1, char(rate)));
        // The controller is back at its own rate.
        QCOMPARE(bitRate(a.get(), controller), before);
    }

    void configureGivesNodeIdAndRate()
    {
        QVERIFY(m_server->start({"--eds", fastHeartbeatEds(m_dir)}));
        auto a = m_server->attach();
        QVERIFY(a);
        FrameRecorder frames(a.get());
        CALL_OK(a, bus()->StartController(1));
        QTest::qWait(300);
        const Outcome set = lssRequest(a.get(), true, 1, 0x22, 2);
        QVERIFY2(set.result, qPrintable(set.refused));
        QCOMPARE(set.result->error(), QString());
        QCOMPARE(bitRate(a.get(), 1), 3); // back at 250K: the user switches it
        // The drive started up as node 0x22 at 500K: its boot-up went out while the server spoke
        // to it at that rate.
        QVERIFY(frames.find(0x722, QByteArray::fromHex("00")) >= 0);
        CALL_OK(a, bus()->SetBitRate(1, 2));
        CALL_OK(a, bus()->RestartController(1));
        const int from = int(frames.received.size());
        QVERIFY(frames.waitFor(0x722, QByteArray::fromHex("7f"), 3000, from));
        // Its SDO server answers under the new node-ID...
        const auto upload =
            finish(a.get(), [&] { return a->service()->SdoUpload(1, 0x22, 0x1018, 1); });
        QVERIFY2(upload.result, qPrintable(upload.refused));
        QCOMPARE(upload.result->abortCode(), 0u);
        // ...and it keeps node-ID and rate across a power cycle (stored).
        CALL_OK(a, benchBoard()->BoardCommand(11, 0));
        const int off = int(frames.received.size());
        CALL_OK(a, benchBoard()->BoardCommand(10, 0));
        QVERIFY(frames.waitFor(0x722, QByteArray::fromHex("00"), 3000, off));
        // Asked again, it is found at 500K with its node-ID.
        const Outcome found = lssRequest(a.get(), false, 1);
        QVERIFY(found.result);
        QCOMPARE(found.result->value(), 0x22);
        QCOMPARE(found.result->data(), QByteArray(1, char(2)));
    }

    void noSlaveOnTheBus()
    {
        // A third controller on a segment of its own, without a drive.
        QVERIFY(m_server->start({"--channel", "sim", "--channel", "sim", "--channel", "sim"}));
        auto a = m_server->attach();
        QVERIFY(a);
        CALL_OK(a, bus()->SetBitRate(2, 4));
        const Outcome inquiry = lssRequest(a.get(), false, 2);
        QVERIFY(inquiry.result);
        QCOMPARE(inquiry.result->error(), QString("no LSS slave answered"));
        QCOMPARE(bitRate(a.get(), 2), 4);
        QString error;
        QCOMPARE(a->wait(a->bus()->GetStatus(2), &error)->value() & 8, 0); // not left running
        const Outcome set = lssRequest(a.get(), true, 2, 0x22, 2);
        QVERIFY(set.result);
        QVERIFY2(set.result->error().startsWith("no drive on this controller waits for a node-ID"),
                 qPrintable(set.result->error()));
        // An inquiry cancelled half-way ends at once, with the controller at its own rate.
        QSignalSpy done(a->notify(), &QCSNotifyReplica::OperationDone);
        const auto request = a->wait(a->service()->LssInquire(2), &error);
        QVERIFY(request && request->error().isEmpty());
        QTest::qWait(60);
        CALL_OK(a, service()->CancelRequest(request->requestId()));
        QTRY_COMPARE(done.size(), 1);
        QCOMPARE(done.first().at(0).value<OperationResult>().error(),
                 QString("LSS service cancelled"));
        QCOMPARE(bitRate(a.get(), 2), 4);
        QVERIFY(
            !a->wait(a->service()->CancelRequest(request->requestId()), &error)->error().isEmpty());
    }

    void configuredDriveKeepsItsNodeId()
    {
        // Controller 0 carries node 1 and no drive that waits for a node-ID: a configuration has
        // nobody to go to, and node 1 must not become node 5 at its next reset.
        QVERIFY(m_server->start({"--eds", fastHeartbeatEds(m_dir)}));
        auto [a, frames] = m_server->attachWithRunningDrive();
        QVERIFY(a);
        const Outcome set = lssRequest(a.get(), true, 0, 5, 0);
        QVERIFY(set.result);
        QVERIFY2(set.result->error().startsWith("no drive on this controller waits for a node-ID"),
                 qPrintable(set.result->error()));
        const int from = int(frames->received.size());
        CALL_OK(a, bus()->Send(0, CanMsg(0x000, 2, QByteArray::fromHex("8200")), 0));
        QVERIFY(frames->waitFor(0x701, QByteArray::fromHex("00"), 3000, from));
        QCOMPARE(frames->find(0x705, QByteArray::fromHex("00"), from), -1);
    }

    void twoUnconfiguredDrivesGetANodeIdEach()
    {
        // In the server's own world, beside a second drive that has no node-ID either: Fastscan
        // isolates one at a time, so that each gets a node-ID of its own.
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

private:
    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
};

QTEST_GUILESS_MAIN(TstLssService)
#include "tst_lssservice.moc"

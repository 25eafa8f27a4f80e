#include "datatable.h"
#include "errorkind.h"
#include "handshake.h"
#include "serverprocess.h"

#include <QtNetwork>
#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

} // namespace

namespace {
// One SDO transfer through the server: the request, then its OperationDone.
std::optional<OperationResult> sdoTransfer(ServerConnection* c, bool upload, int node, int index,
                                           int sub, const QByteArray& data = {}, int channel = 0)
{
    const Outcome outcome = finish(c, [&] {
        return upload ? c->service()->SdoUpload(channel, node, index, sub)
                      : c->service()->SdoDownload(channel, node, index, sub, data);
    });
    if (!outcome.refused.isEmpty())
        qWarning("request refused: %s", qPrintable(outcome.refused));
    return outcome.result;
}

QByteArray le32(quint32 v)
{
    QByteArray b(4, '\0');
    qToLittleEndian(v, b.data());
    return b;
}
} // namespace

class TstServer : public QObject
{
    Q_OBJECT
private slots:
    void init() { m_server = std::make_unique<ServerProcess>(); }
    void cleanup() { QVERIFY2(m_server->stopIfRunning(), qPrintable(m_server->output())); }

    void badInputIsRefused_data()
    {
        columns<QString, QString>({"operation", "mentions"});
        row("length 9", "send 0 0x100 9", "9");
        row("nine data bytes", "senddata 0 0x100 8 9", "9 bytes");
        row("a megabyte of data", "senddata 0 0x100 8 1048576", "1048576 bytes");
        row("COB-ID 0x800", "send 0 0x800 1", "0x800");
        row("controller 2", "send 2 0x100 1", "2");
        // Timed frames: controller, COB-ID, length, milliseconds ahead, records announced.
        row("timed 3 s ahead", "timed 0 0x100 1 3000 1", "at most 2000 ms");
        row("timed, more records announced", "timed 0 0x100 1 10 2",
            "2 frame records announced, 16 bytes");
        row("bit rate 9", "rate 0 9", "9");
        row("start controller 7", "start 7", "7");
        row("receive-all 0", "rxall 0", "0");
        row("SDO time-out 0", "sdotimeout 0", "0");
        row("LSS time-out 5001", "lsstimeout 5001", "5001");
        row("bench command 99", "command 99", "99");
        row("output 40", "output 40", "40");
        row("analog 6", "analog 6", "6");
        row("service selector", "service LSSonly", "LSSonly");
        row("service selector of a megabyte", "service " + QString(1 << 20, 'S'), "SSS...");
        // LSS configuration: controller, node-ID, bit-rate index.
        row("LSS node-ID 0", "lss 1 0 2", "node-ID 0x0 out of range");
        row("LSS node-ID 0x80", "lss 1 0x80 2", "node-ID 0x80 out of range");
        row("LSS bit-rate index 9", "lss 1 0x22 9", "bit-rate index 9");
        row("LSS bit-rate index -1", "lss 1 0x22 -1", "bit-rate index -1");
        row("LSS on controller 7", "lss 7 0x22 2", "controller index 7");
    }

    void badInputIsRefused()
    {
        auto [operation, mentions] = fetch<QString, QString>("operation", "mentions");
        QVERIFY(startServer());
        auto a = attach(), b = attach();
        QVERIFY(a && b);
        FrameRecorder rb(b.get());
        CALL_OK(a, bus()->StartController(0));

        const QStringList w = operation.split(' ');
        const auto n = [&w](int i) { return w[i].toInt(nullptr, 0); };
        QString error, description;
        int kind = 0;
        const auto take = [&](const auto& reply) {
            QVERIFY2(reply, qPrintable(error));
            description = reply->error();
            kind = reply->kind();
        };
        if (w[0] == "send")
            take(a->wait(a->bus()->Send(n(1), CanMsg(n(2), n(3), QByteArray(8, '\x55')), 0),
                         &error));
        else if (w[0] == "senddata")
            take(a->wait(a->bus()->Send(n(1), CanMsg(n(2), n(3), QByteArray(n(4), '\x55')), 0),
                         &error));
        else if (w[0] == "timed") {
            const auto now = a->wait(a->bus()->GetTime(), &error);
            QVERIFY2(now, qPrintable(error));
            CanFrame frame = CanFrame::make(quint16(n(2)), {0x55});
            frame.len = quint8(n(3));
            frame.timeUs = quint32(now->value()) + quint32(n(4) * 1000);
            QByteArray records;
            appendRecord(records, frame);
            const auto reply = a->wait(a->bus()->SendTimed(n(1), records, n(5)), &error);
            take(reply);
            QCOMPARE(reply->value(), 0);
        } else if (w[0] == "rate")
            take(a->wait(a->bus()->SetBitRate(n(1), n(2)), &error));
        else if (w[0] == "start")
            take(a->wait(a->bus()->StartController(n(1)), &error));
        else if (w[0] == "rxall")
            take(a->wait(a->bus()->setallrxflag(n(1)), &error));
        else if (w[0] == "sdotimeout")
            take(a->wait(a->service()->SetSdoTimeout(n(1)), &error));
        else if (w[0] == "lsstimeout")
            take(a->wait(a->service()->SetLssTimeout(n(1)), &error));
        else if (w[0] == "command")
            take(a->wait(a->benchBoard()->BoardCommand(n(1), 0), &error));
        else if (w[0] == "output")
            take(a->wait(a->benchIo()->SetOutput(n(1), true), &error));
        else if (w[0] == "analog")
            take(a->wait(a->benchIo()->ReadAnalog(n(1)), &error));
        else if (w[0] == "service")
            take(a->wait(a->connector()->GetService(w[1]), &error));
        else if (w[0] == "lss")
            take(a->wait(a->service()->LssConfigure(n(1), n(2), n(3)), &error));
        QVERIFY2(!description.isEmpty(), "the server accepted it");
        QVERIFY2(description.contains(mentions, Qt::CaseInsensitive), qPrintable(description));
        // A client reacts to the kind: the request was wrong, or asks for what the server lacks.
        QCOMPARE(ErrorKind(kind),
                 w[0] == "service" ? ErrorKind::NotSupported : ErrorKind::BadArgument);
        // What the client sent is quoted, never echoed whole.
        QVERIFY2(description.size() < 200, qPrintable(description.left(300)));

        // Nothing reached the bus, nothing changed, and the session goes on working.
        CALL_OK(a, bus()->Send(0, CanMsg(0x7E5, 1, hex("42")), 0));
        QVERIFY(rb.waitFor(0x7E5, hex("42"), 3000));
        for (const auto& f : rb.received)
            QVERIFY(f.frame.id != 0x100 && f.frame.id != 0x000);
        QCOMPARE(b->wait(b->bus()->GetBitRate(0), &error)->value(), 0);
        QCOMPARE(b->wait(b->service()->GetSdoTimeOut(), &error)->value(), 1000);
    }

    void sdoWithTheDrive()
    {
        auto [a, ra] = withRunningDrive();
        QVERIFY(a);

        auto vendor = sdoTransfer(a.get(), true, 1, 0x1018, 1);
        QVERIFY(vendor);
        QCOMPARE(vendor->abortCode(), 0u);
        QCOMPARE(vendor->data(), le32(0x3A1));
        auto name = sdoTransfer(a.get(), true, 1, 0x1008, 0);
        QCOMPARE(name->data(), QByteArray("QD-300"));

        auto written = sdoTransfer(a.get(), false, 1, 0x2000, 0, le32(5000));
        QCOMPARE(written->abortCode(), 0u);
        // A download's completion does not carry back what was sent.
        QCOMPARE(written->data(), QByteArray());
        QCOMPARE(sdoTransfer(a.get(), true, 1, 0x2000, 0)->data(), le32(5000));
        // The drive keeps written values until it loses power.
        CALL_OK(a, benchBoard()->BoardCommand(11, 0));
        const int powerOff = int(ra->received.size());
        CALL_OK(a, benchBoard()->BoardCommand(10, 0));
        QVERIFY(ra->waitFor(0x701, hex("00"), 3000, powerOff)); // booted again
        QCOMPARE(sdoTransfer(a.get(), true, 1, 0x2000, 0)->data(), le32(4200));
        // Stored, it survives the power loss; restored, the EDS's value is back at the next reset.
        QCOMPARE(sdoTransfer(a.get(), false, 1, 0x2000, 0, le32(5000))->abortCode(), 0u);
        QCOMPARE(sdoTransfer(a.get(), false, 1, 0x1010, 1, "save")->abortCode(), 0u);
        CALL_OK(a, benchBoard()->BoardCommand(11, 0));
        const int secondPowerOff = int(ra->received.size());
        CALL_OK(a, benchBoard()->BoardCommand(10, 0));
        QVERIFY(ra->waitFor(0x701, hex("00"), 3000, secondPowerOff));
        QCOMPARE(sdoTransfer(a.get(), true, 1, 0x2000, 0)->data(), le32(5000));
        QCOMPARE(sdoTransfer(a.get(), false, 1, 0x1011, 1, "load")->abortCode(), 0u);
        const int beforeReset = int(ra->received.size());
        CALL_OK(a, bus()->Send(0, CanMsg(0x000, 2, hex("8101")), 0));
        QVERIFY(ra->waitFor(0x701, hex("00"), 3000, beforeReset));
        QCOMPARE(sdoTransfer(a.get(), true, 1, 0x2000, 0)->data(), le32(4200));
        // The trace of the exchange reached this session: its request as TxCan, the answer as
        // a received frame.
        QTRY_VERIFY(!ra->transmitted.isEmpty());
        QCOMPARE(ra->transmitted.first().frame.id, quint16(0x601));
        QVERIFY(ra->find(0x581, hex("43 18 10 01 a1 03 00 00")) >= 0);
    }

    void sdoAborts_data()
    {
        columns<bool, int, int, QByteArray, quint32>({"upload", "index", "sub", "data", "abort"});
        row("missing object", true, 0x3000, 0, QByteArray(), 0x06020000u);
        row("write a read-only entry", false, 0x1018, 1, le32(1), 0x06010002u);
        row("too high", false, 0x2000, 0, le32(30000), 0x06090031u);
        row("store without its signature", false, 0x1010, 1, QByteArray("safe"), 0x08000020u);
        row("too long", false, 0x2002, 0, QByteArray("\x01\x02", 2), 0x06070012u);
    }

    void sdoAborts()
    {
        auto [upload, index, sub, data, abort] =
            fetch<bool, int, int, QByteArray, quint32>("upload", "index", "sub", "data", "abort");
        auto [a, frames] = withRunningDrive();
        QVERIFY(a);
        const auto result = sdoTransfer(a.get(), upload, 1, index, sub, data);
        QVERIFY(result);
        QCOMPARE(result->abortCode(), abort);
        QVERIFY(result->error().isEmpty());
        QCOMPARE(ErrorKind(result->kind()), ErrorKind::Abort);
        // The next transfer works.
        QCOMPARE(sdoTransfer(a.get(), true, 1, 0x1018, 1)->abortCode(), 0u);
    }

    void absentNodeHoldsUpOnlyItself()
    {
        // Session b waits for node 0x55, which is not there, for up to 65 s; session a's transfers
        // to node 1, and a new session's, go through meanwhile.
        QVERIFY(startServer());
        auto a = attach();
        QVERIFY(a);
        auto b = m_server->connect();
        QVERIFY(b);
        CALL_OK(a, bus()->StartController(0));
        FrameRecorder ra(a.get());
        QVERIFY(ra.waitFor(0x701, hex("7f"), 3000));
        CALL_OK(b, service()->SetSdoTimeout(65535));
        QSignalSpy bDone(b->notify(), &QCSNotifyReplica::OperationDone);
        QString error;
        const auto waiting = b->wait(b->service()->SdoUpload(0, 0x55, 0x1000, 0), &error);
        QVERIFY(waiting && waiting->error().isEmpty());
        for (int round = 0; round < 3; ++round)
            QCOMPARE(sdoTransfer(a.get(), true, 1, 0x1018, 1)->abortCode(), 0u);
        auto c = m_server->connect();
        QVERIFY(c);
        CALL_OK(c, service()->SetSdoTimeout(1000));
        QCOMPARE(sdoTransfer(c.get(), true, 1, 0x1000, 0)->abortCode(), 0u);
        QCOMPARE(bDone.size(), 0);
        CALL_OK(b, service()->CancelRequest(waiting->requestId()));
        QTRY_COMPARE(bDone.size(), 1);
    }

    void syncForOneSessionAtATime()
    {
        QVERIFY(m_server->start({})); // paced: the frames' stamps are their times on the bus
        auto a = attach(), b = attach();
        QVERIFY(a && b);
        FrameRecorder rb(b.get());
        CALL_OK(a, bus()->StartController(0));
        CALL_OK(a, bus()->SetSyncPeriod(0, 5000));
        QString error;
        for (const auto& [period, kind] :
             {std::pair{1000, ErrorKind::Busy}, std::pair{100, ErrorKind::BadArgument}}) {
            const auto refused = b->wait(b->bus()->SetSyncPeriod(0, period), &error);
            QVERIFY2(refused && !refused->error().isEmpty(), qPrintable(error));
            QCOMPARE(ErrorKind(refused->kind()), kind);
        }
        QTest::qWait(300);
        a.reset(); // its SYNCs end with it
        QTest::qWait(100);
        QList<quint32> stamps;
        for (const auto& f : rb.received)
            if (f.frame.id == 0x080 && f.frame.len == 0)
                stamps << f.frame.timeUs;
        QVERIFY2(stamps.size() >= 55 && stamps.size() <= 75,
                 qPrintable(QString::number(stamps.size())));
        // Each on its time, or after the frame that held the bus then (at most 135 us at 1000K).
        for (int i = 1; i < stamps.size(); ++i)
            QVERIFY2(std::abs(qint32(stamps[i] - stamps[i - 1]) - 5000) <= 135,
                     qPrintable(QString::number(stamps[i] - stamps[i - 1])));
        // Free again: the other session produces its own.
        CALL_OK(b, bus()->SetSyncPeriod(0, 2000));
    }

    void errorCountersFollowTheBus()
    {
        auto [a, frames] = withRunningDrive();
        QVERIFY(a);
        QString error;
        const auto counters = [&](int controller) {
            return ErrorCounters::unpacked(
                a->wait(a->bus()->GetErrorCounters(controller), &error)->value());
        };
        QCOMPARE(counters(0).packed(), 0);
        QVERIFY(!counters(1).known()); // not started
        // At 500K beside the drive at 1000K, the frame sent is not acknowledged (8 for it) and the
        // drive's heartbeats are errors to the receiver.
        CALL_OK(a, bus()->SetBitRate(0, 2));
        CALL_OK(a, bus()->Send(0, CanMsg(0x100, 1, hex("01")), 0));
        QTRY_VERIFY(counters(0).transmit == 8 && counters(0).receive >= 8);
    }

    void refusesToStart_data()
    {
        columns<QStringList, QString>({"arguments", "mentions"});
        row("unknown plugin", QStringList{"--channel", "nosuchplugin:can0"}, "nosuchplugin");
        row("bad bench", QStringList{"--bench", "bigbench"}, "bigbench");
        row("missing EDS", QStringList{"--eds", "/nonexistent/drive.eds"}, "/nonexistent");
        row("bad listen address", QStringList{"--listen", "udp://1.2.3.4"}, "udp://");
        row("LSS window of 0 ms", QStringList{"--lss-timeout", "0"},
            "--lss-timeout takes a number of milliseconds");
        row("backlog too small", QStringList{"--client-backlog", "15"}, "KiB from 16");
        row("five controllers",
            QStringList{"--channel", "sim", "--channel", "sim", "--channel", "sim", "--channel",
                        "sim", "--channel", "sim"},
            "four");
    }

    void refusesToStart()
    {
        auto [arguments, mentions] = fetch<QStringList, QString>("arguments", "mentions");
        QProcess server;
        server.setProcessChannelMode(QProcess::MergedChannels);
        server.start(QStringLiteral(QORCALIB_SERVER_PATH),
                     QStringList{"--socket", m_dir.filePath("refused")} + arguments);
        QVERIFY(server.waitForFinished(10000));
        QCOMPARE(server.exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.exitCode(), 1);
        const QString output = QString::fromLocal8Bit(server.readAll());
        QVERIFY2(output.contains(mentions), qPrintable(output));
    }

private:
    bool startServer(const QStringList& extra = {})
    {
        return m_server->start(QStringList{"--unpaced", "--eds", fastHeartbeatEds(m_dir)} + extra);
    }
    std::unique_ptr<ServerConnection> attach() { return m_server->attach(); }
    std::pair<std::unique_ptr<ServerConnection>, std::unique_ptr<FrameRecorder>> withRunningDrive()
    {
        if (!startServer())
            return {};
        return m_server->attachWithRunningDrive();
    }

    QTemporaryDir m_dir;
    std::unique_ptr<ServerProcess> m_server;
};

QTEST_GUILESS_MAIN(TstServer)
#include "tst_server.moc"

// tessel-simdrive as a developer of CANopen masters uses it: the simulated drive on a channel of
// Qt's virtual CAN bus, reached by the server's own SDO client and NMT on another channel of
// the same bus, and what it says when its channel, its EDS or its options are wrong.
#include "datatable.h"
#include "serverprocess.h"

#include <QtNetwork>
#include <QtSerialBus>
#include <QtTest>

using namespace tessel::test;

using namespace qorcalib::test;

namespace {

// A free TCP port for a virtual bus of this test's own, so that it shares no bus with another
// program on the machine (the virtual bus's default port is one for the whole machine).
quint16 freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

QString virtualChannel(quint16 port)
{
    return QStringLiteral("virtualcan:tcp://127.0.0.1:%1/can0").arg(port);
}

// A tessel-simdrive child process; started() waits for its line that says it runs.
class SimDriveProcess
{
public:
    ~SimDriveProcess()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    bool start(const QStringList& arguments)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(QStringLiteral(TESSEL_SIMDRIVE_PATH), arguments);
        return waitForOutput(QStringLiteral("tessel-simdrive: drive"), 10000);
    }
    bool waitForOutput(const QString& text, int timeoutMs)
    {
        return QTest::qWaitFor(
                   [&] {
                       m_output += QString::fromLocal8Bit(m_process.readAll());
                       return m_output.contains(text) || m_process.state() == QProcess::NotRunning;
                   },
                   timeoutMs) &&
               m_output.contains(text);
    }
    QString output() const { return m_output; }

private:
    QProcess m_process;
    QString m_output;
};

// The first byte of the drive's answer (COB-ID 0x580 + node) to the last upload request
// (0x600 + node: initiate upload, or initiate block upload) heard, or -1.
int uploadAnswer(const FrameRecorder& recorder, int node)
{
    int request = -1;
    for (int i = 0; i < recorder.received.size(); ++i) {
        const qorcalib::CanFrame& f = recorder.received[i].frame;
        if (f.id == 0x600 + node && f.len == 8 && (f.data[0] == 0x40 || (f.data[0] & 0xE3) == 0xA0))
            request = i;
    }
    for (int i = request + 1; request >= 0 && i < recorder.received.size(); ++i)
        if (recorder.received[i].frame.id == 0x580 + node)
            return recorder.received[i].frame.data[0];
    return -1;
}

} // namespace

class TstSimDrive : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        const quint16 port = m_port = freePort();
        QVERIFY(port);
        const QString eds = qorcalib::test::fastHeartbeatEds(m_dir);
        QVERIFY(!eds.isEmpty());
        QVERIFY2(m_drives.start({"--channel", virtualChannel(port), "--node", "1,5", "--eds", eds}),
                 qPrintable(m_drives.output()));
        QVERIFY(m_blockServer.start({"--channel", virtualChannel(port)}));
        QVERIFY(m_segmentedServer.start({"--channel", virtualChannel(port), "--sdo-segmented"}));
        QVERIFY(answers(m_blockServer, "1,1000,0"));
        QVERIFY(answers(m_segmentedServer, "5,1000,0"));
    }

    void transferModes_data()
    {
        columns<bool, QStringList, QStringList, QString>({"blocks", "write", "read", "out"});
        // The command byte of the drive's answer to the read: which transfer it took part in.
        columns<int, int>({"answerMask", "answer"});
        const QString block = QString(QByteArray(200, '\xA5').toHex());
        row("expedited", true, QStringList{"1,2000,0", "4321", "--type", "u32"},
            QStringList{"1,2000,0", "--type", "u32"}, "4321\n", 0xE3, 0x43);
        row("segmented", false, QStringList{"5,2030,0", "bench 4 on vcan", "--type", "str"},
            QStringList{"5,2030,0", "--type", "str"}, "bench 4 on vcan\n", 0xE3, 0x41);
        row("segmented, 200 bytes", false, QStringList{"1,2040,0", block}, QStringList{"1,2040,0"},
            block.toUpper() + "\n", 0xE3, 0x41);
        row("block, 200 bytes", true, QStringList{"5,2040,0", block}, QStringList{"5,2040,0"},
            block.toUpper() + "\n", 0xE0, 0xC0);
    }

    void transferModes()
    {
        auto [blocks, write, read] =
            fetch<bool, QStringList, QStringList>("blocks", "write", "read");
        ServerProcess& server = blocks ? m_blockServer : m_segmentedServer;
        // Heard on the bus by the other server: a session does not see the answers of another
        // session's transfer.
        const auto connection = (blocks ? m_segmentedServer : m_blockServer).attach();
        QVERIFY(connection);
        FrameRecorder recorder(connection.get());

        const ProgramRun w = cli(server, QStringList{"sdo", "write"} + write);
        QVERIFY2(w.exit == 0, qPrintable(w.err));
        const int node = read.first().section(',', 0, 0).toInt();
        const ProgramRun r = cli(server, QStringList{"sdo", "read"} + read);
        QVERIFY2(r.exit == 0, qPrintable(r.err));
        QTEST(r.out, "out");
        auto [answerMask, answer] = fetch<int, int>("answerMask", "answer");
        QTRY_VERIFY(uploadAnswer(recorder, node) >= 0);
        QCOMPARE(uploadAnswer(recorder, node) & answerMask, answer);
    }

    void heartbeatAndNmt()
    {
        const auto connection = m_blockServer.attach();
        QVERIFY(connection);
        FrameRecorder recorder(connection.get());
        // Pre-operational, each drive at its own 100 ms heartbeat.
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x7F'), 3000));
        QVERIFY(recorder.waitFor(0x705, QByteArray(1, '\x7F'), 3000));

        QCOMPARE(cli(m_blockServer, {"nmt", "start", "1"}).exit, 0);
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x05'), 3000));
        // The other drive was not addressed.
        const int afterStart = recorder.received.size();
        QVERIFY(recorder.waitFor(0x705, QByteArray(1, '\x7F'), 3000, afterStart));

        QCOMPARE(cli(m_blockServer, {"nmt", "stop", "0"}).exit, 0);
        const int afterStop = recorder.received.size();
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x04'), 3000, afterStop));
        QVERIFY(recorder.waitFor(0x705, QByteArray(1, '\x04'), 3000, afterStop));

        // A reset node boots again: boot-up message, then pre-operational.
        QCOMPARE(cli(m_blockServer, {"nmt", "reset", "1"}).exit, 0);
        const int afterReset = recorder.received.size();
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x00'), 5000, afterReset));
        const int bootUp = recorder.find(0x701, QByteArray(1, '\x00'), afterReset);
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x7F'), 3000, bootUp));
        QCOMPARE(cli(m_blockServer, {"nmt", "start", "0"}).exit, 0);

        // A heartbeat period of 0 written into 0x1017 stops drive 1's heartbeat at once; drive 5's
        // three heartbeats meanwhile are the clock.
        QString error;
        QVERIFY(connection->wait(connection->bus()->setallrxflag(-1), &error));
        QCOMPARE(cli(m_blockServer, {"sdo", "write", "1,1017,0", "0", "--type", "u16"}).exit, 0);
        // Counted from the drive's answer to the write: what came before it on the bus may still
        // be on its way here.
        const QByteArray answer = QByteArray::fromHex("6017100000000000");
        QVERIFY(recorder.waitFor(0x581, answer, 3000, bootUp));
        const int afterWrite = recorder.find(0x581, answer, bootUp) + 1;
        int at = afterWrite;
        for (int beat = 0; beat < 3; ++beat) {
            QVERIFY(recorder.waitFor(0x705, QByteArray(1, '\x05'), 3000, at));
            at = recorder.find(0x705, QByteArray(1, '\x05'), at) + 1;
        }
        QCOMPARE(recorder.find(0x701, QByteArray(1, '\x05'), afterWrite), -1);
        QCOMPARE(cli(m_blockServer, {"sdo", "write", "1,1017,0", "100", "--type", "u16"}).exit, 0);
        QVERIFY(recorder.waitFor(0x701, QByteArray(1, '\x05'), 3000, at));
    }

    void badStart_data()
    {
        // named: what the one message must name
        columns<QStringList, QString>({"args", "named"});

        QFile garbage(m_dir.filePath("garbage.eds"));
        QVERIFY(garbage.open(QIODevice::WriteOnly));
        garbage.write("this is not an EDS\n\x01\x02\x03\n[1000\nDataType=\n");
        garbage.close();
        const QString port = QString::number(freePort());

        row("no such plugin", QStringList{"--channel", "nosuchbus:can0"}, "nosuchbus");
        row("no such virtual interface",
            QStringList{"--channel", "virtualcan:tcp://127.0.0.1:" + port + "/can7"}, "can7");
        row("not plugin:interface", QStringList{"--channel", "vcan0"}, "vcan0");
        row("no channel", QStringList{}, "--channel");
        row("missing EDS",
            QStringList{"--channel", "virtualcan:can0", "--eds", m_dir.filePath("missing.eds")},
            m_dir.filePath("missing.eds"));
        row("malformed EDS",
            QStringList{"--channel", "virtualcan:can0", "--eds", garbage.fileName()},
            garbage.fileName());
        row("node-ID out of range", QStringList{"--channel", "virtualcan:can0", "--node", "1,128"},
            "'128'");
        row("node-ID twice",
            QStringList{"--channel", "virtualcan:can0", "--node", "3", "--node", "3"}, "node-ID 3");
        row("bit rate", QStringList{"--channel", "virtualcan:can0", "--bit-rate", "2M"}, "'2M'");
    }

    void badStart()
    {
        auto [args, named] = fetch<QStringList, QString>("args", "named");
        const ProgramRun run =
            qorcalib::test::runProgram(QStringLiteral(TESSEL_SIMDRIVE_PATH), args, 15000);
        QVERIFY2(run.exit == 1, qPrintable(run.err));
        const QString last = run.err.trimmed().section('\n', -1);
        QVERIFY2(last.startsWith("tessel-simdrive: ") && last.contains(named), qPrintable(run.err));
        QCOMPARE(run.out, QString());
    }

    void framesTheServerCannotCarryAreCounted()
    {
        // Another node on the bus sends what the server cannot pass on (an extended frame, a CAN FD
        // frame of 12 bytes) before each frame it can, until the dump has its one frame.
        std::unique_ptr<QCanBusDevice> node(QCanBus::instance()->createDevice(
            QStringLiteral("virtualcan"), QStringLiteral("tcp://127.0.0.1:%1/can0").arg(m_port)));
        QVERIFY(node);
        node->setConfigurationParameter(QCanBusDevice::CanFdKey, true);
        QVERIFY(node->connectDevice());
        QVERIFY(QTest::qWaitFor([&] { return node->state() == QCanBusDevice::ConnectedState; }));
        QProcess dump;
        dump.start(TESSEL_CLI_PATH, {"--socket", m_blockServer.socketPath(), "dump", "--count", "1",
                                     "--filter", "123:7FF"});
        QCanBusFrame extended(0x12345678, QByteArray("\x01", 1));
        extended.setExtendedFrameFormat(true);
        QCanBusFrame fd(0x124, QByteArray(12, '\x5A'));
        fd.setFlexibleDataRateFormat(true);
        const QCanBusFrame carried(0x123, QByteArray("\x02", 1));
        QVERIFY(QTest::qWaitFor(
            [&] {
                for (const QCanBusFrame& f : {extended, fd, carried})
                    node->writeFrame(f);
                return dump.waitForFinished(50);
            },
            20000));
        QCOMPARE(dump.exitCode(), 0);
        QVERIFY(dump.readAllStandardOutput().endsWith(" can0 123#02\n"));
        // The two frames before the one dumped at least, and whole rounds of two.
        const QString err = QString::fromLocal8Bit(dump.readAllStandardError());
        const auto said =
            QRegularExpression("^tessel-cli: (\\d+) frames on the bus are not in the "
                               "dump: the server does not carry 29-bit identifiers or "
                               "CAN FD\n$")
                .match(err);
        QVERIFY2(said.hasMatch(), qPrintable(err));
        QVERIFY(said.captured(1).toInt() >= 2 && said.captured(1).toInt() % 2 == 0);
    }

private:
    ProgramRun cli(ServerProcess& server, const QStringList& args)
    {
        return qorcalib::test::runProgram(QStringLiteral(TESSEL_CLI_PATH),
                                          QStringList{"--socket", server.socketPath()} + args);
    }
    bool answers(ServerProcess& server, const QString& address)
    {
        return QTest::qWaitFor(
            [&] {
                return cli(server, {"sdo", "read", address}).exit == 0;
            },
            15000);
    }

    QTemporaryDir m_dir;
    quint16 m_port = 0;
    SimDriveProcess m_drives;
    // Both on the drives' bus: one transfers in blocks where it can, the other only segmented.
    ServerProcess m_blockServer;
    ServerProcess m_segmentedServer;
};

QTEST_GUILESS_MAIN(TstSimDrive)
#include "tst_simdrive.moc"

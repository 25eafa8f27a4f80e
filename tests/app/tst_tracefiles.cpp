// The CAN monitor's trace files end to end: a recorded log replayed on the paced bus with its
// spacing, checked from the server's time stamps, and traced once; the replay's failures.
#include "candumplog.h"
#include "datatable.h"
#include "frametransmitter.h"
#include "frmdiagno.h"
#include "tesselharness.h"
#include "tracefile.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstTraceFiles : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { m_bench.useOwnSettings(); }

    void replayedFramesAreTracedOnceAtTheirTimes()
    {
        m_bench.server = std::make_unique<qorcalib::test::ServerProcess>();
        QVERIFY(m_bench.server->start());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        FrmDiagno* m = t.window.monitor();
        // The server's transmit reports on: the replayed frames come back as reports too.
        m->chkEnShowTx->setChecked(true);
        const QString log = m_dir.filePath("short.log");
        QList<qint64> times;
        QVERIFY(tessel::test::writeCandumpLog(
            log, 40, '4', [](int i) { return 3000 + 500 * (i % 3); }, &times));
        m->chooseOpenFile = [&](const QString&, const QString&, const QString&) { return log; };
        m->traceFiles->cmdReplay_Click();
        // A frame sent by hand meanwhile goes out before the replayed frames waiting on the server.
        QTest::qWait(30);
        QVERIFY(!m->transmitter()->send(0x7E5, 1, QByteArray("\x42")));
        QTRY_VERIFY_WITH_TIMEOUT(!m->traceFiles->replay.isRunning(), 5000);
        QCOMPARE(t.messages, QStringList());
        QList<qint64> traced;
        int manual = 0;
        // The last reports come a moment after the end.
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                traced.clear();
                manual = 0;
                for (const TraceRecord& r : m->traceFrames()) {
                    if (r.id >= 0x400 && r.id < 0x500)
                        traced << r.timeUs;
                    manual += r.id == 0x7E5 ? 1 : 0;
                }
                return traced.size() >= 40 && manual >= 1;
            }(),
            5000);
        QCOMPARE(manual, 1);
        QCOMPARE(traced.size(), 40);
        // Traced with the time each was due at, not when Tessel handed it over (a batch at once):
        // the recorded spacing, or more where Tessel was held up and the rest moved with it.
        for (int i = 1; i < 40; ++i)
            QVERIFY2(traced[i] - traced[i - 1] >= times[i] - times[i - 1],
                     qPrintable(QString::number(i)));
    }

    void replayFailures_data()
    {
        columns<QByteArray, QString, QString, int>({"content", "name", "message", "sent"});
        row("empty", QByteArray(), "empty.log", "no frames in it", 0);
        row("not a trace", QByteArray("x"), "notes.txt",
            "a trace file is a candump log (.log), an ASC file (.asc) or a PCAN-View trace", 0);
        row("bad third line",
            QByteArray("(1.000000) can0 123#01\n(1.001000) can0 124#02\n(1.002) can0 "
                       "12345678#03\n"),
            "bad.log", "Replay stopped after 2 frames: line 3: identifier 12345678 is extended", 2);
        row("asc fd", QByteArray("   0.001 1 123 Rx d 1 00\n   0.002 CANFD 1 Rx 123 1 0 8 8 00\n"),
            "fd.asc", "Replay stopped after 1 frames: line 2: CAN FD frames", 1);
    }

    void replayFailures()
    {
        auto [content, name, message] =
            fetch<QByteArray, QString, QString>("content", "name", "message");
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        FrmDiagno* m = t.window.monitor();
        const QString path = m_dir.filePath(name);
        QFile f(path);
        QVERIFY(f.open(QIODevice::WriteOnly));
        f.write(content);
        f.close();
        m->chooseOpenFile = [&](const QString&, const QString&, const QString&) { return path; };
        m->traceFiles->cmdReplay_Click();
        QTRY_VERIFY(!m->traceFiles->replay.isRunning());
        QCOMPARE(t.messages.size(), 1);
        QVERIFY2(t.messages.first().contains(message), qPrintable(t.messages.first()));
        QTEST(int(m->traceFiles->replay.sent()), "sent");
        QCOMPARE(m->traceFiles->cmdReplay->text(), QString("Replay..."));
    }

private:
    tessel::test::WindowTestBench m_bench;
    QTemporaryDir m_dir;
};

QTEST_MAIN(TstTraceFiles)
#include "tst_tracefiles.moc"

// The replay's schedule against a recording stand-in for the server: each frame's server time
// from its recorded time and the speed, handed over ahead but not too far, a hold-up moving the
// rest of the file with its spacing kept, a stop taking back what waits, a refused frame ending
// the replay.

#include "candumplog.h"
#include "serverprocess.h"
#include "tracereplay.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

using namespace tessel;

namespace {

// The server's side of a replay: its clock starts near the 32-bit wrap, and it records what
// it was handed, and when.
struct FakeServer
{
    static constexpr quint32 kStartUs = 0xFFFFF000u;
    QElapsedTimer clock;
    struct Handed
    {
        ScheduledFrame frame;
        qint64 atUs; // server time, not wrapped
    };
    QList<Handed> handed;
    int calls = 0;
    int drops = 0;
    int dropped = 0;      // frames the last drop took back
    int refuseAfter = -1; // frames taken in all before refusing
    int mostWaiting = 0;

    qint64 nowUs() const { return qint64(kStartUs) + clock.nsecsElapsed() / 1000; }
    // The server time of a frame, unwrapped.
    static qint64 timeOf(const ScheduledFrame& f)
    {
        return qint64(kStartUs) + quint32(f.serverUs - kStartUs);
    }

    void connect(TraceReplay& replay)
    {
        replay.serverTime = [this](quint32* us) {
            clock.start();
            *us = kStartUs;
            return QString();
        };
        replay.sendTimed = [this](const QList<ScheduledFrame>& frames, QString* error) {
            ++calls;
            int taken = 0;
            for (const ScheduledFrame& f : frames) {
                if (refuseAfter >= 0 && handed.size() >= refuseAfter) {
                    *error = QStringLiteral("transmit queue full on controller 0");
                    break;
                }
                handed.append({f, nowUs()});
                ++taken;
            }
            const qint64 now = nowUs();
            mostWaiting = std::max<int>(
                mostWaiting,
                int(std::count_if(handed.begin(), handed.end(),
                                  [now](const Handed& h) { return timeOf(h.frame) > now; })));
            return taken;
        };
        replay.dropQueued = [this] {
            ++drops;
            const qint64 now = nowUs();
            dropped = int(std::count_if(handed.begin(), handed.end(),
                                        [now](const Handed& h) { return timeOf(h.frame) > now; }));
            return dropped;
        };
    }
};

} // namespace

class TstTraceReplay : public QObject
{
    Q_OBJECT
private slots:
    void framesGetTheirServerTimes_data();
    void framesGetTheirServerTimes();
    void holdUpMovesTheRestKeepingTheSpacing();
    void stampsGoingBackKeepTheFileOrder();
    void stopTakesBackWhatWaits();
    void refusedFrameEndsTheReplay();
    void denseFileWaitsInBoundedSteps();
    void gigabyteFileIsStreamed();
    void busFrameOfARecord_data();
    void busFrameOfARecord();

private:
    // A candump log of `count` frames; frame i comes `spacingUs(i)` after the one before.
    QString writeLog(const QString& name, int count, const std::function<qint64(int)>& spacingUs,
                     QList<qint64>* times = nullptr)
    {
        const QString path = m_dir.filePath(name);
        return tessel::test::writeCandumpLog(path, count, '1', spacingUs, times) ? path : QString();
    }
    QTemporaryDir m_dir;
};

void TstTraceReplay::framesGetTheirServerTimes_data()
{
    QTest::addColumn<double>("speed");
    QTest::newRow("as recorded") << 1.0;
    QTest::newRow("twice as fast") << 2.0;
    QTest::newRow("a third as fast") << 1.0 / 3;
}

void TstTraceReplay::framesGetTheirServerTimes()
{
    QFETCH(double, speed);
    QList<qint64> times;
    const QString log = writeLog(
        "spaced.log", 120, [](int i) { return 300 + (i * 733) % 2000; }, &times);
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    QList<ScheduledFrame> due;
    replay.frameDue = [&](const ScheduledFrame& f) { due.append(f); };
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY2(replay.start(log, speed, &error), qPrintable(error));
    QVERIFY(finished.wait(5000));
    QCOMPARE(finished[0][0].toString(), QString());
    QCOMPARE(finished[0][1].toLongLong(), 120);
    QCOMPARE(server.handed.size(), 120);
    QCOMPARE(due.size(), 120);
    for (int i = 0; i < 120; ++i) {
        const auto& h = server.handed[i];
        QCOMPARE(h.frame.record.timeUs, times[i]);
        // Its place in the schedule, past the 32-bit wrap of the server's clock...
        const qint64 expected = FakeServer::kStartUs + TraceReplay::kLeadUs +
                                qint64(double(times[i] - times[0]) / speed);
        QCOMPARE(FakeServer::timeOf(h.frame), expected);
        // ...handed over ahead of it, but not long ahead.
        QVERIFY2(h.atUs <= expected - TraceReplay::kMarginUs, qPrintable(QString::number(i)));
        QVERIFY2(h.atUs >= expected - TraceReplay::kAheadUs, qPrintable(QString::number(i)));
        QCOMPARE(due[i].serverUs, h.frame.serverUs);
    }
    // The end comes when the last frame is due, not when it was handed over.
    QVERIFY(server.nowUs() >= FakeServer::timeOf(server.handed.back().frame));
}

void TstTraceReplay::stampsGoingBackKeepTheFileOrder()
{
    // Stamps 2.0, 1.0, 1.5, 1.6: the second goes right after the first, and the rest keep
    // their spacing from it.
    const QString log = m_dir.filePath("back.log");
    QFile file(log);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("(2.000000) can0 101#01\n(1.000000) can0 102#02\n(1.500000) can0 103#03\n"
               "(1.600000) can0 104#04\n");
    file.close();
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY2(replay.start(log, 1.0, &error), qPrintable(error));
    QVERIFY(finished.wait(5000));
    QCOMPARE(server.handed.size(), 4);
    QList<qint64> at;
    for (const auto& h : server.handed)
        at << FakeServer::timeOf(h.frame);
    QCOMPARE(server.handed[1].frame.record.id, quint16(0x102));
    QCOMPARE(at[1], at[0]);
    QCOMPARE(at[2] - at[1], 500000);
    QCOMPARE(at[3] - at[2], 100000);
}

void TstTraceReplay::holdUpMovesTheRestKeepingTheSpacing()
{
    const QString log = writeLog("steady.log", 400, [](int) { return 1000; });
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    // The program is held up past everything already handed over (tracing the 30th frame).
    int due = 0;
    replay.frameDue = [&](const ScheduledFrame&) {
        if (++due == 30)
            QThread::msleep(250);
    };
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY(replay.start(log, 1.0, &error));
    QVERIFY(finished.wait(5000));
    QCOMPARE(server.handed.size(), 400);
    QList<qint64> gaps;
    for (int i = 1; i < 400; ++i) {
        const qint64 spacing = FakeServer::timeOf(server.handed[i].frame) -
                               FakeServer::timeOf(server.handed[i - 1].frame);
        if (spacing != 1000)
            gaps << spacing;
        // Nothing was handed over after its time.
        QVERIFY(server.handed[i].atUs <= FakeServer::timeOf(server.handed[i].frame));
    }
    // One spacing took the hold-up; every other one is the recorded millisecond.
    QCOMPARE(gaps.size(), 1);
    QVERIFY2(gaps[0] > 100000, qPrintable(QString::number(gaps[0])));
}

void TstTraceReplay::stopTakesBackWhatWaits()
{
    const QString log = writeLog("long.log", 2000, [](int) { return 1000; });
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY(replay.start(log, 1.0, &error));
    QTest::qWait(100);
    QVERIFY(replay.isRunning());
    replay.stop();
    QVERIFY(!replay.isRunning());
    QCOMPARE(server.drops, 1);
    QCOMPARE(finished.size(), 1);
    QCOMPARE(finished[0][0].toString(), QString());
    const int handed = int(server.handed.size());
    // What the server took back does not count as sent.
    QVERIFY(server.dropped > 0);
    QCOMPARE(replay.sent(), handed - server.dropped);
    QVERIFY2(handed > 50 && handed < 400, qPrintable(QString::number(handed)));
    QTest::qWait(50);
    QCOMPARE(int(server.handed.size()), handed);
    QCOMPARE(finished.size(), 1);
}

void TstTraceReplay::refusedFrameEndsTheReplay()
{
    const QString log = writeLog("refused.log", 50, [](int) { return 500; });
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    server.refuseAfter = 3;
    int due = 0;
    replay.frameDue = [&](const ScheduledFrame&) { ++due; };
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY(replay.start(log, 1.0, &error));
    QVERIFY(finished.wait(5000));
    QCOMPARE(finished[0][0].toString(),
             QString("frame 4 could not be sent: transmit queue full on controller 0"));
    QCOMPARE(replay.sent(), 3);
    // The frames the server took went out, and were announced.
    QCOMPARE(due, 3);
    QCOMPARE(server.drops, 0);
}

void TstTraceReplay::denseFileWaitsInBoundedSteps()
{
    // Twenty frames a millisecond: far more than the bus carries, so the hand-over is bounded
    // by the number of frames waiting rather than by time.
    const QString log = writeLog("dense.log", 3000, [](int) { return 50; });
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    QSignalSpy finished(&replay, &TraceReplay::finished);
    QString error;
    QVERIFY(replay.start(log, 1.0, &error));
    QVERIFY(finished.wait(5000));
    QCOMPARE(server.handed.size(), 3000);
    QVERIFY2(server.mostWaiting <= TraceReplay::kMaxAhead,
             qPrintable(QString::number(server.mostWaiting)));
    QVERIFY(server.mostWaiting > TraceReplay::kMaxAhead / 2);
}

void TstTraceReplay::gigabyteFileIsStreamed()
{
    // 1 GiB: frames for the first seconds, the rest a hole that reads as zeros.
    const QString path = writeLog("huge.log", 20000, [](int) { return 1000; });
    QFile f(path);
    QVERIFY(f.resize(qint64(1) << 30));
    TraceReplay replay;
    FakeServer server;
    server.connect(replay);
    const qint64 before = qorcalib::test::residentKib(QCoreApplication::applicationPid());
    QVERIFY(before > 0);
    QElapsedTimer started;
    started.start();
    QString error;
    QVERIFY2(replay.start(path, 1.0, &error), qPrintable(error));
    QVERIFY(started.elapsed() < 100);
    QTest::qWait(300);
    QVERIFY(server.handed.size() > 100);
    const qint64 grown = qorcalib::test::residentKib(QCoreApplication::applicationPid()) - before;
    QVERIFY2(grown < 16 * 1024,
             qPrintable(QStringLiteral("%1 KiB more while replaying").arg(grown)));
    replay.stop();
}

void TstTraceReplay::busFrameOfARecord_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<QByteArray>("data"); // the frame's 8 data bytes
    QTest::addColumn<int>("length");
    QTest::addColumn<bool>("remote");
    QTest::newRow("data") << QByteArray("(1.0) can0 123#0A0B0C")
                          << QByteArray::fromHex("0a0b0c0000000000") << 3 << false;
    QTest::newRow("eight bytes") << QByteArray("(1.0) can0 7FF#0102030405060708")
                                 << QByteArray::fromHex("0102030405060708") << 8 << false;
    QTest::newRow("remote, a length")
        << QByteArray("(1.0) can0 123#R3") << QByteArray(8, '\0') << 3 << true;
    QTest::newRow("none") << QByteArray("(1.0) can0 000#") << QByteArray(8, '\0') << 0 << false;
}

void TstTraceReplay::busFrameOfARecord()
{
    QFETCH(QByteArray, line);
    QBuffer file(&line);
    QVERIFY(file.open(QIODevice::ReadOnly));
    ScheduledFrame f;
    QString error;
    QCOMPARE(TraceReader::create(&file, TraceFormat::CandumpLog)->next(&f.record, &error),
             TraceReader::Frame);
    f.serverUs = 0xFFFFFFFEu;
    const qorcalib::CanFrame bus = f.busFrame();
    QCOMPARE(bus.id, f.record.id);
    QTEST(int(bus.len), "length");
    QTEST(bus.remote, "remote");
    QTEST(QByteArray(reinterpret_cast<const char*>(bus.data.data()), 8), "data");
    QCOMPARE(bus.timeUs, 0xFFFFFFFEu);
}

QTEST_MAIN(TstTraceReplay)
#include "tst_tracereplay.moc"

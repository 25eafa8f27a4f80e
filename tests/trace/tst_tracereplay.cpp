// The replay's schedule against a recording stand-in for the server: each frame's server time
// from its recorded time and the speed, handed over ahead but not too far, a refused frame ending
// the replay; loops, a channel map and the bus's pace shaping the schedule.

#include "bittiming.h"
#include "candumplog.h"
#include "datatable.h"
#include "serverprocess.h"
#include "tracereplay.h"

#include <QtTest>

using namespace tessel::test;

using namespace tessel;

Q_DECLARE_METATYPE(tessel::ReplayOptions)

namespace {

// The server's side of a replay: its clock starts near the 32-bit wrap, and it records what
// it was handed, and when.
struct FakeServer
{
    static constexpr quint32 kStartUs = 0xFFFFF000u;
    QElapsedTimer clock;
    struct Handed
    {
        qorcalib::CanFrame frame; // timeUs: the server time it is due at
        int controller;
        qint64 atUs; // server time, not wrapped
    };
    QList<Handed> handed;
    int drops = 0;
    int dropped = 0;      // frames the last drop took back
    int refuseAfter = -1; // frames taken in all before refusing

    qint64 nowUs() const { return qint64(kStartUs) + clock.nsecsElapsed() / 1000; }
    // The server time of a frame, unwrapped.
    static qint64 timeOf(const qorcalib::CanFrame& f)
    {
        return qint64(kStartUs) + quint32(f.timeUs - kStartUs);
    }

    void connect(TraceReplay& replay)
    {
        replay.serverTime = [this](quint32* us) {
            clock.start();
            *us = kStartUs;
            return QString();
        };
        replay.sendTimed = [this](int controller, const QVector<qorcalib::CanFrame>& frames,
                                  QString* error) {
            int taken = 0;
            for (const qorcalib::CanFrame& f : frames) {
                if (refuseAfter >= 0 && handed.size() >= refuseAfter) {
                    *error = QStringLiteral("transmit queue full on controller 0");
                    break;
                }
                handed.append({f, controller, nowUs()});
                ++taken;
            }
            return taken;
        };
        replay.dropQueued = [this](int) {
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
    void framesGetTheirServerTimes_data()
    {
        QTest::addColumn<double>("speed");
        row("as recorded", 1.0);
        row("twice as fast", 2.0);
        row("a third as fast", 1.0 / 3);
    }

    void framesGetTheirServerTimes()
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
        ReplayOptions options;
        options.speed = speed;
        QVERIFY2(replay.start(log, options, &error), qPrintable(error));
        QVERIFY(finished.wait(5000));
        QCOMPARE(finished[0][0].toString(), QString());
        QCOMPARE(finished[0][1].toLongLong(), 120);
        QCOMPARE(server.handed.size(), 120);
        QCOMPARE(due.size(), 120);
        for (int i = 0; i < 120; ++i) {
            const auto& h = server.handed[i];
            QCOMPARE(due[i].record.timeUs, times[i]);
            // Its place in the schedule, past the 32-bit wrap of the server's clock...
            const qint64 expected = FakeServer::kStartUs + TraceReplay::kLeadUs +
                                    qint64(double(times[i] - times[0]) / speed);
            QCOMPARE(FakeServer::timeOf(h.frame), expected);
            // ...handed over ahead of it, but not long ahead.
            QVERIFY2(h.atUs <= expected - TraceReplay::kMarginUs, qPrintable(QString::number(i)));
            QVERIFY2(h.atUs >= expected - TraceReplay::kAheadUs, qPrintable(QString::number(i)));
            QCOMPARE(due[i].serverUs, h.frame.timeUs);
        }
        // The end comes when the last frame is due, not when it was handed over.
        QVERIFY(server.nowUs() >= FakeServer::timeOf(server.handed.back().frame));
    }

    void optionsShapeTheSchedule_data()
    {
        columns<QByteArray, ReplayOptions>({"log", "options"});
        // Each frame handed over: ID@CONTROLLER+MICROSECONDS after the first.
        columns<QString, int>({"schedule", "unmapped"});
        const QByteArray three = "(5.000000) can0 101#01\n(5.100000) can0 102#02\n"
                                 "(5.250000) can0 103#03\n";
        // Stamps 2.0, 1.0, 1.5, 1.6: the second goes right after the first, in the file's order,
        // and the rest keep their spacing from it.
        row("stamps going back",
            QByteArray("(2.000000) can0 101#01\n(1.000000) can0 102#02\n(1.500000) can0 103#03\n"
                       "(1.600000) can0 104#04\n"),
            ReplayOptions{}, "101@0+0 102@0+0 103@0+500000 104@0+600000", 0);
        ReplayOptions twice;
        twice.loops = 2;
        row("two passes, the second right after the first", three, twice,
            "101@0+0 102@0+100000 103@0+250000 101@0+250000 102@0+350000 "
            "103@0+500000",
            0);
        ReplayOptions mapped;
        mapped.channels = {{1, 0}, {2, 3}};
        mapped.controller = 5;
        row("channel map",
            QByteArray("(1.000000) can0 100#\n(1.000100) can1 101#R2\n(1.000200) can2 102#\n"
                       "(1.000300) can0 103#\n(1.000400) can2 104#AA\n"),
            mapped, "101@0+0 102@3+100 104@3+300", 2);
        ReplayOptions unmappedOnly;
        unmappedOnly.controller = 2;
        row("no map: every frame on the controller",
            QByteArray("(1.000000) can4 100#\n(1.000100) can1 101#\n"), unmappedOnly,
            "100@2+0 101@2+100", 0);
        // Times far apart, left aside: each frame follows the one before by its bus time at
        // 500 kbit/s (2 us a bit), stuff bits included.
        ReplayOptions paced;
        paced.paceBitsPerSecond = 500000;
        paced.loops = 2;
        const auto full =
            qorcalib::CanFrame::make(0x7FF, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
        const auto none = qorcalib::CanFrame::make(0x000, {});
        const int fullUs = 2 * qorcalib::frameBitCount(full);
        const int noneUs = 2 * qorcalib::frameBitCount(none);
        row("at the bus's pace",
            QByteArray("(1.000000) can0 7FF#FFFFFFFFFFFFFFFF\n(9.000000) can0 000#\n"), paced,
            QStringLiteral("7ff@0+0 0@0+%1 7ff@0+%2 0@0+%3")
                .arg(fullUs)
                .arg(fullUs + noneUs)
                .arg(2 * fullUs + noneUs),
            0);
    }

    void optionsShapeTheSchedule()
    {
        auto [log, options] = fetch<QByteArray, ReplayOptions>("log", "options");
        const QString path = m_dir.filePath(QStringLiteral("options.log"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(log) == log.size());
        file.close();
        TraceReplay replay;
        FakeServer server;
        server.connect(replay);
        QSignalSpy finished(&replay, &TraceReplay::finished);
        QString error;
        QVERIFY2(replay.start(path, options, &error), qPrintable(error));
        QVERIFY(finished.wait(5000));
        QCOMPARE(finished[0][0].toString(), QString());
        QStringList schedule;
        for (const auto& h : server.handed)
            schedule << QStringLiteral("%1@%2+%3")
                            .arg(h.frame.id, 0, 16)
                            .arg(h.controller)
                            .arg(FakeServer::timeOf(h.frame) -
                                 FakeServer::timeOf(server.handed[0].frame));
        QTEST(schedule.join(' '), "schedule");
        QCOMPARE(replay.sent(), server.handed.size());
        QTEST(int(replay.skippedUnmapped()), "unmapped");
    }

    void refusedFrameEndsTheReplay()
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
        QVERIFY(replay.start(log, {}, &error));
        QVERIFY(finished.wait(5000));
        QCOMPARE(finished[0][0].toString(),
                 QString("frame 4 could not be sent: transmit queue full on controller 0"));
        QCOMPARE(replay.sent(), 3);
        // The frames the server took went out, and were announced.
        QCOMPARE(due, 3);
        QCOMPARE(server.drops, 0);
    }

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

QTEST_MAIN(TstTraceReplay)
#include "tst_tracereplay.moc"

#include "bittiming.h"
#include "candumplog.h"
#include "datatable.h"
#include "serverprocess.h"
#include "tracefile.h"
#include "tracereplay.h"

#include <QtTest>

using namespace tessel::test;
using namespace tessel;

namespace {
struct ReadAll
{
    QList<TraceRecord> frames;
    QString error;
    qint64 errorFrames = 0; // passed over
    qint64 comments = 0;
};

ReadAll readAll(const QByteArray& text, TraceFormat format)
{
    QBuffer buffer;
    buffer.setData(text);
    buffer.open(QIODevice::ReadOnly);
    auto reader = TraceReader::create(&buffer, format);
    ReadAll r;
    TraceRecord record;
    for (;;) {
        const auto result = reader->next(&record, &r.error);
        if (result != TraceReader::Frame)
            break;
        r.frames << record;
    }
    r.errorFrames = reader->errorFrames();
    r.comments = reader->comments();
    return r;
}

QString show(const TraceRecord& r)
{
    return QStringLiteral("%1 ch%2 %3 %4%5 %6")
        .arg(r.timeUs)
        .arg(r.channel)
        .arg(r.id, 3, 16, QLatin1Char('0'))
        .arg(r.remote ? QStringLiteral("R") : QString::fromLatin1(r.data.toHex()))
        .arg(r.remote ? QString::number(r.length) : QString())
        .arg(r.transmitted ? "tx" : "rx");
}
} // namespace

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

class TstTrace : public QObject
{
    Q_OBJECT
private slots:
    // Trace files as other CAN tools write them, written out by hand from the formats; round trips;
    // the lines a reader refuses, with their numbers.
    // Each format written out by hand as its tools write it: the frames read (time in us,
    // channel, identifier, data or R and length, direction), the error frames and comments
    // passed over and counted. PCAN-View traces are known by what they hold.
    void byHand_data()
    {
        columns<int, QByteArray, QStringList, int, int>(
            {"format", "text", "frames", "errorFrames", "comments"});
        const int log = int(TraceFormat::CandumpLog), asc = int(TraceFormat::Asc),
                  trc = int(TraceFormat::PcanTrc);
        row("candump log", log,
            QByteArray("(1436509052.249713) vcan0 044#\n"
                       "(1436509052.449847) can1 701#7F\n"
                       "\n"
                       "# a comment\n"
                       "(1436509052.650001) can0 20000080#0000000000000000\n"
                       "(1436509052.650004) can0 123#DEADBEEF R\n"
                       "(1436509052.650104) can0 7FF#R\n"
                       "(1436509052.700000) can0 181#R4\n"
                       "(1436509053.5) can0 000#0101\n"
                       "(1436509053.123456789) vcan12 1a2#ab\r\n"
                       "(1436509053.7)\tcan3  7E5#01 \n"),
            QStringList({"1436509052249713 ch0 044  rx", "1436509052449847 ch1 701 7f rx",
                         "1436509052650004 ch0 123 deadbeef rx", "1436509052650104 ch0 7ff R0 rx",
                         "1436509052700000 ch0 181 R4 rx", "1436509053500000 ch0 000 0101 rx",
                         "1436509053123456 ch12 1a2 ab rx", "1436509053700000 ch3 7e5 01 rx"}),
            1, 1);
        row("asc", asc,
            QByteArray("date Sun Nov 22 10:00:00.000 am 2026\n"
                       "base hex  timestamps absolute\n"
                       "internal events logged\n"
                       "// version 9.0.0\n"
                       "Begin Triggerblock Sun Nov 22 10:00:00.000 am 2026\n"
                       "   0.000000 Start of measurement\n"
                       "   0.001234 1  701             Rx   d 1 7F\n"
                       "   0.500000 2  601             Tx   d 8 40 18 10 01 00 00 00 00\n"
                       "   0.600000 1  123             Rx   r\n"
                       "   0.700000 1  ErrorFrame\n"
                       "   1.000000 1  0               Rx   d 2 01 00\n"
                       "End TriggerBlock\n"),
            QStringList({"1234 ch0 701 7f rx", "500000 ch1 601 4018100100000000 tx",
                         "600000 ch0 123 R0 rx", "1000000 ch0 000 0100 rx"}),
            1, 1);
        // Relative stamps count from the event before, frame or not.
        row("asc, relative times", asc,
            QByteArray("base hex  timestamps relative\n"
                       "   0.100000 1  701 Rx d 1 7F\n"
                       "   0.050000 1  ErrorFrame\n"
                       "   0.250000 1  702 Rx d 1 05\n"),
            QStringList({"100000 ch0 701 7f rx", "400000 ch0 702 05 rx"}), 1, 0);
        row("asc, decimal identifiers", asc,
            QByteArray("base dec  timestamps absolute\n 0.1 1 1793 Rx d 1 127\n"),
            QStringList({"100000 ch0 701 7f rx"}), 0, 0);
        const QStringList pcan{"1200 ch0 701 7f rx", "500000 ch0 601 4018100100000000 tx",
                               "600000 ch0 123 R0 rx"};
        row("PCAN-View 1.1", trc,
            QByteArray(
                ";$FILEVERSION=1.1\r\n;$STARTTIME=46348.4166666667\r\n;\r\n;   Message Number\r\n"
                ";---+--   ----+----  --+--  ----+---  +  -+ -- -- -- -- -- -- --\r\n"
                "     1)         1.2  Rx         0701  1  7F \r\n"
                "     2)       500.0  Tx         0601  8  40 18 10 01 00 00 00 00 \r\n"
                "     3)       600.0  Rx         0123  0  RTR \r\n"
                "     4)       650.0  Error      0000  4  00 00 08 00 \r\n"),
            pcan, 1, -1);
        row("PCAN-View 2.0", trc,
            QByteArray(
                ";$FILEVERSION=2.0\n;$STARTTIME=46348.4166666667\n;   Message   Time    Type ID\n"
                "      1         1.200 DT     0701 Rx 1  7F\n"
                "      2       500.000 DT     0601 Tx 8  40 18 10 01 00 00 00 00\n"
                "      3       600.000 RR     0123 Rx 0\n"
                "      4       650.000 ST          Rx    00 00 00 08\n"),
            pcan, 1, -1);
        row("PCAN-View 2.1 with its columns", trc,
            QByteArray(
                ";$FILEVERSION=2.1\n;$STARTTIME=46348.4166666667\n;$COLUMNS=N,O,T,B,I,d,R,L,D\n"
                "      1         1.200 DT 1     0701 Rx - 1  7F\n"
                "      2       500.000 DT 1     0601 Tx - 8  40 18 10 01 00 00 00 00\n"
                "      3       600.000 RR 1     0123 Rx - 0\n"
                "      4       650.000 ER 1        - Rx - 5  00 00 08 01 00\n"),
            pcan, 1, -1);
    }

    void byHand()
    {
        auto [format, text, comments] = fetch<int, QByteArray, int>("format", "text", "comments");
        if (format == int(TraceFormat::PcanTrc)) {
            QBuffer buffer(&text);
            buffer.open(QIODevice::ReadOnly);
            TraceFormat found = TraceFormat::CandumpLog;
            QVERIFY(traceFormatOfContent(&buffer, &found));
            QCOMPARE(found, TraceFormat::PcanTrc);
        }
        const ReadAll r = readAll(text, TraceFormat(format));
        QCOMPARE(r.error, QString());
        QStringList shown;
        for (const auto& f : r.frames)
            shown << show(f);
        QTEST(shown, "frames");
        QTEST(int(r.errorFrames), "errorFrames");
        if (comments >= 0) // a PCAN-View trace's ";" lines are its header
            QCOMPARE(int(r.comments), comments);
    }

    void refused_data()
    {
        columns<int, QByteArray, QString>({"format", "text", "error"});
        const int log = int(TraceFormat::CandumpLog), asc = int(TraceFormat::Asc);
        row("log extended", log,
            QByteArray("(1.000001) can0 701#7F\n(1.1) can0 "
                       "12345678#00\n"),
            "line 2: identifier 12345678 is extended (29-bit): the "
            "server carries 11-bit identifiers");
        row("log identifier past 11 bits", log, QByteArray("(1.1) can0 800#00\n"),
            "line 1: identifier 800");
        row("log remote length 9", log, QByteArray("(1.1) can0 123#R9\n"),
            "line 1: remote length 'R9'");
        row("log fd", log, QByteArray("(1.1) can0 123##1AABB\n"),
            "line 1: CAN FD frames are not carried by the server");
        row("log truncated", log, QByteArray("(1.1) can0 701#7F\n(1.2) can0\n"),
            "line 2: not a candump log line: '(1.2) can0'");
        row("log garbage", log, QByteArray("\x00\xFF garbage\n", 11),
            "line 1: not a candump log line");
        row("log odd data", log, QByteArray("(1.1) can0 123#ABC\n"),
            "line 1: data 'ABC' is not 0 to 8 whole bytes");
        row("log data not hexadecimal", log, QByteArray("(1.1) can0 123#1G\n"),
            "line 1: data '1G' is not hexadecimal");
        row("log time past any recording", log, QByteArray("(9223372036855.000000) can0 123#00\n"),
            "line 1: time stamp '9223372036855' is not 0 to 1000000000000 s");
        row("asc time nan", asc, QByteArray("  nan 1 123 Rx d 1 00\n"),
            "line 1: time stamp 'nan' is not 0 to");
        row("asc time 1e300", asc, QByteArray("  1e300 1 123 Rx d 1 00\n"),
            "line 1: time stamp '1e300' is not 0 to");
        row("log nine bytes", log, QByteArray("(1.1) can0 123#001122334455667788\n"),
            "line 1: data '001122334455667788' is not 0 to 8 whole "
            "bytes");
        row("asc extended", asc, QByteArray("  0.1 1 12345678x Rx d 1 00\n"),
            "line 1: identifier 12345678x is extended (29-bit): the "
            "server carries 11-bit identifiers");
        row("asc fd", asc, QByteArray("  0.1 CANFD 1 Rx 123 1 0 8 8 00 ...\n"),
            "line 1: CAN FD frames are not carried by the server");
        row("asc truncated", asc, QByteArray("  0.1 1 123 Rx d 4 01 02\n"),
            "line 1: 4 data bytes announced, 2 there");
        row("asc garbage", asc, QByteArray("Begin\nhello world\n"),
            "line 2: not an ASC line: 'hello world'");
        row("asc length 9", asc, QByteArray("  0.1 1 123 Rx d 9 01\n"),
            "line 1: length '9' is not 0 to 8");
    }

    void refused()
    {
        auto [format, text, error] = fetch<int, QByteArray, QString>("format", "text", "error");
        const ReadAll r = readAll(text, TraceFormat(format));
        QVERIFY2(r.error.startsWith(error), qPrintable(r.error));
    }

    void roundTrip_data()
    {
        QTest::addColumn<int>("format");
        row("candump log", int(TraceFormat::CandumpLog));
        row("asc", int(TraceFormat::Asc));
    }

    void roundTrip()
    {
        QFETCH(int, format);
        QList<TraceRecord> frames;
        for (int i = 0; i < 500; ++i) {
            TraceRecord r;
            r.timeUs = 1000000 + qint64(i) * 1733 + (i % 7) * 11;
            r.channel = i % 3;
            r.id = quint16((i * 37) % 0x800);
            r.remote = i % 50 == 0;
            r.transmitted = i % 4 == 0;
            r.length = i % 9;
            if (!r.remote)
                for (int b = 0; b < r.length; ++b)
                    r.data.append(char(i + b));
            frames << r;
        }
        QByteArray text;
        QBuffer out(&text);
        out.open(QIODevice::WriteOnly);
        TraceWriter writer(&out, TraceFormat(format));
        writer.begin(QDateTime(QDate(2026, 11, 23), QTime(5, 20)));
        for (const auto& f : frames)
            writer.write(f);
        writer.end();
        out.close();
        const ReadAll back = readAll(text, TraceFormat(format));
        QCOMPARE(back.error, QString());
        QCOMPARE(back.frames.size(), frames.size());
        const bool asc = format == int(TraceFormat::Asc);
        for (int i = 0; i < frames.size(); ++i) {
            TraceRecord expected = frames[i];
            if (asc)
                expected.timeUs -= frames[0].timeUs; // ASC counts from its first frame
            else
                expected.transmitted = false; // a candump log does not say who sent
            QCOMPARE(show(back.frames[i]), show(expected));
        }
        if (asc)
            QVERIFY(text.startsWith("date Mon Nov 23 05:20:00.000 am 2026\nbase hex"));
        else
            QVERIFY(text.startsWith("(0000000001.000000) can0 000#R\n"));
    }

    void overlongLineIsNotHeld()
    {
        QTemporaryFile file;
        QVERIFY(file.open());
        const QByteArray chunk(1 << 20, 'A');
        for (int i = 0; i < 32; ++i) // 32 MiB without a line end
            file.write(chunk);
        file.write("\n(1.1) can0 701#7F\n");
        file.seek(0);
        auto reader = TraceReader::create(&file, TraceFormat::CandumpLog);
        TraceRecord r;
        QString error;
        QCOMPARE(reader->next(&r, &error), TraceReader::Error);
        QCOMPARE(error, QString("line 1: longer than 4096 characters"));
        // An empty file is just the end.
        QBuffer empty;
        empty.open(QIODevice::ReadOnly);
        QCOMPARE(TraceReader::create(&empty, TraceFormat::Asc)->next(&r, &error), TraceReader::End);
    }

    // The replay's schedule against a recording stand-in for the server: each frame's server time
    // from its recorded time and the speed, handed over ahead but not too far, a refused frame ending
    // the replay; loops, a channel map and the bus's pace shaping the schedule.
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

QTEST_MAIN(TstTrace)
#include "tst_trace.moc"

// The simulated drive's alarm log as a master meets it: SDO requests written out by hand and
// the drive's answers on the bus.
#include "alarmlog.h"
#include "datatable.h"
#include "frametext.h"
#include "sdoserver.h"

#include <QTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {
struct Drive
{
    Drive() : server(&log, [this](const CanFrame& f) { answers << hexOf(f); })
    {
        server.setNodeId(1);
    }
    QString ask(const char* hex)
    {
        answers.clear();
        server.onFrame(fromHex(0x601, hex), 0);
        return answers.value(0);
    }
    AlarmLog log;
    SdoServer server;
    QStringList answers;
};
} // namespace

class TstAlarmLog : public QObject
{
    Q_OBJECT
private slots:
    void exchanges_data()
    {
        // answer: to the last request
        columns<QStringList, QString>({"requests", "answer"});
        // Six records: the last is number 5; six alarms raised so far.
        row("status", QStringList{"4010580000000000"}, "581:43 10 58 00 06 00 05 00");
        row("select record 3", QStringList{"2b0b520003000000"}, "581:60 0b 52 00 00 00 00 00");
        row("selection read back", QStringList{"2b0b520003000000", "400b520000000000"},
            "581:4b 0b 52 00 03 00 00 00");
        row("entry count", QStringList{"2b0b520003000000", "400c520000000000"},
            "581:4f 0c 52 00 0c 00 00 00");
        row("alarm number of record 3", QStringList{"2b0b520003000000", "400c520100000000"},
            "581:43 0c 52 01 0d 00 00 00");
        row("time stamp of record 3", QStringList{"2b0b520003000000", "400c520c00000000"},
            "581:43 0c 52 0c 34 13 13 00");
        row("one-byte selector", QStringList{"2f0b520001000000", "400c520100000000"},
            "581:43 0c 52 01 02 00 00 00");
        row("no entry 13", QStringList{"400c520d00000000"}, "581:80 0c 52 0d 11 00 09 06");
        row("no such record", QStringList{"2b0b520006000000"}, "581:80 0b 52 00 30 00 09 06");
        row("selector too long", QStringList{"230b520001000000"}, "581:80 0b 52 00 12 00 07 06");
        row("records are read-only", QStringList{"230c520101000000"},
            "581:80 0c 52 01 02 00 01 06");
        row("status is read-only", QStringList{"2310580001000000"}, "581:80 10 58 00 02 00 01 06");
        row("status has no sub 1", QStringList{"4010580100000000"}, "581:80 10 58 01 11 00 09 06");
    }

    void exchanges()
    {
        QFETCH(QStringList, requests);
        Drive drive;
        QString answer;
        for (const QString& r : requests)
            answer = drive.ask(r.toLatin1().constData());
        QTEST(answer, "answer");
    }

    void seededRecordsAreNotInTimeOrder()
    {
        const AlarmLog log;
        QCOMPARE(log.size(), 6);
        bool descending = false;
        bool equal = false;
        for (int i = 1; i < log.size(); ++i) {
            const quint32 before = log.record(i - 1)[AlarmLog::TimeStamp - 1];
            const quint32 now = log.record(i)[AlarmLog::TimeStamp - 1];
            descending |= now < before;
            equal |= now == before;
        }
        // What the reader's sort is there for: one record older than the one before, and two from
        // one scan.
        QVERIFY(descending);
        QVERIFY(equal);
        for (int i = 0; i < log.size(); ++i)
            QVERIFY(log.record(i)[AlarmLog::TimeStamp - 1] < AlarmLog::kOperatingSecondsAtStart);
    }

    void raisedAlarmsGrowTheLogThenWrap()
    {
        Drive drive;
        drive.log.raise(15, 480, AlarmLog::kOperatingSecondsAtStart + 3);
        QCOMPARE(drive.log.size(), 7);
        QCOMPARE(drive.ask("4010580000000000"), QString("581:43 10 58 00 07 00 06 00"));
        drive.ask("2b0b520006000000");
        QCOMPARE(drive.ask("400c520100000000"), QString("581:43 0c 52 01 0f 00 00 00"));
        QCOMPARE(drive.ask("400c520200000000"), QString("581:43 0c 52 02 e0 01 00 00"));
        for (int i = 0; i < 9; ++i)
            drive.log.raise(quint32(i + 1), 480,
                            AlarmLog::kOperatingSecondsAtStart + 10 + quint32(i));
        QCOMPARE(drive.log.size(), AlarmLog::kCapacity);
        // Full: the next alarm takes the oldest slot, record 0.
        drive.log.raise(22, 481, AlarmLog::kOperatingSecondsAtStart + 60);
        QCOMPARE(drive.log.size(), AlarmLog::kCapacity);
        QCOMPARE(drive.log.record(0)[0], 22u);
        QCOMPARE(drive.log.record(1)[0], 2u);
        QCOMPARE(drive.log.countWord(), (15u << 16) | 17u);
        drive.log.raise(5, 481, AlarmLog::kOperatingSecondsAtStart + 61);
        QCOMPARE(drive.log.record(1)[0], 5u);
    }
};

QTEST_APPLESS_MAIN(TstAlarmLog)
#include "tst_alarmlog.moc"

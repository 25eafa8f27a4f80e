#include "alarmrecords.h"
#include "benchcontrol.h"
#include "datatable.h"
#include "fixture.h"
#include "frmacq.h"
#include "recordingbench.h"
#include "simbench.h"

#include <QtTest>
#include <QtWidgets>

#include <utility>

using namespace tessel::test;
using namespace qorcalib;
using namespace tessel;
using BoxAction = QString (BenchControl::*)(bool);

Q_DECLARE_METATYPE(BoxAction)

namespace {
// A drive's alarm objects, answering the reader's transfers and recording them.
struct ScriptedDrive
{
    quint32 status = 0;
    QList<QVector<quint32>> records;
    QString failAt; // "u 520C 3" fails the upload of 0x520C sub 3 (the first time it comes)
    QStringList calls;
    int selected = -1;

    AlarmSdo sdo()
    {
        return [this](bool upload, quint16 index, quint8 sub, const QByteArray& data,
                      QByteArray* uploaded, QString* error) {
            const QString call = QStringLiteral("%1 %2 %3")
                                     .arg(upload ? 'u' : 'd')
                                     .arg(QString::number(index, 16).toUpper())
                                     .arg(sub);
            calls << (upload ? call : call + ' ' + data.toHex());
            if (call == failAt) {
                *error = QStringLiteral("06020000");
                return false;
            }
            const auto le = [](quint32 v, int n) {
                QByteArray b;
                for (int i = 0; i < n; ++i)
                    b.append(char(v >> (8 * i)));
                return b;
            };
            if (!upload) {
                selected = quint8(data[0]) | (quint8(data[1]) << 8);
                return true;
            }
            if (index == 0x5810)
                *uploaded = le(status, 4);
            else if (sub == 0)
                *uploaded = le(quint32(records.value(selected).size()), 1);
            else
                *uploaded = le(records.value(selected).value(sub - 1), 4);
            return true;
        };
    }
};

QVector<quint32> record(quint32 alarm, qint32 key, int entries = 12)
{
    QVector<quint32> r(entries, 0);
    r[0] = alarm;
    if (entries >= 12)
        r[11] = quint32(key);
    return r;
}

// Each analog read takes a while, with events running, as a call to a busy server does.
class SlowBench : public RecordingBench
{
public:
    int depth = 0;
    int deepest = 0;
    std::function<void()> during; // once, from within the first slow read
    QString readAnalog(int channel, double* value) override
    {
        deepest = std::max(deepest, ++depth);
        if (during)
            QTimer::singleShot(10, std::exchange(during, {}));
        QTest::qWait(60);
        --depth;
        return RecordingBench::readAnalog(channel, value);
    }
};
} // namespace

class TstBench : public QObject
{
    Q_OBJECT
private slots:
    void drivePower_data()
    {
        columns<int, int, int>({"kind", "type", "relay"});
        row("assembly 3", 1, 3, 5);
        row("pcb 33", 2, 33, 5);
        row("pcb 34", 2, 34, 9);
    }

    void drivePower()
    {
        auto [kind, type, relay] = fetch<int, int, int>("kind", "type", "relay");
        SimBench bench({kind, type});
        QVERIFY(bench.drivesPowered());
        QSignalSpy power(&bench, &SimBench::drivePowerChanged);
        QString error;
        int status = -1;

        QVERIFY(bench.command(11, 0, &status, &error)); // main supply off
        QCOMPARE(power.size(), 1);
        QCOMPARE(power.last().at(0).toBool(), false);
        QVERIFY(bench.setParameter(26, 12.0, &error)); // too low for the drive
        QVERIFY(bench.command(10, 0, &status, &error));
        QCOMPARE(power.size(), 1);
        QVERIFY(bench.setParameter(26, 24.0, &error));
        QCOMPARE(power.size(), 2);
        QCOMPARE(power.last().at(0).toBool(), true);
        // Opening the relay cuts the drive; another output does not.
        QVERIFY(bench.setOutput(relay == 5 ? 9 : 5, false, &error));
        QCOMPARE(power.size(), 2);
        QVERIFY(bench.setOutput(relay, false, &error));
        QCOMPARE(power.size(), 3);
        QVERIFY(!bench.drivesPowered());

        QVERIFY(!bench.command(99, 0, &status, &error));
        QVERIFY(error.contains("99"));
        QVERIFY(!bench.setParameter(26, 75.0, &error));
        QVERIFY(error.contains("26"));
        QVERIFY(!bench.setParameter(31, 1.0, &error));
    }

    void analogFollowsSupplies()
    {
        SimBench bench({1, 3});
        QString error;
        int status = 0;
        double v = 0;
        QVERIFY(bench.readAnalog(0, &v, &error));
        QVERIFY(qAbs(v - 48.0) < 0.05);
        // Assembly benches show what Acquire latched.
        QVERIFY(bench.setParameter(26, 30.0, &error));
        QVERIFY(bench.readAnalog(0, &v, &error));
        QVERIFY(qAbs(v - 48.0) < 0.05);
        bench.acquire();
        QVERIFY(bench.readAnalog(0, &v, &error));
        QVERIFY(qAbs(v - 30.0) < 0.05);
        QVERIFY(bench.command(13, 0, &status, &error)); // brake on at 24 V
        QVERIFY(bench.setOutput(8, true, &error));      // aux
        bench.acquire();
        QVERIFY(bench.readAnalog(1, &v, &error));
        QVERIFY(qAbs(v - 24.0) < 0.05);
        QVERIFY(bench.readAnalog(5, &v, &error));
        QVERIFY(qAbs(v - 24.0) < 0.05);

        SimBench pcb({2, 34});
        QVERIFY(pcb.readAnalog(0, &v, &error)); // vdcbus, live
        QVERIFY(qAbs(v - 48.0) < 0.05);
        QVERIFY(pcb.command(11, 0, &status, &error));
        QVERIFY(pcb.readAnalog(1, &v, &error)); // 15v_dig without power
        QVERIFY(qAbs(v) < 0.05);
    }

    void refusedSupplyValues_data()
    {
        columns<int, double, QString>({"parameter", "value", "error"});
        row("negative", 26, -5.0,
            "bench parameter 26 (main supply voltage): -5 V is out of range "
            "(0 to 60 V)");
        row("huge", 29, 1e9,
            "bench parameter 29 (brake supply voltage): 1000000000 V is out of "
            "range (0 to 60 V)");
        row("current", 27, 20.5,
            "bench parameter 27 (main supply current limit): 20.5 A is out "
            "of range (0 to 20 A)");
        row("not a number", 26, qQNaN(),
            "bench parameter 26 (main supply voltage): nan V is out of "
            "range (0 to 60 V)");
    }

    void refusedSupplyValues()
    {
        auto [parameter, value] = fetch<int, double>("parameter", "value");
        SimBench bench({1, 3});
        QSignalSpy power(&bench, &SimBench::drivePowerChanged);
        QString error;
        QVERIFY(!bench.setParameter(parameter, value, &error));
        QTEST(error, "error");
        // Nothing switched: the drives keep their 48 V.
        QCOMPARE(power.size(), 0);
        QCOMPARE(bench.mainVoltage(), 48.0);
    }

    void overvoltage()
    {
        SimBench bench({1, 3});
        QSignalSpy over(&bench, &SimBench::overvoltage);
        QString error;
        int status = 0;
        QVERIFY(bench.setParameter(26, 56.0, &error)); // at the limit: no alarm
        QCOMPARE(over.size(), 0);
        QVERIFY(bench.setParameter(26, 58.0, &error));
        QCOMPARE(over.size(), 1);
        QCOMPARE(over.last().at(0).toDouble(), 58.0);
        QVERIFY(bench.setParameter(26, 58.0, &error)); // the same again: nothing new
        QCOMPARE(over.size(), 1);
        // Unpowered drives notice nothing until the supply comes on.
        QVERIFY(bench.command(11, 0, &status, &error));
        QVERIFY(bench.setParameter(26, 59.0, &error));
        QCOMPARE(over.size(), 1);
        QVERIFY(bench.command(10, 0, &status, &error));
        QCOMPARE(over.size(), 2);
    }

    void doorsAndTrigger()
    {
        SimBench bench({2, 33});
        QSignalSpy inputs(&bench, &SimBench::inputChanged);
        QString error;
        bool closed = false;
        QVERIFY(bench.setInput(10, false));
        QVERIFY(!bench.setInput(16, false));
        QCOMPARE(inputs.size(), 1);
        QVERIFY(bench.readInput(10, &closed, &error));
        QVERIFY(!closed);
        QVERIFY(bench.readInput(0, &closed, &error));
        QVERIFY(closed);
        // Armed, the trigger reads 5 V on channel 12 until the unit's power switches.
        double v = -1;
        QVERIFY(bench.readAnalog(12, &v, &error));
        QCOMPARE(v, 0.0);
        bench.arm();
        QVERIFY(bench.readAnalog(12, &v, &error));
        QCOMPARE(v, 5.0);
        QVERIFY(bench.setOutput(5, false, &error));
        QVERIFY(bench.readAnalog(12, &v, &error));
        QCOMPARE(v, 0.0);
    }

    // The bench panel's rules on a recording bench: what each control sends per bench, the I/O
    // initialised once, the supply sequences with what users type.
    void boxes_data()
    {
        columns<int, BoxAction, bool, QString>({"type", "action", "ticked", "sent"});
        const BoxAction main = &BenchControl::powerMain, aux = &BenchControl::powerAux,
                        auxIn = &BenchControl::powerAuxIn, brake = &BenchControl::powerBrake,
                        pcbMain = &BenchControl::pcbMain, reset = &BenchControl::pcbReset;
        row("main", 3, main, true, "out 5 1");
        row("main off", 33, main, false, "out 5 0");
        row("aux on type 3", 3, aux, true, "out 8 1");
        row("aux elsewhere", 1, aux, true, "out 2 1");
        row("aux in", 34, auxIn, false, "out 6 0");
        // The second assembly bench has a programmable brake supply: commands, never output 1.
        row("brake on type 3", 3, brake, true, "cmd 13");
        row("brake off type 3", 3, brake, false, "cmd 12");
        row("brake elsewhere", 1, brake, true, "out 1 1");
        row("brake off elsewhere", 34, brake, false, "out 1 0");
        row("pcb main 33", 33, pcbMain, true, "out 5 1");
        row("pcb main 34", 34, pcbMain, true, "out 9 1");
        row("pcb main 3", 3, pcbMain, false, "out 9 0");
        // The reset line is inverted.
        row("reset ticked", 33, reset, true, "out 2 0");
        row("reset cleared", 33, reset, false, "out 2 1");
    }

    void boxes()
    {
        auto [type, action, ticked, sent] =
            fetch<int, BoxAction, bool, QString>("type", "action", "ticked", "sent");
        RecordingBench bench;
        BenchControl control(type == 3 || type == 1 ? 1 : 2, type, &bench);
        QCOMPARE((control.*action)(ticked), QString());
        QCOMPARE(bench.calls, QStringList({"init", sent}));
    }

    void firstActionInitialisesOnce_data()
    {
        QTest::addColumn<QString>("initError");
        row("init works", "");
        // A failed initialisation is said, and not tried again at the next action.
        row("init fails", "bench I/O not ready");
    }

    void firstActionInitialisesOnce()
    {
        QFETCH(QString, initError);
        RecordingBench bench;
        if (!initError.isEmpty())
            bench.refuse.insert("init", initError);
        BenchControl control(1, 3, &bench);
        QVERIFY(control.ioPending());
        QCOMPARE(control.powerAuxIn(true), initError);
        QVERIFY(!control.ioPending());
        QCOMPARE(control.powerAuxIn(false), QString());
        QCOMPARE(control.shutdown(true), QString());
        QCOMPARE(control.prologue(), QString());
        QStringList expected{"init"};
        if (initError.isEmpty())
            expected << "out 6 1";
        expected << "out 6 0"
                 << "cmd 12"
                 << "cmd 11";
        QCOMPARE(bench.calls, expected);
    }

    void refusedVoltageSwitchesNothing()
    {
        RecordingBench bench;
        bench.refuse.insert("param 26 -5", "out of range");
        bench.refuse.insert("param 29 99", "brake out of range");
        BenchControl control(1, 3, &bench);
        QCOMPARE(control.mainSupplyOn("-5"), QString("out of range"));
        QCOMPARE(control.brakeSupplyOn("99"), QString("brake out of range"));
        QVERIFY(!bench.calls.contains("cmd 10"));
        QVERIFY(!bench.calls.contains("cmd 13"));
        // A box without a number is no 0 V: nothing reaches the bench.
        bench.calls.clear();
        QCOMPARE(control.mainSupplyOn("abc"),
                 QString("Vout 'abc' is not a voltage: nothing was switched"));
        QCOMPARE(control.brakeSupplyOn(" "),
                 QString("Brake V '' is not a voltage: nothing was switched"));
        QCOMPARE(control.mainSupplyOn("&Hx"),
                 QString("Vout '&Hx' is not a voltage: nothing was switched"));
        QCOMPARE(bench.calls, QStringList());
        // A refused shutdown step leaves the main supply as it was.
        bench.calls.clear();
        bench.refuse.insert("cmd 12", "brake supply does not answer");
        QCOMPARE(control.shutdown(true), QString("brake supply does not answer"));
        QCOMPARE(bench.calls, QStringList({"cmd 12"}));
    }

    void shutdown_data()
    {
        columns<bool, QStringList>({"brakeShown", "sent"});
        row("brake shown", true, QStringList{"init", "cmd 12", "cmd 11"});
        row("brake hidden", false, QStringList{"init", "cmd 11"});
    }

    void shutdown()
    {
        QFETCH(bool, brakeShown);
        RecordingBench bench;
        BenchControl control(1, 3, &bench);
        QCOMPARE(control.shutdown(brakeShown), QString());
        QTEST(bench.calls, "sent");
    }

    // The fixture windows' rules: read-out formats, padded names, door lines, the boxes per bench,
    // and a whole refresh on a recording bench, with the failures each window meets.
    void fixedPoint_data()
    {
        columns<double, QString, QString>({"value", "two", "three"});
        row("1.5", 1.5, "01.500", "001.500");
        row("100", 100.0, "100.000", "100.000");
        row("-3.25", -3.25, "-03.250", "-003.250");
        row("0", 0.0, "00.000", "000.000");
        row("rounds up into a digit", 9.9996, "10.000", "010.000");
        row("tiny negative has no sign", -0.0004, "00.000", "000.000");
        row("thousands", 1234.5678, "1234.568", "1234.568");
    }

    void fixedPoint()
    {
        QFETCH(double, value);
        QTEST(fixedPointText(value, 2), "two");
        QTEST(fixedPointText(value, 3), "three");
    }

    void channelLines_data()
    {
        columns<int, int, double, QString>({"kind", "channel", "value", "line"});
        row("asm", int(FixtureKind::Assembly), 3, 1.5, "ch 3 cont canL = 01.500");
        row("asm negative", int(FixtureKind::Assembly), 0, -3.25, "ch 0 pwr short = -03.250");
        row("asm last", int(FixtureKind::Assembly), 5, 100.0, "ch 5 cont aux pwr = 100.000");
        row("pcb", int(FixtureKind::Pcb), 12, 0.0, "ch 12 = 000.000");
        row("pcb 1.5", int(FixtureKind::Pcb), 0, 1.5, "ch 0 = 001.500");
        row("zd3", int(FixtureKind::PcbZd3), 0, 48.0, "vdcbus       = 048.000");
        row("zd3 unit", int(FixtureKind::PcbZd3), 15, 109.0, "isupply [mA] = 109.000");
        row("zd3 negative", int(FixtureKind::PcbZd3), 14, -3.25, "-5v_dig      = -003.250");
    }

    void channelLines()
    {
        auto [kind, channel, value] = fetch<int, int, double>("kind", "channel", "value");
        QTEST(fixtureChannelLine(fixtureDescription(FixtureKind(kind)), channel, value), "line");
    }

    void doorLines()
    {
        const FixtureDescription& zd3 = fixtureDescription(FixtureKind::PcbZd3);
        QCOMPARE(zd3.doors.size(), 2);
        QCOMPARE(fixtureDoorLine(zd3.doors[0], true), QString("Door SW1     = H"));
        QCOMPARE(fixtureDoorLine(zd3.doors[1], false), QString("Door SW2     = L"));
        QCOMPARE(zd3.doors[1].input, 10);
        const FixtureDescription& pcb = fixtureDescription(FixtureKind::Pcb);
        QCOMPARE(fixtureDoorLine(pcb.doors.value(0), false), QString("Door = L"));
        QVERIFY(fixtureDescription(FixtureKind::Assembly).doors.isEmpty());
    }

    void assemblyBoxes_data()
    {
        // enabled: one character per box 0..10
        columns<int, QString>({"benchType", "enabled"});
        row("version 1 (type 19)", 19, "11111111000");
        row("version 1 (type 1)", 1, "11111111000");
        row("version 2", 3, "00011111111");
    }

    void assemblyBoxes()
    {
        QFETCH(int, benchType);
        const FixtureDescription& d = fixtureDescription(FixtureKind::Assembly);
        QCOMPARE(d.outputs.size(), 11);
        QString got;
        for (int i = 0; i < d.outputs.size(); ++i) {
            QCOMPARE(d.outputs[i].channel, i);
            got += fixtureOutputEnabled(d, d.outputs[i], benchType) ? '1' : '0';
            QVERIFY(fixtureOutputVisible(d, d.outputs[i], benchType));
        }
        QTEST(got, "enabled");
    }

    void refresh_data()
    {
        columns<int, int, int, QString, QString>(
            {"kind", "benchType", "lines", "first", "firstCall"});
        row("asm", int(FixtureKind::Assembly), 3, 6, "ch 0 pwr short = 48.000", "acquire");
        row("pcb", int(FixtureKind::Pcb), 0, 14, "Door = H", "input 0");
        row("zd3", int(FixtureKind::PcbZd3), 35, 25, "Door SW1     = H", "input 0");
        row("zd3 type 34", int(FixtureKind::PcbZd3), 34, 24, "Door SW1     = H", "input 0");
    }

    void refresh()
    {
        auto [kind, benchType, lines] = fetch<int, int, int>("kind", "benchType", "lines");
        RecordingBench bench;
        bench.analog.insert(0, 48.0);
        bench.inputs.insert(0, true);
        const FixtureReadout r =
            readFixture(fixtureDescription(FixtureKind(kind)), benchType, &bench);
        QCOMPARE(r.error, QString());
        QVERIFY(r.text.endsWith("\r\n"));
        const QStringList split = r.text.split("\r\n");
        QCOMPARE(split.size() - 1, lines);
        QTEST(split.first(), "first");
        QTEST(bench.calls.first(), "firstCall");
        // Every call is an input or a channel read besides the assembly fixture's one Acquire.
        QCOMPARE(bench.calls.filter("acquire").size(), kind == int(FixtureKind::Assembly) ? 1 : 0);
        QCOMPARE(bench.calls.filter("analog").size() + bench.calls.filter("input").size(), lines);
        // The legend beside the read-out explains each line, in the same order.
        const QList<FixtureLegendRow> legend =
            fixtureLegend(fixtureDescription(FixtureKind(kind)), benchType);
        QCOMPARE(legend.size(), lines);
        for (int i = 0; i < lines; ++i) {
            QVERIFY2(split[i].startsWith(legend[i].line + ' '), qPrintable(split[i]));
            QVERIFY(!legend[i].meaning.isEmpty());
            QCOMPARE(legend[i].unit.isEmpty(), split[i].startsWith("Door"));
        }
    }

    void pcbStopsAtTheFirstFailure()
    {
        RecordingBench bench;
        bench.refuse.insert("analog 2", "analog channel 2 out of range");
        const FixtureReadout r = readFixture(fixtureDescription(FixtureKind::PcbZd3), 0, &bench);
        QCOMPARE(r.error, QString("analog channel 2 out of range"));
        QCOMPARE(r.text, QString());
        QCOMPARE(bench.calls.last(), QString("analog 2"));
    }

    // The alarm log's reading rules: the text table, the record text, the sort, and the record
    // loop against a scripted drive, including a drive that fails half-way.
    void recordText()
    {
        QVector<quint32> entries{2, 0x1F, 0xFFFFFFFF, 9, 40, 0, 0, 0, 0, 0, 0, 1250460};
        QCOMPARE(alarmRecordText(entries).split("\r\n").mid(0, 4),
                 QStringList({"00000002 2 Overvoltage", "0000001F 31", "FFFFFFFF 4294967295",
                              "00000009 9"}));
        // The first entry gets the conversion, the others their decimal value, whatever they are.
        QCOMPARE(alarmRecordText({0x1F}), QString("0000001F 31\r\n"));
        QCOMPARE(alarmRecordText({9, 2}), QString("00000009 9\r\n00000002 2\r\n"));
        QCOMPARE(alarmRecordText({19}), QString("00000013 19 Limite di velocita'\r\n"));
        QCOMPARE(alarmRecordText({}), QString());
        QCOMPARE(alarmRecordText(entries).count("\r\n"), 12);
        QVERIFY(alarmRecordText(entries).endsWith("0013149C 1250460\r\n"));
    }

    void key_data()
    {
        columns<QVector<quint32>, int>({"entries", "key"});
        row("entry 12", record(2, 1250460), 1250460);
        row("signed", record(2, -5), -5);
        row("more entries", (record(2, 77) << 99 << 98), 77);
        row("fewer than 12", record(2, 0, 11), 0);
        row("none", QVector<quint32>(), 0);
    }

    void key()
    {
        QFETCH(QVector<quint32>, entries);
        QTEST(int(alarmRecordKey(entries)), "key");
    }

    void sortKeepsEqualKeysInReadOrder_data()
    {
        // order: the records' read positions, sorted
        columns<QList<int>, QString>({"keys", "order"});
        row("sorted", QList<int>{1, 2, 3}, "012");
        row("reversed", QList<int>{3, 2, 1}, "210");
        row("two equal", QList<int>{5, 5}, "01");
        // An exchange sort would put record 2 before record 1 here.
        row("equal behind a greater", QList<int>{9, 4, 4, 1}, "3120");
        row("three equal apart", QList<int>{7, 2, 7, 2, 7}, "13024");
        row("negative first", QList<int>{0, -1, 0}, "102");
        row("none", QList<int>{}, "");
    }

    void sortKeepsEqualKeysInReadOrder()
    {
        QFETCH(QList<int>, keys);
        QList<AlarmRecord> records;
        for (int i = 0; i < keys.size(); ++i)
            records.append({QString::number(i), keys[i], {}});
        sortAlarmRecords(&records);
        QTEST(joinAlarmRecords(records), "order");
    }

    void readsEveryRecordAndSorts()
    {
        ScriptedDrive drive;
        drive.status = (2u << 16) | 0x0009; // records 0..2; the low half is not a bound
        drive.records = {record(7, 300), record(2, 100), record(12, 100)};
        const AlarmLogText log = readAlarmLog(drive.sdo());
        QVERIFY(log.ok);
        QCOMPARE(log.records, 3);
        QCOMPARE(log.text.count("\r\n"), 36);
        const QStringList firsts =
            log.text.split("\r\n").filter(QRegularExpression("^0000000[27C] "));
        QCOMPARE(firsts, QStringList({"00000002 2 Overvoltage", "0000000C 12 Fast overvoltage",
                                      "00000007 7 Encoder"}));
        // The selector is written before each record, as two bytes, little-endian.
        QCOMPARE(drive.calls.filter(QRegularExpression("^d ")),
                 QStringList({"d 520B 0 0000", "d 520B 0 0100", "d 520B 0 0200"}));
        QCOMPARE(drive.calls.first(), QString("u 5810 0"));
        QCOMPARE(drive.calls.size(), 1 + 3 * (2 + 12));
    }

    void boundZeroStillReadsRecordZero()
    {
        ScriptedDrive drive;
        drive.status = 0x0000FFFF;
        drive.records = {record(15, 1)};
        const AlarmLogText log = readAlarmLog(drive.sdo());
        QVERIFY(log.ok);
        QCOMPARE(log.records, 1);
        QVERIFY(log.text.startsWith("0000000F 15 Limite di corrente\r\n"));
        // An empty log: record 0 has no entries, and the text is empty.
        ScriptedDrive empty;
        const AlarmLogText none = readAlarmLog(empty.sdo());
        QVERIFY(none.ok);
        QCOMPARE(none.records, 1);
        QCOMPARE(none.text, QString());
    }

    // A fixture window on a recording bench: a refused output, and auto refresh that never runs a
    // refresh inside another one.
    void refusedOutputGoesBack()
    {
        RecordingBench bench;
        bench.refuse.insert("out 9 1", "output 9 stuck");
        BenchControl control(1, 3, &bench);
        FrmAcq w(fixtureDescription(FixtureKind::Assembly), &control, nullptr, nullptr);
        w.setBenchType(3);
        QStringList messages;
        QObject::connect(&w, &FrmAcq::message, [&](const QString& m) { messages << m; });
        QVERIFY(!w.chkDig.value(0)->isEnabled());
        w.chkDig.value(9)->click();
        QVERIFY(!w.chkDig.value(9)->isChecked());
        QCOMPARE(messages, QStringList{"output 9 stuck"});
        QCOMPARE(bench.calls, QStringList({"init", "out 9 1"}));
    }

    void autoRefreshNeverNests()
    {
        SlowBench bench;
        BenchControl control(2, 34, &bench);
        FrmAcq w(fixtureDescription(FixtureKind::PcbZd3), &control, nullptr, nullptr);
        w.setBenchType(34);
        // Each refresh takes 22 x 60 ms, longer than the timer's 500 ms; and a refresh is asked for
        // while one waits.
        bench.during = [&w] { w.refresh(); };
        w.Check1->setChecked(true);
        QTRY_VERIFY_WITH_TIMEOUT(bench.calls.filter("analog 21").size() >= 2, 8000);
        w.Check1->setChecked(false);
        QCOMPARE(bench.deepest, 1);
        QCOMPARE(w.readout().count("\r\n"), 24);
    }
};

QTEST_MAIN(TstBench)
#include "tst_bench.moc"

// The fixture windows' rules: read-out formats, padded names, door lines, the boxes per bench,
// and a whole refresh on a recording bench, with the failures each window meets.
#include "datatable.h"
#include "fixture.h"
#include "recordingbench.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstFixture : public QObject
{
    Q_OBJECT
private slots:
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
};

QTEST_APPLESS_MAIN(TstFixture)
#include "tst_fixture.moc"

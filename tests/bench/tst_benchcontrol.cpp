// The bench panel's rules on a recording bench: what each control sends per bench, the I/O
// initialised once, the supply sequences with what users type.
#include "benchcontrol.h"
#include "datatable.h"
#include "recordingbench.h"

#include <QSignalSpy>
#include <QTest>

using namespace tessel::test;

using namespace tessel;

using BoxAction = QString (BenchControl::*)(bool);
Q_DECLARE_METATYPE(BoxAction)

class TstBenchControl : public QObject
{
    Q_OBJECT
private slots:
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
};

QTEST_MAIN(TstBenchControl)
#include "tst_benchcontrol.moc"

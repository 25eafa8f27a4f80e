#include "datatable.h"
#include "simbench.h"

#include <QSignalSpy>
#include <QTest>

using namespace tessel::test;

using namespace qorcalib;

class TstSimBench : public QObject
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
};

QTEST_GUILESS_MAIN(TstSimBench)
#include "tst_simbench.moc"

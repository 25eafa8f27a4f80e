// The bench panel, the fixture windows and the alarm log end to end, against the real server
// with each of its simulated benches: what the panel shows, the drive going silent and booting
// again with its supply, auto refresh stopping once when the server goes, the alarm log with an
// alarm raised by the bench.
#include "benchpanel.h"
#include "datatable.h"
#include "fixture.h"
#include "frmacq.h"
#include "frmalarms.h"
#include "tesselharness.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstBenchWindows : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { m_bench.useOwnSettings(); }
    void cleanup() { m_bench.server.reset(); }

    void panelPerBench_data()
    {
        // captions: the power boxes of the visible group
        // powerWalk: the supplies switched through, on one of a kind
        columns<QString, bool, bool, bool, QString, bool>(
            {"bench", "assembly", "reset", "brakeSupply", "captions", "powerWalk"});
        row("asm:3", "asm:3", true, false, true, "Sgnl AuxPwr Aux In Brake", true);
        row("pcb:33", "pcb:33", false, true, false, "PCB Main PCB RS", true);
        row("pcb:34", "pcb:34", false, false, false, "PCB Main", false);
    }

    void panelPerBench()
    {
        auto [bench, assembly, brakeSupply] =
            fetch<QString, bool, bool>("bench", "assembly", "brakeSupply");
        QVERIFY(start(bench));
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        BenchPanel* p = t.window.benchPanel;
        QCOMPARE(p->picAsm->isVisibleTo(&t.window), assembly);
        QCOMPARE(p->picPcb->isVisibleTo(&t.window), !assembly);
        QTEST(p->chkPCBReset->isVisibleTo(&t.window), "reset");
        QCOMPARE(p->chkPowerBrake->isVisibleTo(&t.window), assembly);
        QCOMPARE(p->txtBrkVout->isVisibleTo(&t.window), brakeSupply);
        QCOMPARE(p->cmdDoBrkVout->isVisibleTo(&t.window), brakeSupply);
        QVERIFY(p->txtVout->isVisibleTo(&t.window) && p->cmdShutdown->isVisibleTo(&t.window));
        QCOMPARE(p->cmdShutdown->text(), QString("Shut"));
        QCOMPARE(p->cmdAlarms->text(), QString("Alarms"));
        QStringList captions;
        for (QCheckBox* box : (assembly ? p->picAsm : p->picPcb)->findChildren<QCheckBox*>())
            if (box->isVisibleTo(&t.window))
                captions << box->text();
        QTEST(captions.join(' '), "captions");
        QFETCH(bool, powerWalk);
        if (!powerWalk)
            return;

        // The unit's supply relay, ticked as the bench comes up: cleared, the drive goes silent;
        // ticked again, it boots.
        QCheckBox* relay = assembly ? p->chkPowerMain : p->chkPCBMain;
        QTRY_VERIFY_WITH_TIMEOUT(driveFrames(t, 0) > 0, 3000);
        QVERIFY(relay->isChecked());
        relay->click();
        QVERIFY(silentFor(t, 1300));
        qsizetype from = t.trace().size();
        relay->click();
        QVERIFY(bootsUp(t, from));
        // The main supply: "Shut" silences the drive, "Main on" brings its boot-up back.
        QTest::mouseClick(p->cmdShutdown, Qt::LeftButton);
        QVERIFY(silentFor(t, 1300));
        from = t.trace().size();
        QTest::mouseClick(p->cmdDoVout, Qt::LeftButton);
        QVERIFY(bootsUp(t, from));
        QCOMPARE(t.messages, QStringList());
    }

    void autoRefreshStopsOnceWhenTheServerGoes()
    {
        QVERIFY(start("pcb:34"));
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        t.window.tmrStato.stop();
        BenchPanel* p = t.window.benchPanel;
        p->cmdAcq_Click();
        FrmAcq* w = p->fixtureWindow(FixtureKind::PcbZd3);
        w->Check1->setChecked(true);
        QTRY_VERIFY(!w->readout().isEmpty());
        const QString last = w->readout();
        m_bench.server->kill();
        QTRY_VERIFY_WITH_TIMEOUT(!w->Check1->isChecked(), 5000);
        // Past two more ticks of the timer that was stopped: said once.
        QTest::qWait(2 * FrmAcq::kRefreshMs);
        QCOMPARE(t.messages.filter("Auto refresh stopped").size(), 1);
        QVERIFY(t.messages.filter("Auto refresh stopped")
                    .first()
                    .startsWith("Auto refresh stopped: CAN server not reachable"));
        // What was read last stays to be read; the window closes.
        QCOMPARE(w->readout(), last);
        QVERIFY(w->close());
        QVERIFY(!w->isVisible());
    }

    void alarmLogSortedAndGrowing()
    {
        QVERIFY(start("asm:3"));
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        QTRY_VERIFY_WITH_TIMEOUT(driveFrames(t, 0) > 0, 3000);
        BenchPanel* p = t.window.benchPanel;
        QTest::mouseClick(p->cmdAlarms, Qt::LeftButton);
        FrmAlarms* w = p->alarmsWindow();
        QVERIFY(w && w->isVisible());
        QCOMPARE(t.window.txtAbort->text(), QString());
        const auto alarms = [&] {
            QStringList firsts;
            const QStringList lines = w->text().split("\r\n");
            for (int i = 0; i + 12 <= lines.size(); i += 12)
                firsts << lines[i].mid(9) + " @" + lines[i + 11].mid(9);
            return firsts;
        };
        // Sorted by time stamp; the two alarms of one scan in the order the drive logged them.
        QCOMPARE(alarms(),
                 QStringList({"7 Encoder @1204210", "13 Limite temperatura motore @1250100",
                              "2 Overvoltage @1250460", "12 Fast overvoltage @1250460",
                              "22 Software WDT/trap @1311005", "15 Limite di corrente @1312870"}));
        QCOMPARE(w->text().count("\r\n"), 72);
        QCOMPARE(w->txtList->toPlainText().count('\n'), 72);
        // The supply set above the drive's limit: the drive logs an overvoltage, read next time.
        p->txtVout->setText("58");
        QTest::mouseClick(p->cmdDoVout, Qt::LeftButton);
        QTest::mouseClick(p->cmdAlarms, Qt::LeftButton);
        const QStringList now = alarms();
        QCOMPARE(now.size(), 7);
        QVERIFY2(now.last().startsWith("2 Overvoltage @13"), qPrintable(now.last()));
        QVERIFY(w->text().contains("00000244 580\r\n")); // the bus at 58.0 V
        // Beside the text, the records one under another, the newest first and open, its entries
        // named.
        QCOMPARE(w->trvRecords->topLevelItemCount(), 7);
        const QTreeWidgetItem* newest = w->trvRecords->topLevelItem(0);
        QVERIFY2(newest->text(2).startsWith("2 Overvoltage, time stamp 13"),
                 qPrintable(newest->text(2)));
        QVERIFY(newest->isExpanded());
        QCOMPARE(w->trvRecords->currentItem(), newest);
        QCOMPARE(newest->child(0)->text(0), QString("alarm"));
        QCOMPARE(newest->child(11)->text(0), QString("time stamp"));
        QCOMPARE(w->trvRecords->topLevelItem(6)->text(2), QString("7 Encoder, time stamp 1204210"));
    }

private:
    bool start(const QString& bench, const QStringList& more = {})
    {
        m_bench.server = std::make_unique<qorcalib::test::ServerProcess>();
        return m_bench.server->start(QStringList{"--unpaced", "--bench", bench} + more);
    }
    // Heartbeats and boot-ups of the drive traced after `from`.
    static int driveFrames(const Tessel& t, qsizetype from)
    {
        return int(t.trace().mid(from).count(QRegularExpression("R0 701 1 ")));
    }
    static bool silentFor(const Tessel& t, int ms)
    {
        const qsizetype from = t.trace().size();
        QTest::qWait(ms);
        return driveFrames(t, from) == 0;
    }
    static bool bootsUp(const Tessel& t, qsizetype from)
    {
        return QTest::qWaitFor(
            [&] { return t.trace().mid(from).contains(QRegularExpression("R0 701 1 \\S+ > 00 ")); },
            3000);
    }

    tessel::test::WindowTestBench m_bench;
};

QTEST_MAIN(TstBenchWindows)
#include "tst_benchwindows.moc"

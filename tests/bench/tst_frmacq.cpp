// A fixture window on a recording bench: a refused output, and auto refresh that never runs a
// refresh inside another one.
#include "benchcontrol.h"
#include "frmacq.h"
#include "recordingbench.h"

#include <QtTest>
#include <QtWidgets>

#include <utility>

using namespace tessel;
using tessel::test::RecordingBench;

namespace {
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

class TstFrmAcq : public QObject
{
    Q_OBJECT
private slots:
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

QTEST_MAIN(TstFrmAcq)
#include "tst_frmacq.moc"

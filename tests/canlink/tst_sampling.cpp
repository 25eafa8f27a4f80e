// Reading an entry at a period: when each read is due when reads take their time, and the
// shortest period each bit rate carries.
#include "datatable.h"
#include "sampling.h"

#include <QtTest>

using tessel::test::columns;
using tessel::test::row;

using namespace tessel;

class TstSampling : public QObject
{
    Q_OBJECT
private slots:
    void schedule_data();
    void schedule();
    void smallestPeriod_data();
    void smallestPeriod();
};

void TstSampling::schedule_data()
{
    // reads: how long each read takes (ms); due: when each read starts; skipped: at the end
    columns<int, QList<int>, QList<int>, int>({"period", "reads", "due", "skipped"});
    row("quick reads stay on the grid", 10, QList<int>{1, 2, 9}, QList<int>{0, 10, 20, 30}, 0);
    row("a read ending on the next time", 10, QList<int>{10, 1}, QList<int>{0, 10, 20}, 0);
    row("a slow read skips what it missed", 10, QList<int>{1, 25, 1}, QList<int>{0, 10, 40, 50},
        2);
    row("a read just past the next time skips one", 10, QList<int>{11, 1},
        QList<int>{0, 20, 30}, 1);
    row("a time-out of a second at 20 ms", 20, QList<int>{1000, 5},
        QList<int>{0, 1000, 1020}, 49);
}

void TstSampling::schedule()
{
    QFETCH(int, period);
    QFETCH(QList<int>, reads);
    SampleSchedule s(period);
    QList<int> due{int(s.dueMs())};
    for (int took : reads) {
        // Each read starts when it is due and ends `took` later.
        s.taken(s.dueMs() + took);
        due << int(s.dueMs());
    }
    QTEST(due, "due");
    QTEST(int(s.skipped()), "skipped");
}

void TstSampling::smallestPeriod_data()
{
    columns<int, int, int>({"bitsPerSecond", "entries", "ms"});
    row("1000K: the floor", 1000000, 1, 10);
    row("125K: still the floor", 125000, 1, 10);
    // 8 bytes of ones stuff to 127 bits: four such frames take 50.8 ms at 10K.
    row("10K: half the bus", 10000, 1, 51);
    row("10K: three entries share it", 10000, 3, 152);
    row("125K: twenty entries past the floor", 125000, 20, 81);
    row("rate not known", 0, 5, 10);
}

void TstSampling::smallestPeriod()
{
    QFETCH(int, bitsPerSecond);
    QFETCH(int, entries);
    QTEST(smallestSamplePeriodMs(bitsPerSecond, entries), "ms");
}

QTEST_GUILESS_MAIN(TstSampling)
#include "tst_sampling.moc"

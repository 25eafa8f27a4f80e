// The boot catch, against frames written out by hand: the catcher's requests and how it takes
// (or ignores) answers, and which requests a boot loader must take.
#include "bootcatch.h"
#include "datatable.h"
#include "frametext.h"

#include <QTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {
struct Rig
{
    QStringList sent;
    QList<BootCatcher::Result> results;
    BootCatcher catcher{[this](const CanFrame& f) { sent << hexOf(f); }};
    Rig()
    {
        catcher.done = [this](const BootCatcher::Result& r) { results << r; };
    }
};
constexpr qint64 kMs = 1000;
} // namespace

class TstBootCatch : public QObject
{
    Q_OBJECT
private slots:
    void repeatsItsRequestUntilTheTimeIsUp()
    {
        Rig rig;
        rig.catcher.start(5, 35, 0);
        QCOMPARE(rig.sent, QStringList{"6a0:b0 05"});
        QCOMPARE(rig.catcher.nextDeadlineUs(), 10 * kMs);
        rig.catcher.onTimer(9 * kMs); // early: nothing
        QCOMPARE(rig.sent.size(), 1);
        for (const qint64 t : {10, 20, 30})
            rig.catcher.onTimer(t * kMs);
        QCOMPARE(rig.sent.size(), 4);
        // The last wait is cut to the end of the catch.
        QCOMPARE(rig.catcher.nextDeadlineUs(), 35 * kMs);
        rig.catcher.onTimer(35 * kMs);
        QCOMPARE(rig.sent.size(), 4);
        QCOMPARE(rig.results.size(), 1);
        QVERIFY(!rig.results[0].caught);
        QCOMPARE(rig.results[0].version, 0u);
        QVERIFY(!rig.catcher.isBusy());
        QCOMPARE(rig.catcher.nextDeadlineUs(), -1);
    }

    void answers_data()
    {
        columns<int, quint16, QByteArray, bool, int, quint32>(
            {"node", "id", "data", "caught", "caughtNode", "version"});

        row("any node", 0, quint16(0x6A1), QByteArray("0703020100"), true, 7, 0x00010203u);
        row("the named node", 5, quint16(0x6A1), QByteArray("05010a0200"), true, 5, 0x00020A01u);
        row("another node than the named one", 5, quint16(0x6A1), QByteArray("0603020100"), false,
            0, 0u);
        row("too short", 0, quint16(0x6A1), QByteArray("07030201"), false, 0, 0u);
        row("longer is fine", 0, quint16(0x6A1), QByteArray("0704030201ffff"), true, 7,
            0x01020304u);
        row("not the answer's COB-ID", 0, quint16(0x6A0), QByteArray("0703020100"), false, 0, 0u);
        row("version 0 is still an answer", 0, quint16(0x6A1), QByteArray("0100000000"), true, 1,
            0u);
    }

    void answers()
    {
        auto [node, id, data, caught, version] = fetch<int, quint16, QByteArray, bool, quint32>(
            "node", "id", "data", "caught", "version");
        Rig rig;
        rig.catcher.start(quint8(node), 5000, 0);
        QCOMPARE(rig.catcher.onFrame(fromHex(id, data.constData()), 3 * kMs), caught);
        QCOMPARE(rig.results.size(), caught ? 1 : 0);
        QCOMPARE(rig.catcher.isBusy(), !caught);
        if (!caught)
            return;
        QVERIFY(rig.results[0].caught);
        QTEST(int(rig.results[0].node), "caughtNode");
        QCOMPARE(rig.results[0].version, version);
        // Once caught, no more requests and no second report.
        rig.catcher.onTimer(100 * kMs);
        QCOMPARE(rig.sent.size(), 1);
        QVERIFY(!rig.catcher.onFrame(fromHex(id, data.constData()), 4 * kMs));
        QCOMPARE(rig.results.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstBootCatch)
#include "tst_bootcatch.moc"

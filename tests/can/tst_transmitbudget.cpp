#include "transmitbudget.h"

#include <QTest>

using namespace qorcalib;

class TstTransmitBudget : public QObject
{
    Q_OBJECT
private slots:
    void sessionsHaveTheirOwnShare()
    {
        TransmitBudget budget(1000);
        int admitted = 0;
        while (budget.admit(1, 130))
            ++admitted;
        QCOMPARE(admitted, 7); // 910 us waiting; an eighth would make 1040
        QCOMPARE(budget.queuedUs(1), 910);
        QVERIFY(budget.admit(2, 130)); // another session is not held up by the first
        budget.forget(1);              // the first session ended
        QVERIFY(budget.admit(1, 130));
        QCOMPARE(budget.queuedUs(1), 130);
    }

    void aLongFrameAloneIsLetThrough()
    {
        // At 10K an 8-byte frame takes 13 ms; a budget smaller than that still sends one at a time.
        TransmitBudget budget(1000);
        QVERIFY(budget.admit(5, 13000));
        QVERIFY(!budget.admit(5, 13000));
        budget.release(5, 13000);
        QVERIFY(budget.admit(5, 13000));
    }

    void releasedTimeMakesRoom()
    {
        TransmitBudget budget(1000);
        QVERIFY(budget.admit(1, 600));
        QVERIFY(!budget.admit(1, 600));
        // The bit rate went up while the frame waited: it is released at its new, shorter length,
        // and the session is charged no less than nothing.
        budget.release(1, 300);
        QCOMPARE(budget.queuedUs(1), 300);
        budget.release(1, 900);
        QCOMPARE(budget.queuedUs(1), 0);
        budget.release(9, 100); // a session that never sent
        QCOMPARE(budget.queuedUs(9), 0);
        QVERIFY(budget.admit(1, 1000));
        budget.clear(); // the controller was restarted
        QCOMPARE(budget.queuedUs(1), 0);
    }
};

QTEST_GUILESS_MAIN(TstTransmitBudget)
#include "tst_transmitbudget.moc"

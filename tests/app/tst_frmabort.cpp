#include "frmabort.h"

#include <QMainWindow>
#include <QPushButton>
#include <QTest>

using namespace tessel;

class TstFrmAbort : public QObject
{
    Q_OBJECT
private slots:
    void abortFlagAndInput();
};

void TstFrmAbort::abortFlagAndInput()
{
    QMainWindow main;
    auto* area = new QWidget(&main);
    main.setCentralWidget(area);
    main.show();
    FrmAbort dialog(&main, area);

    setAbortRequested(true); // left over from an earlier operation
    dialog.show();
    QVERIFY(!abortRequested()); // opening clears it
    QVERIFY(!area->isEnabled());
    QVERIFY(dialog.cmdAbort->isEnabled());
    QTest::mouseClick(dialog.cmdAbort, Qt::LeftButton);
    QVERIFY(abortRequested());
    QTest::mouseClick(dialog.cmdAbort, Qt::LeftButton);
    QVERIFY(abortRequested());
    QVERIFY(dialog.isVisible()); // its owner closes it
    dialog.hide();
    QVERIFY(area->isEnabled());
    dialog.show();
    QVERIFY(!abortRequested());
    dialog.hide();
}

QTEST_MAIN(TstFrmAbort)
#include "tst_frmabort.moc"

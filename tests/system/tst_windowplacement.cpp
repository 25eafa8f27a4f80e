#include "windowplacement.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <QWidget>

using namespace tessel;

class TstWindowPlacement : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void onScreen_data();
    void onScreen();
    void restoredPlaceIsTheSavedOne();
    void toolWindowStaysOnTheMainWindowsScreen();

private:
    QTemporaryDir m_settings;
};

void TstWindowPlacement::initTestCase()
{
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
}

void TstWindowPlacement::onScreen_data()
{
    QTest::addColumn<QRect>("frame");
    QTest::addColumn<QPoint>("place");
    const QRect screen(0, 0, 1920, 1080);
    QTest::newRow("inside stays") << QRect(100, 100, 720, 420) << QPoint(100, 100);
    QTest::newRow("past the right edge") << QRect(1328, 40, 720, 420) << QPoint(1200, 40);
    QTest::newRow("above the top") << QRect(200, -20, 720, 420) << QPoint(200, 0);
    QTest::newRow("below the bottom") << QRect(200, 900, 720, 420) << QPoint(200, 660);
    QTest::newRow("left of the screen") << QRect(-3000, 10, 720, 420) << QPoint(0, 10);
    QTest::newRow("larger than the screen") << QRect(500, 500, 2500, 1500) << QPoint(0, 0);
    QTest::newRow("exactly fitting at the corner")
        << QRect(1200, 660, 720, 420) << QPoint(1200, 660);
}

void TstWindowPlacement::onScreen()
{
    QFETCH(QRect, frame);
    QFETCH(QPoint, place);
    QCOMPARE(WindowPlacement::onScreen(frame, QRect(0, 0, 1920, 1080)), place);
    // A second screen to the right of the first.
    QCOMPARE(WindowPlacement::onScreen(frame.translated(1920, 0), QRect(1920, 0, 1920, 1080)),
             place + QPoint(1920, 0));
}

void TstWindowPlacement::restoredPlaceIsTheSavedOne()
{
    QWidget first;
    first.resize(321, 234);
    first.move(57, 91);
    first.show();
    QVERIFY(QTest::qWaitForWindowExposed(&first));
    const QPoint place = first.pos();
    WindowPlacement::saveGeometry(&first, "probe");
    // Three starts in a row: the place does not creep.
    for (int start = 0; start < 3; ++start) {
        QWidget again;
        WindowPlacement::restoreGeometry(&again, "probe");
        again.show();
        QVERIFY(QTest::qWaitForWindowExposed(&again));
        QCOMPARE(again.pos(), place);
        QCOMPARE(again.size(), QSize(321, 234));
        WindowPlacement::saveGeometry(&again, "probe");
    }
}

void TstWindowPlacement::toolWindowStaysOnTheMainWindowsScreen()
{
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    QWidget main;
    main.resize(200, 150);
    main.move(available.topLeft() + QPoint(10, 10));
    main.show();
    QVERIFY(QTest::qWaitForWindowExposed(&main));
    WindowPlacement placement;
    placement.setReference(main.pos());
    main.move(main.pos() + QPoint(available.width(), 0)); // the main window went far right
    QWidget tool;
    tool.resize(available.width() / 2, available.height() / 2);
    tool.move(main.pos());
    placement.placeNearMain(&tool, &main);
    tool.show();
    QVERIFY(QTest::qWaitForWindowExposed(&tool));
    QVERIFY2(available.contains(tool.frameGeometry()),
             qPrintable(QStringLiteral("%1,%2 %3x%4")
                            .arg(tool.frameGeometry().x())
                            .arg(tool.frameGeometry().y())
                            .arg(tool.frameGeometry().width())
                            .arg(tool.frameGeometry().height())));
}

QTEST_MAIN(TstWindowPlacement)
#include "tst_windowplacement.moc"

#include "datatable.h"
#include "windowplacement.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstWindowPlacement : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
    }

    void onScreen_data()
    {
        columns<QRect, QPoint>({"frame", "place"});
        const QRect screen(0, 0, 1920, 1080);
        row("inside stays", QRect(100, 100, 720, 420), QPoint(100, 100));
        row("past the right edge", QRect(1328, 40, 720, 420), QPoint(1200, 40));
        row("above the top", QRect(200, -20, 720, 420), QPoint(200, 0));
        row("below the bottom", QRect(200, 900, 720, 420), QPoint(200, 660));
        row("left of the screen", QRect(-3000, 10, 720, 420), QPoint(0, 10));
        row("larger than the screen", QRect(500, 500, 2500, 1500), QPoint(0, 0));
        row("exactly fitting at the corner", QRect(1200, 660, 720, 420), QPoint(1200, 660));
    }

    void onScreen()
    {
        auto [frame, place] = fetch<QRect, QPoint>("frame", "place");
        QCOMPARE(WindowPlacement::onScreen(frame, QRect(0, 0, 1920, 1080)), place);
        // A second screen to the right of the first.
        QCOMPARE(WindowPlacement::onScreen(frame.translated(1920, 0), QRect(1920, 0, 1920, 1080)),
                 place + QPoint(1920, 0));
    }

    void restoredPlaceIsTheSavedOne()
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

    void firstShowGoesBesideTheMainWindow_data()
    {
        // mainAt: the main window's left, as a share of the screen
        // toolWidth: as a share of the screen, in percent
        columns<double, int, QString>({"mainAt", "toolWidth", "side"});
        row("room on the right", 0.0, 30, "right");
        row("room on the left", 0.6, 30, "left");
        // Too wide for either side: against the screen's edge, over the main window as little as
        // it can be.
        row("no room", 0.0, 80, "edge");
    }

    void firstShowGoesBesideTheMainWindow()
    {
        auto [mainAt, toolWidth, side] = fetch<double, int, QString>("mainAt", "toolWidth", "side");
        const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
        QWidget main;
        main.resize(available.width() * 3 / 10, available.height() / 2);
        main.move(available.topLeft() + QPoint(int(available.width() * mainAt), 0));
        WindowPlacement placement;
        placement.setReference(main.pos());
        QWidget tool;
        tool.setObjectName("neverPlaced");
        tool.resize(available.width() * toolWidth / 100, 100);
        bool placed = false;
        QVERIFY(WindowPlacement::placeOnFirstShow(&placement, &tool, &main, &placed));
        const QRect m = main.frameGeometry(), t = tool.frameGeometry();
        if (side == "right")
            QCOMPARE(t.left(), m.right() + 1);
        else if (side == "left")
            QCOMPARE(t.right(), m.left() - 1);
        else
            QCOMPARE(t.right(), available.right());
        QVERIFY(available.contains(QRect(tool.pos(), tool.size())));
    }

private:
    QTemporaryDir m_settings;
};

QTEST_MAIN(TstWindowPlacement)
#include "tst_windowplacement.moc"

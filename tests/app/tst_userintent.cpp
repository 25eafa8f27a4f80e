// The main window sends only what the user meant and keeps the user's place: input made while
// a call waits is dropped, long waits can be aborted, the wheel changes nothing that was not
// clicked into, a transfer's progress and end are shown.
#include "datatable.h"
#include "frmabort.h"
#include "frmdiagno.h"
#include "frmio.h"
#include "sdopanel.h"
#include "serverprocess.h"
#include "tesselharness.h"
#include "wheelguard.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel;
using namespace tessel::test;
using namespace qorcalib::test;

namespace {

int countFrames(const FrameRecorder& frames, quint16 id)
{
    return int(std::count_if(frames.received.begin(), frames.received.end(),
                             [id](const auto& f) { return f.frame.id == id; }));
}

bool turnWheel(QWidget* widget, int steps)
{
    QWheelEvent wheel(QPointF(5, 5), widget->mapToGlobal(QPointF(5, 5)), QPoint(),
                      QPoint(0, 120 * steps), Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                      false);
    return QApplication::sendEvent(widget, &wheel);
}

} // namespace

class TstUserIntent : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { m_bench.useOwnSettings(); }
    void init() { QVERIFY(m_bench.startServer()); }
    void cleanup() { m_server.reset(); }

    void inputDuringAWaitIsDropped()
    {
        Tessel t(m_server->socketPath());
        QVERIFY(t.load());
        auto observer = m_server->attach();
        QVERIFY(observer);
        FrameRecorder frames(observer.get());
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);

        // Node 0x7E does not answer: the upload waits its whole time-out (1 s). Meanwhile the user
        // clicks "Stop" twice, as the window system delivers clicks (to the window first), and
        // presses the space bar on it.
        t.window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&t.window));
        QTimer::singleShot(200, &t.window, [&t] {
            QPushButton* stop = t.window.cmdNMT[1];
            const QPoint at = stop->mapTo(&t.window, stop->rect().center());
            QTest::mouseClick(t.window.windowHandle(), Qt::LeftButton, {}, at);
            QTest::mouseClick(t.window.windowHandle(), Qt::LeftButton, {}, at);
            QTest::keyClick(stop, Qt::Key_Space);
        });
        t.window.sdoPanel->cmbIndex->setCurrentText("7e,1018,1");
        QTest::mouseClick(t.window.sdoPanel->cmdUpload, Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString("SDO timeout"));
        QTest::qWait(500);
        QCOMPARE(countFrames(frames, 0x000), 0);
        // The button works as ever once nothing waits.
        QTest::mouseClick(t.window.cmdNMT[1], Qt::LeftButton);
        QTRY_COMPARE(countFrames(frames, 0x000), 1);
    }

    void abortEndsTheWaitAndTheTransferOnTheBus()
    {
        Tessel t(m_server->socketPath());
        QVERIFY(t.load());
        t.window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&t.window));
        auto observer = m_server->attach();
        QVERIFY(observer);
        QString error;
        QVERIFY(observer->wait(observer->bus()->setallrxflag(-1), &error));
        FrameRecorder frames(observer.get());
        SdoPanel* p = t.window.sdoPanel;
        t.window.txtSDOTimeOut->setText("30000");
        p->cmdSetSDOTout_Click();
        QCOMPARE(t.window.txtAbort->text(), QString());

        bool dialogShown = false;
        bool mainDisabled = false;
        QTimer::singleShot(900, &t.window, [&] {
            auto* dialog = t.window.findChild<FrmAbort*>();
            dialogShown = dialog && dialog->isVisible();
            mainDisabled = !t.window.centralWidget()->isEnabled();
            // Clicked as the window system delivers it: to the dialog's window first.
            if (dialog && dialog->windowHandle())
                QTest::mouseClick(
                    dialog->windowHandle(), Qt::LeftButton, {},
                    dialog->cmdAbort->mapTo(dialog, dialog->cmdAbort->rect().center()));
        });
        p->cmbIndex->setCurrentText("7e,1018,1");
        QElapsedTimer clock;
        clock.start();
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(dialogShown);
        QVERIFY(mainDisabled);
        // The abort the server sent for us, and what it was.
        QCOMPARE(t.window.txtAbort->text(), QString("08000000"));
        QVERIFY(frames.waitFor(0x67E, QByteArray::fromHex("8018100100000008"), 3000));
        QVERIFY(!t.window.findChild<FrmAbort*>()->isVisible());
        QVERIFY(t.window.centralWidget()->isEnabled());
        // And the drive is served at once after it.
        p->cmbIndex->setCurrentText("1,1018,1");
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString());
    }

    void wheelChangesOnlyWhatWasClickedInto_data()
    {
        QTest::addColumn<QString>("kind");
        row("bit-rate list", "combo");
        row("spin box", "spin");
        row("slider", "slider");
        row("a view scrolls", "view");
    }

    void wheelChangesOnlyWhatWasClickedInto()
    {
        QFETCH(QString, kind);
        WheelGuard::install();
        // In a scroll area, as the main window's panels are on a small screen.
        QScrollArea window;
        window.resize(300, 150);
        auto* page = new QWidget;
        page->setMinimumSize(280, 1000);
        window.setWidget(page);
        QWidget* target = nullptr;
        std::function<int()> value;
        if (kind == "combo") {
            auto* c = new QComboBox(page);
            c->addItems({"1000K", "800K", "500K", "250K"});
            c->setCurrentIndex(2);
            target = c;
            value = [c] { return c->currentIndex(); };
        } else if (kind == "spin") {
            auto* s = new QSpinBox(page);
            s->setValue(50);
            target = s;
            value = [s] { return s->value(); };
        } else if (kind == "slider") {
            auto* s = new QSlider(Qt::Horizontal, page);
            s->setRange(0, 100);
            s->setValue(50);
            target = s;
            value = [s] { return s->value(); };
        } else {
            auto* trace = new QPlainTextEdit(page);
            trace->setPlainText(QString("R0 701 1 > 05\n").repeated(300));
            trace->resize(250, 100);
            target = trace->viewport();
            value = [] { return 0; };
        }
        auto* other = new QLineEdit(page);
        other->move(0, 120);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        other->setFocus();
        const int before = value();
        const auto* view = qobject_cast<QPlainTextEdit*>(target->parentWidget());
        const QScrollBar* scrolled = view ? view->verticalScrollBar() : window.verticalScrollBar();
        QCOMPARE(scrolled->value(), 0);
        turnWheel(target, -1);
        QCOMPARE(value(), before);
        // The turn scrolls what is around the pointer instead (a view, or the window's panels).
        QVERIFY(scrolled->value() > 0);
        if (view)
            return;
        QVERIFY(!target->hasFocus());           // nor did the turn give it the focus
        target->setFocus(Qt::MouseFocusReason); // clicked into
        turnWheel(target, -1);
        QVERIFY(value() != before);
    }

    void progressShowsTheTransferAndItsEnd()
    {
        // The bus at its real pace, segmented: 16 KiB take about half a second.
        ServerProcess paced;
        QVERIFY(paced.start({"--sdo-segmented"}));
        Tessel t(paced.socketPath());
        QVERIFY(t.load());
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);
        SdoPanel* p = t.window.sdoPanel;
        p->setData(QByteArray(16 * 1024, '\x5A'));
        p->cmbIndex->setCurrentText("1,2040,0");
        QSignalSpy progress(t.window.prbStato, &QProgressBar::valueChanged);
        QTest::mouseClick(p->cmdDownload, Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString());
        // It moved while the transfer ran...
        QVERIFY2(progress.size() > 2, qPrintable(QString::number(progress.size())));
        QVERIFY(std::any_of(progress.begin(), progress.end(),
                            [](const QList<QVariant>& v) { return v.at(0).toInt() >= 50; }));
        // ...stays full, saying so, once it has ended...
        QCOMPARE(t.window.prbStato->value(), 100);
        QCOMPARE(t.window.prbStato->text(), QString("100 % done"));
    }

private:
    WindowTestBench m_bench;
    QTemporaryDir& m_settings = m_bench.settings;
    std::unique_ptr<ServerProcess>& m_server = m_bench.server;
};

QTEST_MAIN(TstUserIntent)
#include "tst_userintent.moc"

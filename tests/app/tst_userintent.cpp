// The main window sends only what the user meant and keeps the user's place: input made while
// a call waits is dropped, long waits can be aborted, refused values are said and not changed,
// the wheel changes nothing that was not clicked into, addresses are not completed, every view
// can be typed back, closing the main window ends the program.
#include "frmabort.h"
#include "frmdiagno.h"
#include "frmio.h"
#include "sdopanel.h"
#include "serverprocess.h"
#include "tesselharness.h"
#include "wheelguard.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSettings>
#include <QSignalSpy>
#include <QSlider>
#include <QSpinBox>
#include <QStyle>
#include <QStyleOptionSlider>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QWheelEvent>

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
    void initTestCase();
    void init();
    void cleanup();

    void inputDuringAWaitIsDropped();
    void sliderLetGoDuringAWaitIsReleased();
    void abortEndsTheWaitAndTheTransferOnTheBus();
    void sdoTimeOutOutOfRangeIsRefused_data();
    void sdoTimeOutOutOfRangeIsRefused();
    void wheelChangesOnlyWhatWasClickedInto_data();
    void wheelChangesOnlyWhatWasClickedInto();
    void addressIsNotCompletedAndEnterUploads();
    void everyViewCanBeTypedBack();
    void closingTheMainWindowEndsTheProgram();
    void tabFollowsTheLayout();
    void allRxThroughTheMonitor();
    void progressShowsTheTransferAndItsEnd();

private:
    WindowTestBench m_bench;
    QTemporaryDir& m_settings = m_bench.settings;
    std::unique_ptr<ServerProcess>& m_server = m_bench.server;
};

void TstUserIntent::initTestCase()
{
    m_bench.useOwnSettings();
}

void TstUserIntent::init()
{
    QVERIFY(m_bench.startServer());
}

void TstUserIntent::cleanup()
{
    m_server.reset();
}

void TstUserIntent::inputDuringAWaitIsDropped()
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

void TstUserIntent::sliderLetGoDuringAWaitIsReleased()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    t.window.cmdIO->click();
    QSlider* slider = t.window.objectSlider()->sldSlide;
    QVERIFY(QTest::qWaitForWindowExposed(slider->window()));
    QStyleOptionSlider option;
    option.initFrom(slider);
    option.orientation = slider->orientation();
    option.minimum = slider->minimum();
    option.maximum = slider->maximum();
    option.sliderPosition = slider->sliderPosition();
    const QPoint handle =
        slider->style()
            ->subControlRect(QStyle::CC_Slider, &option, QStyle::SC_SliderHandle, slider)
            .center();
    // The user grabs the handle, a wait begins (an upload from a silent node), and the button
    // is let go while it lasts: the slider must not stay grabbed afterwards.
    QTest::mousePress(slider, Qt::LeftButton, {}, handle);
    QVERIFY(slider->isSliderDown());
    QTimer::singleShot(
        200, slider, [slider, handle] { QTest::mouseRelease(slider, Qt::LeftButton, {}, handle); });
    t.window.sdoPanel->cmbIndex->setCurrentText("7e,1018,1");
    t.window.sdoPanel->cmdUpload_Click();
    QCOMPARE(t.window.txtAbort->text(), QString("SDO timeout"));
    QVERIFY(!slider->isSliderDown());
}

void TstUserIntent::abortEndsTheWaitAndTheTransferOnTheBus()
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
            QTest::mouseClick(dialog->windowHandle(), Qt::LeftButton, {},
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

void TstUserIntent::sdoTimeOutOutOfRangeIsRefused_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("inForce");
    QTest::newRow("70000") << "70000"
                           << "1000";
    QTest::newRow("65536") << "65536"
                           << "1000";
    QTest::newRow("abc") << "abc"
                         << "1000";
    QTest::newRow("-5") << "-5"
                        << "1000";
    QTest::newRow("0") << "0"
                       << "1000";
    QTest::newRow("65535") << "65535"
                           << "65535";
    QTest::newRow("1") << "1"
                       << "1";
    QTest::newRow("2500.4") << "2500.4"
                            << "2500";
}

void TstUserIntent::sdoTimeOutOutOfRangeIsRefused()
{
    QFETCH(QString, typed);
    QFETCH(QString, inForce);
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    t.window.txtSDOTimeOut->setText(typed);
    QTest::mouseClick(t.window.sdoPanel->cmdSetSDOTout, Qt::LeftButton);
    QCOMPARE(t.window.txtSDOTimeOut->text(), inForce);
    const bool refused = inForce == "1000";
    QCOMPARE(t.window.txtAbort->text().contains("refused"), refused);
    QString error;
    QCOMPARE(t.window.link()->sdoTimeout(&error).value_or(-1), inForce.toInt());
}

void TstUserIntent::wheelChangesOnlyWhatWasClickedInto_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("bit-rate list") << "combo";
    QTest::newRow("spin box") << "spin";
    QTest::newRow("slider") << "slider";
    QTest::newRow("a view scrolls") << "view";
}

void TstUserIntent::wheelChangesOnlyWhatWasClickedInto()
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

void TstUserIntent::addressIsNotCompletedAndEnterUploads()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);
    SdoPanel* p = t.window.sdoPanel;
    p->cmbIndex->setCurrentText("1,1018,1");
    QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
    QCOMPARE(t.window.txtAbort->text(), QString());

    p->cmbIndex->setFocus();
    p->cmbIndex->lineEdit()->clear();
    QTest::keyClicks(p->cmbIndex->lineEdit(), "1,1018");
    QCOMPARE(p->cmbIndex->currentText(), QString("1,1018"));
    QTest::keyClick(p->cmbIndex->lineEdit(), Qt::Key_Return);
    // "1,1018" is index 0x1018 sub-index 0x18, which the drive does not have.
    QCOMPARE(t.window.txtAbort->text(), QString("06090011"));
    QCOMPARE(p->cmbIndex->currentText(), QString("1,1018"));
}

void TstUserIntent::everyViewCanBeTypedBack()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    SdoPanel* p = t.window.sdoPanel;
    const auto type = [](QLineEdit* edit, const QString& text) {
        edit->selectAll();
        QTest::keyClicks(edit, text);
    };
    p->setData(QByteArray::fromHex("FFFFFFFF"));
    QCOMPARE(p->txtLong->text(), QString("4294967295"));
    type(p->txtLong, "4294967295");
    QCOMPARE(p->txtDataHex->text(), QString("FFFFFFFF"));
    type(p->txtLong, "-2");
    QCOMPARE(p->txtDataHex->text(), QString("FEFFFFFF"));
    QVERIFY(!p->txtLong->property("overflow").toBool());

    type(p->txtByte, "300");
    QCOMPARE(p->txtDataHex->text(), QString("2C"));
    QVERIFY(p->txtByte->property("overflow").toBool());
    QVERIFY2(p->txtByte->toolTip().contains("2C is sent"), qPrintable(p->txtByte->toolTip()));
    type(p->txtWord, "70000");
    QVERIFY(p->txtWord->property("overflow").toBool());
    QVERIFY(!p->txtByte->property("overflow").toBool()); // rewritten: shows what is sent
    type(p->txtWord, "65535");
    QVERIFY(!p->txtWord->property("overflow").toBool());
    QCOMPARE(p->txtDataHex->text(), QString("FFFF"));

    // The hex view marks what is not whole bytes, with what would go out.
    for (const auto& [typed, sent] : {std::pair{"GG", "EF"}, std::pair{"1 2 3", "0F1F03"}}) {
        type(p->txtDataHex, typed);
        QVERIFY(p->txtDataHex->property("overflow").toBool());
        QCOMPARE(
            p->txtDataHex->toolTip(),
            QStringLiteral("%1 is not whole bytes in hexadecimal: %2 is sent").arg(typed, sent));
    }
    type(p->txtWord, "1");
    QVERIFY(!p->txtDataHex->property("overflow").toBool());
}

void TstUserIntent::closingTheMainWindowEndsTheProgram()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    t.window.show();
    QTimer::singleShot(0, &t.window, [&t] {
        t.window.cmdDiagno->click();
        t.window.monitor()->close();
        t.window.cmdDiagno->click();
        t.window.cmdEDS->click();
        t.window.close();
    });
    // Should the program stay, this ends the wait with another code.
    QTimer::singleShot(10000, qApp, [] { QCoreApplication::exit(99); });
    QCOMPARE(QCoreApplication::exec(), 0);
}

void TstUserIntent::tabFollowsTheLayout()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    t.window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&t.window));
    QStringList visited;
    QWidget* w = t.window.chkCanEnable[0];
    for (int i = 0; i < 200 && w; ++i) {
        if ((w->focusPolicy() & Qt::TabFocus) && w->isEnabled() && w->isVisible())
            visited << w->objectName();
        w = w->nextInFocusChain();
        if (w == static_cast<QWidget*>(t.window.chkCanEnable[0]))
            break;
    }
    QVERIFY(!visited.contains("txtAbort"));
    const QStringList expected{
        "chkCanEnable_0", "cmbBaud_0",     "cmbBaud_1",     "cmdNMT_0",   "cmdNMT_4",
        "cmbIndex",       "cmdUpload",     "cmdDownload",   "txtDataHex", "cmdClear",
        "txtDataText",    "txtByte",       "txtWord",       "txtLong",    "cmdGetVect",
        "txtVectGet",     "txtSDOTimeOut", "cmdSetSDOTout", "cmdUpgrade", "chkPowerMain",
        "cmdAlarms",      "txtVout",       "cmdShutdown",   "cmdDiagno",  "cmdEDS"};
    int at = -1;
    for (const QString& name : expected) {
        const int next = int(visited.indexOf(name));
        QVERIFY2(next > at, qPrintable(name + " out of order in " + visited.join(' ')));
        at = next;
    }
}

void TstUserIntent::allRxThroughTheMonitor()
{
    Tessel t(m_server->socketPath());
    QVERIFY(t.load());
    QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);
    auto other = m_server->attach();
    QVERIFY(other);
    QString error;
    const auto otherUpload = [&] {
        QSignalSpy done(other->notify(), &QCSNotifyReplica::OperationDone);
        QVERIFY(other->wait(other->service()->SdoUpload(0, 1, 0x1018, 1), &error));
        QTRY_COMPARE(done.size(), 1);
    };
    // Another session's SDO exchange is its own business...
    otherUpload();
    QTest::qWait(200);
    QVERIFY(!t.trace().contains("R0 581"));
    // ...until "En All Rx" asks for every frame of the bus.
    t.window.monitor()->chkEnAllRx->setChecked(true);
    otherUpload();
    QTRY_VERIFY(t.trace().contains("R0 601 8") && t.trace().contains("R0 581 8"));
    t.window.monitor()->chkEnAllRx->setChecked(false);
    const qsizetype before = t.trace().size();
    otherUpload();
    QTest::qWait(200);
    QVERIFY(!t.trace().mid(before).contains("R0 581"));
    QVERIFY(t.messages.isEmpty());
}

void TstUserIntent::progressShowsTheTransferAndItsEnd()
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
    // ...and the next operation starts from empty; one that fails leaves it so.
    p->cmbIndex->setCurrentText("1,3000,0");
    QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
    QCOMPARE(t.window.txtAbort->text(), QString("06020000"));
    QCOMPARE(t.window.prbStato->value(), 0);
}

QTEST_MAIN(TstUserIntent)
#include "tst_userintent.moc"

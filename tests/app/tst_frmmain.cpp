#include "benchpanel.h"
#include "canmsg.h"
#include "datatable.h"
#include "frmabort.h"
#include "frmdiagno.h"
#include "frmio.h"
#include "frmmain.h"
#include "handshake.h"
#include "machinesettings.h"
#include "sdopanel.h"
#include "serverprocess.h"
#include "startup.h"
#include "tesselharness.h"
#include "upgradepanel.h"
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

class TstFrmMain : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { m_bench.useOwnSettings(); }
    void init() { QVERIFY(m_bench.startServer()); }
    void cleanup() { m_server.reset(); }

    void walk()
    {
        Tessel t(m_server->socketPath());
        QVERIFY(t.load());
        FrmMain& w = t.window;
        QCOMPARE(w.windowTitle(), QStringLiteral("Tessel"));
        QCOMPARE(w.txtSDOTimeOut->text(), QStringLiteral("1000"));
        // Rows for the server's two controllers; controller 0 enabled and selected.
        QVERIFY(w.chkCanEnable[0]->isEnabled() && w.chkCanEnable[1]->isEnabled());
        QVERIFY(!w.chkCanEnable[2]->isEnabled() && !w.cmbBaud[3]->isEnabled());
        QVERIFY(w.chkCanEnable[0]->isChecked() && w.optSelCanCtrl[0]->isChecked());
        // The monitor is loaded hidden and already traces the drive's heartbeats.
        QVERIFY(!w.monitor()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(
            t.trace().contains(QRegularExpression("R0 701 1 \\d{3}s\\d{3}\\.\\d{3} > 7F \\r\\n")),
            5000);
        // The whole window fits a laptop's 1366x768 screen less a task bar and a title bar; a
        // smaller screen (this one) gets a window within it whose panels scroll.
        const auto* scroll = w.findChild<QScrollArea*>("scrMain");
        QVERIFY(scroll);
        QVERIFY2(scroll->widget()->sizeHint().height() + w.statusBar()->sizeHint().height() <=
                     768 - 40 - 30,
                 qPrintable(QString::number(scroll->widget()->sizeHint().height())));
        QVERIFY(scroll->widget()->sizeHint().width() <= 1366);
        if (w.screen()->availableGeometry().height() < scroll->widget()->sizeHint().height())
            QVERIFY(w.height() <= w.screen()->availableGeometry().height() &&
                    scroll->verticalScrollBar()->maximum() > 0);
        // Enabling a controller selects it, and says so.
        w.chkCanEnable[1]->setChecked(true);
        QVERIFY(w.optSelCanCtrl[1]->isChecked());
        QVERIFY2(w.sbrDone->text().startsWith("CAN 1 enabled and selected"),
                 qPrintable(w.sbrDone->text()));
        w.chkCanEnable[1]->setChecked(false);
        QVERIFY(w.optSelCanCtrl[0]->isChecked());
        // No controller left: the bus buttons go off, the bench (no bus) keeps its controls.
        w.chkCanEnable[0]->setChecked(false);
        QVERIFY(!w.cmdNMT[2]->isEnabled() && !w.sdoPanel->cmdUpload->isEnabled());
        QVERIFY(w.benchPanel->cmdDoVout->isEnabled());
        w.chkCanEnable[0]->setChecked(true);
        QTest::mouseClick(w.cmdDiagno, Qt::LeftButton);
        QVERIFY(w.monitor()->isVisible());
        QTRY_VERIFY(w.monitor()->screenText().contains("> 7F"));

        // Each NMT button's command, then the drive's answer after it in the trace, as on the
        // bus: its new state, or for the resets its boot-up message.
        const QList<std::pair<QString, QString>> steps{{"01 00 ", "> 05 "},
                                                       {"02 00 ", "> 04 "},
                                                       {"80 00 ", "> 7F "},
                                                       {"81 00 ", "> 00 "},
                                                       {"82 00 ", "> 00 "}};
        for (int button = 0; button < int(steps.size()); ++button) {
            const qsizetype from = t.trace().size();
            QTest::mouseClick(w.cmdNMT[button], Qt::LeftButton);
            QCOMPARE(w.txtAbort->text(), QString());
            const qsizetype at =
                t.trace().indexOf("T0 000 2 000s000.000 > " + steps[button].first, from);
            QVERIFY2(at >= 0, qPrintable(t.trace().right(300)));
            QTRY_VERIFY_WITH_TIMEOUT(t.trace().indexOf(steps[button].second, at) > at, 5000);
        }
        QTest::qWait(100); // the last reset's boot

        SdoPanel* p = w.sdoPanel;
        p->cmbIndex->setCurrentText("1,1018,1");
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QCOMPARE(w.txtAbort->text(), QString());
        QCOMPARE(p->txtDataHex->text(), QString("A1030000"));
        QCOMPARE(p->txtLong->text(), QString("929"));
        // Write a 32-bit parameter through the long view and read it back.
        p->cmbIndex->setCurrentText("1,2101,3");
        p->txtLong->setText("12345");
        emit p->txtLong->textEdited("12345");
        QCOMPARE(p->txtDataHex->text(), QString("39300000"));
        QTest::mouseClick(p->cmdDownload, Qt::LeftButton);
        QCOMPARE(w.txtAbort->text(), QString());
        QVERIFY2(w.sbrDone->text().startsWith("Downloaded 4 bytes to 1,2101,3 in "),
                 qPrintable(w.sbrDone->text()));
        QTest::mouseClick(p->cmdClear, Qt::LeftButton);
        QCOMPARE(p->txtDataHex->text(), QString());
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QCOMPARE(p->txtLong->text(), QString("12345"));
        // A missing entry: the bare code in its box, its meaning beside it, the data as they were,
        // and the progress bar empty.
        p->cmbIndex->setCurrentText("1,3000,0");
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QCOMPARE(w.txtAbort->text(), QString("06020000"));
        QCOMPARE(w.sbrDone->text(),
                 QString("SDO abort 06020000: Object does not exist in the object dictionary"));
        QCOMPARE(w.txtAbort->toolTip(), w.sbrDone->text());
        QCOMPARE(p->txtLong->text(), QString("12345"));
        QCOMPARE(w.prbStato->value(), 0);
        // The history brings back the data of an address.
        p->cmbIndex_Click(p->cmbIndex->findText("1,1018,1"));
        QCOMPARE(p->txtDataHex->text(), QString("A1030000"));
        // What is typed is not completed from the history, and Enter uploads it: "1,1018" is
        // index 0x1018 sub-index 0x18, which the drive does not have.
        p->cmbIndex->setFocus();
        p->cmbIndex->lineEdit()->clear();
        QTest::keyClicks(p->cmbIndex->lineEdit(), "1,1018");
        QTest::keyClick(p->cmbIndex->lineEdit(), Qt::Key_Return);
        QCOMPARE(w.txtAbort->text(), QString("06090011"));
        QCOMPARE(p->cmbIndex->currentText(), QString("1,1018"));
        // The exchange shows in the monitor with the server's transmit reports on.
        w.monitor()->chkEnShowTx->setChecked(true);
        p->cmbIndex->setCurrentText("1,1018,2");
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QTRY_VERIFY(t.trace().contains("T0 601 8 000s000.000 > A4 18 10 02 7F 04 00 00 "));
        QVERIFY(t.trace().contains("R0 581 8 "));

        // LSS on controller 1, with the drive that has no node-ID yet, at 250K.
        w.cmbBaud[1]->setCurrentIndex(3);
        w.chkCanEnable[1]->setChecked(true);
        QTest::qWait(300); // the drive boots
        w.txtFWNode->setText("5");
        QTest::mouseClick(w.cmdLSSGet, Qt::LeftButton);
        QCOMPARE(w.txtFWNode->text(), QString("FF"));
        QTRY_VERIFY(t.trace().contains("T1 7E5 8 ") && t.trace().contains("R1 7E4 8 "));
        QCOMPARE(w.sbrDone->text(),
                 QString("LSS Get: node-ID FF (waiting for one) at 250K on CAN 1"));
        // The user chooses 500K for it, and node-ID 22.
        w.cmbBaud[1]->setCurrentIndex(2);
        w.txtFWNode->setText("22");
        QTest::mouseClick(w.cmdLSSSet, Qt::LeftButton);
        QCOMPARE(w.txtAbort->text(), QString());
        QCOMPARE(w.sbrDone->text(),
                 QString("LSS Set: the waiting drive on CAN 1 now has node-ID 22 "
                         "at 500K (CAN 1 still runs at 250K)"));
        // It started up as node 0x22 at 500K; the controller is back at 250K until the user
        // switches it with the button offered.
        QTRY_VERIFY(
            t.trace().contains(QRegularExpression("R1 722 1 \\d{3}s\\d{3}\\.\\d{3} > 00 ")));
        QTRY_COMPARE(w.cmbBaud[1]->currentIndex(), 3);
        QCOMPARE(w.cmdFollowRate->text(), QString("Switch CAN 1 to 500K"));
        const qsizetype from = t.trace().size();
        QTest::mouseClick(w.cmdFollowRate, Qt::LeftButton);
        QCOMPARE(w.cmbBaud[1]->currentIndex(), 2);
        QVERIFY(!w.cmdFollowRate->isVisibleTo(&w));
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().mid(from).contains("R1 722 1"), 3000);
        p->cmbIndex->setCurrentText("22,1018,1");
        QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
        QCOMPARE(p->txtDataHex->text(), QString("A1030000"));
        QTest::mouseClick(w.cmdLSSGet, Qt::LeftButton);
        QCOMPARE(w.txtFWNode->text(), QString("22"));
        QVERIFY(t.messages.isEmpty());
        // The answer at the prompt was the whole name: the settings remember it for the next start.
        w.formUnload();
        QSettings user(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel");
        QCOMPARE(user.value("filename/fwupdcnt").toInt(), 0);
    }

    void serverKilledWhileRunning()
    {
        Tessel t(m_server->socketPath());
        QVERIFY(t.load());
        t.window.tmrStato.stop();
        m_server->kill();
        QTRY_COMPARE(t.window.sbrStato[0]->text(), QStringLiteral("CAN server not reachable"));
        QElapsedTimer clock;
        clock.start();
        t.window.nmtPanel->cmdNMT_Click(0);
        t.window.tmrStato_Timer();
        t.window.cmbBaud[0]->setCurrentIndex(3);
        // Every call ends at once with the description; nothing waits for a time-out.
        QVERIFY(clock.elapsed() < 3000);
        QCOMPARE(t.window.txtAbort->text(), QStringLiteral("Can - send err"));
        // The loss is said once, and why the calls failed once: the three calls at once have
        // one cause.
        QCOMPARE(t.messages.size(), 2);
        QVERIFY(t.messages.first().startsWith("The CAN server was lost"));
        QVERIFY(t.messages[1].startsWith("CAN server not reachable"));
        QCOMPARE(t.window.sbrStato[1]->text(), QStringLiteral("?"));
        // The settings are still saved at exit.
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope,
                           m_settings.filePath("killed"));
        t.window.formUnload();
        QVERIFY(QFile::exists(m_settings.filePath("killed/Qor/Qor.Tessel.ini")));
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.filePath("user"));
    }

    void reconnectWhileTheLossIsShown()
    {
        // The message about the loss runs an event loop of its own, as a message box does. The
        // status timer polls meanwhile and connects to the server that came back, replacing the
        // connection whose loss is being told: that connection must outlive the message (under the
        // address sanitizer a use after free shows here).
        Tessel t(m_server->socketPath());
        QVERIFY(t.load());
        t.window.monitor()->chkEnAllRx->setChecked(true);
        bool shown = false;
        bool reconnected = false;
        t.window.setMessageHandler([&](const QString& text) {
            t.messages << text;
            if (shown || !text.startsWith("The CAN server was lost"))
                return;
            shown = true;
            if (!m_server->start({QStringLiteral("--unpaced")}))
                return;
            QEventLoop box;
            QTimer poll;
            QObject::connect(&poll, &QTimer::timeout, &box, [&] {
                reconnected = t.window.sbrStato[0]->text() == QStringLiteral("localhost");
                if (reconnected)
                    box.quit();
            });
            poll.start(20);
            QTimer::singleShot(10000, &box, &QEventLoop::quit);
            box.exec();
        });
        m_server->kill();
        QTRY_VERIFY_WITH_TIMEOUT(shown, 5000);
        QVERIFY(reconnected);
        // Tessel goes on with the new connection.
        SdoPanel* p = t.window.sdoPanel;
        p->cmbIndex->setCurrentText("1,1018,1");
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                QTest::mouseClick(p->cmdUpload, Qt::LeftButton);
                return p->txtDataHex->text() == QStringLiteral("A1030000");
            }(),
            5000);
        QCOMPARE(t.messages.filter("was lost").size(), 1);
        // The session as it was: the sink attached, receive-all on.
        auto other = m_server->attach();
        QVERIFY(other);
        QString error;
        const auto sessions = other->wait(other->serverWindow()->Sessions(), &error);
        QVERIFY2(sessions, qPrintable(error));
        QCOMPARE(sessions->value().filter("attached receive-all").size(), 1);
    }

    void promptAnswers_data()
    {
        columns<bool, QString, bool, int>({"cancel", "answer", "runs", "exitCode"});
        row("cancel", true, "", false, 0);
        row("empty answer", false, "", false, 0);
        row("localhost", false, "localhost", true, 0);
        row("unknown service", false, "localhost#LSSonly", false, 1);
        row("no such host", false, "nohost.invalid", false, 1);
        row("nobody listens", false, "127.0.0.1:1", false, 1);
    }

    void promptAnswers()
    {
        auto [cancel, answer, runs, exitCode] =
            fetch<bool, QString, bool, int>("cancel", "answer", "runs", "exitCode");
        writeRemoteServer("previous-name");
        QString offered;
        QStringList shown;
        StartUp startUp;
        startUp.ask = [&](const QString& defaultName) -> std::optional<QString> {
            offered = defaultName;
            return cancel ? std::nullopt : std::optional<QString>(answer);
        };
        startUp.show = [&](const QString& title, const QString& text) {
            shown << title + ": " + text;
        };
        startUp.localSocketPath = m_server->socketPath();
        QElapsedTimer clock;
        clock.start();
        const StartResult result = startTessel(startUp);
        QCOMPARE(offered, QString("previous-name"));
        QCOMPARE(bool(result.window), runs);
        QCOMPARE(result.exitCode, exitCode);
        if (answer.isEmpty()) {
            // Ends at once, without a message, and remembers nothing.
            QVERIFY(clock.elapsed() < 1000);
            QVERIFY(shown.isEmpty());
            QCOMPARE(readRemoteServer("localhost"), QString("previous-name"));
        } else {
            // Remembered once it connected; a name that did not is not offered next time.
            QCOMPARE(readRemoteServer("localhost"), runs ? answer : QString("previous-name"));
            QCOMPARE(shown.size(), runs ? 0 : 1);
            if (!runs)
                QVERIFY2(shown.first().startsWith("Tessel: ") &&
                             shown.first().contains(answer.section('#', -1)),
                         qPrintable(shown.first()));
        }
    }

    void overTcpCaption()
    {
        ServerProcess tcpServer;
        QVERIFY(tcpServer.start({"--unpaced", "--listen", "tcp://127.0.0.1:0"}));
        QString output;
        QTRY_VERIFY((output += tcpServer.output()).contains("TCP port"));
        const QString port = QRegularExpression("TCP port (\\d+)").match(output).captured(1);
        QFile secretFile(tcpServer.secretPath());
        QVERIFY(secretFile.open(QIODevice::ReadOnly));
        // Servers met in earlier runs may have had this port.
        QFile::remove(qorcalib::handshake::pinPath());
        QString settingsFile;
        {
            QSettings settings(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel");
            settings.setValue("server/secret", secretFile.readAll().trimmed());
            settings.sync();
            settingsFile = settings.fileName();
        }
        // A secret in settings that others can read is not used, and Tessel says why.
        QFile::setPermissions(settingsFile,
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
        Tessel exposed(QStringLiteral("/nonexistent/socket"));
        QVERIFY(!exposed.load("127.0.0.1:" + port));
        QVERIFY2(exposed.loadError.contains("others can read"), qPrintable(exposed.loadError));
        QFile::setPermissions(settingsFile, QFile::ReadOwner | QFile::WriteOwner);
        Tessel t(QStringLiteral("/nonexistent/socket"));
        QVERIFY(t.load("127.0.0.1:" + port));
        QCOMPARE(t.window.windowTitle(), "Tessel - 127.0.0.1:" + port);
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);
        // "localhost" in capitals is a name like any other: over TCP, and in the caption.
        Tessel upper(QStringLiteral("/nonexistent/socket"));
        QVERIFY(!upper.load("LOCALHOST:1"));
    }

    // The main window sends only what the user meant and keeps the user's place: input made while
    // a call waits is dropped, long waits can be aborted, the wheel changes nothing that was not
    // clicked into, a transfer's progress and end are shown.
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

QTEST_MAIN(TstFrmMain)
#include "tst_frmmain.moc"

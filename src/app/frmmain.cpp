#include "frmmain.h"

#include "benchpanel.h"
#include "canmsg.h"
#include "controllerpanel.h"
#include "frmabort.h"
#include "frmdiagno.h"
#include "frmxboot.h"
#include "inputblocker.h"
#include "machinesettings.h"
#include "monitorlink.h"
#include "nmtpanel.h"
#include "sdopanel.h"
#include "sessionstart.h"
#include "statusline.h"
#include "toolwindows.h"
#include "upgradepanel.h"
#include "waitcursor.h"
#include "wheelguard.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QStatusBar>
#include <QThread>
#include <QVBoxLayout>
#include <QWindow>

namespace tessel {

FrmMain::FrmMain(QWidget* parent) : QMainWindow(parent)
{
    setObjectName(QStringLiteral("frmMain"));
    setWindowTitle(kCaption);
    // A message belongs to the window the user works in (the monitor, the sequencer, ...): it
    // opens over that window, and after OK the input goes back there, not to this one.
    m_message = [this](const QString& text) {
        QWidget* owner = QApplication::activeWindow();
        if (!owner || !owner->isVisible())
            owner = this;
        QMessageBox::critical(owner, owner->windowTitle(), text);
    };
    m_tools = new ToolWindows(&m_link, &m_placement, this);
    connect(m_tools, &ToolWindows::message, this, &FrmMain::showMessage);
    connect(m_tools, &ToolWindows::addressChosen, this,
            [this](const QString& address) { sdoPanel->cmbIndex->setCurrentText(address); });
    buildWindow();
    connect(&m_link, &CanLink::configChanged, controllerPanel,
            &ControllerPanel::followChangedConfig);
    connect(&m_link, &CanLink::progressChanged, m_status, &StatusLine::showProgress);
    connect(m_link.operation(), &LongOperation::longWaitStarted, this, &FrmMain::showAbortDialog);
    connect(m_link.operation(), &LongOperation::longWaitEnded, this, &FrmMain::hideAbortDialog);
    WheelGuard::install();
    connect(&m_link, &CanLink::connectionLost, this, &FrmMain::onConnectionLost);
    connect(&m_link, &CanLink::reconnected, this, [this] {
        m_status->showServer(m_link.isRemote() ? m_link.machineName()
                                               : QStringLiteral("localhost"));
    });
    // A server started anew has its controllers stopped at their first bit rates: they get what
    // this window shows.
    m_link.restoreSession = [this] { controllerPanel->restore(); };
    tmrStato.setInterval(kStatusIntervalMs);
    connect(&tmrStato, &QTimer::timeout, this, &FrmMain::tmrStato_Timer);
}

FrmMain::~FrmMain()
{
    delete m_monitor;
}

void FrmMain::buildWindow()
{
    // On a screen too small for the whole window (a laptop's 768 lines, less its task bar)
    // the panels scroll rather than fall off the bottom of the screen.
    auto* scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("scrMain"));
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    auto* central = new QWidget(scroll);
    scroll->setWidget(central);
    setCentralWidget(scroll);
    auto* layout = new QVBoxLayout(central);
    layout->setSpacing(4);
    layout->setContentsMargins(6, 4, 6, 4);

    m_status = new StatusLine(statusBar());
    sbrStato = m_status->sbrStato;
    sbrDone = m_status->sbrDone;
    cmdFollowRate = m_status->cmdFollowRate;
    prbStato = m_status->prbStato;
    connect(m_status, &StatusLine::rateFollowed, this,
            [this](int controller, int rate) { cmbBaud[controller]->setCurrentIndex(rate); });

    controllerPanel = new ControllerPanel(&m_link, central);
    m_monitorLink = new MonitorLink(&m_link, controllerPanel, this);
    connect(m_monitorLink, &MonitorLink::message, this, &FrmMain::showMessage);
    chkCanEnable = controllerPanel->chkCanEnable;
    cmbBaud = controllerPanel->cmbBaud;
    optSelCanCtrl = controllerPanel->optSelCanCtrl;
    connect(controllerPanel, &ControllerPanel::message, this, &FrmMain::showMessage);
    connect(controllerPanel, &ControllerPanel::done, m_status, &StatusLine::reportDone);
    connect(controllerPanel, &ControllerPanel::selectionChanged, this,
            [this] { upgradePanel->showTarget(); });
    // Enabling selects the controller; said, so that the next transfer's target is no surprise.
    connect(controllerPanel, &ControllerPanel::enabledAndSelected, this, [this](int controller) {
        m_status->reportDone(
            QStringLiteral("CAN %1 enabled and selected: Send, SDO, LSS and upgrades now "
                           "go to CAN %1")
                .arg(controller));
    });
    connect(controllerPanel, &ControllerPanel::rateChosen, this, [this] { cmdFollowRate->hide(); });

    sdoPanel = new SdoPanel(&m_link, central);
    sdoPanel->bus = this;
    txtAbort = sdoPanel->txtAbort;
    txtSDOTimeOut = sdoPanel->txtSDOTimeOut;
    connect(sdoPanel, &SdoPanel::done, m_status, &StatusLine::reportDone);
    nmtPanel = new NmtPanel(this, controllerPanel, txtAbort, central);
    cmdNMT = nmtPanel->cmdNMT;
    txtFWNode = nmtPanel->txtFWNode;
    cmdLSSGet = nmtPanel->cmdLSSGet;
    cmdLSSSet = nmtPanel->cmdLSSSet;
    connect(nmtPanel, &NmtPanel::done, m_status, &StatusLine::reportDone);
    connect(nmtPanel, &NmtPanel::rateOffered, this,
            [this](int controller, int rate) { m_status->offerRate(controller, rate); });
    connect(txtAbort, &QLineEdit::textChanged, m_status,
            [this](const QString& result) { m_status->explain(txtAbort, result); });

    txtFWNode->setText(QStringLiteral("1"));
    upgradePanel = new UpgradePanel(&m_link, &m_history, txtFWNode, txtAbort, central);
    connect(upgradePanel, &UpgradePanel::done, m_status, &StatusLine::reportDone);
    connect(upgradePanel, &UpgradePanel::failed, m_status, &StatusLine::reportDone);
    upgradePanel->showTarget();
    upgradePanel->bus = this;
    connect(upgradePanel, &UpgradePanel::message, this, &FrmMain::showMessage);
    benchPanel = new BenchPanel(&m_link, txtFWNode, txtAbort, &m_placement, this, central);
    benchPanel->bus = this;
    connect(benchPanel, &BenchPanel::message, this, &FrmMain::showMessage);
    m_tools->plotFrom(sdoPanel, benchPanel);
    connect(controllerPanel, &ControllerPanel::busAvailable, nmtPanel, &NmtPanel::setBusEnabled);
    connect(controllerPanel, &ControllerPanel::busAvailable, sdoPanel, &SdoPanel::setBusEnabled);
    connect(controllerPanel, &ControllerPanel::busAvailable, upgradePanel,
            &UpgradePanel::setBusEnabled);
    connect(controllerPanel, &ControllerPanel::busAvailable, benchPanel,
            &BenchPanel::setBusEnabled);

    QHBoxLayout* tools = m_tools->makeButtonRow(central);
    cmdDiagno = m_tools->cmdDiagno;
    cmdEDS = m_tools->cmdEDS;
    cmdIO = m_tools->cmdIO;
    cmdXBoot = m_tools->cmdXBoot;
    cmdSerial = m_tools->cmdSerial;

    layout->addWidget(controllerPanel);
    layout->addWidget(nmtPanel);
    layout->addWidget(sdoPanel);
    layout->addWidget(upgradePanel);
    layout->addWidget(benchPanel);
    layout->addLayout(tools);
    layout->addStretch();
    // Close-set panels: the whole window fits a laptop's screen with its task bar.
    for (QGroupBox* group : central->findChildren<QGroupBox*>())
        if (group->layout()) {
            group->layout()->setContentsMargins(8, 2, 8, 4);
            group->layout()->setSpacing(4);
        }

    setTabOrderByLayout();
}

void FrmMain::setTabOrderByLayout()
{
    // Row by row, as the window reads: the controller rows, NMT, the SDO panel, the tools.
    QList<QWidget*> order;
    for (int i = 0; i < kRows; ++i)
        order << chkCanEnable[i] << cmbBaud[i] << optSelCanCtrl[i];
    for (QPushButton* b : cmdNMT)
        order << b;
    order << txtFWNode << cmdLSSGet << cmdLSSSet << sdoPanel->tabOrder() << upgradePanel->tabOrder()
          << benchPanel->tabOrder() << cmdDiagno << cmdEDS << cmdIO << cmdXBoot << cmdSerial;
    for (qsizetype i = 1; i < order.size(); ++i)
        QWidget::setTabOrder(order[i - 1], order[i]);
}

void FrmMain::showAbortDialog()
{
    if (!m_abort) {
        m_abort = new FrmAbort(this, centralWidget());
        connect(m_abort->cmdAbort, &QPushButton::clicked, m_link.operation(),
                &LongOperation::requestAbort);
    }
    m_abort->showOverMainWindow();
}

void FrmMain::hideAbortDialog()
{
    if (m_abort)
        m_abort->hideFromMainWindow();
}

void FrmMain::setMessageHandler(std::function<void(const QString&)> handler)
{
    m_message = std::move(handler);
}

void FrmMain::showMessage(const QString& text)
{
    // A message is answered even when it opens while a call waits with input held back.
    InputBlocker::Pause answerable;
    if (!m_messageClock.isValid())
        m_messageClock.start();
    if (!m_messages.admit(text, m_messageClock.elapsed()))
        return;
    if (m_message)
        m_message(text);
    m_messages.answered(text, m_messageClock.elapsed());
}

bool FrmMain::formLoad(const QString& answer, QString* error)
{
    // The whole window, as far as the screen has room (the place the user gave it comes back
    // next); what does not fit scrolls.
    const auto* scroll = static_cast<const QScrollArea*>(centralWidget());
    resize(scroll->widget()->sizeHint() + QSize(scroll->verticalScrollBar()->sizeHint().width(),
                                                statusBar()->sizeHint().height()));
    // At the first start, at the screen's left: the tool windows open beside it.
    if (!WindowPlacement::hasSavedGeometry(objectName()) && screen())
        move(screen()->availableGeometry().topLeft());
    WindowPlacement::restoreGeometry(this, objectName());
    WindowPlacement::keepOnScreen(this, nullptr);
    m_placement.setReference(pos());
    WaitCursor wait;
    controllerPanel->reset();

    m_history.load();
    upgradePanel->showHistory();
    QString secretProblem;
    const QByteArray secret = tessel::readServerSecret(&secretProblem);
    m_link.setServerSecret(secret, secretProblem);
    const auto session = startSession(m_link, answer, error);
    if (!session)
        return false;
    if (m_link.isRemote())
        setWindowTitle(kCaption + QStringLiteral(" - ") + m_link.machineName());
    m_status->showServer(m_link.isRemote() ? m_link.machineName() : QStringLiteral("localhost"));
    txtSDOTimeOut->setText(QString::number(session->sdoTimeoutMs));
    benchPanel->setBench(session->bench.kind, session->bench.type);
    controllerPanel->useControllers(session->controllers);

    show();
    m_monitor = new FrmDiagno(&m_placement, this);
    m_tools->setMonitor(m_monitor, m_monitorLink);
    // Laid out beside the main window's first position, unless the user placed it before.
    m_monitor->move(m_placement.reference() + QPoint(frameGeometry().width() + 8, 0));
    WindowPlacement::restoreGeometry(m_monitor, m_monitor->objectName());
    m_monitorLink->attach(m_monitor);
    tmrStato.start();
    tmrStato_Timer();
    return true;
}

void FrmMain::formUnload()
{
    if (m_unloaded)
        return;
    m_unloaded = true;
    tmrStato.stop();
    if (m_link.isConnected())
        m_link.unadvise();
    m_history.save();
    WindowPlacement::saveGeometry(this, objectName());
    m_tools->save();
    for (QWidget* w : benchPanel->toolWindows())
        WindowPlacement::saveGeometry(w, w->objectName());
    // Not quit(): that asks every window to close first, and the CAN monitor, which only hides
    // when closed, would refuse and keep the program running. exit() leaves the event loop at
    // once; outside one (a window driven by a test) there is nothing to leave, and exit() would
    // make every later event loop return at once.
    if (QThread::currentThread()->loopLevel() > 0)
        QCoreApplication::exit(0);
}

void FrmMain::closeEvent(QCloseEvent* event)
{
    formUnload();
    event->accept();
}

bool FrmMain::SendCanMsg(quint16 id, int length, const QByteArray& data)
{
    return m_monitorLink->send(id, length, data);
}

bool FrmMain::SendCanRemote(quint32 id, int length)
{
    return m_monitorLink->sendRemote(id, length);
}

void FrmMain::tmrStato_Timer()
{
    for (int i = 0; i < controllerPanel->count(); ++i) {
        const bool enabled = chkCanEnable[i]->isChecked();
        QString error;
        const auto bits = enabled ? m_link.status(i, &error) : std::nullopt;
        m_status->showControllerStatus(i, enabled, bits);
        m_monitorLink->showController(i, enabled, bits);
    }
}

int FrmMain::selectedController() const
{
    return controllerPanel->selected();
}

int FrmMain::controllerCount() const
{
    return controllerPanel->count();
}

int FrmMain::bitRateShown() const
{
    return controllerPanel->bitRateShown(selectedController());
}

void FrmMain::showBitRate(int bitRateIndex)
{
    controllerPanel->showBitRate(selectedController(), bitRateIndex);
}

void FrmMain::setTraceHeld(bool held)
{
    m_monitorLink->setTraceHeld(held);
}

bool FrmMain::traceHeld() const
{
    return m_monitorLink->traceHeld();
}

void FrmMain::setMonitorSwitch(bool on)
{
    if (m_monitor)
        m_monitor->setTraceReceived(on);
}

bool FrmMain::monitorSwitchState() const
{
    return !m_monitor || m_monitor->chTrace->isChecked();
}

void FrmMain::onConnectionLost()
{
    m_status->showServerLost();
    showMessage(QStringLiteral("The CAN server was lost. Tessel connects again at the next "
                               "operation and restores the controllers as they were."));
}

void FrmMain::keyPressEvent(QKeyEvent* event)
{
    const auto all = Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier;
    if (event->key() == Qt::Key_F10 && event->modifiers() == all) {
        const QString error = m_link.showServerWindow();
        if (!error.isEmpty()) {
            showMessage(error);
            return;
        }
        QString requestError;
        if (m_link.shutdownRequested(&requestError).value_or(false))
            formUnload();
        return;
    }
    QMainWindow::keyPressEvent(event);
}

void FrmMain::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    if (event->type() != QEvent::WindowStateChange)
        return;
    // The tool windows go and come back with the main window.
    if (isMinimized())
        m_tools->mainWindowMinimized();
    else
        m_tools->mainWindowRestored();
}

} // namespace tessel

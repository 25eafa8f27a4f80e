#include "benchpanel.h"

#include "alarmrecords.h"
#include "benchport.h"
#include "canlink.h"
#include "frmacq.h"
#include "frmalarms.h"
#include "numbers.h"
#include "waitcursor.h"
#include "windowplacement.h"

#include <QApplication>
#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalBlocker>

namespace tessel {

namespace {
// The monitor stops following the bus while the supplies switch or the log is read, and
// follows it again afterwards, on every way out.
class MonitorHold
{
public:
    explicit MonitorHold(const BenchPanel& panel) : m_panel(panel)
    {
        if (m_panel.bus)
            m_panel.bus->setMonitorSwitch(m_panel.bus->monitorSwitchState());
    }
    ~MonitorHold()
    {
        if (m_panel.bus)
            m_panel.bus->setMonitorSwitch(true);
    }
    MonitorHold(const MonitorHold&) = delete;
    MonitorHold& operator=(const MonitorHold&) = delete;

private:
    const BenchPanel& m_panel;
};

QLineEdit* voltageBox(QWidget* parent, const QString& name, const QString& text, const QString& tip)
{
    auto* box = new QLineEdit(text, parent);
    box->setObjectName(name);
    box->setMaximumWidth(56);
    box->setToolTip(tip);
    return box;
}
} // namespace

BenchPanel::BenchPanel(CanLink* link, QLineEdit* txtFWNode, QLineEdit* txtAbort,
                       const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QGroupBox(QStringLiteral("Bench"), parent), m_link(link), m_txtFWNode(txtFWNode),
      m_txtAbort(txtAbort), m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("fraBench"));
    picAsm = new QWidget(this);
    picAsm->setObjectName(QStringLiteral("picAsm"));
    auto* asmRow = new QHBoxLayout(picAsm);
    asmRow->setContentsMargins(0, 0, 0, 0);
    for (QCheckBox* box :
         {chkPowerMain = addBox(picAsm, QStringLiteral("chkPowerMain"), QStringLiteral("Main"),
                                QStringLiteral("The unit's supply relay (bench output 5)"),
                                &BenchPanel::chkPowerMain_Click),
         chkPowerAux =
              addBox(picAsm, QStringLiteral("chkPowerAux"), QStringLiteral("Aux Zd"),
                     QStringLiteral("The auxiliary supply"), &BenchPanel::chkPowerAux_Click),
         chkPowerAuxIn = addBox(picAsm, QStringLiteral("chkPowerAuxIn"), QStringLiteral("Aux In"),
                                QStringLiteral("The auxiliary input (bench output 6)"),
                                &BenchPanel::chkPowerAuxIn_Click),
         chkPowerBrake =
              addBox(picAsm, QStringLiteral("chkPowerBrake"), QStringLiteral("Brake"),
                     QStringLiteral("The brake supply"), &BenchPanel::chkPowerBrake_Click)})
        asmRow->addWidget(box);
    picPcb = new QWidget(this);
    picPcb->setObjectName(QStringLiteral("picPcb"));
    auto* pcbRow = new QHBoxLayout(picPcb);
    pcbRow->setContentsMargins(0, 0, 0, 0);
    chkPCBMain = addBox(picPcb, QStringLiteral("chkPCBMain"), QStringLiteral("PCB Main"),
                        QStringLiteral("The board's supply"), &BenchPanel::chkPCBMain_Click);
    chkPCBReset = addBox(picPcb, QStringLiteral("chkPCBReset"), QStringLiteral("PCB RS"),
                         QStringLiteral("Hold the board in reset (bench output 2, driven "
                                        "inverted)"),
                         &BenchPanel::chkPCBReset_Click);
    pcbRow->addWidget(chkPCBMain);
    pcbRow->addWidget(chkPCBReset);

    txtVout = voltageBox(this, QStringLiteral("txtVout"), QStringLiteral("48"),
                         QStringLiteral("Main supply voltage, V"));
    cmdDoVout = addButton(QStringLiteral("cmdDoVout"), QStringLiteral("Main o&n"),
                          QStringLiteral("Set the main supply to Vout and switch it on"),
                          &BenchPanel::cmdDoVout_Click);
    txtBrkVout = voltageBox(this, QStringLiteral("txtBrkVout"), QStringLiteral("24"),
                            QStringLiteral("Brake supply voltage, V"));
    cmdDoBrkVout = addButton(QStringLiteral("cmdDoBrkVout"), QStringLiteral("Brake on"),
                             QStringLiteral("Set the brake supply to its voltage and switch it on"),
                             &BenchPanel::cmdDoBrkVout_Click);
    cmdShutdown = addButton(QStringLiteral("cmdShutdown"), QStringLiteral("Shut"),
                            QStringLiteral("Switch the supplies off (the brake first)"),
                            &BenchPanel::cmdShutdown_Click);
    cmdAcq = addButton(QStringLiteral("cmdAcq"), QStringLiteral("&Fixture..."),
                       QStringLiteral("Open the fixture window of this bench: its outputs, door "
                                      "switches and analog channels"),
                       &BenchPanel::cmdAcq_Click);
    cmdAlarms = addButton(QStringLiteral("cmdAlarms"), QStringLiteral("Alarms"),
                          QStringLiteral("Read the alarm log of the drive N-Id, oldest first"),
                          &BenchPanel::cmdAlarms_Click);

    auto* grid = new QGridLayout(this);
    auto* boxes = new QHBoxLayout;
    boxes->addWidget(picAsm);
    boxes->addWidget(picPcb);
    boxes->addStretch();
    boxes->addWidget(cmdAcq);
    boxes->addWidget(cmdAlarms);
    auto* supplies = new QHBoxLayout;
    auto* vout = new QLabel(QStringLiteral("V&out:"), this);
    vout->setBuddy(txtVout);
    auto* brkVout = new QLabel(QStringLiteral("Brake V:"), this);
    brkVout->setBuddy(txtBrkVout);
    brkVout->setObjectName(QStringLiteral("lblBrkVout"));
    for (QWidget* w : std::initializer_list<QWidget*>{vout, txtVout, cmdDoVout, brkVout, txtBrkVout,
                                                      cmdDoBrkVout, cmdShutdown})
        supplies->addWidget(w);
    supplies->addStretch();
    grid->addLayout(boxes, 0, 0);
    grid->addLayout(supplies, 1, 0);
    m_brkVoutLabel = brkVout;
    setBench(1, 3); // the simulated bench's own, until the main window reads the bench
}

BenchPanel::~BenchPanel() = default;

QCheckBox* BenchPanel::addBox(QWidget* parent, const QString& name, const QString& caption,
                              const QString& tip, void (BenchPanel::*handler)())
{
    auto* box = new QCheckBox(caption, parent);
    box->setObjectName(name);
    box->setToolTip(tip);
    connect(box, &QCheckBox::toggled, this, handler);
    return box;
}

QPushButton* BenchPanel::addButton(const QString& name, const QString& caption, const QString& tip,
                                   void (BenchPanel::*handler)())
{
    auto* button = new QPushButton(caption, this);
    button->setObjectName(name);
    button->setToolTip(tip);
    connect(button, &QPushButton::clicked, this, handler);
    return button;
}

void BenchPanel::setBusEnabled(bool enable)
{
    cmdAlarms->setEnabled(enable);
}

void BenchPanel::setBench(int kind, int type, BenchPort* port)
{
    if (!port) {
        if (!m_linkPort)
            m_linkPort = std::make_unique<LinkBenchPort>(m_link);
        port = m_linkPort.get();
    }
    // The windows of another bench go with the control they worked through.
    for (FrmAcq*& w : m_fixtures) {
        delete w;
        w = nullptr;
    }
    m_control = std::make_unique<BenchControl>(kind, type, port);
    connect(m_control.get(), &BenchControl::outputChanged, this, &BenchPanel::showOutputs);
    const BenchLayout& l = m_control->layout();
    picAsm->setVisible(l.assembly);
    picPcb->setVisible(!l.assembly);
    chkPCBReset->setVisible(l.pcbReset);
    chkPowerBrake->setVisible(l.brakeBox);
    for (QWidget* w : std::initializer_list<QWidget*>{txtVout, cmdDoVout, cmdShutdown})
        w->setVisible(l.mainSupply);
    for (QWidget* w : std::initializer_list<QWidget*>{m_brkVoutLabel, txtBrkVout, cmdDoBrkVout})
        w->setVisible(l.brakeSupply);
    chkPowerMain->setText(l.mainCaption);
    chkPowerAux->setText(l.auxCaption);
    chkPowerAux->setToolTip(
        QStringLiteral("The auxiliary supply (bench output %1)").arg(type == 3 ? 8 : 2));
    chkPowerBrake->setToolTip(type == 3 ? QStringLiteral("The brake supply (on and off)")
                                        : QStringLiteral("The brake (bench output 1)"));
    chkPCBMain->setToolTip(
        QStringLiteral("The board's supply (bench output %1)").arg(l.supplyRelayOutput));
    showOutputs();
}

void BenchPanel::showOutputs()
{
    // Each box shows its output as this program last set it.
    const auto show = [this](QCheckBox* box, int channel, bool inverted) {
        const QSignalBlocker quiet(box);
        box->setChecked(m_control->knownOutput(channel).value_or(inverted) != inverted);
    };
    const int type = m_control->type();
    show(chkPowerMain, 5, false);
    show(chkPowerAux, type == 3 ? 8 : 2, false);
    show(chkPowerAuxIn, 6, false);
    if (type != 3)
        show(chkPowerBrake, 1, false);
    show(chkPCBMain, type == 33 ? 5 : 9, false);
    show(chkPCBReset, 2, true);
}

void BenchPanel::report(const QString& error)
{
    if (!error.isEmpty())
        emit message(error);
}

void BenchPanel::boxAction(QCheckBox* box, QString (BenchControl::*action)(bool))
{
    const bool ticked = box->isChecked();
    const QString error = (m_control.get()->*action)(ticked);
    if (error.isEmpty())
        return;
    {
        const QSignalBlocker quiet(box);
        box->setChecked(!ticked);
    }
    report(error);
}

void BenchPanel::chkPowerMain_Click()
{
    boxAction(chkPowerMain, &BenchControl::powerMain);
}

void BenchPanel::chkPowerAux_Click()
{
    boxAction(chkPowerAux, &BenchControl::powerAux);
}

void BenchPanel::chkPowerAuxIn_Click()
{
    boxAction(chkPowerAuxIn, &BenchControl::powerAuxIn);
}

void BenchPanel::chkPowerBrake_Click()
{
    boxAction(chkPowerBrake, &BenchControl::powerBrake);
}

void BenchPanel::chkPCBMain_Click()
{
    boxAction(chkPCBMain, &BenchControl::pcbMain);
}

void BenchPanel::chkPCBReset_Click()
{
    boxAction(chkPCBReset, &BenchControl::pcbReset);
}

void BenchPanel::cmdDoVout_Click()
{
    const MonitorHold hold(*this);
    report(m_control->mainSupplyOn(txtVout->text()));
}

void BenchPanel::cmdDoBrkVout_Click()
{
    const MonitorHold hold(*this);
    report(m_control->brakeSupplyOn(txtBrkVout->text()));
}

void BenchPanel::cmdShutdown_Click()
{
    const MonitorHold hold(*this);
    report(m_control->shutdown(!cmdDoBrkVout->isHidden()));
}

void BenchPanel::cmdAcq_Click()
{
    const QString error = m_control->prologue();
    if (!error.isEmpty())
        return report(error);
    const FixtureKind kind = m_control->layout().fixture;
    FrmAcq*& window = m_fixtures[int(kind)];
    if (!window) {
        window = new FrmAcq(fixtureDescription(kind), m_control.get(), m_placement, m_mainWindow,
                            m_mainWindow);
        connect(window, &FrmAcq::message, this, &BenchPanel::report);
        connect(window, &FrmAcq::plotRequested, this, &BenchPanel::plotRequested);
        placeBesideMain(window, 60);
    }
    if (!window->isVisible())
        window->setBenchType(m_control->type());
    WindowPlacement::bringToFront(window);
}

void BenchPanel::cmdAlarms_Click()
{
    AlarmLogText log;
    const QString error = readAlarms(&log);
    if (!error.isEmpty()) {
        m_txtAbort->setText(error);
        if (beep)
            beep();
        else
            QApplication::beep();
        return;
    }
    if (!m_alarms) {
        m_alarms = new FrmAlarms(m_placement, m_mainWindow, m_mainWindow);
        placeBesideMain(m_alarms, 120);
    }
    m_alarms->setText(log.text);
    m_alarms->setRecords(log.sorted);
    WindowPlacement::bringToFront(m_alarms);
}

QString BenchPanel::readAlarms(AlarmLogText* result)
{
    const MonitorHold hold(*this);
    WaitCursor wait;
    const int node = roundToInt32(lenientHexValue(m_txtFWNode->text()));
    const int controller = bus ? bus->selectedController() : 0;
    const AlarmSdo sdo = [&](bool upload, quint16 index, quint8 subIndex, const QByteArray& data,
                             QByteArray* uploaded, QString* error) {
        const CanLink::SdoResult r =
            m_link->sdoTransfer(controller, upload, node, index, subIndex, data);
        if (!r.error.isEmpty())
            *error = r.error;
        else if (r.abortCode != 0)
            *error = hexField(r.abortCode, 8);
        else
            *uploaded = r.data;
        return r.error.isEmpty() && r.abortCode == 0;
    };
    *result = readAlarmLog(sdo);
    return result->ok ? QString() : result->error;
}

void BenchPanel::placeBesideMain(QWidget* window, int down) const
{
    // Beside the main window's first place, unless the user placed it before.
    if (m_placement && m_mainWindow)
        window->move(m_placement->reference() +
                     QPoint(m_mainWindow->frameGeometry().width() + 8, down));
    WindowPlacement::restoreGeometry(window, window->objectName());
}

QList<QWidget*> BenchPanel::toolWindows() const
{
    QList<QWidget*> windows;
    for (FrmAcq* w : m_fixtures)
        if (w)
            windows << w;
    if (m_alarms)
        windows << m_alarms;
    return windows;
}

QList<QWidget*> BenchPanel::tabOrder() const
{
    return {chkPowerMain, chkPowerAux,  chkPowerAuxIn, chkPowerBrake, chkPCBMain,
            chkPCBReset,  cmdAcq,       cmdAlarms,     txtVout,       cmdDoVout,
            txtBrkVout,   cmdDoBrkVout, cmdShutdown};
}

} // namespace tessel

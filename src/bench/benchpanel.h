#pragma once

#include "alarmrecords.h"
#include "buscontext.h"

#include "benchcontrol.h"

#include <QGroupBox>

#include <array>
#include <functional>
#include <memory>

class QCheckBox;
class QLineEdit;
class QPushButton;

namespace tessel {

class BenchPort;
class CanLink;
class FrmAcq;
class FrmAlarms;
class WindowPlacement;

// The main window's bench panel: the unit's supplies and outputs on the test bench (picAsm on
// assembly benches, picPcb on PCB benches, laid out from the bench's kind and type), the
// fixture window of the bench, and the drive's alarm log ("Alarms", read by SDO from the node
// in the main window's txtFWNode). None of the bench controls sends a CAN frame.
class BenchPanel : public QGroupBox
{
    Q_OBJECT
public:
    BenchPanel(CanLink* link, QLineEdit* txtFWNode, QLineEdit* txtAbort,
               const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    // The window around: the selected controller and the monitor's display switch.
    BusContext* bus = nullptr;
    ~BenchPanel() override;

    // The alarm log is read from the drive: off while no controller is enabled.
    void setBusEnabled(bool enable);
    // Lays the panel out for the bench (start-up); the bench of the link unless a port is given.
    void setBench(int kind, int type, BenchPort* port = nullptr);
    BenchControl* control() const { return m_control.get(); }

    std::function<void()> beep;

    QWidget* picAsm = nullptr;
    QWidget* picPcb = nullptr;
    QCheckBox* chkPowerMain = nullptr;
    QCheckBox* chkPowerAux = nullptr;
    QCheckBox* chkPowerAuxIn = nullptr;
    QCheckBox* chkPowerBrake = nullptr;
    QCheckBox* chkPCBMain = nullptr;
    QCheckBox* chkPCBReset = nullptr;
    QLineEdit* txtVout = nullptr;
    QPushButton* cmdDoVout = nullptr;
    QLineEdit* txtBrkVout = nullptr;
    QPushButton* cmdDoBrkVout = nullptr;
    QPushButton* cmdShutdown = nullptr;
    QPushButton* cmdAcq = nullptr;
    QPushButton* cmdAlarms = nullptr;

    void chkPowerMain_Click();
    void chkPowerAux_Click();
    void chkPowerAuxIn_Click();
    void chkPowerBrake_Click();
    void chkPCBMain_Click();
    void chkPCBReset_Click();
    void cmdDoVout_Click();
    void cmdDoBrkVout_Click();
    void cmdShutdown_Click();
    void cmdAcq_Click();
    void cmdAlarms_Click();

    FrmAcq* fixtureWindow(FixtureKind kind) const { return m_fixtures[int(kind)]; }
    FrmAlarms* alarmsWindow() const { return m_alarms; }
    // The windows the panel opened, for their places to be saved.
    QList<QWidget*> toolWindows() const;
    QList<QWidget*> tabOrder() const;

private:
    QCheckBox* addBox(QWidget* parent, const QString& name, const QString& caption,
                      const QString& tip, void (BenchPanel::*handler)());
    QPushButton* addButton(const QString& name, const QString& caption, const QString& tip,
                           void (BenchPanel::*handler)());
    // A box's action: on failure the box goes back and the user reads why.
    void boxAction(QCheckBox* box, QString (BenchControl::*action)(bool));
    void report(const QString& error);
    void showOutputs();
    void placeBesideMain(QWidget* window, int down) const;
    QString readAlarms(AlarmLogText* log);

    CanLink* m_link;
    QLineEdit* m_txtFWNode;
    QLineEdit* m_txtAbort;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    QWidget* m_brkVoutLabel = nullptr;
    std::unique_ptr<BenchPort> m_linkPort;
    std::unique_ptr<BenchControl> m_control;
    std::array<FrmAcq*, 3> m_fixtures{};
    FrmAlarms* m_alarms = nullptr;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
    // A fixture channel to plot (see FrmAcq::plotRequested).
    void plotRequested(const QString& source);
};

} // namespace tessel

#pragma once

#include "canlink.h"
#include "controllerset.h"

#include <QGroupBox>

#include <array>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QRadioButton;

namespace tessel {

// The main window's "Controller" frame: per controller of the server an enable box, a bit-rate
// list and the option that selects the controller on which sends, SDO, LSS and upgrades act. It
// works the controllers through ControllerSet and says what the rest of the window must follow.
class ControllerPanel : public QGroupBox
{
    Q_OBJECT
public:
    static constexpr int kRows = CanLink::kControllerRows;

    ControllerPanel(CanLink* link, QWidget* parent = nullptr);

    std::array<QCheckBox*, kRows> chkCanEnable{};
    std::array<QComboBox*, kRows> cmbBaud{};
    std::array<QRadioButton*, kRows> optSelCanCtrl{};
    // SYNC on the selected controller at the period beside it (milliseconds, as typed: a
    // period outside 0.5 to 10000 is refused, never rounded or clamped).
    QCheckBox* chkSync = nullptr;
    QLineEdit* txtSyncPeriod = nullptr;

    ControllerSet& controllers() { return m_controllers; }
    int selected() const { return m_selected; }
    // The rate a controller's list shows (chosen, not necessarily running).
    int bitRateShown(int controller) const;
    int count() const { return m_count; }

    // Before connecting: every list at "1000K", the rates forgotten.
    void reset();
    // After connecting: rows for the server's controllers; the ticked ones start. Returns how
    // many run.
    int useControllers(int count);
    // A server started anew gets the controllers as the rows show them.
    void restore();
    // Another client changed a controller: the row follows without calling the server.
    void followChangedConfig(int controller, bool enabled, int bitRateIndex);
    // Shows a rate in a list without switching the controller; while `listOnly` is set the
    // list's changes switch nothing (LSS Set marks it while it works the controller itself).
    void showBitRate(int controller, int bitRateIndex);
    void setListOnly(int controller, bool on) { m_listOnly.at(size_t(controller)) = on; }

    void chkCanEnable_Click(int index);
    void cmbBaud_Click(int index);
    void optSelCanCtrl_Click(int index);
    void chkSync_Click();

signals:
    // Whether any controller runs: the buttons that need the bus follow.
    void busAvailable(bool available);
    void selectionChanged(int controller);
    // The user enabled a controller, which selected it.
    void enabledAndSelected(int controller);
    // The user chose a rate in a list.
    void rateChosen(int controller);
    void message(const QString& text);
    // What the user asked for was done (SYNC started or stopped), for the status line.
    void done(const QString& text);

private:
    ControllerSet m_controllers;
    std::array<bool, kRows> m_listOnly{};
    // While set, the rows' changes are the server's news (or the reset at load), not the user's:
    // nothing is forwarded to the server.
    bool m_inhibitCtrlEvents = false;
    int m_selected = 0;
    int m_count = 0;
};

} // namespace tessel

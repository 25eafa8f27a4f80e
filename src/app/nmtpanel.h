#pragma once

#include "buscontext.h"

#include <QByteArray>
#include <QGroupBox>

#include <array>

class QLineEdit;
class QPushButton;

namespace tessel {

class ControllerPanel;

// What the NMT frame needs from the window around it: besides the bus context, the shared send
// routine, which traces what it sends.
class NmtHost : public BusContext
{
public:
    // true when the send failed (the routine has said why).
    virtual bool SendCanMsg(quint16 id, int length, const QByteArray& data) = 0;
};

// The main window's "NMT" frame: five broadcasts of network management, the node-ID box shared
// with the firmware upgrade, and LSS Get and LSS Set on the selected controller.
class NmtPanel : public QGroupBox
{
    Q_OBJECT
public:
    NmtPanel(NmtHost* host, ControllerPanel* controllers, QLineEdit* txtAbort,
             QWidget* parent = nullptr);

    std::array<QPushButton*, 5> cmdNMT{};
    QLineEdit* txtFWNode = nullptr;
    QPushButton* cmdLSSGet = nullptr;
    QPushButton* cmdLSSSet = nullptr;

    // The buttons that work on the bus, off while no controller is enabled.
    void setBusEnabled(bool enable);
    void cmdNMT_Click(int index);
    void cmdLSSGet_Click();
    void cmdLSSSet_Click();

signals:
    // What was done, or why it failed, for the status bar.
    void done(const QString& text);
    // LSS Set gave the drive another rate than its controller runs at: the switch is offered.
    void rateOffered(int controller, int bitRateIndex);

private:
    NmtHost* m_host;
    ControllerPanel* m_controllers;
    QLineEdit* m_txtAbort;
};

} // namespace tessel

#pragma once

#include <QTimer>
#include <QWidget>

#include <array>

class QPushButton;

class QCheckBox;
class QLabel;
class QSpinBox;
class QTreeWidget;

namespace qorcalib {

class ServerCore;
class ServerHost;

// The server's small status window: its controllers and the sessions of its clients, and a
// button that asks every client to close (clients read it through GetShutdownRequest); and the
// simulated world's hands: the fixture's door switches, and an alarm to raise on the drives.
class StatusWindow : public QWidget
{
    Q_OBJECT
public:
    StatusWindow(ServerCore* core, ServerHost* host, QWidget* parent = nullptr);
    void refresh();

    std::array<QCheckBox*, 2> chkDoorClosed{};
    QSpinBox* spnAlarm = nullptr;
    QPushButton* cmdRaiseAlarm = nullptr;
    QLabel* lblAlarm = nullptr;

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    QWidget* buildBenchRow();

    ServerCore* m_core;
    ServerHost* m_host;
    QTreeWidget* m_controllers;
    QTreeWidget* m_sessions;
    QTimer m_refresh;
};

} // namespace qorcalib

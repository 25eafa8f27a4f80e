#pragma once

#include <QTimer>
#include <QWidget>

class QTreeWidget;

namespace qorcalib {

class ServerCore;
class ServerHost;

// The server's small status window: its controllers and the sessions of its clients, and a
// button that asks every client to close (clients read it through GetShutdownRequest).
class StatusWindow : public QWidget
{
    Q_OBJECT
public:
    StatusWindow(ServerCore* core, ServerHost* host, QWidget* parent = nullptr);
    void refresh();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    ServerCore* m_core;
    ServerHost* m_host;
    QTreeWidget* m_controllers;
    QTreeWidget* m_sessions;
    QTimer m_refresh;
};

} // namespace qorcalib

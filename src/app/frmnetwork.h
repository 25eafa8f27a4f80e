#pragma once

#include "networkwatch.h"
#include "nodescan.h"

#include <QElapsedTimer>
#include <QMap>
#include <QTimer>
#include <QWidget>

#include <array>

class QLabel;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QTableWidget;

namespace tessel {

class CanLink;
class MonitorLink;
class WindowPlacement;

// "Network": the nodes of the selected controller's bus as their frames show them (boot-up,
// heartbeat, SDO answers, emergencies), each with its NMT state, heartbeat period, a heartbeat
// missed, its last emergency, and on request its name, identity and error history; "Scan" asks
// nodes 1 to 127 for their device type, name and identity. A node's context menu sends it NMT
// commands. What
// happens on the bus (boot-ups, state changes, missed heartbeats, emergencies) is logged below
// the table with the server's time.
class FrmNetwork : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kControllers = 4;
    static constexpr int kCheckMs = 200;
    static constexpr int kScanWaitMs = 50;
    enum Column
    {
        Node,
        Name,
        State,
        Heartbeat,
        Alarm,
        Emergency,
        DeviceType,
        Vendor,
        Product,
        Revision,
        Serial,
        ColumnCount
    };

    FrmNetwork(CanLink* link, MonitorLink* monitorLink, const WindowPlacement* placement,
               QWidget* mainWindow);

    // Nodes 1 to 127 of the selected controller, with a short SDO time-out; the user's time-out
    // is set back afterwards.
    void scan();
    // The node's identity, read again.
    void readIdentity(int node);
    // The node's error history (1003), newest first, into the log.
    void readErrorHistory(int node);
    // An NMT command (01 start, 02 stop, 80 pre-operational, 81 reset node, 82 reset
    // communication) to one node, through the monitor's send so that the trace shows it.
    void sendNmt(int node, quint8 command);
    QString logText() const;

    QLabel* lblController = nullptr;
    QPushButton* cmdScan = nullptr;
    QProgressBar* prbScan = nullptr;
    QTableWidget* tblNodes = nullptr;
    QPlainTextEdit* edLog = nullptr;

signals:
    void message(const QString& text);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void onFrames(int controller, const QByteArray& records, int count);
    void onTick();
    void log(qint64 timeUs, const QString& text);
    void showNode(int node);
    void showAll();
    int rowOf(int node, bool add);
    void contextMenu(const QPoint& at);
    // The server's time now on the controller's clock, from its last frame and the time since.
    qint64 nowUs(int controller) const;

    CanLink* m_link;
    MonitorLink* m_monitorLink;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    bool m_positioned = false;
    int m_shown = 0; // the controller the table shows
    struct Bus
    {
        NetworkWatch watch;
        QMap<int, NodeIdentity> identities;
        quint32 lastRawUs = 0;
        qint64 wrapUs = 0;
        qint64 lastUs = -1;
        QElapsedTimer since;
    };
    std::array<Bus, kControllers> m_buses;
    QTimer m_tick;
    bool m_scanning = false;
};

} // namespace tessel

#pragma once

#include "canlink.h"
#include "firmwarehistory.h"
#include "messagegate.h"
#include "nmtpanel.h"
#include "toolwindows.h"
#include "windowplacement.h"

#include <QElapsedTimer>
#include <QMainWindow>
#include <QTimer>

#include <array>
#include <functional>

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QRadioButton;

namespace tessel {

class BenchPanel;
class StatusLine;
class MonitorLink;
class ControllerPanel;
class FrmDiagno;
class FrmAbort;
class FrmEDS;
class FrmSerial;
class FrmXBoot;
class FrmIO;
class SdoPanel;
class UpgradePanel;

// The main window "Tessel": owns the link to the CAN server and composes the panels (controllers,
// NMT and LSS, SDO, firmware, bench), the status line and the tool windows; it connects them and
// carries no procedure of its own.
class FrmMain : public QMainWindow, public NmtHost
{
    Q_OBJECT
public:
    static constexpr int kRows = CanLink::kControllerRows;
    static constexpr int kStatusIntervalMs = 1000;
    static inline const QString kCaption = QStringLiteral("Tessel");

    explicit FrmMain(QWidget* parent = nullptr);
    ~FrmMain() override;

    // Start-up with the answer to "Remote server name:" (not empty). False, with the reason,
    // when the program cannot go on.
    bool formLoad(const QString& answer, QString* error);
    // Saves the settings and ends the program.
    void formUnload();

    // The send routines every window uses: true when the send failed.
    bool SendCanMsg(quint16 id, int length, const QByteArray& data) override;
    bool SendCanRemote(quint32 id, int length);

    CanLink* link() { return &m_link; }
    FrmDiagno* monitor() const { return m_monitor; }
    int selectedController() const override;
    // Whether the frames received stay out of the trace (an upgrade or a vector read runs).
    bool traceHeld() const;
    int controllerCount() const;

    // Where messages for the user go; a message box titled with the caption unless replaced.
    void setMessageHandler(std::function<void(const QString&)> handler);

    std::array<QCheckBox*, kRows> chkCanEnable{};
    std::array<QComboBox*, kRows> cmbBaud{};
    std::array<QRadioButton*, kRows> optSelCanCtrl{};
    std::array<QPushButton*, 5> cmdNMT{};
    QLineEdit* txtFWNode = nullptr;
    QPushButton* cmdLSSGet = nullptr;
    QPushButton* cmdLSSSet = nullptr;
    std::array<QLabel*, kRows + 1> sbrStato{}; // panel 0: the server; 1..4: the controllers
    QLineEdit* txtAbort = nullptr;
    QLineEdit* txtSDOTimeOut = nullptr;
    QProgressBar* prbStato = nullptr;
    // What the last operation did, or what its abort code means.
    QLabel* sbrDone = nullptr;
    // After LSS Set gave the drive another bit rate: one click switches the controller to it.
    QPushButton* cmdFollowRate = nullptr;
    QPushButton* cmdDiagno = nullptr;
    QPushButton* cmdEDS = nullptr;
    QPushButton* cmdIO = nullptr;
    QPushButton* cmdXBoot = nullptr;
    QPushButton* cmdSerial = nullptr;
    ControllerPanel* controllerPanel = nullptr;
    NmtPanel* nmtPanel = nullptr;
    SdoPanel* sdoPanel = nullptr;
    UpgradePanel* upgradePanel = nullptr;
    BenchPanel* benchPanel = nullptr;
    QTimer tmrStato;

    void tmrStato_Timer();
    FrmXBoot* productionWindow() const { return m_tools->production(); }
    FrmSerial* serialConsole() const { return m_tools->serial(); }
    FrmIO* objectSlider() const { return m_tools->slider(); }
    FrmEDS* edsBrowser() const { return m_tools->eds(); }

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void changeEvent(QEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void buildWindow();
    void setTabOrderByLayout();
    void showAbortDialog();
    int bitRateShown() const override;
    void showBitRate(int bitRateIndex) override;
    void setTraceHeld(bool held) override;
    void setMonitorSwitch(bool on) override;
    bool monitorSwitchState() const override;
    void hideAbortDialog();
    void onConnectionLost();
    void showMessage(const QString& text);
    // Says in the status bar what was done (or what went wrong), until the next operation.

    CanLink m_link;
    StatusLine* m_status = nullptr;
    MonitorLink* m_monitorLink = nullptr;
    FirmwareHistory m_history;
    WindowPlacement m_placement;
    FrmDiagno* m_monitor = nullptr;
    ToolWindows* m_tools = nullptr;
    FrmAbort* m_abort = nullptr;
    std::function<void(const QString&)> m_message;
    MessageGate m_messages;
    QElapsedTimer m_messageClock;
    bool m_unloaded = false;
};

} // namespace tessel

#pragma once

#include "buscontext.h"
#include "firmwarehistory.h"
#include "firmwaretip.h"
#include "firmwareupgrade.h"

#include <QGroupBox>

#include <array>
#include <functional>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace tessel {

class CanLink;

// The main window's firmware panel: the image file with its history, the post-processor
// options, the program-download object, the upgrade, and the boot control (catch the drive in
// its boot loader, release its application). The node is the main window's txtFWNode, shared
// with LSS; results go to the shared txtAbort.
class UpgradePanel : public QGroupBox
{
    Q_OBJECT
public:
    static inline const QString kFileFilter = QStringLiteral(
        "All ZD/ZDx firmware files (*.S;*.sx;*.sre)|*.S;*.sx;*.sre|Motorola HEX files "
        "(*.S)|*.S|Zdx hybrid files (*.sx)|*.sx|Panora HEX (*.sre)|*.sre|All Files (*.*)|*.*");

    UpgradePanel(CanLink* link, FirmwareHistory* history, QLineEdit* txtFWNode, QLineEdit* txtAbort,
                 QWidget* parent = nullptr);

    // The window around: the selected controller, its bit-rate list and the monitor's display
    // switch.
    BusContext* bus = nullptr;

    // The open dialog: title, filter in the program's form, initial name; "" when cancelled.
    std::function<QString(const QString&, const QString&, const QString&)> chooseOpenFile;
    // The post-processor (postProcess by default).
    PostProcessor postProcessor;

    QComboBox* cmbFileName = nullptr;
    QPushButton* cmdFNApp = nullptr;
    QPushButton* cmdUpgrClear = nullptr;
    QLineEdit* txtPostProcOpt = nullptr;
    QLineEdit* txtDWIndex = nullptr;
    QLineEdit* txtDWSubIndex = nullptr;
    QPushButton* cmdUpgrade = nullptr;
    std::array<QPushButton*, 2> cmdStopOnBoot{};
    QPushButton* cmdEnUpgrade = nullptr;
    QLabel* lblTarget = nullptr;
    QLineEdit* txtFWNode;
    QLineEdit* txtAbort;

    // Fills the list from the history (after the main window loaded it).
    void showHistory();
    int FindFile(const QString& name) const { return m_history->find(name); }
    void SelectFile(const QString& name);
    void AddRecentFile(const QString& name, const QString& options);

    void cmbFileName_Click(int index);
    void cmbFileName_Validate();
    void cmdFNApp_Click();
    void cmdUpgrClear_Click();
    void cmdUpgrade_Click();
    void cmdStopOnBoot_Click(int index);
    void cmdEnUpgrade_Click();
    // The upgrade button's tool tip for the file and options now chosen (recomputed when either
    // or the file changed since the last time).
    void refreshUpgradeTip();
    // The controls in the order the Tab key visits them.
    QList<QWidget*> tabOrder() const;
    // The procedure the buttons step through.
    FirmwareUpgrade& procedure() { return m_upgrade; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

signals:
    // An upgrade worked: what was done, for the status bar.
    void done(const QString& what);
    // What went wrong beyond the short text the result box shows ("PostProc err").
    void failed(const QString& why);
    // Said in a message box: the bench did not end its transfer.
    void message(const QString& text);

public slots:
    // The buttons that work on the bus, off while no controller is enabled.
    void setBusEnabled(bool enable);
    // Shows the drive an upgrade goes to: N-Id on the selected controller.
    void showTarget();

private:
    // "node 22 on CAN 1"
    QString targetText() const;
    // Result of the upgrade's preparation: the bytes to send, or what txtAbort shows.
    bool readImageToSend(QByteArray* image);
    void reattach();

    CanLink* m_link;
    FirmwareUpgrade m_upgrade;
    FirmwareHistory* m_history;
    QString m_tipKey;
};

} // namespace tessel

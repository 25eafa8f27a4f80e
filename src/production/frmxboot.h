#pragma once

#include "productionrun.h"

#include <QWidget>

#include <functional>

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace tessel {

class CanLink;
class WindowPlacement;

// Production programming of one unit after another: JTAG programming of the firmware stamped
// with the unit's serial, serial programming through the bench's serial link, identity loading.
// txtIDSK shows the serial of the last unit done; its tag holds the serial of the unit in hand
// until it is done, so that a retry reuses it.
class FrmXBoot : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kLoadPollMs = 10;

    FrmXBoot(CanLink* link, const WindowPlacement* placement, QWidget* mainWindow,
             QWidget* parent = nullptr);
    ~FrmXBoot() override;

    // Where beeps and the open dialogs go (tests replace them).
    std::function<void()> beep;
    std::function<QString(const QString& title, const QString& filter, const QString& start)>
        chooseOpenFile;
    // What the runs use; the real programs, counter and server unless a test sets them.
    ProductionRun::Hooks hooks;

    QLineEdit* txtFileName = nullptr;
    QPushButton* cmdFNApp = nullptr;
    QLineEdit* txtCfgFile = nullptr;
    QPushButton* cmdFNCfg = nullptr;
    QCheckBox* chkFR = nullptr;
    QLineEdit* txtIDSK = nullptr;
    QLabel* lblDone = nullptr;
    QString idskTag; // the tag of txtIDSK
    QPushButton* cmdJtagPrg = nullptr;
    QPushButton* cmdSerialLoc = nullptr;
    QPushButton* cmdSerialPrg = nullptr;

    void cmdFNApp_Click();
    void cmdFNCfg_Click();
    void cmdJtagPrg_Click();
    void cmdSerialPrg_Click();
    void cmdSerialLoc_Click();
    // The completion routine: a progress report found the serial load ended.
    void loadCompleted();

    void loadSettings();
    void saveSettings() const;

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    ProductionRun::Hooks realHooks();
    QString chooseFile(const QString& title, const QString& filter, const QString& start);
    std::optional<int> waitForLoad(QString* error);
    void report(const ProductionRun::Outcome& outcome, const QString& what);

    CanLink* m_link;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    bool m_positioned = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

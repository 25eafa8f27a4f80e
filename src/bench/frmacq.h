#pragma once

#include "fixture.h"

#include <QMap>
#include <QTimer>
#include <QWidget>

#include <functional>

class QCheckBox;
class QPlainTextEdit;
class QPushButton;
class QTreeWidget;

namespace tessel {

class BenchControl;
class WindowPlacement;

// A fixture window (frmAcqAsm, frmAcqPcb, frmAcqPcbZd3: one class, three descriptions): the
// fixture board's outputs as boxes, and a read-out of its door switches and analog channels,
// refreshed on a button or every 500 ms while "Auto refresh" is ticked.
class FrmAcq : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kRefreshMs = 500;

    FrmAcq(const FixtureDescription& description, BenchControl* control,
           const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    const FixtureDescription& description() const { return m_description; }
    // The bench type, given by the opener before the window shows; lays out the boxes.
    void setBenchType(int type);
    int benchType() const { return m_benchType; }

    // Where errors go (the main window's messages).

    QMap<int, QCheckBox*> chkDig; // by output channel
    QPlainTextEdit* Text1 = nullptr;
    QTreeWidget* trvLegend = nullptr;
    QCheckBox* Check1 = nullptr;
    QTimer Timer1;
    QPushButton* cmdRefresh = nullptr; // Command1 or Command3
    QPushButton* cmdGet = nullptr;     // Command2
    QPushButton* cmdArm = nullptr;     // Command1 of frmAcqPcb

    void chkDig_Click(int channel);
    void Check1_Click();
    void Timer1_Timer();
    void refresh();
    void cmdArm_Click();
    // The read-out as last built, lines ending in CR LF.
    QString readout() const { return m_readout; }

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void fail(const QString& error);
    void showLegend();

    FixtureDescription m_description;
    BenchControl* m_control;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    int m_benchType = 0;
    QString m_readout;
    bool m_positioned = false;
    bool m_refreshing = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
    // An analog channel to plot (a plot source: "analog 3 as ...").
    void plotRequested(const QString& source);
};

} // namespace tessel

#pragma once

#include "sequence.h"

#include <QTimer>
#include <QWidget>

#include <array>
#include <memory>

class QCheckBox;
class QLineEdit;

namespace tessel {

class FrmDiagno;
class WindowPlacement;

// The sequencer "Sequenziatore": six rows, each repeating its text of "M" and "T" tokens over
// the monitor's transmit slots on its own timer. The texts belong to the monitor, so they
// outlive this window and go into the monitor's configuration file. Hiding the window (with
// the main window minimized) leaves the rows running; closing it stops them.
class FrmSeq : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kRows = 6;

    FrmSeq(FrmDiagno* monitor, const WindowPlacement* placement, QWidget* mainWindow,
           QWidget* parent = nullptr);
    ~FrmSeq() override;

    void chkEn_Click(int index);
    SequenceRow& row(int index) { return *m_rows[index]; }

    std::array<QCheckBox*, kRows> chkEn{};
    std::array<QLineEdit*, kRows> txtSeq{};
    std::array<QTimer*, kRows> tmrSeq{};

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    class Timer;
    FrmDiagno* m_monitor;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    std::array<std::unique_ptr<Timer>, kRows> m_timers;
    std::array<std::unique_ptr<SequenceRow>, kRows> m_rows;
    bool m_loaded = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

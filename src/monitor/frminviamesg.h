#pragma once

#include "composer.h"

#include <QTimer>
#include <QWidget>

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace tessel {

class FrameTransmitter;
class WindowPlacement;

// The composer "Invia": sends a list of data frames typed or pasted as lines, with a fixed
// pause after each. The window stays usable while a list goes out; "Stop" ends the run.
class FrmInviaMesg : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kLongestPauseMs = 65535;

    FrmInviaMesg(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    // Where the frames go; none: nowhere.
    FrameTransmitter* transmitter = nullptr;

    void cmdInvia_Click();
    void stop();
    bool isRunning() const { return m_running; }

    QPlainTextEdit* txtMesg = nullptr;
    QLineEdit* txtRitardo = nullptr;
    QPushButton* cmdInvia = nullptr;
    QPushButton* cmdStop = nullptr;
    QLabel* lblState = nullptr;
    QTimer tmrRitardo;

signals:
    void runFinished();

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void sendNext();
    void finish(const QString& state, const QString& why = {});

    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    ComposerScript m_script;
    qsizetype m_next = 0;
    bool m_running = false;
    bool m_positioned = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QTimer>
#include <QWidget>

#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPlainTextEdit;
class QSerialPort;

namespace tessel {

class WindowPlacement;

// "Serial Test": a terminal on a serial port. What the device sends is appended to the console
// as it comes; typed characters go to the device one by one and never show by themselves (the
// console shows only what the device sends back). The console keeps its newest kMaxConsoleLines
// lines, a line breaking after kMaxLineChars characters, and a backlog longer than
// kMaxConsoleChars keeps only its newest part: a device that streams for hours costs no more
// than one that just started.
class FrmSerial : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kMaxConsoleLines = 10000;
    static constexpr int kMaxLineChars = 4096;
    static constexpr int kMaxConsoleChars = kMaxConsoleLines * 100;
    static constexpr int kFlushMs = 30;
    static constexpr int kMaxFlushBytes = 16 * 1024;

    FrmSerial(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);
    ~FrmSerial() override;

    QCheckBox* chkEnable = nullptr;
    QComboBox* txtPort = nullptr;
    QLineEdit* txtParams = nullptr;
    QPlainTextEdit* txtConsole = nullptr;

    void chkEnable_Click();
    // A typed character: sent when the port is open, never shown by itself.
    void txtConsole_KeyPress(const QString& text);
    bool isOpen() const;
    // The ports that exist, offered in the port box.
    void offerPorts();
    void saveSettings() const;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void onReadyRead();
    void flush();
    void onError();
    void closePort(const QString& why);

    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    QSerialPort* m_port;
    QByteArray m_pending; // received, not yet shown
    QTimer m_flush;
    bool m_pendingCr = false;
    bool m_positioned = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

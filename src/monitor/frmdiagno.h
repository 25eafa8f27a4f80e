#pragma once

#include "receivefilter.h"
#include "traceline.h"

#include <QTimer>
#include <QWidget>

#include <array>

class QCheckBox;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace tessel {

class WindowPlacement;

// The CAN monitor "Can Monitor": the trace of sent and received frames and the receive filter.
// Closing it only hides it, so its trace and lists live as long as the program. The screen
// follows the trace text in batches, a few times a second, so a saturated bus never freezes it.
class FrmDiagno : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kChannels = 4;
    static constexpr int kRefreshMs = 50;

    FrmDiagno(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent = nullptr);

    // The trace writer: one line for one frame, if its channel is ticked.
    void traceFrame(int channel, int kind, quint32 id, quint32 timeUs, int length,
                    const quint8* data);
    // The receive filter for one frame reported by the server.
    void receiveFrame(int channel, quint32 id, quint32 timeUs, const quint8* data, int length);
    // A FilteredRxCan batch: 16-byte records, in order.
    void receiveRecords(int channel, const QByteArray& records, int count);

    bool showTransmit() const;
    // The public traffic switch: while off, received frames are not traced. Long operations
    // set it from chTrace and back on afterwards.
    void setTraceReceived(bool on) { m_traceReceived = on; }
    const QString& traceText() const { return m_trace.text(); }
    // Brings the screen up to date at once (the refresh timer does it otherwise).
    void refreshTrace();
    QString screenText() const;

    QCheckBox* chTrace = nullptr;
    std::array<QCheckBox*, kChannels> chkCV{};
    QCheckBox* chkEnShowTx = nullptr;
    QCheckBox* chkEnAllRx = nullptr;
    std::array<QLineEdit*, ReceiveFilter::kBoxes> txtDiscardList{};
    QCheckBox* chkInvert = nullptr;
    QPushButton* btnRes = nullptr;
    QPlainTextEdit* edTrace = nullptr;

signals:
    // chTrace: the main window echoes its sent frames into the trace while on.
    void traceSwitchChanged(bool on);
    // chkEnShowTx: ask the server to report this program's transmitted frames.
    void showTransmitChanged(bool on);
    // chkEnAllRx: receive every frame of the bus, not only the filtered stream.
    void receiveAllChanged(bool on);

protected:
    void showEvent(QShowEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    TraceBuffer m_trace;
    ReceiveFilter m_filter;
    QTimer m_refresh;
    QSize m_loadSize;
    bool m_positioned = false;
    bool m_traceReceived = true;
    QChar m_decimalPoint;
};

} // namespace tessel

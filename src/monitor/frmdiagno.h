#pragma once

#include "acquisitionbar.h"
#include "busview.h"
#include "monitorconfig.h"
#include "receivefilter.h"
#include "slotgrid.h"
#include "tracefilesbar.h"
#include "traceline.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

#include <array>
#include <deque>
#include <functional>

class QCheckBox;
class QLabel;
class QLayout;
class QLineEdit;
class QPushButton;
class QTabWidget;

namespace tessel {

class FrameTransmitter;
class FrmInviaMesg;
class FrmSeq;
class WindowPlacement;

// The CAN monitor "Can Monitor": the trace of sent and received frames, the receive filter,
// the eight transmit slots, the acquisition and the monitor's configuration file; it opens the
// sequencer and the composer. Closing it only hides it, so its trace, slots and texts live as
// long as the program. The screen follows the trace text in batches, a few times a second, so
// a saturated bus never freezes it. Beside the exact trace it shows the same frames decoded and
// the bus by identifier.
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

    // Sends transmit slot 0..7 through the main window's send routines; a slot outside sends
    // nothing. True when the slot could not be sent (the user has been told why).
    bool sendSlot(int slot);
    // Data box n = slot * 8 + byte, 0 to 63.
    QString dataBox(int n) const;
    void setDataBox(int n, const QString& text);
    // The six sequencer texts (0 to 5), kept here so they outlive the sequencer window.
    QString sequenceText(int k) const;
    void setSequenceText(int k, const QString& text);

    MonitorSetup setup() const;
    void btnLoad_Click();
    void btnSave_Click();
    // Reads / writes a configuration file; false when it failed (the user has been told).
    bool loadConfiguration(const QString& path);
    bool saveConfiguration(const QString& path);
    void cmdSeq_Click();
    void cmdInvia_Click();
    FrmSeq* sequencer() const;
    FrmInviaMesg* composer() const;

    // Where the frames of the slots, the sequencer and the composer go; none: nowhere.
    void setTransmitter(FrameTransmitter* transmitter);
    FrameTransmitter* transmitter() const { return m_transmitter; }
    // File dialogs: (title, filter in the program's form, start) to a name, empty when
    // cancelled. Tests replace them.
    std::function<QString(const QString&, const QString&, const QString&)> chooseOpenFile;
    std::function<QString(const QString&, const QString&, const QString&)> chooseSaveFile;

    QCheckBox* chTrace = nullptr;
    QPushButton* cmdPause = nullptr;
    QLabel* lblDone = nullptr;
    std::array<QCheckBox*, kChannels> chkCV{};
    QCheckBox* chkEnShowTx = nullptr;
    QCheckBox* chkEnAllRx = nullptr;
    std::array<QLineEdit*, ReceiveFilter::kBoxes> txtDiscardList{};
    QCheckBox* chkInvert = nullptr;
    QPushButton* btnRes = nullptr;
    TraceView* edTrace = nullptr;
    // The exact trace, the decoded frames and the bus by identifier, one tab each.
    QTabWidget* tabView = nullptr;
    BusView* busView = nullptr;
    SlotGrid* slotGrid = nullptr;
    AcquisitionBar* acquisition = nullptr;
    TraceFilesBar* traceFiles = nullptr;
    // The frames of the trace's lines, oldest first (what "Save trace..." writes).
    QList<TraceRecord> traceFrames() const;
    QPushButton* btnLoad = nullptr;
    QPushButton* btnSave = nullptr;
    QPushButton* cmdInvia = nullptr;
    QPushButton* cmdSeq = nullptr;

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
    // The slot grid beside the buttons of the configuration file and the tool windows.
    QLayout* buildSendTools();
    void keepTraceFrame(int channel, int kind, quint32 id, quint32 timeUs, int length,
                        const quint8* data, bool cut);
    void useFileDialogs();
    void applySetup(const MonitorSetup& setup);

    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    TraceBuffer m_trace;
    // Kept compact, without an allocation per frame: the trace is the receive path.
    struct KeptFrame
    {
        qint64 timeUs;
        quint16 id;
        quint8 channel;
        quint8 kind;
        quint8 length;
        std::array<quint8, 8> data;
    };
    std::deque<KeptFrame> m_traceFrames;
    quint32 m_lastTraceUs = 0;
    qint64 m_wrapUs = 0;
    ReceiveFilter m_filter;
    QTimer m_refresh;
    QSize m_loadSize;
    bool m_positioned = false;
    bool m_traceReceived = true;
    QChar m_decimalPoint;
    std::array<QString, MonitorSetup::kSequences> m_sequences;
    QPointer<FrmSeq> m_sequencer;
    QPointer<FrmInviaMesg> m_composer;
    FrameTransmitter* m_transmitter = nullptr;
    QString m_configPath;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

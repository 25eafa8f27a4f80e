#pragma once

#include "buscontext.h"
#include "hexhelpers.h"
#include "sdoaddress.h"

#include <QGroupBox>

#include <array>
#include <functional>

class QCheckBox;
class QComboBox;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace tessel {

class CanLink;

// The main window's SDO panel: the address box with its history, the five views of the data,
// upload, download, clear, the vector read, and the SDO time-out. A transfer blocks input
// (hourglass) but lets the window repaint and the monitor trace.
class SdoPanel : public QGroupBox
{
    Q_OBJECT
public:
    // What the server takes as an SDO time-out, in milliseconds.
    static constexpr int kMinSdoTimeoutMs = 1;
    static constexpr int kMaxSdoTimeoutMs = 65535;

    SdoPanel(CanLink* link, QWidget* parent = nullptr);

    // The window around: the selected controller and the monitor's display switch.
    BusContext* bus = nullptr;

    QComboBox* cmbIndex = nullptr;
    QLineEdit* txtDataHex = nullptr;
    QLineEdit* txtDataText = nullptr;
    QLineEdit* txtByte = nullptr;
    QLineEdit* txtWord = nullptr;
    QLineEdit* txtLong = nullptr;
    QPushButton* cmdUpload = nullptr;
    QPushButton* cmdDownload = nullptr;
    QPushButton* cmdClear = nullptr;
    QPushButton* cmdSetSDOTout = nullptr;
    QPushButton* cmdGetVect = nullptr;
    QCheckBox* chkVHex = nullptr;
    QCheckBox* chkVDec = nullptr;
    QPlainTextEdit* txtVectGet = nullptr;
    // The result of the last bus operation, shared with the NMT and upgrade panels, and the
    // server's SDO time-out; both laid out in this panel.
    QLineEdit* txtAbort = nullptr;
    QLineEdit* txtSDOTimeOut = nullptr;

    void cmdUpload_Click();
    void cmdDownload_Click();
    void cmdClear_Click();
    void cmdSetSDOTout_Click();
    void cmdGetVect_Click();
    void cmbIndex_Click(int row);

    // SdoRead / SdoWrite: one transfer, the result text.
    QString SdoRead(const SdoAddress& address, QByteArray* data);
    QString SdoWrite(const SdoAddress& address, const QByteArray& data);
    void setData(const QByteArray& data);
    // The panel's controls in the order the Tab key visits them: row by row, as they stand.
    QList<QWidget*> tabOrder() const;

    // The buttons that work on the bus, off while no controller is enabled.
    void setBusEnabled(bool enable);

signals:
    // A transfer worked: what was done, for the status bar.
    void done(const QString& what);
    // The address box's entry, to be plotted (a plot source: "sdo 1,6064,0").
    void plotRequested(const QString& source);

private:
    void RememberAddress(const QString& address, const QString& data);
    void RefreshViews(const QByteArray& data, int source);
    void clearResult();
    // A byte, word or long view whose typed number does not fit: red, and its tool tip says
    // what is sent. An empty note takes the mark away.
    void markOverflow(QLineEdit* edit, DataView view, const QString& note);

    CanLink* m_link;
    SdoAddressHistory m_history;
    bool m_updating = false;
    std::array<QString, 6> m_tips; // the views' own tool tips, by DataView
};

} // namespace tessel

#pragma once

#include "sdoaddress.h"

#include <QGroupBox>

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
    SdoPanel(CanLink* link, QLineEdit* txtAbort, QLineEdit* txtSDOTimeOut,
             QWidget* parent = nullptr);

    // The controller transfers go to; the main window's selection.
    std::function<int()> selectedController;
    // The monitor's traffic switch, set around transfers.
    std::function<void(bool)> monitorSwitch;
    std::function<bool()> monitorSwitchState;

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
    QLineEdit* txtAbort;
    QLineEdit* txtSDOTimeOut;

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

private:
    void RememberAddress(const QString& address, const QString& data);
    void RefreshViews(const QByteArray& data, int source);
    void clearResult();

    CanLink* m_link;
    SdoAddressHistory m_history;
    bool m_updating = false;
};

} // namespace tessel

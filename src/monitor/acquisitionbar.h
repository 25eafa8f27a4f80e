#pragma once

#include "acquisition.h"

#include <QCheckBox>
#include <QWidget>

#include <functional>

class QLineEdit;
class QPushButton;

namespace tessel {

// The monitor's acquisition controls: "Export" collects every frame that passes the receive
// filter, "Save Acq" writes the collected frames to the file named beside it.
class AcquisitionBar : public QWidget
{
    Q_OBJECT
public:
    explicit AcquisitionBar(QWidget* parent = nullptr);

    // "acq.csv" in a "tmp" folder of the user's documents.
    static QString defaultPath();

    // Called for every frame that passed the receive filter.
    void collect(quint32 id, quint32 timeUs, int length, const quint8* data)
    {
        if (chkExport->isChecked())
            m_buffer.append(id, timeUs, length, data);
    }
    const AcquisitionBuffer& buffer() const { return m_buffer; }

    void cmdSaveAcq_Click();
    void cmdFNApp_Click();

    // Asks for a file name (the open dialog); empty when cancelled. Tests replace it.
    std::function<QString(const QString& title, const QString& filter, const QString& start)>
        chooseFile;

    QCheckBox* chkExport = nullptr;
    QLineEdit* txtFileName = nullptr;
    QPushButton* cmdFNApp = nullptr;
    QPushButton* cmdSaveAcq = nullptr;

signals:
    // The collected frames were written: how many, and where.
    void saved(const QString& what);

private:
    void chkExport_Click(bool ticked);

    AcquisitionBuffer m_buffer;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

#include "acquisitionbar.h"

#include "filedialogfilter.h"
#include "waitcursor.h"

#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QStandardPaths>

namespace tessel {

AcquisitionBar::AcquisitionBar(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    chkExport = new QCheckBox(QStringLiteral("Export"), this);
    chkExport->setObjectName(QStringLiteral("chkExport"));
    chkExport->setToolTip(QStringLiteral("Collect every frame that passes the receive filter; "
                                         "ticking it starts a new acquisition"));
    layout->addWidget(chkExport);
    txtFileName = new QLineEdit(defaultPath(), this);
    txtFileName->setObjectName(QStringLiteral("txtFileName"));
    txtFileName->setToolTip(QStringLiteral("File that \"Save Acq\" writes: one line per frame, "
                                           "identifier;time;length;bytes; in decimal"));
    layout->addWidget(txtFileName, 1);
    cmdFNApp = new QPushButton(QStringLiteral("..."), this);
    cmdFNApp->setObjectName(QStringLiteral("cmdFNApp"));
    cmdFNApp->setToolTip(QStringLiteral("Choose the acquisition file"));
    cmdFNApp->setMaximumWidth(32);
    layout->addWidget(cmdFNApp);
    cmdSaveAcq = new QPushButton(QStringLiteral("Save Acq"), this);
    cmdSaveAcq->setObjectName(QStringLiteral("cmdSaveAcq"));
    cmdSaveAcq->setToolTip(QStringLiteral("Stop collecting and write the collected frames"));
    layout->addWidget(cmdSaveAcq);

    connect(chkExport, &QCheckBox::toggled, this, &AcquisitionBar::chkExport_Click);
    connect(cmdSaveAcq, &QPushButton::clicked, this, &AcquisitionBar::cmdSaveAcq_Click);
    connect(cmdFNApp, &QPushButton::clicked, this, &AcquisitionBar::cmdFNApp_Click);
}

QString AcquisitionBar::defaultPath()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation))
        .filePath(QStringLiteral("tmp/acq.csv"));
}

void AcquisitionBar::chkExport_Click(bool ticked)
{
    if (ticked)
        m_buffer.clear();
}

void AcquisitionBar::cmdSaveAcq_Click()
{
    chkExport->setChecked(false);
    const QString path = txtFileName->text();
    QString error;
    bool written = false;
    {
        const WaitCursor wait;
        // The default folder is the program's own choice: it is made when missing. A folder
        // the user named must exist.
        if (QFileInfo(path).absoluteFilePath() == QFileInfo(defaultPath()).absoluteFilePath())
            QDir().mkpath(QFileInfo(path).absolutePath());
        written = m_buffer.writeFile(path, &error);
    }
    if (!written)
        emit message(error);
    if (written)
        emit saved(QStringLiteral("Saved %1 frames to %2")
                       .arg(QLocale::c().toString(m_buffer.count()), path));
}

void AcquisitionBar::cmdFNApp_Click()
{
    if (!chooseFile)
        return;
    const QString name = chooseFile(QStringLiteral("Apri hex file"),
                                    QStringLiteral("Motorola HEX files (*.S)|*.S|All Files "
                                                   "(*.*)|*.*"),
                                    txtFileName->text());
    if (!name.isEmpty())
        txtFileName->setText(name);
}

} // namespace tessel

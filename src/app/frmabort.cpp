#include "frmabort.h"

#include "inputblocker.h"
#include "windowplacement.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>
#include <QWindow>

namespace tessel {

FrmAbort::FrmAbort(QWidget* mainWindow, QWidget* inputArea)
    : QDialog(mainWindow), m_mainWindow(mainWindow), m_inputArea(inputArea)
{
    setObjectName(QStringLiteral("frmAbort"));
    setWindowTitle(QStringLiteral("Tessel"));
    auto* text = new QLabel(QStringLiteral("The operation is still running."), this);
    cmdAbort = new QPushButton(QStringLiteral("Abort"), this);
    cmdAbort->setObjectName(QStringLiteral("cmdAbort"));
    cmdAbort->setToolTip(QStringLiteral("Stop the running operation; a transfer is aborted on "
                                        "the bus"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text);
    layout->addWidget(cmdAbort, 0, Qt::AlignHCenter);
    setMinimumWidth(260);
}

void FrmAbort::showEvent(QShowEvent* event)
{
    if (m_inputArea)
        m_inputArea->setEnabled(false);
    QDialog::showEvent(event);
}

void FrmAbort::hideEvent(QHideEvent* event)
{
    if (m_inputArea)
        m_inputArea->setEnabled(true);
    QDialog::hideEvent(event);
}

void FrmAbort::showOverMainWindow()
{
    adjustSize();
    move(m_mainWindow->frameGeometry().center() - QPoint(width() / 2, height() / 2));
    WindowPlacement::keepOnScreen(this, m_mainWindow);
    show();
    InputBlocker::letThrough(this, windowHandle());
}

void FrmAbort::hideFromMainWindow()
{
    InputBlocker::letThrough(nullptr);
    hide();
}

} // namespace tessel

#include "frmalarms.h"

#include "windowplacement.h"

#include <QFontDatabase>
#include <QPlainTextEdit>
#include <QVBoxLayout>

namespace tessel {

FrmAlarms::FrmAlarms(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmAlarms"));
    setWindowTitle(QStringLiteral("Alarms"));
    txtList = new QPlainTextEdit(this);
    txtList->setObjectName(QStringLiteral("txtList"));
    txtList->setReadOnly(true);
    txtList->setLineWrapMode(QPlainTextEdit::NoWrap);
    txtList->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    txtList->setToolTip(QStringLiteral("The drive's alarm records, oldest first: each entry in "
                                       "hexadecimal, then the alarm or the value in decimal"));
    // The list fills the window, whatever its size.
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(txtList);
    resize(380, 520);
}

void FrmAlarms::setText(const QString& text)
{
    m_text = text;
    txtList->setPlainText(QString(text).replace(QLatin1String("\r\n"), QLatin1String("\n")));
}

void FrmAlarms::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

} // namespace tessel

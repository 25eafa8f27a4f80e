#include "frmalarms.h"

#include "windowplacement.h"

#include "numbers.h"

#include <QFontDatabase>
#include <QHeaderView>
#include <QPlainTextEdit>
#include <QTabWidget>
#include <QTreeWidget>
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
    // Beside the text as read: each record on its own, newest first, its entries named.
    trvRecords = new QTreeWidget(this);
    trvRecords->setObjectName(QStringLiteral("trvRecords"));
    trvRecords->setHeaderLabels(
        {QStringLiteral("Entry"), QStringLiteral("Hex"), QStringLiteral("Value")});
    trvRecords->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    trvRecords->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    trvRecords->setToolTip(QStringLiteral("The drive's alarm records, newest first"));
    // The list fills the window, whatever its size.
    tabs = new QTabWidget(this);
    tabs->setObjectName(QStringLiteral("tabAlarms"));
    tabs->addTab(trvRecords, QStringLiteral("&Records"));
    tabs->addTab(txtList, QStringLiteral("&Text"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(tabs);
    resize(420, 520);
}

void FrmAlarms::setRecords(const QList<AlarmRecord>& records)
{
    trvRecords->clear();
    for (qsizetype r = records.size() - 1; r >= 0; --r) {
        const QVector<quint32>& e = records[r].entries;
        auto* record = new QTreeWidgetItem(trvRecords);
        record->setText(0, QStringLiteral("Record %1 of %2").arg(r + 1).arg(records.size()));
        record->setText(2, e.isEmpty() ? QStringLiteral("(no entries)")
                                       : QStringLiteral("%1, time stamp %2")
                                             .arg(alarmNumberText(e[0]))
                                             .arg(records[r].key));
        for (int k = 1; k <= e.size(); ++k) {
            const QString name = k == 1                     ? QStringLiteral("alarm")
                                 : k == alarmlog::kKeyEntry ? QStringLiteral("time stamp")
                                                            : QStringLiteral("entry %1").arg(k);
            new QTreeWidgetItem(record,
                                {name, hexField(e[k - 1], 8),
                                 k == 1 ? alarmNumberText(e[0]) : QString::number(e[k - 1])});
        }
    }
    // The newest record open and in view.
    if (QTreeWidgetItem* newest = trvRecords->topLevelItem(0)) {
        newest->setExpanded(true);
        trvRecords->setCurrentItem(newest);
        trvRecords->scrollToItem(newest, QAbstractItemView::PositionAtTop);
    }
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

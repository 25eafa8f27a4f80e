#include "frmeds.h"

#include "filedialogfilter.h"
#include "numbers.h"
#include "plotsource.h"
#include "waitcursor.h"
#include "windowplacement.h"

#include <QFileDialog>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>

namespace tessel {

FrmEDS::FrmEDS(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmEDS"));
    setWindowTitle(QStringLiteral("Electronic Data Sheet"));
    txtFileName = new QLineEdit(this);
    txtFileName->setObjectName(QStringLiteral("txtFileName"));
    txtFileName->setToolTip(QStringLiteral("The EDS file; Enter reads it"));
    cmdFNApp = new QPushButton(QStringLiteral("..."), this);
    cmdFNApp->setObjectName(QStringLiteral("cmdFNApp"));
    cmdFNApp->setToolTip(QStringLiteral("Choose an EDS file"));
    lstKey = new QListWidget(this);
    lstKey->setObjectName(QStringLiteral("lstKey"));
    lstKey->setToolTip(QStringLiteral("Double-click an entry to put its address into the SDO "
                                      "panel"));
    txtNode = new QLineEdit(QStringLiteral("1"), this);
    txtNode->setObjectName(QStringLiteral("txtNode"));
    txtNode->setMaximumWidth(50);
    txtNode->setToolTip(QStringLiteral("Node-ID, decimal; the address box takes it in "
                                       "hexadecimal (node 10 goes there as A)"));
    txtNode->setPlaceholderText(QStringLiteral("dec"));
    cmdMove = new QPushButton(QStringLiteral("&Move"), this);
    cmdMove->setObjectName(QStringLiteral("cmdMove"));
    cmdMove->setToolTip(QStringLiteral("Put the chosen entry's address into the SDO panel"));
    cmdPlot = new QPushButton(QStringLiteral("&Plot"), this);
    cmdPlot->setObjectName(QStringLiteral("cmdPlot"));
    cmdPlot->setToolTip(QStringLiteral("Plot the chosen entry of the node, read by SDO every "
                                       "period of the plot"));
    // Says why a file was not read, or read only in part; hidden otherwise.
    lblNote = new QLabel(this);
    lblNote->setObjectName(QStringLiteral("lblNote"));
    lblNote->setWordWrap(true);
    lblNote->setStyleSheet(QStringLiteral("color: #b00000"));
    lblNote->hide();

    auto* grid = new QGridLayout(this);
    grid->addWidget(txtFileName, 0, 0, 1, 3);
    grid->addWidget(cmdFNApp, 0, 3);
    grid->addWidget(lstKey, 1, 0, 1, 4);
    grid->addWidget(lblNote, 2, 0, 1, 4);
    grid->addWidget(new QLabel(QStringLiteral("Node:"), this), 3, 0);
    grid->addWidget(txtNode, 3, 1);
    grid->addWidget(cmdPlot, 3, 2);
    grid->addWidget(cmdMove, 3, 3);
    resize(420, 480);

    connect(cmdFNApp, &QPushButton::clicked, this, &FrmEDS::cmdFNApp_Click);
    connect(cmdMove, &QPushButton::clicked, this, &FrmEDS::cmdMove_Click);
    connect(lstKey, &QListWidget::itemDoubleClicked, this, [this] { cmdMove_Click(); });
    connect(txtFileName, &QLineEdit::returnPressed, this, &FrmEDS::loadList);
    connect(cmdPlot, &QPushButton::clicked, this, &FrmEDS::cmdPlot_Click);
}

void FrmEDS::loadList()
{
    WaitCursor wait;
    QString note;
    m_entries = readEds(txtFileName->text(), &note);
    lblNote->setText(note);
    lblNote->setVisible(!note.isEmpty());
    lstKey->clear();
    for (int k = 0; k < m_entries.size(); ++k) {
        auto* item = new QListWidgetItem(m_entries[k].name, lstKey);
        item->setData(Qt::UserRole, k);
    }
    if (!m_entries.isEmpty())
        emit loaded(txtFileName->text());
}

void FrmEDS::cmdFNApp_Click()
{
    const QString file = QFileDialog::getOpenFileName(
        this, QStringLiteral("Apri Electronic data sheet"), txtFileName->text(),
        qtFileDialogFilter(QStringLiteral("EDS files (*.eds)|*.eds|All Files (*.*)|*.*")));
    if (file.isEmpty())
        return;
    txtFileName->setText(file);
    loadList();
}

const EdsEntry* FrmEDS::chosen(QString* address) const
{
    QListWidgetItem* item = lstKey->currentItem();
    if (!item || !item->isSelected())
        return nullptr;
    const int k = item->data(Qt::UserRole).toInt();
    if (k < 0 || k >= m_entries.size())
        return nullptr;
    const qint32 node = roundToInt32(lenientValue(txtNode->text()));
    const EdsEntry& e = m_entries[k];
    // The address box reads every part in hexadecimal: node 12 is C there, not 0x12.
    *address = QStringLiteral("%1,%2,%3")
                   .arg(QString::number(quint32(node), 16).toUpper())
                   .arg(QString::number(quint32(e.index), 16).toUpper())
                   .arg(QString::number(quint32(e.subIndex), 16).toUpper());
    return &e;
}

void FrmEDS::cmdMove_Click()
{
    QString address;
    if (chosen(&address))
        emit addressChosen(address);
}

void FrmEDS::cmdPlot_Click()
{
    QString address;
    const EdsEntry* e = chosen(&address);
    if (!e)
        return;
    PlotSource entry;
    entry.node = roundToInt32(lenientValue(txtNode->text()));
    entry.index = e->index;
    entry.subIndex = e->subIndex;
    entry.type = edsValueType(txtFileName->text(), e->index, e->subIndex);
    entry.name = QString(e->name).replace(QLatin1Char('\\'), QLatin1Char('/'));
    emit plotRequested(entry.text());
}

void FrmEDS::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned))
        loadList();
}

} // namespace tessel

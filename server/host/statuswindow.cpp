#include "statuswindow.h"

#include "servercore.h"
#include "serverhost.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QSpinBox>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace qorcalib {

namespace {
QString statusText(quint32 bits)
{
    QStringList parts;
    if (bits & StatusOverrun)
        parts << QStringLiteral("OR");
    if (bits & StatusTransmitPending)
        parts << QStringLiteral("TX");
    if (bits & StatusErrorWarning)
        parts << QStringLiteral("EW");
    if (bits & StatusBusOff)
        parts << QStringLiteral("BO");
    return parts.join(QLatin1Char(' '));
}
} // namespace

StatusWindow::StatusWindow(ServerCore* core, ServerHost* host, QWidget* parent)
    : QWidget(parent), m_core(core), m_host(host)
{
    setWindowTitle(QStringLiteral("qorcalib-server"));
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(QStringLiteral("Controllers"), this));
    m_controllers = new QTreeWidget(this);
    m_controllers->setHeaderLabels({QStringLiteral("#"), QStringLiteral("Channel"),
                                    QStringLiteral("Bit rate"), QStringLiteral("State"),
                                    QStringLiteral("Status")});
    m_controllers->setRootIsDecorated(false);
    layout->addWidget(m_controllers);
    layout->addWidget(new QLabel(QStringLiteral("Sessions"), this));
    m_sessions = new QTreeWidget(this);
    m_sessions->setHeaderLabels({QStringLiteral("Session")});
    m_sessions->setRootIsDecorated(false);
    layout->addWidget(m_sessions);
    auto* close = new QPushButton(QStringLiteral("Ask clients to close"), this);
    close->setToolTip(QStringLiteral("Clients that check for it (Shift+Ctrl+Alt+F10 in Tessel) "
                                     "close themselves"));
    connect(close, &QPushButton::clicked, this, [this] { m_core->requestShutdown(); });
    layout->addWidget(close);
    layout->addWidget(buildBenchRow());
    resize(460, 360);

    m_refresh.setInterval(1000);
    connect(&m_refresh, &QTimer::timeout, this, &StatusWindow::refresh);
    connect(m_host, &ServerHost::sessionsChanged, this, &StatusWindow::refresh);
    connect(m_core, &ServerCore::configChanged, this, &StatusWindow::refresh);
}

QWidget* StatusWindow::buildBenchRow()
{
    auto* row = new QWidget(this);
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    SimBench* bench = m_core->bench();
    for (int i = 0; i < int(chkDoorClosed.size()); ++i) {
        const int input = SimBench::kDoorInputs[i];
        chkDoorClosed[i] = new QCheckBox(QStringLiteral("Door SW%1 closed").arg(i + 1), row);
        chkDoorClosed[i]->setObjectName(QStringLiteral("chkDoorClosed_%1").arg(i));
        chkDoorClosed[i]->setToolTip(
            QStringLiteral("The fixture's door switch on input %1").arg(input));
        bool closed = false;
        QString unused;
        bench->readInput(input, &closed, &unused);
        chkDoorClosed[i]->setChecked(closed);
        connect(chkDoorClosed[i], &QCheckBox::toggled, this,
                [bench, input](bool on) { bench->setInput(input, on); });
        connect(bench, &SimBench::inputChanged, chkDoorClosed[i],
                [box = chkDoorClosed[i], input](int channel, bool state) {
                    if (channel == input)
                        box->setChecked(state);
                });
        layout->addWidget(chkDoorClosed[i]);
    }
    layout->addStretch();
    spnAlarm = new QSpinBox(row);
    spnAlarm->setObjectName(QStringLiteral("spnAlarm"));
    spnAlarm->setRange(0, 32);
    spnAlarm->setValue(15);
    spnAlarm->setToolTip(QStringLiteral("Alarm number the drives log"));
    layout->addWidget(spnAlarm);
    cmdRaiseAlarm = new QPushButton(QStringLiteral("Raise alarm"), row);
    cmdRaiseAlarm->setObjectName(QStringLiteral("cmdRaiseAlarm"));
    cmdRaiseAlarm->setToolTip(QStringLiteral("Every powered simulated drive logs this alarm "
                                             "(objects 0x5810, 0x520B, 0x520C)"));
    layout->addWidget(cmdRaiseAlarm);
    lblAlarm = new QLabel(row);
    layout->addWidget(lblAlarm);
    connect(cmdRaiseAlarm, &QPushButton::clicked, this, [this] {
        const int raised = m_core->raiseAlarm(quint32(spnAlarm->value()));
        lblAlarm->setText(raised ? QStringLiteral("logged by %1").arg(raised)
                                 : QStringLiteral("no drive has power"));
    });
    return row;
}

void StatusWindow::refresh()
{
    if (!isVisible())
        return;
    m_controllers->clear();
    for (int c = 0; c < m_core->controllerCount(); ++c) {
        const CanChannel* channel = m_core->channel(c);
        m_controllers->addTopLevelItem(new QTreeWidgetItem(
            {QString::number(c), channel->name(), bitRateText(channel->bitRateIndex()),
             channel->isRunning() ? QStringLiteral("started") : QStringLiteral("stopped"),
             statusText(channel->status())}));
    }
    m_sessions->clear();
    for (const QString& s : m_host->sessionDescriptions())
        m_sessions->addTopLevelItem(new QTreeWidgetItem({s}));
    m_controllers->header()->resizeSections(QHeaderView::ResizeToContents);
}

void StatusWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refresh();
    m_refresh.start();
}

void StatusWindow::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    m_refresh.stop();
}

} // namespace qorcalib

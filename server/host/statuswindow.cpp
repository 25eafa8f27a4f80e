#include "statuswindow.h"

#include "servercore.h"
#include "serverhost.h"

#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
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
    resize(460, 320);

    m_refresh.setInterval(1000);
    connect(&m_refresh, &QTimer::timeout, this, &StatusWindow::refresh);
    connect(m_host, &ServerHost::sessionsChanged, this, &StatusWindow::refresh);
    connect(m_core, &ServerCore::configChanged, this, &StatusWindow::refresh);
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

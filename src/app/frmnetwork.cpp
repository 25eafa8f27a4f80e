#include "frmnetwork.h"

#include "canlink.h"
#include "canmsg.h"
#include "monitorlink.h"
#include "numbers.h"
#include "sdoabort.h"
#include "windowplacement.h"

#include <QBrush>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMenu>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>
#include <QtEndian>

namespace tessel {

FrmNetwork::FrmNetwork(CanLink* link, MonitorLink* monitorLink, const WindowPlacement* placement,
                       QWidget* mainWindow)
    : QWidget(mainWindow, Qt::Window), m_link(link), m_monitorLink(monitorLink),
      m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmNetwork"));
    setWindowTitle(QStringLiteral("Network"));

    lblController = new QLabel(this);
    lblController->setObjectName(QStringLiteral("lblController"));
    lblController->setToolTip(QStringLiteral("The bus shown: the controller selected in the main "
                                             "window"));
    cmdScan = new QPushButton(QStringLiteral("&Scan"), this);
    cmdScan->setObjectName(QStringLiteral("cmdScan"));
    cmdScan->setToolTip(QStringLiteral("Ask nodes 1 to 127 for their device type (1000) and "
                                       "identity (1018), waiting %1 ms for each")
                            .arg(kScanWaitMs));
    prbScan = new QProgressBar(this);
    prbScan->setObjectName(QStringLiteral("prbScan"));
    prbScan->setRange(0, 127);
    prbScan->setValue(0);
    prbScan->setFormat(QStringLiteral("node %v of 127"));
    auto* top = new QHBoxLayout;
    top->addWidget(lblController);
    top->addWidget(cmdScan);
    top->addWidget(prbScan, 1);

    tblNodes = new QTableWidget(0, ColumnCount, this);
    tblNodes->setObjectName(QStringLiteral("tblNodes"));
    tblNodes->setHorizontalHeaderLabels(
        {QStringLiteral("Node"), QStringLiteral("Name"), QStringLiteral("State"),
         QStringLiteral("Heartbeat"), QStringLiteral("Alarm"), QStringLiteral("Last emergency"),
         QStringLiteral("Device type"), QStringLiteral("Vendor"), QStringLiteral("Product"),
         QStringLiteral("Revision"), QStringLiteral("Serial")});
    tblNodes->setEditTriggers(QAbstractItemView::NoEditTriggers);
    tblNodes->setSelectionBehavior(QAbstractItemView::SelectRows);
    tblNodes->setSelectionMode(QAbstractItemView::SingleSelection);
    tblNodes->verticalHeader()->hide();
    tblNodes->verticalHeader()->setDefaultSectionSize(tblNodes->fontMetrics().height() + 6);
    tblNodes->horizontalHeader()->setStretchLastSection(true);
    tblNodes->setContextMenuPolicy(Qt::CustomContextMenu);
    tblNodes->setToolTip(QStringLiteral("Every node seen on the bus; right-click (or the menu "
                                        "key) for NMT commands, its identity and its error "
                                        "history"));
    const int digit = tblNodes->fontMetrics().horizontalAdvance(QLatin1Char('0'));
    const int widths[ColumnCount] = {4, 10, 13, 8, 15, 24, 9, 9, 9, 9, 9};
    for (int c = 0; c < ColumnCount; ++c)
        tblNodes->setColumnWidth(c, digit * widths[c] + 12);
    connect(tblNodes, &QTableWidget::customContextMenuRequested, this, &FrmNetwork::contextMenu);

    edLog = new QPlainTextEdit(this);
    edLog->setObjectName(QStringLiteral("edLog"));
    edLog->setReadOnly(true);
    edLog->setMaximumBlockCount(10000);
    edLog->setToolTip(QStringLiteral("Boot-ups, state changes, missed heartbeats and emergencies "
                                     "as they came, with the server's time"));

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(tblNodes, 3);
    layout->addWidget(edLog, 1);
    resize(760, 420);

    connect(cmdScan, &QPushButton::clicked, this, &FrmNetwork::scan);
    connect(m_link, &CanLink::framesReceived, this, &FrmNetwork::onFrames);
    // Another server has a clock of its own: states, periods and times start anew; what Scan
    // found stays.
    connect(m_link, &CanLink::reconnected, this, [this] {
        for (Bus& bus : m_buses) {
            bus.watch = NetworkWatch();
            bus.lastUs = -1;
            bus.wrapUs = 0;
        }
        log(-1, QStringLiteral("CAN server connected again: states and heartbeats followed anew"));
        showAll();
    });
    m_tick.setInterval(kCheckMs);
    connect(&m_tick, &QTimer::timeout, this, &FrmNetwork::onTick);
    m_tick.start();
    m_shown = m_monitorLink->controller();
    onTick();
}

void FrmNetwork::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

void FrmNetwork::onFrames(int controller, const QByteArray& records, int count)
{
    if (controller < 0 || controller >= kControllers)
        return;
    Bus& bus = m_buses[size_t(controller)];
    count = qMin(count, qorcalib::recordCount(records));
    for (int i = 0; i < count; ++i) {
        const qorcalib::CanFrame f = qorcalib::recordAt(records, i);
        // The server's microseconds wrap after 71 minutes; the watch's time goes on.
        if (bus.lastUs >= 0 && f.timeUs < bus.lastRawUs && bus.lastRawUs - f.timeUs > 0x80000000u)
            bus.wrapUs += qint64(1) << 32;
        bus.lastRawUs = f.timeUs;
        bus.lastUs = bus.wrapUs + f.timeUs;
        bus.since.start();
        const QByteArray data =
            f.remote ? QByteArray() : QByteArray(reinterpret_cast<const char*>(f.data.data()), f.len);
        const QList<NetworkWatch::Event> events = bus.watch.onFrame(f.id, f.remote, data, bus.lastUs);
        if (controller != m_shown)
            continue;
        for (const NetworkWatch::Event& e : events) {
            log(e.timeUs, QStringLiteral("node %1: %2").arg(e.node).arg(e.text));
            showNode(e.node);
        }
    }
}

qint64 FrmNetwork::nowUs(int controller) const
{
    const Bus& bus = m_buses[size_t(controller)];
    return bus.lastUs < 0 ? -1 : bus.lastUs + bus.since.nsecsElapsed() / 1000;
}

void FrmNetwork::onTick()
{
    const int selected = m_monitorLink->controller();
    m_shown = selected;
    lblController->setText(QStringLiteral("CAN %1").arg(m_shown));
    // Periods measured and nodes first seen by their SDO answers come without an event.
    showAll();
    for (int c = 0; c < kControllers; ++c) {
        const qint64 now = nowUs(c);
        if (now < 0)
            continue;
        for (const NetworkWatch::Event& e : m_buses[size_t(c)].watch.check(now)) {
            if (c != m_shown)
                continue;
            log(e.timeUs, QStringLiteral("node %1: %2").arg(e.node).arg(e.text));
            showNode(e.node);
        }
    }
}

void FrmNetwork::log(qint64 timeUs, const QString& text)
{
    // Before the bus's first frame there is no time of the server's to give.
    edLog->appendPlainText(
        timeUs < 0 ? text
                   : QStringLiteral("%1 s  %2").arg(double(timeUs) / 1e6, 0, 'f', 3).arg(text));
}

QString FrmNetwork::logText() const
{
    return edLog->toPlainText();
}

int FrmNetwork::rowOf(int node, bool add)
{
    int row = 0;
    for (; row < tblNodes->rowCount(); ++row) {
        const int at = tblNodes->item(row, Node)->data(Qt::UserRole).toInt();
        if (at == node)
            return row;
        if (at > node)
            break;
    }
    if (!add)
        return -1;
    tblNodes->insertRow(row);
    for (int c = 0; c < ColumnCount; ++c)
        tblNodes->setItem(row, c, new QTableWidgetItem);
    QTableWidgetItem* id = tblNodes->item(row, Node);
    id->setData(Qt::UserRole, node);
    id->setText(QString::number(node));
    id->setToolTip(QStringLiteral("Node-ID %1 (%2h)").arg(node).arg(hexField(quint32(node), 2)));
    return row;
}

void FrmNetwork::showNode(int node)
{
    const Bus& bus = m_buses[size_t(m_shown)];
    const int row = rowOf(node, true);
    const auto item = [this, row](int column) { return tblNodes->item(row, column); };
    // A node known only by its identity (found by Scan, or before the server came back) has
    // no state yet.
    const NetworkWatch::Node n = bus.watch.nodes().value(node);
    const QString state = nmtStateText(n.state);
    item(State)->setText(state.isEmpty() ? QStringLiteral("not known") : state);
    item(Heartbeat)->setText(n.periodUs > 0 ? QStringLiteral("%1 ms").arg(n.periodUs / 1000)
                                            : QString());
    item(Alarm)->setText(n.missed ? QStringLiteral("heartbeat missed") : QString());
    item(Alarm)->setForeground(n.missed ? QBrush(Qt::white) : QBrush());
    item(Alarm)->setBackground(n.missed ? QBrush(QColor(0xC0, 0x20, 0x20)) : QBrush());
    item(Emergency)->setText(n.lastEmergency);
    item(Emergency)->setToolTip(n.lastEmergency);
    if (const auto id = bus.identities.constFind(node); id != bus.identities.cend()) {
        item(Name)->setText(id->deviceName);
        item(DeviceType)->setText(hexField(id->deviceType, 8));
        item(Vendor)->setText(hexField(id->vendorId, 8));
        item(Product)->setText(hexField(id->productCode, 8));
        item(Revision)->setText(hexField(id->revision, 8));
        item(Serial)->setText(hexField(id->serial, 8));
    }
}

void FrmNetwork::showAll()
{
    // Rows of nodes the bus shown does not have (another controller's) go.
    const Bus& bus = m_buses[size_t(m_shown)];
    for (int row = tblNodes->rowCount() - 1; row >= 0; --row) {
        const int node = tblNodes->item(row, Node)->data(Qt::UserRole).toInt();
        if (!bus.watch.nodes().contains(node) && !bus.identities.contains(node))
            tblNodes->removeRow(row);
    }
    for (auto it = bus.watch.nodes().cbegin(); it != bus.watch.nodes().cend(); ++it)
        showNode(it.key());
    for (auto it = bus.identities.cbegin(); it != bus.identities.cend(); ++it)
        showNode(it.key());
}

void FrmNetwork::scan()
{
    if (m_scanning)
        return;
    m_scanning = true;
    cmdScan->setEnabled(false);
    const int controller = m_shown;
    QString error;
    std::optional<SdoTimeoutHold> shortWait(std::in_place, m_link, kScanWaitMs, &error);
    NodeScan nodes(m_link, controller);
    int found = 0;
    for (int node = 1; node <= 127 && error.isEmpty(); ++node) {
        prbScan->setValue(node);
        const std::optional<NodeIdentity> id = nodes.read(node, &error, nullptr, true);
        if (!id)
            continue;
        ++found;
        m_buses[size_t(controller)].identities[node] = *id;
        if (controller == m_shown)
            showNode(node);
    }
    shortWait.reset();
    if (!error.isEmpty())
        emit message(QStringLiteral("Scan stopped: %1").arg(error));
    log(nowUs(controller), QStringLiteral("scan of CAN %1: %2 node(s) answered")
                               .arg(controller)
                               .arg(found));
    cmdScan->setEnabled(true);
    m_scanning = false;
}

void FrmNetwork::readIdentity(int node)
{
    QString error;
    const std::optional<NodeIdentity> id =
        NodeScan(m_link, m_shown).read(node, &error, nullptr, true);
    if (!error.isEmpty()) {
        emit message(error);
        return;
    }
    if (!id) {
        log(nowUs(m_shown), QStringLiteral("node %1: no answer to 1000").arg(node));
        return;
    }
    m_buses[size_t(m_shown)].identities[node] = *id;
    showNode(node);
}

void FrmNetwork::readErrorHistory(int node)
{
    const auto upload = [this, node](int sub) {
        return m_link->sdoTransfer(m_shown, true, node, 0x1003, sub);
    };
    const auto failure = [](const CanLink::SdoResult& r) {
        return !r.error.isEmpty() ? r.error
               : r.abortCode != 0 ? qorcalib::sdoAbortDescription(r.abortCode)
                                  : QString();
    };
    const CanLink::SdoResult count = upload(0);
    if (const QString f = failure(count); !f.isEmpty() || count.data.isEmpty()) {
        log(nowUs(m_shown), QStringLiteral("node %1: error history: %2")
                                .arg(node)
                                .arg(f.isEmpty() ? QStringLiteral("no answer") : f));
        return;
    }
    const int entries = quint8(count.data[0]);
    QStringList lines;
    for (int sub = 1; sub <= entries; ++sub) {
        const CanLink::SdoResult r = upload(sub);
        if (const QString f = failure(r); !f.isEmpty() || r.data.size() != 4) {
            lines << QStringLiteral("%1: %2").arg(sub).arg(f.isEmpty() ? QStringLiteral("?") : f);
            continue;
        }
        const quint32 v = qFromLittleEndian<quint32>(r.data.constData());
        const quint16 code = quint16(v & 0xFFFF);
        const QString text = emcyText(code);
        lines << QStringLiteral("%1: %2 %3 (additional %4)")
                     .arg(sub)
                     .arg(hexField(code, 4), text.isEmpty() ? QStringLiteral("(in no table)") : text,
                          hexField(v >> 16, 4));
    }
    log(nowUs(m_shown),
        entries == 0 ? QStringLiteral("node %1: error history empty").arg(node)
                     : QStringLiteral("node %1: error history, newest first: %2")
                           .arg(node)
                           .arg(lines.join(QStringLiteral("; "))));
}

void FrmNetwork::sendNmt(int node, quint8 command)
{
    const char frame[2] = {char(command), char(node)};
    m_monitorLink->send(0x000, 2, QByteArray(frame, 2));
}

void FrmNetwork::contextMenu(const QPoint& at)
{
    // From the menu key the point may lie beside every row: the current node is meant.
    const QTableWidgetItem* clicked = tblNodes->itemAt(at);
    if (!clicked)
        clicked = tblNodes->currentItem();
    if (!clicked)
        return;
    const int node = tblNodes->item(clicked->row(), Node)->data(Qt::UserRole).toInt();
    QMenu menu(this);
    const std::pair<const char*, quint8> commands[] = {{"&Start", 0x01},
                                                       {"S&top", 0x02},
                                                       {"&Pre-operational", 0x80},
                                                       {"Reset &node", 0x81},
                                                       {"Reset &communication", 0x82}};
    for (const auto& [caption, command] : commands)
        menu.addAction(QString::fromLatin1(caption), this,
                       [this, node, command = command] { sendNmt(node, command); });
    menu.addSeparator();
    menu.addAction(QStringLiteral("Read &identity"), this, [this, node] { readIdentity(node); });
    menu.addAction(QStringLiteral("Read &error history (1003)"), this,
                   [this, node] { readErrorHistory(node); });
    menu.exec(tblNodes->viewport()->mapToGlobal(
        tblNodes->itemAt(at) ? at : tblNodes->visualItemRect(clicked).center()));
}

} // namespace tessel

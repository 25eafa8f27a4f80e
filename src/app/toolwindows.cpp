#include "toolwindows.h"

#include "benchpanel.h"
#include "datadir.h"
#include "frmdiagno.h"
#include "frmeds.h"
#include "frminviamesg.h"
#include "frmio.h"
#include "frmnetwork.h"
#include "frmplot.h"
#include "frmseq.h"
#include "frmserial.h"
#include "frmxboot.h"
#include "monitorlink.h"
#include "nodescan.h"
#include "sdopanel.h"
#include "windowplacement.h"

#include <QHBoxLayout>
#include <QLineEdit>
#include <QPushButton>

namespace tessel {

ToolWindows::ToolWindows(CanLink* link, WindowPlacement* placement, QWidget* mainWindow)
    : QObject(mainWindow), m_link(link), m_placement(placement), m_main(mainWindow)
{
}

ToolWindows::~ToolWindows()
{
    // A window without a parent (the EDS browser) goes with the main window.
    delete m_eds;
}

QHBoxLayout* ToolWindows::makeButtonRow(QWidget* parent)
{
    auto* row = new QHBoxLayout;
    const auto button = [&](QPushButton** b, const char* name, const QString& caption,
                            const QString& tip, void (ToolWindows::*open)()) {
        *b = new QPushButton(caption, parent);
        (*b)->setObjectName(QLatin1String(name));
        (*b)->setToolTip(tip);
        connect(*b, &QPushButton::clicked, this, open);
        row->addWidget(*b);
    };
    button(&cmdDiagno, "cmdDiagno", QStringLiteral("Can &Monitor"),
           QStringLiteral("Open the CAN monitor"), &ToolWindows::openMonitor);
    button(&cmdEDS, "cmdEDS", QStringLiteral("&EDS"), QStringLiteral("Open the EDS browser"),
           &ToolWindows::openEds);
    button(&cmdIO, "cmdIO", QStringLiteral("&Slider"),
           QStringLiteral("Open the object slider: sweep a value into a monitor slot and send it"),
           &ToolWindows::openSlider);
    button(&cmdXBoot, "cmdXBoot", QStringLiteral("&Production..."),
           QStringLiteral("Open production programming: JTAG and serial programming with the "
                          "line's serial numbers"),
           &ToolWindows::openProduction);
    button(&cmdSerial, "cmdSerial", QStringLiteral("Se&rial..."),
           QStringLiteral("Open a terminal on a serial port"), &ToolWindows::openSerial);
    button(&cmdNetwork, "cmdNetwork", QStringLiteral("Net&work"),
           QStringLiteral("Open the network: the nodes of the selected controller's bus, their "
                          "states and heartbeats, Scan, NMT by node"),
           &ToolWindows::openNetwork);
    button(&cmdPlot, "cmdPlot", QStringLiteral("Pl&ot"),
           QStringLiteral("Open the plot: entries, frame fields, fixture channels and recordings "
                          "as curves over time"),
           &ToolWindows::openPlot);
    row->addStretch();
    return row;
}

void ToolWindows::setMonitor(FrmDiagno* monitor, MonitorLink* link)
{
    m_monitor = monitor;
    connect(m_monitor->busView, &BusView::plotRequested, this, &ToolWindows::plotSource);
    connect(m_monitor->busView, &BusView::mappingRequested, this, &ToolWindows::readMapping);
    m_monitorLink = link;
    // The monitor reads the bus by the EDS the browser opens with, until it opens another.
    useEds(qorcalib::dataFile(QStringLiteral("drive.eds")));
}

void ToolWindows::useEds(const QString& path)
{
    m_edsPath = path;
    m_dictionary = std::make_shared<const DeviceDictionary>(readDeviceDictionary(path));
    if (m_monitor)
        m_monitor->busView->setDictionary(m_dictionary);
}

void ToolWindows::readMapping(int controller, int id)
{
    const auto pdo = pdoOfIdentifier(quint16(id));
    if (!pdo)
        return;
    QString error;
    const auto mapping =
        readPdoMapping(m_link, controller, pdo->node, pdo->transmit, pdo->pdo, &error);
    if (!mapping) {
        emit message(error);
        return;
    }
    // Every node's PDO is read by it from now on: nodes of one kind share a dictionary.
    auto next =
        std::make_shared<DeviceDictionary>(m_dictionary ? *m_dictionary : DeviceDictionary{});
    QList<DeviceDictionary::Field>& fields = next->mapping(pdo->transmit, pdo->pdo);
    fields.clear();
    for (const quint32 entry : *mapping) {
        DeviceDictionary::Field f;
        f.index = quint16(entry >> 16);
        f.subIndex = quint8(entry >> 8);
        f.bits = int(entry & 0xFF);
        f.isSigned = edsValueType(m_edsPath, f.index, f.subIndex).startsWith(QLatin1Char('i'));
        fields << f;
    }
    m_dictionary = next;
    m_monitor->busView->setDictionary(m_dictionary);
}

void ToolWindows::place(QWidget* window, QPoint offset) const
{
    window->move(m_placement->reference() + offset);
    WindowPlacement::restoreGeometry(window, window->objectName());
}

void ToolWindows::openMonitor()
{
    if (m_monitor)
        WindowPlacement::bringToFront(m_monitor);
}

void ToolWindows::openProduction()
{
    if (!m_xboot) {
        m_xboot = new FrmXBoot(m_link, m_placement, m_main, m_main);
        place(m_xboot, QPoint(m_main->frameGeometry().width() + 8, 200));
        connect(m_xboot, &FrmXBoot::message, this, &ToolWindows::message);
    }
    WindowPlacement::bringToFront(m_xboot);
}

void ToolWindows::openSerial()
{
    if (!m_serial) {
        m_serial = new FrmSerial(m_placement, m_main, m_main);
        place(m_serial, QPoint(m_main->frameGeometry().width() + 8, 260));
        connect(m_serial, &FrmSerial::message, this, &ToolWindows::message);
    }
    m_serial->offerPorts();
    WindowPlacement::bringToFront(m_serial);
}

void ToolWindows::openEds()
{
    if (!m_eds) {
        m_eds = new FrmEDS(m_placement, m_main);
        place(m_eds, QPoint(m_main->frameGeometry().width() + 8, 40));
        m_eds->txtFileName->setText(qorcalib::dataFile(QStringLiteral("drive.eds")));
        connect(m_eds, &FrmEDS::addressChosen, this, &ToolWindows::addressChosen);
        connect(m_eds, &FrmEDS::loaded, this, &ToolWindows::useEds);
        connect(m_eds, &FrmEDS::plotRequested, this, &ToolWindows::plotSource);
    }
    WindowPlacement::bringToFront(m_eds);
}

void ToolWindows::openSlider()
{
    if (!m_monitor)
        return;
    if (!m_io) {
        m_io = new FrmIO(m_monitor, m_placement, m_main, m_main);
        place(m_io, QPoint(0, m_main->frameGeometry().height() + 8));
        connect(m_io, &FrmIO::message, this, &ToolWindows::message);
    }
    WindowPlacement::bringToFront(m_io);
}

void ToolWindows::openNetwork()
{
    if (!m_monitorLink)
        return;
    if (!m_network) {
        m_network = new FrmNetwork(m_link, m_monitorLink, m_placement, m_main);
        place(m_network, QPoint(m_main->frameGeometry().width() + 8, 120));
        connect(m_network, &FrmNetwork::message, this, &ToolWindows::message);
    }
    WindowPlacement::bringToFront(m_network);
}

void ToolWindows::openPlot()
{
    if (!m_plot) {
        m_plot = new FrmPlot(m_link, m_main);
        place(m_plot, QPoint(0, m_main->frameGeometry().height() + 8));
        WindowPlacement::keepOnScreen(m_plot, m_main);
        connect(m_plot, &FrmPlot::message, this, &ToolWindows::message);
    }
    if (m_monitorLink)
        m_plot->setController(m_monitorLink->controller());
    WindowPlacement::bringToFront(m_plot);
}

void ToolWindows::plotSource(const QString& text)
{
    openPlot();
    if (text.endsWith(QLatin1String("..."))) {
        m_plot->txtSource->setText(text.chopped(3));
        m_plot->txtSource->setFocus();
        return;
    }
    m_plot->addSource(text);
}

void ToolWindows::plotFrom(SdoPanel* sdo, BenchPanel* bench)
{
    connect(sdo, &SdoPanel::plotRequested, this, &ToolWindows::plotSource);
    connect(bench, &BenchPanel::plotRequested, this, &ToolWindows::plotSource);
}

QList<QWidget*> ToolWindows::carried() const
{
    QList<QWidget*> windows;
    if (m_monitor)
        windows << m_monitor;
    if (m_eds)
        windows << m_eds;
    if (m_io)
        windows << m_io;
    if (m_network)
        windows << m_network;
    if (m_plot)
        windows << m_plot;
    if (m_monitor && m_monitor->sequencer())
        windows << m_monitor->sequencer();
    if (m_monitor && m_monitor->composer())
        windows << m_monitor->composer();
    return windows;
}

void ToolWindows::mainWindowMinimized()
{
    m_hidden.clear();
    for (QWidget* w : carried()) {
        if (w->isVisible())
            m_hidden << w;
        w->hide();
    }
}

void ToolWindows::mainWindowRestored()
{
    for (QWidget* w : std::as_const(m_hidden))
        if (w)
            w->show();
    m_hidden.clear();
}

void ToolWindows::save() const
{
    for (QWidget* w : carried())
        WindowPlacement::saveGeometry(w, w->objectName());
    if (m_plot)
        m_plot->saveSettings();
    if (m_serial) {
        m_serial->saveSettings();
        WindowPlacement::saveGeometry(m_serial, m_serial->objectName());
    }
    if (m_xboot) {
        m_xboot->saveSettings();
        WindowPlacement::saveGeometry(m_xboot, m_xboot->objectName());
    }
}

} // namespace tessel

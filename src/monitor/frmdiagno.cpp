#include "frmdiagno.h"

#include <algorithm>

#include "canmsg.h"
#include "filedialogfilter.h"
#include "frametransmitter.h"
#include "frminviamesg.h"
#include "frmseq.h"
#include "machinesettings.h"
#include "windowplacement.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QSaveFile>
#include <QScrollBar>
#include <QTabWidget>
#include <QTableView>
#include <QVBoxLayout>

namespace tessel {

namespace {
const QString kShowTransmitKey = QStringLiteral("monitor/showTransmit");
} // namespace

FrmDiagno::FrmDiagno(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_placement(placement), m_mainWindow(mainWindow),
      m_decimalPoint(QLocale().decimalPoint().at(0))
{
    setObjectName(QStringLiteral("frmDiagno"));
    setWindowTitle(QStringLiteral("Can Monitor"));

    auto* top = new QHBoxLayout;
    btnRes = new QPushButton(QStringLiteral("Res trace"), this);
    btnRes->setObjectName(QStringLiteral("btnRes"));
    btnRes->setToolTip(QStringLiteral("Clear the trace"));
    top->addWidget(btnRes);
    chTrace = new QCheckBox(QStringLiteral("Enable"), this);
    chTrace->setObjectName(QStringLiteral("chTrace"));
    chTrace->setChecked(true);
    chTrace->setToolTip(QStringLiteral("Trace the frames this program sends (Pause freezes the "
                                       "whole view)"));
    top->addWidget(chTrace);
    cmdPause = new QPushButton(QStringLiteral("&Pause"), this);
    cmdPause->setObjectName(QStringLiteral("cmdPause"));
    cmdPause->setCheckable(true);
    cmdPause->setToolTip(QStringLiteral("Freeze the view to read it: frames are still collected "
                                        "and show when you resume"));
    connect(cmdPause, &QPushButton::toggled, this, [this](bool paused) {
        cmdPause->setText(paused ? QStringLiteral("Resume") : QStringLiteral("&Pause"));
        if (!paused)
            refreshTrace();
    });
    top->addWidget(cmdPause);
    top->addSpacing(12);
    top->addWidget(new QLabel(QStringLiteral("Channels:"), this));
    for (int i = 0; i < kChannels; ++i) {
        chkCV[i] = new QCheckBox(QString::number(i), this);
        chkCV[i]->setObjectName(QStringLiteral("chkCV_%1").arg(i));
        chkCV[i]->setChecked(true);
        chkCV[i]->setToolTip(QStringLiteral("Trace the frames of controller %1").arg(i));
        top->addWidget(chkCV[i]);
    }
    top->addSpacing(12);
    chkEnShowTx = new QCheckBox(QStringLiteral("En Tx"), this);
    chkEnShowTx->setObjectName(QStringLiteral("chkEnShowTx"));
    chkEnShowTx->setToolTip(QStringLiteral("Also trace the frames the CAN server sends for this "
                                           "program (SDO, LSS, upgrades)"));
    // On unless the user turned it off: the frames that LSS Get or an Upload put on the bus
    // belong in the trace as much as those of Send.
    chkEnShowTx->setChecked(userSettings().value(kShowTransmitKey, true).toBool());
    top->addWidget(chkEnShowTx);
    chkEnAllRx = new QCheckBox(QStringLiteral("En All Rx"), this);
    chkEnAllRx->setObjectName(QStringLiteral("chkEnAllRx"));
    chkEnAllRx->setToolTip(QStringLiteral("Receive every frame of the bus, including other "
                                          "clients' SDO and LSS exchanges"));
    top->addWidget(chkEnAllRx);
    top->addStretch();

    edTrace = new TraceView(this);
    edTrace->setObjectName(QStringLiteral("edTrace"));

    auto* filter = new QGroupBox(QStringLiteral("Discard list"), this);
    filter->setToolTip(QStringLiteral("COB-IDs in hexadecimal: hidden from the trace, or with "
                                      "Invert the only ones shown"));
    auto* filterLayout = new QVBoxLayout(filter);
    for (int i = 0; i < ReceiveFilter::kBoxes; ++i) {
        txtDiscardList[i] = new QLineEdit(filter);
        txtDiscardList[i]->setObjectName(QStringLiteral("txtDiscardList_%1").arg(i));
        txtDiscardList[i]->setMaximumWidth(70);
        filterLayout->addWidget(txtDiscardList[i]);
        connect(txtDiscardList[i], &QLineEdit::textChanged, this,
                [this, i](const QString& text) { m_filter.setText(i, text); });
    }
    chkInvert = new QCheckBox(QStringLiteral("Invert"), filter);
    chkInvert->setObjectName(QStringLiteral("chkInvert"));
    chkInvert->setToolTip(QStringLiteral("Show only the listed COB-IDs"));
    filterLayout->addWidget(chkInvert);
    filterLayout->addStretch();
    connect(chkInvert, &QCheckBox::toggled, this, [this](bool on) { m_filter.setInvert(on); });

    busView = new BusView(this);
    tabView = new QTabWidget(this);
    tabView->setObjectName(QStringLiteral("tabView"));
    tabView->addTab(edTrace, QStringLiteral("&Trace"));
    tabView->addTab(busView->edDecoded, QStringLiteral("De&coded"));
    tabView->addTab(busView->tblIds, QStringLiteral("&Identifiers"));
    tabView->setTabToolTip(0, QStringLiteral("The frames exactly as they came"));
    tabView->setTabToolTip(1, QStringLiteral("The same frames as CANopen reads them"));
    tabView->setTabToolTip(2, QStringLiteral("Each identifier with its count, cycle time and "
                                             "last data"));
    connect(tabView, &QTabWidget::currentChanged, this, [this] {
        if (!cmdPause->isChecked())
            busView->refresh(0);
    });
    // The load beside the tabs, where their row leaves it the most room.
    tabView->setCornerWidget(busView->lblLoad, Qt::TopRightCorner);
    auto* middle = new QHBoxLayout;
    middle->addWidget(tabView, 1);
    middle->addWidget(filter);

    QLayout* bottom = buildSendTools();

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addLayout(middle, 1);
    layout->addLayout(bottom);
    layout->addWidget(acquisition);
    traceFiles = new TraceFilesBar(this);
    traceFiles->setObjectName(QStringLiteral("traceFiles"));
    traceFiles->frames = [this] { return traceFrames(); };
    connect(traceFiles, &TraceFilesBar::message, this, &FrmDiagno::message);
    traceFiles->chooseOpenFile = [this](const QString& t, const QString& f, const QString& s) {
        return chooseOpenFile ? chooseOpenFile(t, f, s) : QString();
    };
    traceFiles->chooseSaveFile = [this](const QString& t, const QString& f, const QString& s) {
        return chooseSaveFile ? chooseSaveFile(t, f, s) : QString();
    };
    // What the last save did, beside the trace-file buttons.
    lblDone = new QLabel(this);
    lblDone->setObjectName(QStringLiteral("lblDone"));
    connect(acquisition, &AcquisitionBar::saved, lblDone, &QLabel::setText);
    auto* files = new QHBoxLayout;
    files->addWidget(traceFiles);
    files->addWidget(lblDone, 1);
    layout->addLayout(files);

    connect(btnLoad, &QPushButton::clicked, this, &FrmDiagno::btnLoad_Click);
    connect(btnSave, &QPushButton::clicked, this, &FrmDiagno::btnSave_Click);
    connect(cmdInvia, &QPushButton::clicked, this, &FrmDiagno::cmdInvia_Click);
    connect(cmdSeq, &QPushButton::clicked, this, &FrmDiagno::cmdSeq_Click);
    useFileDialogs();

    connect(btnRes, &QPushButton::clicked, this, [this] {
        m_trace.clear();
        m_traceFrames.clear();
        busView->clear();
        refreshTrace();
    });
    connect(chTrace, &QCheckBox::toggled, this, &FrmDiagno::traceSwitchChanged);
    connect(chkEnShowTx, &QCheckBox::toggled, this, [this](bool on) {
        userSettings().setValue(kShowTransmitKey, on);
        emit showTransmitChanged(on);
    });
    connect(chkEnAllRx, &QCheckBox::toggled, this, &FrmDiagno::receiveAllChanged);

    resize(860, 680);
    m_loadSize = size();
    m_refresh.setInterval(kRefreshMs);
    connect(&m_refresh, &QTimer::timeout, this, [this] {
        if (cmdPause->isChecked())
            return;
        refreshTrace();
        busView->refresh(kRefreshMs);
    });
    m_refresh.start();
}

QLayout* FrmDiagno::buildSendTools()
{
    slotGrid = new SlotGrid(this);
    slotGrid->setObjectName(QStringLiteral("slotGrid"));
    connect(slotGrid, &SlotGrid::sendClicked, this, [this](int slot) { sendSlot(slot); });
    auto* tools = new QVBoxLayout;
    btnLoad = new QPushButton(QStringLiteral("Load conf."), this);
    btnLoad->setObjectName(QStringLiteral("btnLoad"));
    btnLoad->setToolTip(QStringLiteral("Load slots, discard list and sequences from a .cnd file"));
    btnSave = new QPushButton(QStringLiteral("Save conf."), this);
    btnSave->setObjectName(QStringLiteral("btnSave"));
    btnSave->setToolTip(QStringLiteral("Save slots, discard list and sequences to a .cnd file"));
    cmdInvia = new QPushButton(QStringLiteral("Invia >"), this);
    cmdInvia->setObjectName(QStringLiteral("cmdInvia"));
    cmdInvia->setToolTip(QStringLiteral("Open the composer: send a list of frames with a pause"));
    cmdSeq = new QPushButton(QStringLiteral("Seq >"), this);
    cmdSeq->setObjectName(QStringLiteral("cmdSeq"));
    cmdSeq->setToolTip(QStringLiteral("Open the sequencer: repeat timed sequences of slots"));
    for (QPushButton* b : {btnLoad, btnSave, cmdInvia, cmdSeq})
        tools->addWidget(b);
    tools->addStretch();
    acquisition = new AcquisitionBar(this);
    acquisition->setObjectName(QStringLiteral("acquisition"));
    connect(acquisition, &AcquisitionBar::message, this, &FrmDiagno::message);
    acquisition->chooseFile = [this](const QString& title, const QString& filter,
                                     const QString& start) {
        return chooseOpenFile ? chooseOpenFile(title, filter, start) : QString();
    };
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(slotGrid);
    bottom->addSpacing(12);
    bottom->addLayout(tools);
    bottom->addStretch();
    return bottom;
}

void FrmDiagno::useFileDialogs()
{
    chooseOpenFile = [this](const QString& title, const QString& filter, const QString& start) {
        QFileDialog dialog(this, title, start, qtFileDialogFilter(filter));
        dialog.setAcceptMode(QFileDialog::AcceptOpen);
        dialog.setFileMode(QFileDialog::AnyFile);
        return dialog.exec() == QDialog::Accepted ? dialog.selectedFiles().value(0) : QString();
    };
    chooseSaveFile = [this](const QString& title, const QString& filter, const QString& start) {
        return QFileDialog::getSaveFileName(this, title, start, qtFileDialogFilter(filter));
    };
}

bool FrmDiagno::showTransmit() const
{
    return chkEnShowTx->isChecked();
}

void FrmDiagno::traceFrame(int channel, int kind, quint32 id, quint32 timeUs, int length,
                           const quint8* data)
{
    if (channel < 0 || channel >= kChannels || !chkCV[channel]->isChecked() || length < 0)
        return;
    const QString line =
        traceLine(channel, kind, id, timeUs, qMin(length, 8), data, m_decimalPoint);
    const qsizetype before = m_trace.text().size();
    m_trace.append(line);
    keepTraceFrame(channel, kind, id, timeUs, qMin(length, 8), data,
                   m_trace.text().size() < before + line.size());
    // The line's head is all before " > " and the data bytes, three characters each.
    const int shown = kind == int(TraceKind::RemoteRequest) ? 0 : qMin(length, 8);
    busView->addFrame(channel, kind, quint16(id & 0x7FF), m_traceFrames.back().timeUs,
                      qMin(length, 8), data, QStringView(line).first(line.size() - 3 - 3 * shown));
}

void FrmDiagno::keepTraceFrame(int channel, int kind, quint32 id, quint32 timeUs, int length,
                               const quint8* data, bool cut)
{
    // The frames beside the trace's lines, within the trace's bounds: when the text was cut,
    // the frames of the lines that went (and of a line cut in two) go too. The text now ends
    // with the new line, whose frame comes next.
    if (cut) {
        const qsizetype lines = std::max<qsizetype>(0, m_trace.text().count(QLatin1Char('\n')) - 2);
        while (qsizetype(m_traceFrames.size()) > lines)
            m_traceFrames.pop_front();
    }
    // A frame this program echoes has no time of the server's: it gets the last one seen.
    if (kind != int(TraceKind::Received) && timeUs == 0)
        timeUs = m_lastTraceUs;
    // The server's 32-bit microseconds wrap after 71 minutes; the file's time goes on.
    if (!m_traceFrames.empty() && timeUs < m_lastTraceUs && m_lastTraceUs - timeUs > 0x80000000u)
        m_wrapUs += qint64(1) << 32;
    m_lastTraceUs = timeUs;
    KeptFrame f{m_wrapUs + timeUs, quint16(id & 0x7FF), quint8(channel),
                quint8(kind),      quint8(length),      {}};
    if (data)
        std::copy(data, data + length, f.data.begin());
    m_traceFrames.push_back(f);
}

QList<TraceRecord> FrmDiagno::traceFrames() const
{
    QList<TraceRecord> records;
    records.reserve(qsizetype(m_traceFrames.size()));
    for (const KeptFrame& f : m_traceFrames) {
        TraceRecord r;
        r.timeUs = f.timeUs;
        r.channel = f.channel;
        r.id = f.id;
        r.transmitted = f.kind == int(TraceKind::Transmitted);
        r.remote = f.kind == int(TraceKind::RemoteRequest);
        r.length = r.remote ? 0 : f.length;
        if (!r.remote)
            r.data = QByteArray(reinterpret_cast<const char*>(f.data.data()), f.length);
        records << r;
    }
    return records;
}

void FrmDiagno::receiveFrame(int channel, quint32 id, quint32 timeUs, const quint8* data,
                             int length)
{
    if (!m_filter.passes(id))
        return;
    acquisition->collect(id, timeUs, length, data);
    if (m_traceReceived)
        traceFrame(channel, int(TraceKind::Received), id, timeUs, length, data);
}

void FrmDiagno::receiveRecords(int channel, const QByteArray& records, int count)
{
    count = qMin(count, qorcalib::recordCount(records));
    for (int i = 0; i < count; ++i) {
        // A length above 8 is no frame: it is dropped, neither traced nor collected.
        const int length = qorcalib::recordLength(records, i);
        if (length < 0 || length > 8)
            continue;
        const qorcalib::CanFrame f = qorcalib::recordAt(records, i);
        receiveFrame(channel, f.id, f.timeUs, f.data.data(), f.len);
    }
}

void FrmDiagno::refreshTrace()
{
    // Paused, the changes add up in the buffer and show at once on resuming.
    if (!cmdPause->isChecked())
        edTrace->showChanges(m_trace);
}

namespace {
const QString kConfigFilter = QStringLiteral("Fioskeife Files (*.cnd)|*.cnd|All Files (*.*)|*.*");
}

bool FrmDiagno::sendSlot(int slot)
{
    if (slot < 0 || slot >= SlotGrid::kSlots)
        return false;
    QString error;
    const auto frame = slotFrame(slotGrid->texts(slot), slot, &error);
    if (!frame) {
        message(error);
        return true;
    }
    if (!m_transmitter)
        return false;
    return frame->remote ? m_transmitter->sendRemote(frame->id, frame->length)
                         : m_transmitter->send(frame->id, frame->length, frame->data);
}

void FrmDiagno::setTransmitter(FrameTransmitter* transmitter)
{
    m_transmitter = transmitter;
    if (m_composer)
        m_composer->transmitter = transmitter;
}

QString FrmDiagno::dataBox(int n) const
{
    return n >= 0 && n < SlotGrid::kSlots * 8 ? slotGrid->edD0[n]->text() : QString();
}

void FrmDiagno::setDataBox(int n, const QString& text)
{
    if (n >= 0 && n < SlotGrid::kSlots * 8)
        slotGrid->edD0[n]->setText(text);
}

QString FrmDiagno::sequenceText(int k) const
{
    return k >= 0 && k < MonitorSetup::kSequences ? m_sequences[k] : QString();
}

void FrmDiagno::setSequenceText(int k, const QString& text)
{
    if (k < 0 || k >= MonitorSetup::kSequences)
        return;
    m_sequences[k] = text;
    if (m_sequencer && m_sequencer->isVisible() && m_sequencer->txtSeq[k]->text() != text)
        m_sequencer->txtSeq[k]->setText(text);
}

MonitorSetup FrmDiagno::setup() const
{
    MonitorSetup s;
    for (int i = 0; i < MonitorSetup::kSlots; ++i)
        s.transmitSlots[i] = slotGrid->texts(i);
    for (int i = 0; i < MonitorSetup::kFilters; ++i)
        s.filters[i] = txtDiscardList[i]->text();
    s.sequences = m_sequences;
    return s;
}

void FrmDiagno::applySetup(const MonitorSetup& s)
{
    for (int i = 0; i < MonitorSetup::kSlots; ++i)
        slotGrid->setTexts(i, s.transmitSlots[i]);
    for (int i = 0; i < MonitorSetup::kFilters; ++i)
        txtDiscardList[i]->setText(s.filters[i]);
    for (int k = 0; k < MonitorSetup::kSequences; ++k)
        setSequenceText(k, s.sequences[k]);
}

void FrmDiagno::btnLoad_Click()
{
    if (!chooseOpenFile)
        return;
    const QString path = chooseOpenFile(QString(), kConfigFilter, m_configPath);
    if (path.isEmpty())
        return;
    loadConfiguration(path);
}

bool FrmDiagno::loadConfiguration(const QString& path)
{
    m_configPath = path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        message(QStringLiteral("Load failed"));
        return false;
    }
    // A monitor set-up is a few kilobytes; anything far larger is no such file.
    const QByteArray bytes = file.read(1 << 20);
    const MonitorConfigLoad load = readMonitorConfig(bytes, setup());
    if (load.result == MonitorConfigLoad::UnknownHeader) {
        message(QStringLiteral("Invalid Fioskeife file"));
        return false;
    }
    applySetup(load.setup);
    if (load.result == MonitorConfigLoad::Failed) {
        qWarning("Loading %s: %s", qPrintable(path), qPrintable(load.reason));
        message(QStringLiteral("Load failed"));
        return false;
    }
    return true;
}

void FrmDiagno::btnSave_Click()
{
    if (!chooseSaveFile)
        return;
    const QString path = chooseSaveFile(QString(), kConfigFilter, m_configPath);
    if (path.isEmpty())
        return;
    saveConfiguration(path);
}

bool FrmDiagno::saveConfiguration(const QString& path)
{
    m_configPath = path;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(writeMonitorConfig(setup())) < 0 ||
        !file.commit()) {
        message(QStringLiteral("Cannot save the configuration to %1: %2")
                    .arg(QFileInfo(path).absoluteFilePath(), file.errorString()));
        return false;
    }
    return true;
}

FrmSeq* FrmDiagno::sequencer() const
{
    return m_sequencer;
}

FrmInviaMesg* FrmDiagno::composer() const
{
    return m_composer;
}

void FrmDiagno::cmdSeq_Click()
{
    if (!m_sequencer) {
        m_sequencer = new FrmSeq(this, m_placement, m_mainWindow, this);
        m_sequencer->setAttribute(Qt::WA_DeleteOnClose);
        if (m_placement)
            m_sequencer->move(m_placement->reference() + QPoint(40, 480));
        WindowPlacement::restoreGeometry(m_sequencer, m_sequencer->objectName());
        connect(m_sequencer, &FrmSeq::message, this, &FrmDiagno::message);
    }
    WindowPlacement::bringToFront(m_sequencer);
}

void FrmDiagno::cmdInvia_Click()
{
    if (!m_composer) {
        m_composer = new FrmInviaMesg(m_placement, m_mainWindow, this);
        if (m_placement)
            m_composer->move(m_placement->reference() + QPoint(80, 520));
        WindowPlacement::restoreGeometry(m_composer, m_composer->objectName());
        m_composer->transmitter = m_transmitter;
        connect(m_composer, &FrmInviaMesg::message, this, &FrmDiagno::message);
    }
    WindowPlacement::bringToFront(m_composer);
}

QString FrmDiagno::screenText() const
{
    return edTrace->toPlainText();
}

void FrmDiagno::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned))
        m_loadSize = size();
}

void FrmDiagno::closeEvent(QCloseEvent* event)
{
    // The monitor is never destroyed while the program runs: its trace and lists survive.
    event->ignore();
    hide();
    resize(m_loadSize);
}

} // namespace tessel

#include "frmplot.h"

#include "bittiming.h"
#include "canlink.h"
#include "canmsg.h"
#include "filesource.h"
#include "machinesettings.h"
#include "sampling.h"

#include <qcustomplot.h>

#include <QCheckBox>
#include <QCloseEvent>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QMenu>
#include <QPushButton>
#include <QSaveFile>
#include <QSettings>
#include <QShortcut>
#include <QSpinBox>
#include <QTableWidget>
#include <QThread>
#include <QVBoxLayout>

#include <cmath>

namespace tessel {

namespace {

const QColor kColors[] = {QColor(0, 90, 200),  QColor(210, 60, 20),  QColor(20, 150, 60),
                          QColor(140, 60, 170), QColor(200, 140, 0), QColor(0, 150, 160),
                          QColor(120, 120, 120), QColor(200, 40, 120)};

// A value in the table: whole numbers as they are, others to seven significant digits (the
// CSV export has them exactly).
QString shownText(double v)
{
    return v == std::floor(v) && std::fabs(v) < 1e15 ? sampleText(v) : QString::number(v, 'g', 7);
}

QString secondsText(double t)
{
    return QString::number(t, 'f', 3) + QStringLiteral(" s");
}

} // namespace

FrmPlot::FrmPlot(CanLink* link, QWidget* parent) : QWidget(parent, Qt::Window), m_link(link)
{
    setObjectName(QStringLiteral("frmPlot"));
    setWindowTitle(QStringLiteral("Plot"));
    m_clock.start();

    auto* top = new QHBoxLayout;
    auto* sourceLabel = new QLabel(QStringLiteral("&Source:"), this);
    top->addWidget(sourceLabel);
    txtSource = new QLineEdit(this);
    txtSource->setObjectName(QStringLiteral("txtSource"));
    txtSource->setPlaceholderText(QStringLiteral("sdo 1,6064,0 · frame 381 16:32 signed · "
                                                 "analog 3 · file PATH column NAME"));
    txtSource->setToolTip(QStringLiteral(
        "What to plot, then Enter:\n"
        "  sdo NODE,INDEX[,SUB] [u8|u16|u32|i8|i16|i32]  an entry read by SDO every period\n"
        "  frame ID BIT:BITS [signed] [*SCALE]  a field of every frame with the identifier\n"
        "  analog CHANNEL  a fixture's analog channel every period\n"
        "  file PATH column NAME  a column of a CSV (the time in seconds first)\n"
        "  file PATH frame ID BIT:BITS ...  a field of a trace or acquisition file's frames\n"
        "Numbers of nodes, entries and identifiers are hexadecimal. Any source may end in\n"
        "\"on CONTROLLER\", \"every MS\" and \"as NAME\"."));
    sourceLabel->setBuddy(txtSource);
    top->addWidget(txtSource, 1);
    auto* periodLabel = new QLabel(QStringLiteral("&Every"), this);
    top->addWidget(periodLabel);
    spnPeriod = new QSpinBox(this);
    spnPeriod->setObjectName(QStringLiteral("spnPeriod"));
    spnPeriod->setRange(kMinSamplePeriodMs, 3600000);
    spnPeriod->setValue(100);
    spnPeriod->setSuffix(QStringLiteral(" ms"));
    spnPeriod->setToolTip(QStringLiteral("How often a new entry or analog channel is read; the "
                                         "reads share the bus with everything else"));
    periodLabel->setBuddy(spnPeriod);
    top->addWidget(spnPeriod);
    cmdAdd = new QPushButton(QStringLiteral("&Add"), this);
    cmdAdd->setObjectName(QStringLiteral("cmdAdd"));
    cmdAdd->setToolTip(QStringLiteral("Add the source as a trace"));
    top->addWidget(cmdAdd);
    cmdPause = new QPushButton(QStringLiteral("&Pause"), this);
    cmdPause->setObjectName(QStringLiteral("cmdPause"));
    cmdPause->setCheckable(true);
    cmdPause->setToolTip(QStringLiteral("Hold the view where it is (values keep coming); a drag "
                                        "or the wheel holds it too. Again to follow the newest"));
    top->addWidget(cmdPause);
    chkShared = new QCheckBox(QStringLiteral("S&hared scale"), this);
    chkShared->setObjectName(QStringLiteral("chkShared"));
    chkShared->setToolTip(QStringLiteral("All traces on one vertical scale; else each its own"));
    top->addWidget(chkShared);

    auto* bottom = new QHBoxLayout;
    auto* keepLabel = new QLabel(QStringLiteral("&Keep"), this);
    bottom->addWidget(keepLabel);
    spnKeep = new QSpinBox(this);
    spnKeep->setObjectName(QStringLiteral("spnKeep"));
    spnKeep->setRange(1000, 50000000);
    spnKeep->setSingleStep(100000);
    spnKeep->setGroupSeparatorShown(true);
    spnKeep->setValue(int(SampleRing::kDefaultCapacity));
    spnKeep->setSuffix(QStringLiteral(" samples"));
    spnKeep->setToolTip(QStringLiteral("The newest values each trace keeps; older ones make "
                                       "room"));
    keepLabel->setBuddy(spnKeep);
    bottom->addWidget(spnKeep);
    lblKeep = new QLabel(this);
    lblKeep->setObjectName(QStringLiteral("lblKeep"));
    bottom->addWidget(lblKeep);
    bottom->addStretch();
    cmdCsv = new QPushButton(QStringLiteral("Export &CSV..."), this);
    cmdCsv->setObjectName(QStringLiteral("cmdCsv"));
    cmdCsv->setToolTip(QStringLiteral("The exact values of the visible range, one line a value"));
    bottom->addWidget(cmdCsv);
    cmdPng = new QPushButton(QStringLiteral("Export P&NG..."), this);
    cmdPng->setObjectName(QStringLiteral("cmdPng"));
    cmdPng->setToolTip(QStringLiteral("The picture as it is shown"));
    bottom->addWidget(cmdPng);
    cmdClear = new QPushButton(QStringLiteral("C&lear"), this);
    cmdClear->setObjectName(QStringLiteral("cmdClear"));
    cmdClear->setToolTip(QStringLiteral("Forget every trace's values; the traces stay"));
    bottom->addWidget(cmdClear);

    plot = new QCustomPlot(this);
    plot->setObjectName(QStringLiteral("plot"));
    plot->setMinimumHeight(200);
    plot->setInteractions(QCP::iRangeDrag | QCP::iRangeZoom);
    plot->axisRect()->setRangeDrag(Qt::Horizontal);
    plot->axisRect()->setRangeZoom(Qt::Horizontal);
    plot->xAxis->setLabel(QStringLiteral("time (s)"));
    plot->yAxis->setVisible(false);
    plot->legend->setVisible(true);
    plot->legend->setFont(font());
    plot->axisRect()->insetLayout()->setInsetAlignment(0, Qt::AlignTop | Qt::AlignLeft);
    plot->setNotAntialiasedElements(QCP::aeAll);
    plot->setToolTip(QStringLiteral("Drag to pan, wheel to zoom the time; click for cursor A, "
                                    "right or shift click for cursor B"));
    for (int i = 0; i < 2; ++i) {
        m_cursor[i] = new QCPItemStraightLine(plot);
        m_cursor[i]->setPen(QPen(Qt::black, 1, i == 0 ? Qt::SolidLine : Qt::DashLine));
        m_cursor[i]->setVisible(false);
    }
    plot->xAxis->setRange(0, kDefaultSpanS);

    grdTraces = new QTableWidget(0, ColumnCount, this);
    grdTraces->setObjectName(QStringLiteral("grdTraces"));
    grdTraces->setHorizontalHeaderLabels({QStringLiteral("Trace"), QStringLiteral("Now"),
                                          QStringLiteral("At A"), QStringLiteral("At B"),
                                          QStringLiteral("B - A"), QStringLiteral("Samples")});
    grdTraces->horizontalHeader()->setSectionResizeMode(Name, QHeaderView::Stretch);
    grdTraces->verticalHeader()->hide();
    grdTraces->setEditTriggers(QAbstractItemView::NoEditTriggers);
    grdTraces->setSelectionBehavior(QAbstractItemView::SelectRows);
    grdTraces->setContextMenuPolicy(Qt::CustomContextMenu);
    grdTraces->setToolTip(QStringLiteral("Tick to show a trace; Delete or the context menu "
                                         "removes it"));

    // The table is as tall as a few traces; the plot takes the rest.
    grdTraces->setMinimumHeight(grdTraces->fontMetrics().height() * 5);
    grdTraces->setMaximumHeight(grdTraces->fontMetrics().height() * 9);
    lblStatus = new QLabel(this);
    lblStatus->setObjectName(QStringLiteral("lblStatus"));
    lblStatus->setTextInteractionFlags(Qt::TextSelectableByMouse);
    lblStatus->setWordWrap(true);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(plot, 1);
    layout->addWidget(grdTraces);
    layout->addLayout(bottom);
    layout->addWidget(lblStatus);
    resize(900, 560);

    connect(cmdAdd, &QPushButton::clicked, this, [this] {
        if (addSource(txtSource->text()))
            txtSource->clear();
    });
    connect(txtSource, &QLineEdit::returnPressed, cmdAdd, &QPushButton::click);
    connect(cmdPause, &QPushButton::toggled, this, [this](bool paused) { setFollowing(!paused); });
    connect(chkShared, &QCheckBox::toggled, this, [this] {
        placeAxes();
        redraw();
    });
    connect(spnKeep, &QSpinBox::valueChanged, this, [this](int keep) {
        for (auto& t : m_traces)
            t->ring.setCapacity(keep);
        showKeep();
        m_dirty = true;
    });
    connect(cmdClear, &QPushButton::clicked, this, [this] {
        for (auto& t : m_traces)
            t->ring.clear();
        m_dirty = true;
        redraw();
    });
    connect(cmdCsv, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getSaveFileName(this, QStringLiteral("Export CSV"), {},
                                                          QStringLiteral("CSV (*.csv)"));
        QString error;
        if (!path.isEmpty() && !exportCsv(path, &error))
            emit message(error);
    });
    connect(cmdPng, &QPushButton::clicked, this, [this] {
        const QString path = QFileDialog::getSaveFileName(this, QStringLiteral("Export PNG"), {},
                                                          QStringLiteral("PNG (*.png)"));
        QString error;
        if (!path.isEmpty() && !exportPng(path, &error))
            emit message(error);
    });
    connect(plot->xAxis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), this, [this] {
        if (!m_settingRange)
            setFollowing(false);
        m_dirty = true;
    });
    connect(plot, &QCustomPlot::mousePress, this, &FrmPlot::onMousePress);
    connect(plot, &QCustomPlot::mouseRelease, this, &FrmPlot::onMouseRelease);
    connect(grdTraces, &QTableWidget::itemChanged, this, [this](QTableWidgetItem* item) {
        if (item->column() != Name || item->row() >= traceCount())
            return;
        Trace& t = *m_traces[size_t(item->row())];
        t.graph->setVisible(item->checkState() == Qt::Checked);
        if (t.axis)
            t.axis->setVisible(t.graph->visible());
        redraw();
    });
    connect(grdTraces, &QTableWidget::customContextMenuRequested, this, [this](QPoint at) {
        const int row = grdTraces->rowAt(at.y());
        if (row < 0)
            return;
        QMenu menu(this);
        menu.addAction(QStringLiteral("&Remove"), this, [this, row] { removeTrace(row); });
        menu.addAction(QStringLiteral("&Edit source"), this, [this, row] {
            txtSource->setText(m_traces[size_t(row)]->source.text());
            txtSource->setFocus();
        });
        menu.exec(grdTraces->viewport()->mapToGlobal(at));
    });
    auto* remove = new QShortcut(QKeySequence::Delete, grdTraces);
    remove->setContext(Qt::WidgetShortcut);
    connect(remove, &QShortcut::activated, this, [this] {
        if (grdTraces->currentRow() >= 0)
            removeTrace(grdTraces->currentRow());
    });
    connect(m_link, &CanLink::framesReceived, this, &FrmPlot::onFrames);
    m_redraw.setInterval(kRedrawMs);
    connect(&m_redraw, &QTimer::timeout, this, [this] {
        // A redraw that takes long (hours of samples in view) waits longer, so that the plot
        // never takes more than a fifth of the time from the trace and the bus.
        if (m_dirty && m_sinceRedraw.elapsed() * 1000000 >= 4 * m_lastRedrawNs)
            redraw();
    });
    m_redraw.start();
    m_sinceRedraw.start();

    // What the user had.
    QSettings s = userSettings();
    spnPeriod->setValue(s.value(QStringLiteral("plot/period"), 100).toInt());
    spnKeep->setValue(s.value(QStringLiteral("plot/keep"), spnKeep->value()).toInt());
    chkShared->setChecked(s.value(QStringLiteral("plot/shared"), false).toBool());
    showKeep();
    for (const QString& text : s.value(QStringLiteral("plot/traces")).toStringList())
        addSource(text);
}

FrmPlot::~FrmPlot() = default;

void FrmPlot::showKeep()
{
    const double mb = double(spnKeep->value()) * SampleRing::kBytesPerSample / 1e6;
    lblKeep->setText(QStringLiteral("at most %1 MB a trace").arg(QLocale().toString(mb, 'f', 0)));
}

void FrmPlot::say(const QString& text)
{
    lblStatus->setText(text);
}

void FrmPlot::saveSettings() const
{
    QSettings s = userSettings();
    QStringList traces;
    for (const auto& t : m_traces)
        traces << t->source.text();
    s.setValue(QStringLiteral("plot/traces"), traces);
    s.setValue(QStringLiteral("plot/period"), spnPeriod->value());
    s.setValue(QStringLiteral("plot/keep"), spnKeep->value());
    s.setValue(QStringLiteral("plot/shared"), chkShared->isChecked());
}

bool FrmPlot::addSource(const QString& text, QString* error)
{
    QString why;
    auto source = PlotSource::parse(text, &why);
    if (!source) {
        say(QStringLiteral("Not added: ") + why);
        if (error)
            *error = why;
        return false;
    }
    if (source->isPeriodic() && source->periodMs == 0)
        source->periodMs = spnPeriod->value();
    if (source->isLive()) {
        addTrace(*source, {}, SampleRing(spnKeep->value()));
        return true;
    }
    // A recording is read beside the window, which goes on meanwhile.
    say(QStringLiteral("Reading %1...").arg(source->path));
    auto result = std::make_shared<FileTrace>();
    const qsizetype keep = spnKeep->value();
    QThread* reader = QThread::create([result, s = *source, keep] {
        *result = readFileTrace(s, keep);
    });
    connect(reader, &QThread::finished, this, [this, result, s = *source] {
        if (!result->error.isEmpty()) {
            say(QStringLiteral("Not added: ") + result->error);
            emit message(result->error);
            return;
        }
        addTrace(s, result->note, std::move(result->ring));
        say(QStringLiteral("%1: %2 values, %3 gaps%4")
                .arg(s.label())
                .arg(result->values)
                .arg(result->gaps)
                .arg(result->note.isEmpty() ? QString() : QStringLiteral("; ") + result->note));
    });
    connect(reader, &QThread::finished, reader, &QObject::deleteLater);
    reader->start();
    return true;
}

void FrmPlot::addTrace(const PlotSource& source, const QString& note, SampleRing ring)
{
    auto t = std::make_unique<Trace>();
    t->source = source;
    t->ring = std::move(ring);
    t->readNote = note;
    t->controller = source.controller >= 0 ? source.controller : m_controller;
    const QColor color = kColors[m_traces.size() % std::size(kColors)];
    t->graph = plot->addGraph(plot->xAxis, plot->yAxis);
    t->graph->setPen(QPen(color, 1)); // a thin pen draws thousands of steep lines quickly
    t->graph->setName(source.label());
    t->graph->setAdaptiveSampling(false); // the window decimates, keeping the extremes
    const int row = grdTraces->rowCount();
    {
        const QSignalBlocker quiet(grdTraces);
        grdTraces->insertRow(row);
        auto* name = new QTableWidgetItem(source.label());
        name->setFlags(name->flags() | Qt::ItemIsUserCheckable);
        name->setCheckState(Qt::Checked);
        name->setForeground(color);
        name->setToolTip(source.text() + (note.isEmpty() ? QString() : QLatin1Char('\n') + note));
        grdTraces->setItem(row, Name, name);
        for (int c = Now; c < ColumnCount; ++c)
            grdTraces->setItem(row, c, new QTableWidgetItem);
    }
    m_traces.push_back(std::move(t));
    placeAxes();
    Trace* added = m_traces.back().get();
    if (source.isPeriodic() && isVisible())
        startSampler(added);
    if (source.isLive())
        say(QStringLiteral("Plotting %1").arg(source.label()));
    m_dirty = true;
}

void FrmPlot::startSampler(Trace* t)
{
    const PlotSource& s = t->source;
    int period = s.periodMs;
    if (s.kind == PlotSource::Kind::Entry) {
        // Every entry plotted on the controller takes its share of the reads' half of the bus.
        int entries = 0;
        for (const auto& other : m_traces)
            entries += other->source.kind == PlotSource::Kind::Entry &&
                       other->controller == t->controller;
        QString error;
        const int rateIndex = m_link->bitRate(t->controller, &error).value_or(-1);
        const int smallest = smallestSamplePeriodMs(qorcalib::bitRateOfIndex(rateIndex), entries);
        if (period < smallest) {
            // As tessel-cli sample says it, with the entries that share the bus.
            say(QStringLiteral("%1 ms is below the shortest period%2%3: every %4 ms")
                    .arg(period)
                    .arg(rateIndex < 0 ? QString()
                                       : QStringLiteral(" at ") + qorcalib::bitRateText(rateIndex))
                    .arg(entries > 1 ? QStringLiteral(" for %1 entries").arg(entries) : QString())
                    .arg(smallest));
            period = smallest;
        }
    }
    LiveSampler::Target target;
    target.analog = s.kind == PlotSource::Kind::Analog;
    target.controller = t->controller;
    target.node = s.node;
    target.index = s.index;
    target.subIndex = s.subIndex;
    target.type = s.type;
    target.channel = s.channel;
    target.acquireFirst = s.latched;
    t->sampler = std::make_unique<LiveSampler>(m_link, target, period, &m_clock);
    connect(t->sampler.get(), &LiveSampler::sampled, this, [this, t](double at, double v) {
        t->ring.append(at, v);
        m_dirty = true;
    });
    connect(t->sampler.get(), &LiveSampler::failed, this, [this, t](double at, const QString& why) {
        t->ring.appendGap(at, why);
        m_dirty = true;
    });
    t->sampler->start();
}

void FrmPlot::removeTrace(int row)
{
    if (row < 0 || row >= traceCount())
        return;
    Trace& t = *m_traces[size_t(row)];
    t.sampler.reset();
    plot->removeGraph(t.graph);
    if (t.axis)
        plot->axisRect()->removeAxis(t.axis);
    m_traces.erase(m_traces.begin() + row);
    grdTraces->removeRow(row);
    placeAxes();
    redraw();
}

void FrmPlot::placeAxes()
{
    plot->legend->setVisible(!m_traces.empty());
    const bool shared = chkShared->isChecked();
    plot->yAxis->setVisible(shared && !m_traces.empty());
    for (auto& t : m_traces) {
        if (shared && t->axis) {
            t->graph->setValueAxis(plot->yAxis);
            plot->axisRect()->removeAxis(t->axis);
            t->axis = nullptr;
        } else if (!shared && !t->axis) {
            t->axis = plot->axisRect()->addAxis(QCPAxis::atLeft);
            t->axis->setBasePen(t->graph->pen());
            t->axis->setTickLabelColor(t->graph->pen().color());
            t->axis->setVisible(t->graph->visible());
            t->graph->setValueAxis(t->axis);
        }
    }
}

void FrmPlot::setFollowing(bool following)
{
    m_following = following;
    const QSignalBlocker quiet(cmdPause);
    cmdPause->setChecked(!following);
    cmdPause->setText(following ? QStringLiteral("&Pause") : QStringLiteral("&Resume"));
    m_dirty = true;
}

double FrmPlot::frameTime(quint32 serverUs)
{
    // The server's clock counts microseconds and wraps; frames are put on the plot's clock by
    // where the two met. A server that started again, or a clock that drifted a second away, is
    // met anew.
    if (m_anchored && serverUs < m_lastServerUs && m_lastServerUs - serverUs > 0x80000000u)
        ++m_serverWraps;
    m_lastServerUs = serverUs;
    const qint64 server = (m_serverWraps << 32) + serverUs;
    const double now = double(m_clock.nsecsElapsed()) / 1e9;
    double t = m_anchorClock + double(server - m_anchorServer) / 1e6;
    if (!m_anchored || std::fabs(t - now) > 1.0) {
        m_anchored = true;
        m_anchorClock = now;
        m_anchorServer = server;
        t = now;
    }
    return t;
}

void FrmPlot::onFrames(int controller, const QByteArray& records, int count)
{
    bool wanted = false;
    for (const auto& t : m_traces)
        wanted |= t->source.kind == PlotSource::Kind::Frame && t->controller == controller;
    if (!wanted)
        return;
    for (int i = 0; i < count; ++i) {
        const qorcalib::CanFrame f = qorcalib::recordAt(records, i);
        if (f.remote)
            continue;
        double at = -1;
        for (auto& t : m_traces) {
            if (t->source.kind != PlotSource::Kind::Frame || t->controller != controller ||
                t->source.id != f.id)
                continue;
            if (at < 0)
                at = frameTime(f.timeUs);
            if (const auto v =
                    t->source.fieldValue(reinterpret_cast<const char*>(f.data.data()), f.len))
                t->ring.append(at, *v);
            else
                t->ring.appendGap(at, QStringLiteral("%1 bytes, the field needs %2")
                                          .arg(f.len)
                                          .arg((t->source.bit + t->source.bits + 7) / 8));
            m_dirty = true;
        }
    }
}

void FrmPlot::redraw()
{
    QElapsedTimer took;
    took.start();
    if (m_following) {
        // The newest time of any trace, or the clock for live ones.
        double newest = 0;
        bool live = false;
        for (const auto& t : m_traces) {
            live |= t->source.isLive();
            if (!t->ring.isEmpty())
                newest = qMax(newest, t->ring.last().t);
        }
        if (live)
            newest = qMax(newest, double(m_clock.nsecsElapsed()) / 1e9);
        const double span = plot->xAxis->range().size();
        m_settingRange = true;
        plot->xAxis->setRange(qMax(0.0, newest - span), qMax(span, newest));
        m_settingRange = false;
    }
    const QCPRange range = plot->xAxis->range();
    const int columns = qMax(1, plot->axisRect()->width());
    QCPRange shared;
    bool sharedFound = false;
    for (auto& t : m_traces) {
        const QVector<QPointF> points = decimate(t->ring, range.lower, range.upper, columns);
        QVector<QCPGraphData> data;
        data.reserve(points.size());
        QCPRange values;
        bool found = false;
        for (const QPointF& p : points) {
            data.append(QCPGraphData(p.x(), p.y()));
            if (std::isnan(p.y()))
                continue;
            if (!found)
                values = QCPRange(p.y(), p.y());
            values.expand(p.y());
            found = true;
        }
        t->graph->data()->set(data, true);
        if (!found || !t->graph->visible())
            continue;
        if (values.size() == 0)
            values = QCPRange(values.lower - 1, values.upper + 1);
        const double margin = values.size() * 0.05;
        values = QCPRange(values.lower - margin, values.upper + margin);
        if (t->axis)
            t->axis->setRange(values);
        if (!sharedFound)
            shared = values;
        shared.expand(values);
        sharedFound = true;
    }
    if (sharedFound)
        plot->yAxis->setRange(shared);
    plot->replot(QCustomPlot::rpQueuedReplot);
    updateTable();
    m_dirty = false;
    m_lastRedrawNs = took.nsecsElapsed();
    m_sinceRedraw.restart();
}

QString FrmPlot::valueText(const Trace& t, double at) const
{
    const Sample* s = t.ring.valueAt(at);
    if (!s)
        return {};
    return s->isGap() ? QStringLiteral("gap: ") + t.ring.gapReason(s->t) : shownText(s->v);
}

void FrmPlot::updateTable()
{
    const QSignalBlocker quiet(grdTraces);
    for (int row = 0; row < traceCount(); ++row) {
        const Trace& t = *m_traces[size_t(row)];
        const SampleRing& r = t.ring;
        grdTraces->item(row, Now)->setText(r.isEmpty() ? QString() : valueText(t, r.last().t));
        for (int c = 0; c < 2; ++c)
            grdTraces->item(row, AtA + c)->setText(m_cursorAt[c] < 0 ? QString()
                                                                     : valueText(t, m_cursorAt[c]));
        const Sample* a = m_cursorAt[0] < 0 ? nullptr : r.valueAt(m_cursorAt[0]);
        const Sample* b = m_cursorAt[1] < 0 ? nullptr : r.valueAt(m_cursorAt[1]);
        grdTraces->item(row, Difference)
            ->setText(a && b && !a->isGap() && !b->isGap() ? shownText(b->v - a->v) : QString());
        grdTraces->item(row, Samples)
            ->setText(QLocale().toString(r.size()) +
                      (r.dropped() > 0 ? QStringLiteral(" (+%1 gone)").arg(r.dropped())
                                       : QString()));
    }
}

void FrmPlot::setCursorAt(int cursor, double t)
{
    m_cursorAt[cursor] = t;
    m_cursor[cursor]->point1->setCoords(t, 0);
    m_cursor[cursor]->point2->setCoords(t, 1);
    m_cursor[cursor]->setVisible(true);
    QString text = QStringLiteral("A %1").arg(m_cursorAt[0] < 0 ? QStringLiteral("-")
                                                                : secondsText(m_cursorAt[0]));
    if (m_cursorAt[1] >= 0)
        text += QStringLiteral("   B %1").arg(secondsText(m_cursorAt[1]));
    if (m_cursorAt[0] >= 0 && m_cursorAt[1] >= 0)
        text += QStringLiteral("   B - A %1").arg(secondsText(m_cursorAt[1] - m_cursorAt[0]));
    say(text);
    updateTable();
    plot->replot(QCustomPlot::rpQueuedReplot);
}

void FrmPlot::onMousePress(QMouseEvent* event)
{
    m_pressedAt = event->pos();
}

void FrmPlot::onMouseRelease(QMouseEvent* event)
{
    // A click, not the end of a drag.
    if ((event->pos() - m_pressedAt).manhattanLength() > 3)
        return;
    const double t = plot->xAxis->pixelToCoord(event->pos().x());
    const bool second =
        event->button() == Qt::RightButton || (event->modifiers() & Qt::ShiftModifier);
    setCursorAt(second ? 1 : 0, qMax(0.0, t));
}

bool FrmPlot::exportCsv(const QString& path, QString* error)
{
    QVector<NamedRing> shown;
    for (const auto& t : m_traces)
        if (t->graph->visible())
            shown.append({t->source.label(), &t->ring});
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        !writeSamplesCsv(&file, shown, plot->xAxis->range().lower, plot->xAxis->range().upper) ||
        !file.commit()) {
        *error = QStringLiteral("Cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    say(QStringLiteral("Saved %1").arg(path));
    return true;
}

bool FrmPlot::exportPng(const QString& path, QString* error)
{
    if (!plot->savePng(path)) {
        *error = QStringLiteral("Cannot write the picture to %1").arg(path);
        return false;
    }
    say(QStringLiteral("Saved %1").arg(path));
    return true;
}

void FrmPlot::showEvent(QShowEvent* event)
{
    for (auto& t : m_traces)
        if (t->source.isPeriodic() && !t->sampler)
            startSampler(t.get());
    QWidget::showEvent(event);
}

void FrmPlot::closeEvent(QCloseEvent* event)
{
    for (auto& t : m_traces)
        t->sampler.reset();
    saveSettings();
    QWidget::closeEvent(event);
}

} // namespace tessel

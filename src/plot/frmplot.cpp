#include "frmplot.h"

#include "machinesettings.h"
#include "sampling.h"
#include "traceset.h"

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

FrmPlot::FrmPlot(CanLink* link, QWidget* parent)
    : QWidget(parent, Qt::Window), m_set(new TraceSet(link, this))
{
    setObjectName(QStringLiteral("frmPlot"));
    setWindowTitle(QStringLiteral("Plot"));

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
        m_set->setCapacity(keep);
        showKeep();
    });
    connect(spnPeriod, &QSpinBox::valueChanged, m_set, &TraceSet::setPeriodMs);
    connect(cmdClear, &QPushButton::clicked, this, [this] {
        m_set->clearValues();
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
        Drawn& d = m_drawn[size_t(item->row())];
        d.graph->setVisible(item->checkState() == Qt::Checked);
        if (d.axis)
            d.axis->setVisible(d.graph->visible());
        redraw();
    });
    connect(grdTraces, &QTableWidget::customContextMenuRequested, this, [this](QPoint at) {
        const int row = grdTraces->rowAt(at.y());
        if (row < 0)
            return;
        QMenu menu(this);
        menu.addAction(QStringLiteral("&Remove"), this, [this, row] { removeTrace(row); });
        menu.addAction(QStringLiteral("&Edit source"), this, [this, row] {
            txtSource->setText(m_set->at(row).source.text());
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
    connect(m_set, &TraceSet::traceAdded, this, &FrmPlot::showTrace);
    connect(m_set, &TraceSet::valuesChanged, this, [this] { m_dirty = true; });
    connect(m_set, &TraceSet::said, this, &FrmPlot::say);
    connect(m_set, &TraceSet::failed, this, [this](const QString& error) {
        say(QStringLiteral("Not added: ") + error);
        emit message(error);
    });
    m_redraw.setInterval(kRedrawMs);
    connect(&m_redraw, &QTimer::timeout, this, [this] {
        // Following live traces, the time axis moves on even when no value came. A redraw that
        // takes long (hours of samples in view) waits longer, so that the plot never takes more
        // than a fifth of the time from the trace and the bus.
        const bool moving = m_following && isVisible() && m_set->hasLive();
        if ((m_dirty || moving) && m_sinceRedraw.elapsed() * 1000000 >= 4 * m_lastRedrawNs)
            redraw();
    });
    m_redraw.start();
    m_sinceRedraw.start();

    // What the user had.
    QSettings s = userSettings();
    spnPeriod->setValue(s.value(QStringLiteral("plot/period"), 100).toInt());
    m_set->setPeriodMs(spnPeriod->value());
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
    for (int i = 0; i < m_set->count(); ++i)
        traces << m_set->at(i).source.text();
    s.setValue(QStringLiteral("plot/traces"), traces);
    s.setValue(QStringLiteral("plot/period"), spnPeriod->value());
    s.setValue(QStringLiteral("plot/keep"), spnKeep->value());
    s.setValue(QStringLiteral("plot/shared"), chkShared->isChecked());
}

void FrmPlot::setController(int controller)
{
    m_set->setController(controller);
}

int FrmPlot::traceCount() const
{
    return m_set->count();
}

const SampleRing& FrmPlot::ring(int trace) const
{
    return m_set->at(trace).ring;
}

QString FrmPlot::traceName(int trace) const
{
    return m_set->at(trace).source.label();
}

bool FrmPlot::addSource(const QString& text, QString* error)
{
    QString why;
    if (m_set->add(text, &why))
        return true;
    say(QStringLiteral("Not added: ") + why);
    if (error)
        *error = why;
    return false;
}

void FrmPlot::showTrace(int trace)
{
    const TraceSet::Trace& t = m_set->at(trace);
    const QColor color = kColors[size_t(trace) % std::size(kColors)];
    Drawn d;
    d.graph = plot->addGraph(plot->xAxis, plot->yAxis);
    d.graph->setPen(QPen(color, 1)); // a thin pen draws thousands of steep lines quickly
    d.graph->setName(t.source.label());
    d.graph->setAdaptiveSampling(false); // the window decimates, keeping the extremes
    m_drawn.push_back(d);
    {
        const QSignalBlocker quiet(grdTraces);
        grdTraces->insertRow(trace);
        auto* name = new QTableWidgetItem(t.source.label());
        name->setFlags(name->flags() | Qt::ItemIsUserCheckable);
        name->setCheckState(Qt::Checked);
        name->setForeground(color);
        name->setToolTip(t.source.text() +
                         (t.note.isEmpty() ? QString() : QLatin1Char('\n') + t.note));
        grdTraces->setItem(trace, Name, name);
        for (int c = Now; c < ColumnCount; ++c)
            grdTraces->setItem(trace, c, new QTableWidgetItem);
    }
    placeAxes();
    if (t.source.isLive())
        say(QStringLiteral("Plotting %1").arg(t.source.label()));
    m_dirty = true;
}

void FrmPlot::removeTrace(int row)
{
    if (row < 0 || row >= traceCount())
        return;
    const Drawn d = m_drawn[size_t(row)];
    plot->removeGraph(d.graph);
    if (d.axis)
        plot->axisRect()->removeAxis(d.axis);
    m_drawn.erase(m_drawn.begin() + row);
    m_set->remove(row);
    grdTraces->removeRow(row);
    placeAxes();
    redraw();
}

void FrmPlot::placeAxes()
{
    plot->legend->setVisible(!m_drawn.empty());
    const bool shared = chkShared->isChecked();
    plot->yAxis->setVisible(shared && !m_drawn.empty());
    for (Drawn& d : m_drawn) {
        if (shared && d.axis) {
            d.graph->setValueAxis(plot->yAxis);
            plot->axisRect()->removeAxis(d.axis);
            d.axis = nullptr;
        } else if (!shared && !d.axis) {
            d.axis = plot->axisRect()->addAxis(QCPAxis::atLeft);
            d.axis->setBasePen(d.graph->pen());
            d.axis->setTickLabelColor(d.graph->pen().color());
            d.axis->setVisible(d.graph->visible());
            d.graph->setValueAxis(d.axis);
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

void FrmPlot::redraw()
{
    QElapsedTimer took;
    took.start();
    if (m_following) {
        const double newest = m_set->newest();
        const double span = plot->xAxis->range().size();
        m_settingRange = true;
        plot->xAxis->setRange(qMax(0.0, newest - span), qMax(span, newest));
        m_settingRange = false;
    }
    const QCPRange range = plot->xAxis->range();
    const int columns = qMax(1, plot->axisRect()->width());
    QCPRange shared;
    bool sharedFound = false;
    for (int i = 0; i < m_set->count(); ++i) {
        Drawn& d = m_drawn[size_t(i)];
        const QVector<QPointF> points =
            decimate(m_set->at(i).ring, range.lower, range.upper, columns);
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
        d.graph->data()->set(data, true);
        if (!found || !d.graph->visible())
            continue;
        if (values.size() == 0)
            values = QCPRange(values.lower - 1, values.upper + 1);
        const double margin = values.size() * 0.05;
        values = QCPRange(values.lower - margin, values.upper + margin);
        if (d.axis)
            d.axis->setRange(values);
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

QString FrmPlot::valueText(const SampleRing& ring, double at) const
{
    const Sample* s = ring.valueAt(at);
    if (!s)
        return {};
    return s->isGap() ? QStringLiteral("gap: ") + ring.gapReason(s->t) : shownText(s->v);
}

void FrmPlot::updateTable()
{
    const QSignalBlocker quiet(grdTraces);
    for (int row = 0; row < traceCount(); ++row) {
        const SampleRing& r = m_set->at(row).ring;
        grdTraces->item(row, Now)->setText(r.isEmpty() ? QString() : valueText(r, r.last().t));
        for (int c = 0; c < 2; ++c)
            grdTraces->item(row, AtA + c)
                ->setText(m_cursorAt[c] < 0 ? QString() : valueText(r, m_cursorAt[c]));
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
    for (int i = 0; i < m_set->count(); ++i)
        if (m_drawn[size_t(i)].graph->visible())
            shown.append({m_set->at(i).source.label(), &m_set->at(i).ring});
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
    m_set->startReads();
    QWidget::showEvent(event);
}

void FrmPlot::closeEvent(QCloseEvent* event)
{
    m_set->stopReads();
    saveSettings();
    QWidget::closeEvent(event);
}

} // namespace tessel

#include "frmacq.h"

#include "benchcontrol.h"
#include "benchport.h"
#include "plotsource.h"
#include "windowplacement.h"

#include <QCheckBox>
#include <QFontDatabase>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QMenu>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace tessel {

FrmAcq::FrmAcq(const FixtureDescription& description, BenchControl* control,
               const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_description(description), m_control(control),
      m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(description.objectName);
    setWindowTitle(description.caption);

    auto* boxes = new QGridLayout;
    int row = 0;
    for (const FixtureOutput& o : description.outputs) {
        auto* box = new QCheckBox(o.caption, this);
        box->setObjectName(QStringLiteral("chkDig_%1").arg(o.channel));
        box->setToolTip(QStringLiteral("Fixture output %1").arg(o.channel));
        box->setVisible(!o.hiddenInForm);
        connect(box, &QCheckBox::toggled, this, [this, ch = o.channel] { chkDig_Click(ch); });
        chkDig.insert(o.channel, box);
        boxes->addWidget(box, row++, 0);
    }
    boxes->setRowStretch(row, 1);

    Text1 = new QPlainTextEdit(this);
    Text1->setObjectName(QStringLiteral("Text1"));
    Text1->setReadOnly(true);
    Text1->setLineWrapMode(QPlainTextEdit::NoWrap);
    Text1->setToolTip(QStringLiteral("The fixture's door switches (H closed, L open) and analog "
                                     "channels, as last read"));
    if (description.fixedFont) {
        QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        font.setFamilies({QStringLiteral("Lucida Console"), font.family()});
        Text1->setFont(font);
    }

    // What each line of the read-out measures, and in which unit; the read-out itself keeps the
    // lines the bench logs know.
    trvLegend = new QTreeWidget(this);
    trvLegend->setObjectName(QStringLiteral("trvLegend"));
    trvLegend->setHeaderLabels(
        {QStringLiteral("Line"), QStringLiteral("Unit"), QStringLiteral("Measures")});
    trvLegend->setRootIsDecorated(false);
    trvLegend->setToolTip(QStringLiteral("What each line of the read-out measures; the context "
                                         "menu plots a channel"));
    trvLegend->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(trvLegend, &QTreeWidget::customContextMenuRequested, this, [this](QPoint at) {
        const QTreeWidgetItem* item = trvLegend->itemAt(at);
        const int channel = item ? item->data(0, Qt::UserRole).toInt() : -1;
        if (channel < 0)
            return;
        PlotSource analog;
        analog.kind = PlotSource::Kind::Analog;
        analog.channel = channel;
        analog.latched = m_description.acquireFirst;
        analog.name = item->text(0);
        const QString source = analog.text();
        QMenu menu(this);
        menu.addAction(QStringLiteral("&Plot %1").arg(item->text(0)), this,
                       [this, source] { emit plotRequested(source); });
        menu.exec(trvLegend->viewport()->mapToGlobal(at));
    });

    Check1 = new QCheckBox(QStringLiteral("Auto refresh"), this);
    Check1->setObjectName(QStringLiteral("Check1"));
    Check1->setToolTip(QStringLiteral("Read the fixture every half second"));
    cmdRefresh = new QPushButton(QStringLiteral("&Refresh"), this);
    cmdRefresh->setObjectName(description.refreshName);
    cmdRefresh->setToolTip(QStringLiteral("Read the fixture once"));
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(Check1);
    buttons->addStretch();
    if (description.hasArm) {
        cmdArm = new QPushButton(QStringLiteral("&Arm"), this);
        cmdArm->setObjectName(QStringLiteral("Command1"));
        cmdArm->setToolTip(QStringLiteral("Arm the fixture's trigger"));
        connect(cmdArm, &QPushButton::clicked, this, &FrmAcq::cmdArm_Click);
        buttons->addWidget(cmdArm);
    }
    if (description.hasGet) {
        cmdGet = new QPushButton(QStringLiteral("&Get"), this);
        cmdGet->setObjectName(QStringLiteral("Command2"));
        cmdGet->setToolTip(QStringLiteral("Read the fixture once"));
        connect(cmdGet, &QPushButton::clicked, this, &FrmAcq::refresh);
        buttons->addWidget(cmdGet);
    }
    buttons->addWidget(cmdRefresh);

    auto* top = new QHBoxLayout;
    top->addLayout(boxes);
    top->addWidget(Text1, 1);
    top->addWidget(trvLegend, 2);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top, 1);
    layout->addLayout(buttons);
    const int lines = description.channelCount + int(description.doors.size());
    resize(description.fixedFont ? 800 : 760, std::max(300, 90 + lines * 17));
    showLegend();

    Timer1.setInterval(kRefreshMs);
    connect(&Timer1, &QTimer::timeout, this, &FrmAcq::Timer1_Timer);
    connect(Check1, &QCheckBox::toggled, this, &FrmAcq::Check1_Click);
    connect(cmdRefresh, &QPushButton::clicked, this, &FrmAcq::refresh);
    // The same output switched from the main window's bench panel shows here too.
    connect(m_control, &BenchControl::outputChanged, this, [this](int channel, bool state) {
        if (QCheckBox* box = chkDig.value(channel)) {
            const QSignalBlocker quiet(box);
            box->setChecked(state);
        }
    });
}

void FrmAcq::setBenchType(int type)
{
    m_benchType = type;
    for (const FixtureOutput& o : m_description.outputs) {
        QCheckBox* box = chkDig.value(o.channel);
        box->setEnabled(fixtureOutputEnabled(m_description, o, type));
        box->setVisible(fixtureOutputVisible(m_description, o, type));
        const QSignalBlocker quiet(box);
        box->setChecked(m_control->knownOutput(o.channel).value_or(false));
    }
    showLegend();
}

void FrmAcq::showLegend()
{
    trvLegend->clear();
    for (const FixtureLegendRow& row : fixtureLegend(m_description, m_benchType)) {
        auto* item = new QTreeWidgetItem(trvLegend, {row.line, row.unit, row.meaning});
        item->setData(0, Qt::UserRole, row.channel);
        item->setToolTip(2, row.meaning);
    }
    for (int column = 0; column < 2; ++column)
        trvLegend->resizeColumnToContents(column);
}

void FrmAcq::chkDig_Click(int channel)
{
    QCheckBox* box = chkDig.value(channel);
    const QString error = m_control->setOutput(channel, box->isChecked());
    if (error.isEmpty())
        return;
    // The box shows what the output is: the switch did not happen.
    {
        const QSignalBlocker quiet(box);
        box->setChecked(!box->isChecked());
    }
    emit message(error);
}

void FrmAcq::Check1_Click()
{
    if (Check1->isChecked())
        Timer1.start();
    else
        Timer1.stop();
}

void FrmAcq::Timer1_Timer()
{
    refresh();
}

void FrmAcq::refresh()
{
    // The calls wait with events running: a refresh asked for meanwhile (a tick, "Get") must not
    // start inside the first.
    if (m_refreshing)
        return;
    m_refreshing = true;
    const FixtureReadout r = readFixture(m_description, m_benchType, m_control->port());
    m_refreshing = false;
    if (!r.text.isEmpty() || r.error.isEmpty()) {
        m_readout = r.text;
        Text1->setPlainText(QString(r.text).replace(QLatin1String("\r\n"), QLatin1String("\n")));
    }
    if (!r.error.isEmpty())
        fail(r.error);
}

void FrmAcq::fail(const QString& error)
{
    // Auto refresh stops before the message, so that it is said once and not at every tick.
    const bool automatic = Timer1.isActive();
    Check1->setChecked(false);
    emit message(automatic ? QStringLiteral("Auto refresh stopped: %1").arg(error) : error);
}

void FrmAcq::cmdArm_Click()
{
    const QString error = m_control->port()->arm();
    if (!error.isEmpty())
        emit message(error);
}

void FrmAcq::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

void FrmAcq::hideEvent(QHideEvent* event)
{
    // A closed window refreshes no more, and opens again without auto refresh; one hidden with
    // its desktop (minimized) carries on.
    if (!event->spontaneous())
        Check1->setChecked(false);
    QWidget::hideEvent(event);
}

} // namespace tessel

#include "frmdiagno.h"

#include <algorithm>

#include "canmsg.h"
#include "windowplacement.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QFontDatabase>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QVBoxLayout>

namespace tessel {

FrmDiagno::FrmDiagno(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window),
      m_placement(placement),
      m_mainWindow(mainWindow),
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
    chTrace->setToolTip(QStringLiteral("Trace the frames this program sends"));
    top->addWidget(chTrace);
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
                                           "program (SDO, LSS)"));
    top->addWidget(chkEnShowTx);
    chkEnAllRx = new QCheckBox(QStringLiteral("En All Rx"), this);
    chkEnAllRx->setObjectName(QStringLiteral("chkEnAllRx"));
    chkEnAllRx->setToolTip(QStringLiteral("Receive every frame of the bus, including other "
                                          "clients' SDO and LSS exchanges"));
    top->addWidget(chkEnAllRx);
    top->addStretch();

    edTrace = new QPlainTextEdit(this);
    edTrace->setObjectName(QStringLiteral("edTrace"));
    edTrace->setReadOnly(true);
    edTrace->setLineWrapMode(QPlainTextEdit::NoWrap);
    edTrace->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    edTrace->setUndoRedoEnabled(false);

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

    auto* middle = new QHBoxLayout;
    middle->addWidget(edTrace, 1);
    middle->addWidget(filter);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addLayout(middle, 1);

    connect(btnRes, &QPushButton::clicked, this, [this] {
        m_trace.clear();
        refreshTrace();
    });
    connect(chTrace, &QCheckBox::toggled, this, &FrmDiagno::traceSwitchChanged);
    connect(chkEnShowTx, &QCheckBox::toggled, this, &FrmDiagno::showTransmitChanged);
    connect(chkEnAllRx, &QCheckBox::toggled, this, &FrmDiagno::receiveAllChanged);

    resize(720, 420);
    m_loadSize = size();
    m_refresh.setInterval(kRefreshMs);
    connect(&m_refresh, &QTimer::timeout, this, &FrmDiagno::refreshTrace);
    m_refresh.start();
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
    m_trace.append(traceLine(channel, kind, id, timeUs, qMin(length, 8), data, m_decimalPoint));
}

void FrmDiagno::receiveFrame(int channel, quint32 id, quint32 timeUs, const quint8* data,
                             int length)
{
    if (!m_filter.passes(id))
        return;
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
    const TraceBuffer::Change change = m_trace.takeChange();
    if (!change.replaced && change.added == 0)
        return;
    QScrollBar* bar = edTrace->verticalScrollBar();
    // The view follows the newest line only while it shows it: a user who scrolled up to read
    // keeps the lines in view.
    const bool atBottom = bar->value() >= bar->maximum();
    const int kept = bar->value();
    QString text = change.replaced ? m_trace.text() : m_trace.text().right(change.added);
    text.replace(QLatin1String("\r\n"), QLatin1String("\n"));
    if (change.replaced) {
        edTrace->setPlainText(text);
    } else {
        QTextCursor cursor(edTrace->document());
        cursor.movePosition(QTextCursor::End);
        cursor.insertText(text);
    }
    bar->setValue(atBottom ? bar->maximum() : std::min(kept, bar->maximum()));
}

QString FrmDiagno::screenText() const
{
    return edTrace->toPlainText();
}

void FrmDiagno::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (!m_positioned) {
        m_positioned = true;
        if (m_placement && m_mainWindow)
            m_placement->placeNearMain(this, m_mainWindow);
        m_loadSize = size();
    }
}

void FrmDiagno::closeEvent(QCloseEvent* event)
{
    // The monitor is never destroyed while the program runs: its trace and lists survive.
    event->ignore();
    hide();
    resize(m_loadSize);
}

} // namespace tessel

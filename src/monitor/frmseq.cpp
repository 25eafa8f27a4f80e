#include "frmseq.h"

#include "frmdiagno.h"
#include "windowplacement.h"

#include <QCheckBox>
#include <QCloseEvent>
#include <QElapsedTimer>
#include <QFontDatabase>
#include <QGridLayout>
#include <QLineEdit>

namespace tessel {

class FrmSeq::Timer : public RowTimer
{
public:
    explicit Timer(QTimer* timer) : m_timer(timer) { m_clock.start(); }
    void start(int ms) override { m_timer->start(ms); }
    void stop() override { m_timer->stop(); }
    qint64 nowMs() const override { return m_clock.elapsed(); }

private:
    QTimer* m_timer;
    QElapsedTimer m_clock;
};

FrmSeq::FrmSeq(FrmDiagno* monitor, const WindowPlacement* placement, QWidget* mainWindow,
               QWidget* parent)
    : QWidget(parent, Qt::Window), m_monitor(monitor), m_placement(placement),
      m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmSeq"));
    setWindowTitle(QStringLiteral("Sequenziatore"));
    auto* grid = new QGridLayout(this);
    const QString hint =
        QStringLiteral("M1 T0.5 M2 T1: invia M1, attende 0.5sec, invia M2, attende 1sec");
    for (int i = 0; i < kRows; ++i) {
        chkEn[i] = new QCheckBox(QStringLiteral("%1").arg(i + 1), this);
        chkEn[i]->setObjectName(QStringLiteral("chkEn_%1").arg(i));
        chkEn[i]->setToolTip(QStringLiteral("Run this sequence, repeating it, until cleared"));
        txtSeq[i] = new QLineEdit(this);
        txtSeq[i]->setObjectName(QStringLiteral("txtSeq_%1").arg(i));
        txtSeq[i]->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
        txtSeq[i]->setPlaceholderText(hint);
        txtSeq[i]->setToolTip(QStringLiteral("Mn sends slot n (Send n), Tx waits x seconds "
                                             "(at most T65.535); blanks between the tokens"));
        txtSeq[i]->setMinimumWidth(420);
        grid->addWidget(chkEn[i], i, 0);
        grid->addWidget(txtSeq[i], i, 1);

        tmrSeq[i] = new QTimer(this);
        tmrSeq[i]->setSingleShot(true);
        tmrSeq[i]->setTimerType(Qt::PreciseTimer);
        m_timers[i] = std::make_unique<Timer>(tmrSeq[i]);
        SequenceRow::Hooks hooks;
        hooks.sendSlot = [this](int slot) { return m_monitor->sendSlot(slot); };
        hooks.stopped = [this, i](const QString& why) {
            chkEn[i]->setChecked(false);
            if (!why.isEmpty())
                emit message(QStringLiteral("Row %1: %2").arg(i + 1).arg(why));
        };
        m_rows[i] = std::make_unique<SequenceRow>(m_timers[i].get(), hooks);
        connect(tmrSeq[i], &QTimer::timeout, this, [this, i] { m_rows[i]->onTimer(); });
        connect(chkEn[i], &QCheckBox::toggled, this, [this, i] { chkEn_Click(i); });
        connect(txtSeq[i], &QLineEdit::textChanged, this, [this, i](const QString& text) {
            m_rows[i]->setText(text);
            // The monitor always holds what the boxes show, as they are typed: a
            // configuration saved while this window is open has them, and closing the
            // window loses none.
            m_monitor->setSequenceText(i, text);
        });
    }
    for (int i = 0; i < kRows; ++i)
        txtSeq[i]->setText(m_monitor->sequenceText(i));
    for (int i = 1; i < kRows; ++i) {
        setTabOrder(chkEn[i - 1], txtSeq[i - 1]);
        setTabOrder(txtSeq[i - 1], chkEn[i]);
    }
    setTabOrder(chkEn[kRows - 1], txtSeq[kRows - 1]);
    adjustSize();
}

FrmSeq::~FrmSeq()
{
    for (QTimer* t : tmrSeq)
        t->stop();
}

void FrmSeq::chkEn_Click(int index)
{
    const bool on = chkEn[index]->isChecked();
    if (on && !isVisible()) {
        // A row starts only from the window the user sees.
        return;
    }
    m_rows[index]->setText(txtSeq[index]->text());
    m_rows[index]->setEnabled(on);
    // A running row's text is locked.
    txtSeq[index]->setEnabled(!on);
}

void FrmSeq::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_loaded);
}

void FrmSeq::closeEvent(QCloseEvent* event)
{
    // Closing stops every row; the texts stay with the monitor.
    for (int i = 0; i < kRows; ++i)
        chkEn[i]->setChecked(false);
    WindowPlacement::saveGeometry(this, objectName());
    QWidget::closeEvent(event);
}

} // namespace tessel

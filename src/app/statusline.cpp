#include "statusline.h"

#include "elidedlabel.h"
#include "numbers.h"
#include "sdoabort.h"
#include "serverconnection.h"

#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStatusBar>

namespace tessel {

QString controllerStatusText(quint32 bits)
{
    QString text;
    if (bits & qorcalib::StatusOverrun)
        text += QStringLiteral("OR ");
    if (bits & qorcalib::StatusTransmitPending)
        text += QStringLiteral("TX ");
    if (bits & qorcalib::StatusErrorWarning)
        text += QStringLiteral("EW ");
    if (bits & qorcalib::StatusBusOff)
        text += QStringLiteral("BO ");
    while (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    return text;
}

StatusLine::StatusLine(QStatusBar* bar) : QObject(bar)
{
    for (int i = 0; i <= kRows; ++i) {
        sbrStato[i] = new QLabel(bar);
        sbrStato[i]->setObjectName(QStringLiteral("sbrStato_%1").arg(i));
        // A controller's flags are short ("OR TX"): room for what was done beside them.
        sbrStato[i]->setMinimumWidth(i == 0 ? 120 : 0);
        bar->addWidget(sbrStato[i]);
    }
    for (int i = 1; i <= kRows; ++i)
        sbrStato[i]->setToolTip(QStringLiteral("Status of controller %1: OR overrun, TX "
                                               "transmit pending, EW error warning, BO bus off")
                                    .arg(i - 1));
    sbrDone = new ElidedLabel(bar);
    sbrDone->setObjectName(QStringLiteral("sbrDone"));
    bar->addWidget(sbrDone, 3);
    cmdFollowRate = new QPushButton(bar);
    cmdFollowRate->setObjectName(QStringLiteral("cmdFollowRate"));
    cmdFollowRate->setToolTip(QStringLiteral("Switch the controller to the bit rate LSS Set gave "
                                             "its drive, once the drive has been reset"));
    cmdFollowRate->hide();
    bar->addWidget(cmdFollowRate);
    connect(cmdFollowRate, &QPushButton::clicked, this, [this] {
        const int controller = cmdFollowRate->property("controller").toInt();
        const int rate = cmdFollowRate->property("rate").toInt();
        emit rateFollowed(controller, rate);
        reportDone(QStringLiteral("CAN %1 now runs at %2, the bit rate LSS Set gave its drive")
                       .arg(controller)
                       .arg(qorcalib::bitRateText(rate)));
    });
    prbStato = new QProgressBar(bar);
    prbStato->setObjectName(QStringLiteral("prbStato"));
    prbStato->setRange(0, 100);
    prbStato->setValue(0);
    prbStato->setMaximumWidth(140);
    prbStato->setToolTip(QStringLiteral("Progress of the running transfer"));
    bar->addPermanentWidget(prbStato);
}

void StatusLine::reportDone(const QString& text)
{
    cmdFollowRate->hide();
    sbrDone->setText(text);
    sbrDone->setToolTip(text);
}

void StatusLine::explain(QLineEdit* resultBox, const QString& result)
{
    if (m_resultTip.isEmpty())
        m_resultTip = resultBox->toolTip();
    if (result.size() != 8 || !isHexDigits(result)) {
        resultBox->setToolTip(m_resultTip);
        if (result.isEmpty())
            clearDone();
        else
            reportDone(result);
        return;
    }
    const QString meaning =
        QStringLiteral("SDO abort %1: %2")
            .arg(result.toUpper(), qorcalib::sdoAbortText(result.toUInt(nullptr, 16)));
    resultBox->setToolTip(meaning);
    reportDone(meaning);
}

void StatusLine::clearDone()
{
    sbrDone->clear();
}

void StatusLine::showServer(const QString& name)
{
    sbrStato[0]->setText(name);
    sbrStato[0]->setToolTip(QStringLiteral("The CAN server this program works with"));
}

void StatusLine::showServerLost()
{
    sbrStato[0]->setText(ServerConnection::kNotReachable);
    sbrStato[0]->setToolTip(QStringLiteral("The CAN server went away; Tessel connects again at "
                                           "the next operation"));
}

void StatusLine::showControllerStatus(int controller, bool enabled, std::optional<quint32> bits)
{
    QLabel* panel = sbrStato.at(size_t(controller) + 1);
    if (!enabled)
        panel->setText(QString());
    else
        panel->setText(bits ? controllerStatusText(*bits) : QStringLiteral("?"));
}

void StatusLine::showProgress(float percent)
{
    prbStato->setValue(qRound(percent));
    prbStato->setFormat(prbStato->value() == 100 ? QStringLiteral("100 % done")
                                                 : QStringLiteral("%p%"));
}

void StatusLine::offerRate(int controller, int bitRateIndex)
{
    cmdFollowRate->setText(QStringLiteral("Switch CAN %1 to %2")
                               .arg(controller)
                               .arg(qorcalib::bitRateText(bitRateIndex)));
    cmdFollowRate->setProperty("controller", controller);
    cmdFollowRate->setProperty("rate", bitRateIndex);
    cmdFollowRate->show();
}

} // namespace tessel

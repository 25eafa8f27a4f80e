#include "nmtpanel.h"

#include "controllerpanel.h"
#include "hexhelpers.h"
#include "waitcursor.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace tessel {

namespace {
struct NmtButton
{
    const char* caption;
    int specifier; // the button's tag
    const char* tip;
};
constexpr NmtButton kNmtButtons[] = {
    {"Start", 1, "Start all nodes (NMT start remote node)"},   {"Stop", 2, "Stop all nodes"},
    {"Pre-op", 128, "Put all nodes into pre-operational"},     {"Res node", 129, "Reset all nodes"},
    {"Res comm", 130, "Reset the communication of all nodes"},
};

QString hexText(int value)
{
    return QString::number(value, 16).toUpper();
}
} // namespace

NmtPanel::NmtPanel(NmtHost* host, ControllerPanel* controllers, QLineEdit* txtAbort,
                   QWidget* parent)
    : QGroupBox(QStringLiteral("NMT"), parent), m_host(host), m_controllers(controllers),
      m_txtAbort(txtAbort)
{
    setObjectName(QStringLiteral("fraNMT"));
    auto* nmt = new QHBoxLayout(this);
    for (int i = 0; i < int(cmdNMT.size()); ++i) {
        cmdNMT[i] = new QPushButton(QLatin1String(kNmtButtons[i].caption), this);
        cmdNMT[i]->setObjectName(QStringLiteral("cmdNMT_%1").arg(i));
        cmdNMT[i]->setToolTip(QLatin1String(kNmtButtons[i].tip));
        nmt->addWidget(cmdNMT[i]);
        connect(cmdNMT[i], &QPushButton::clicked, this, [this, i] { cmdNMT_Click(i); });
    }
    nmt->addSpacing(12);
    nmt->addWidget(new QLabel(QStringLiteral("N-Id:"), this));
    txtFWNode = new QLineEdit(this);
    txtFWNode->setObjectName(QStringLiteral("txtFWNode"));
    txtFWNode->setMaximumWidth(40);
    txtFWNode->setToolTip(QStringLiteral("Node-ID in hexadecimal: what LSS Get found, what LSS Set "
                                         "gives"));
    nmt->addWidget(txtFWNode);
    cmdLSSGet = new QPushButton(QStringLiteral("LSS Get"), this);
    cmdLSSGet->setObjectName(QStringLiteral("cmdLSSGet"));
    cmdLSSGet->setToolTip(QStringLiteral("Find the node on the selected controller: its node-ID "
                                         "(FF: none yet) and its bit rate"));
    nmt->addWidget(cmdLSSGet);
    connect(cmdLSSGet, &QPushButton::clicked, this, &NmtPanel::cmdLSSGet_Click);
    cmdLSSSet = new QPushButton(QStringLiteral("LSS Set"), this);
    cmdLSSSet->setObjectName(QStringLiteral("cmdLSSSet"));
    cmdLSSSet->setToolTip(QStringLiteral("Give the node the node-ID in N-Id and the bit rate "
                                         "chosen in the selected controller's list"));
    nmt->addWidget(cmdLSSSet);
    connect(cmdLSSSet, &QPushButton::clicked, this, &NmtPanel::cmdLSSSet_Click);
}

void NmtPanel::setBusEnabled(bool enable)
{
    for (QPushButton* b : cmdNMT)
        b->setEnabled(enable);
    cmdLSSGet->setEnabled(enable);
    cmdLSSSet->setEnabled(enable);
}

void NmtPanel::cmdNMT_Click(int index)
{
    const auto command = quint8(kNmtButtons[index].specifier);
    QByteArray data(2, '\0'); // node-ID 0: every node
    data[0] = char(command);
    m_txtAbort->setText(m_host->SendCanMsg(0, 2, data) ? QStringLiteral("Can - send err")
                                                       : QString());
}

void NmtPanel::cmdLSSGet_Click()
{
    WaitCursor wait;
    m_host->setMonitorSwitch(m_host->monitorSwitchState());
    const int controller = m_controllers->selected();
    const CanLink::LssResult found = m_controllers->controllers().lssGet(controller);
    if (found.error.isEmpty() && found.nodeId >= 0) {
        txtFWNode->setText(hexText(found.nodeId));
        emit done(QStringLiteral("LSS Get: node-ID %1%2 at %3 on CAN %4")
                      .arg(hexText(found.nodeId),
                           found.nodeId == 0xFF ? QStringLiteral(" (waiting for one)") : QString(),
                           qorcalib::bitRateText(found.bitRateIndex))
                      .arg(controller));
    } else {
        // Many bench PCs have no sound: the beep is not all that is said. N-Id keeps what it
        // held, which the status bar says is not a find.
        QApplication::beep();
        emit done(
            QStringLiteral("LSS Get: no node answered on CAN %1 at any bit rate%2; N-Id "
                           "still holds %3")
                .arg(controller)
                .arg(found.error.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(found.error),
                     txtFWNode->text()));
    }
    m_host->setMonitorSwitch(true);
}

void NmtPanel::cmdLSSSet_Click()
{
    WaitCursor wait;
    m_host->setMonitorSwitch(m_host->monitorSwitchState());
    const int controller = m_controllers->selected();
    const int newRate = m_controllers->bitRateShown(controller);
    const int node = hexToNumber(txtFWNode->text());
    // The list keeps showing the new rate while the controller goes back to the old one.
    m_controllers->setListOnly(controller, true);
    const ControllerSet::LssSetResult set =
        m_controllers->controllers().lssSet(controller, node, newRate);
    m_controllers->setListOnly(controller, false);
    const int oldRate = set.listeningRate;
    // The node would not hear a configuration sent at another rate: stopped, and said why.
    if (!set.switchedBack) {
        m_txtAbort->setText(QStringLiteral("CAN %1 back to %2: %3")
                                .arg(controller)
                                .arg(qorcalib::bitRateText(oldRate), set.lss.error));
    } else if (!set.lss.error.isEmpty()) {
        m_txtAbort->setText(set.lss.error);
    } else {
        emit done(QStringLiteral("LSS Set: the waiting drive on CAN %1 now has node-ID %2 at %3 "
                                 "(CAN %1 still runs at %4)")
                      .arg(controller)
                      .arg(hexText(node))
                      .arg(qorcalib::bitRateText(newRate), qorcalib::bitRateText(oldRate)));
        // The controller stays where the drive still listens until it is reset; the switch is
        // offered, not made.
        if (newRate != oldRate)
            emit rateOffered(controller, newRate);
    }
    m_host->setMonitorSwitch(true);
}

} // namespace tessel

#include "controllerpanel.h"

#include "waitcursor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QLineEdit>
#include <QRadioButton>
#include <QSignalBlocker>

#include <cmath>

namespace tessel {

ControllerPanel::ControllerPanel(CanLink* link, QWidget* parent)
    : QGroupBox(QStringLiteral("Controller"), parent), m_controllers(link)
{
    setObjectName(QStringLiteral("fraCtrl"));
    auto* grid = new QGridLayout(this);
    for (int i = 0; i < kRows; ++i) {
        chkCanEnable[i] = new QCheckBox(QStringLiteral("Enable"), this);
        chkCanEnable[i]->setObjectName(QStringLiteral("chkCanEnable_%1").arg(i));
        chkCanEnable[i]->setToolTip(QStringLiteral("Start or stop controller %1").arg(i));
        cmbBaud[i] = new QComboBox(this);
        cmbBaud[i]->setObjectName(QStringLiteral("cmbBaud_%1").arg(i));
        for (int r = 0; r < qorcalib::kBitRateCount; ++r)
            cmbBaud[i]->addItem(qorcalib::bitRateText(r));
        cmbBaud[i]->setToolTip(QStringLiteral("Bit rate of controller %1").arg(i));
        optSelCanCtrl[i] = new QRadioButton(QStringLiteral("CAN %1").arg(i), this);
        optSelCanCtrl[i]->setObjectName(QStringLiteral("optSelCanCtrl_%1").arg(i));
        optSelCanCtrl[i]->setToolTip(
            QStringLiteral("Send, SDO and LSS act on controller %1").arg(i));
        optSelCanCtrl[i]->setEnabled(false);
        // Two controllers a row: half the height of one a row.
        const int row = i % 2, column = (i / 2) * 4;
        grid->addWidget(chkCanEnable[i], row, column);
        grid->addWidget(cmbBaud[i], row, column + 1);
        grid->addWidget(optSelCanCtrl[i], row, column + 2);
        chkCanEnable[i]->setEnabled(false);
        cmbBaud[i]->setEnabled(false);
    }
    grid->setColumnMinimumWidth(3, 16);
    grid->setColumnMinimumWidth(7, 16);
    chkSync = new QCheckBox(QStringLiteral("SYNC"), this);
    chkSync->setObjectName(QStringLiteral("chkSync"));
    chkSync->setToolTip(QStringLiteral("Send SYNC (COB-ID 080) on the selected controller at "
                                       "the period below; untick to stop"));
    txtSyncPeriod = new QLineEdit(QStringLiteral("10"), this);
    txtSyncPeriod->setObjectName(QStringLiteral("txtSyncPeriod"));
    txtSyncPeriod->setToolTip(QStringLiteral("SYNC period in milliseconds, 0.5 to 10000"));
    txtSyncPeriod->setMaximumWidth(70);
    grid->addWidget(chkSync, 0, 8);
    grid->addWidget(txtSyncPeriod, 1, 8);
    connect(chkSync, &QCheckBox::toggled, this, &ControllerPanel::chkSync_Click);
    // A new period, or another controller, while SYNC runs: it follows at once.
    connect(txtSyncPeriod, &QLineEdit::editingFinished, this, [this] {
        if (chkSync->isChecked())
            chkSync_Click();
    });
    connect(this, &ControllerPanel::selectionChanged, this, [this] {
        if (chkSync->isChecked())
            chkSync_Click();
    });
    // The design-time state: controller 0 is the one normally used.
    chkCanEnable[0]->setChecked(true);
    for (int i = 0; i < kRows; ++i) {
        connect(chkCanEnable[i], &QCheckBox::toggled, this, [this, i] { chkCanEnable_Click(i); });
        connect(cmbBaud[i], &QComboBox::currentIndexChanged, this, [this, i] { cmbBaud_Click(i); });
        connect(optSelCanCtrl[i], &QRadioButton::toggled, this, [this, i](bool on) {
            if (on)
                optSelCanCtrl_Click(i);
        });
    }
}

void ControllerPanel::chkSync_Click()
{
    const bool on = chkSync->isChecked();
    bool ok = false;
    const double periodMs = txtSyncPeriod->text().trimmed().toDouble(&ok);
    if (on && (!ok || periodMs < 0.5 || periodMs > 10000.0)) {
        const QSignalBlocker blocker(chkSync);
        chkSync->setChecked(false);
        m_controllers.produceSync(m_selected, 0);
        emit message(QStringLiteral("SYNC period '%1' is not 0.5 to 10000 milliseconds")
                         .arg(txtSyncPeriod->text()));
        return;
    }
    const int periodUs = on ? int(std::lround(periodMs * 1000.0)) : 0;
    const QString error = m_controllers.produceSync(m_selected, periodUs);
    if (!error.isEmpty()) {
        const QSignalBlocker blocker(chkSync);
        chkSync->setChecked(false);
        m_controllers.produceSync(m_selected, 0);
        emit message(QStringLiteral("SYNC: %1").arg(error));
        return;
    }
    emit done(on ? QStringLiteral("SYNC every %1 ms on CAN %2").arg(periodMs).arg(m_selected)
                 : QStringLiteral("SYNC stopped"));
}

int ControllerPanel::bitRateShown(int controller) const
{
    return cmbBaud.at(size_t(controller))->currentIndex();
}

void ControllerPanel::reset()
{
    // The lists' signals are held until the link runs.
    m_inhibitCtrlEvents = true;
    m_controllers.reset();
    m_listOnly.fill(false);
    for (QComboBox* list : cmbBaud)
        list->setCurrentIndex(0);
    m_inhibitCtrlEvents = false;
}

int ControllerPanel::useControllers(int count)
{
    m_count = qBound(0, count, kRows);
    for (int i = 0; i < m_count; ++i) {
        chkCanEnable[i]->setEnabled(true);
        cmbBaud[i]->setEnabled(true);
    }
    int enabled = 0;
    for (int i = 0; i < m_count; ++i) {
        if (chkCanEnable[i]->isChecked()) {
            chkCanEnable_Click(i);
            ++enabled;
        }
    }
    // A box checked on a row the server does not have is not a running controller.
    for (int i = m_count; i < kRows; ++i) {
        const QSignalBlocker block(chkCanEnable[i]);
        chkCanEnable[i]->setChecked(false);
    }
    if (enabled == 0)
        emit busAvailable(false);
    return enabled;
}

void ControllerPanel::restore()
{
    for (int i = 0; i < m_count; ++i)
        if (chkCanEnable[i]->isChecked())
            if (const QString e = m_controllers.start(i, cmbBaud[i]->currentIndex()); !e.isEmpty())
                emit message(e);
    // The SYNC ended with the session that was lost; the new one produces it again.
    if (chkSync->isChecked())
        chkSync_Click();
}

void ControllerPanel::followChangedConfig(int controller, bool enabled, int bitRateIndex)
{
    if (controller < 0 || controller >= kRows) {
        qWarning("ChangedConfig for controller %d, which has no row here", controller);
        return;
    }
    if (m_controllers.bitRate(controller) == bitRateIndex &&
        chkCanEnable[controller]->isChecked() == enabled)
        return;
    m_inhibitCtrlEvents = true;
    cmbBaud[controller]->setCurrentIndex(bitRateIndex);
    chkCanEnable[controller]->setChecked(enabled);
    m_inhibitCtrlEvents = false;
}

void ControllerPanel::showBitRate(int controller, int bitRateIndex)
{
    setListOnly(controller, true);
    cmbBaud[controller]->setCurrentIndex(bitRateIndex);
    setListOnly(controller, false);
}

void ControllerPanel::chkCanEnable_Click(int index)
{
    WaitCursor wait;
    const bool quiet = m_inhibitCtrlEvents;
    if (chkCanEnable[index]->isChecked()) {
        // Before the server's echo of the change, which selects it too.
        const bool wasSelected = optSelCanCtrl[index]->isChecked();
        if (!quiet)
            if (const QString e = m_controllers.start(index, cmbBaud[index]->currentIndex());
                !e.isEmpty())
                emit message(e);
        emit busAvailable(true);
        optSelCanCtrl[index]->setEnabled(true);
        if (!wasSelected && !quiet && window()->isVisible())
            emit enabledAndSelected(index);
        optSelCanCtrl[index]->setChecked(true);
        return;
    }
    int first = -1;
    for (int i = 0; i < m_count && first < 0; ++i)
        if (chkCanEnable[i]->isChecked())
            first = i;
    if (first >= 0)
        optSelCanCtrl[first]->setChecked(true);
    else
        emit busAvailable(false);
    optSelCanCtrl[index]->setEnabled(false);
    if (!quiet)
        if (const QString e = m_controllers.stop(index); !e.isEmpty())
            emit message(e);
}

void ControllerPanel::cmbBaud_Click(int index)
{
    if (m_listOnly.at(size_t(index)))
        return;
    if (!m_inhibitCtrlEvents) {
        emit rateChosen(index);
        if (chkCanEnable[index]->isChecked()) {
            WaitCursor wait;
            if (const QString e =
                    m_controllers.switchBitRate(index, cmbBaud[index]->currentIndex());
                !e.isEmpty())
                emit message(e);
        }
    }
    m_controllers.chooseBitRate(index, cmbBaud[index]->currentIndex());
}

void ControllerPanel::optSelCanCtrl_Click(int)
{
    for (int i = 0; i < kRows; ++i) {
        if (optSelCanCtrl[i]->isChecked()) {
            m_selected = i;
            break;
        }
    }
    emit selectionChanged(m_selected);
}

} // namespace tessel

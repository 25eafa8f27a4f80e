#include "upgradepanel.h"

#include "sdoabort.h"

#include "canlink.h"
#include "filedialogfilter.h"
#include "hexhelpers.h"
#include "inputblocker.h"
#include "waitcursor.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QEvent>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

namespace tessel {

namespace {
constexpr char kPostProcessorFailed[] = "PostProc err";
constexpr char kFileError[] = "File - err";
} // namespace

UpgradePanel::UpgradePanel(CanLink* link, FirmwareHistory* history, QLineEdit* txtFWNode,
                           QLineEdit* txtAbort, QWidget* parent)
    : QGroupBox(QStringLiteral("Firmware"), parent), txtFWNode(txtFWNode), txtAbort(txtAbort),
      m_link(link), m_upgrade(link), m_history(history)
{
    connect(&m_upgrade, &FirmwareUpgrade::benchFailed, this, &UpgradePanel::message);
    setObjectName(QStringLiteral("fraUpgrade"));
    postProcessor = [](const QString& file, const QString& options, QString* output) {
        // The post-processor runs without the event loop; clicks and keys made meanwhile are
        // dropped here, not carried out once it has ended.
        InputBlocker blocker;
        const bool done = postProcess(file, options, output);
        QCoreApplication::processEvents();
        return done;
    };
    chooseOpenFile = [this](const QString& title, const QString& filter, const QString& start) {
        QFileDialog dialog(this, title, start, qtFileDialogFilter(filter));
        dialog.setAcceptMode(QFileDialog::AcceptOpen);
        dialog.setFileMode(QFileDialog::ExistingFile);
        return dialog.exec() == QDialog::Accepted ? dialog.selectedFiles().value(0) : QString();
    };

    const auto button = [this](const char* name, const QString& caption, const QString& tip) {
        auto* b = new QPushButton(caption, this);
        b->setObjectName(QLatin1String(name));
        b->setToolTip(tip);
        return b;
    };
    const auto edit = [this](const char* name, const QString& text, int width, const QString& tip) {
        auto* e = new QLineEdit(text, this);
        e->setObjectName(QLatin1String(name));
        if (width > 0)
            e->setMaximumWidth(width);
        e->setToolTip(tip);
        return e;
    };

    cmbFileName = new QComboBox(this);
    cmbFileName->setObjectName(QStringLiteral("cmbFileName"));
    cmbFileName->setEditable(true);
    cmbFileName->setCompleter(nullptr); // a typed path is taken as typed, never completed
    cmbFileName->setInsertPolicy(QComboBox::NoInsert);
    cmbFileName->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    cmbFileName->setMinimumContentsLength(30);
    cmbFileName->setToolTip(QStringLiteral("Firmware image to send: the files used before, most "
                                           "recent first"));
    cmdFNApp = button("cmdFNApp", QStringLiteral("..."), QStringLiteral("Choose the image file"));
    cmdUpgrClear = button("cmdUpgrClear", QStringLiteral("Clear"),
                          QStringLiteral("Forget every file of the list"));
    txtPostProcOpt = edit("txtPostProcOpt", QString(), 0,
                          QStringLiteral("Options for the post-processor, passed as they stand "
                                         "(raw images only)"));
    txtDWIndex = edit("txtDWIndex", QStringLiteral("1f50"), 50,
                      QStringLiteral("Index of the program-download object (hexadecimal)"));
    txtDWSubIndex = edit("txtDWSubIndex", QStringLiteral("1"), 30,
                         QStringLiteral("Its sub-index (hexadecimal)"));
    cmdUpgrade = button("cmdUpgrade", QStringLiteral("Up&grade"), QString());
    cmdUpgrade->installEventFilter(this);
    cmdStopOnBoot[0] = button("cmdStopOnBoot_0", QStringLiteral("Stop on &Boot"),
                              QStringLiteral("Hold whichever drive boots next in its boot loader "
                                             "(the bench cycles its supply first)"));
    cmdStopOnBoot[1] = button("cmdStopOnBoot_1", QStringLiteral("Stop Coll"),
                              QStringLiteral("Hold the drive N-Id in its boot loader when it "
                                             "boots"));
    cmdEnUpgrade = button("cmdEnUpgrade", QStringLiteral("En. App"),
                          QStringLiteral("Release the drive N-Id from its boot loader: it starts "
                                         "its application"));

    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(QStringLiteral("File:"), this), 0, 0);
    auto* fileRow = new QHBoxLayout;
    fileRow->addWidget(cmbFileName, 1);
    fileRow->addWidget(cmdFNApp);
    fileRow->addWidget(cmdUpgrClear);
    grid->addLayout(fileRow, 0, 1);
    grid->addWidget(new QLabel(QStringLiteral("PP opt:"), this), 1, 0);
    auto* row = new QHBoxLayout;
    row->addWidget(txtPostProcOpt, 1);
    row->addWidget(new QLabel(QStringLiteral("Idx:"), this));
    row->addWidget(txtDWIndex);
    row->addWidget(new QLabel(QStringLiteral("Sub:"), this));
    row->addWidget(txtDWSubIndex);
    row->addWidget(cmdUpgrade);
    grid->addLayout(row, 1, 1);
    auto* boot = new QHBoxLayout;
    boot->addWidget(cmdStopOnBoot[0]);
    boot->addWidget(cmdStopOnBoot[1]);
    boot->addWidget(cmdEnUpgrade);
    boot->addStretch();
    // The target is N-Id of the NMT row, which LSS fills too: shown here, where it is used.
    lblTarget = new QLabel(this);
    lblTarget->setObjectName(QStringLiteral("lblTarget"));
    lblTarget->setToolTip(QStringLiteral("The drive an upgrade goes to: the node-ID in N-Id, on "
                                         "the selected controller"));
    boot->addWidget(lblTarget);
    grid->addLayout(boot, 2, 1);
    connect(txtFWNode, &QLineEdit::textChanged, this, &UpgradePanel::showTarget);

    connect(cmbFileName, &QComboBox::currentIndexChanged, this, [this](int index) {
        if (index >= 0)
            cmbFileName_Click(index);
    });
    connect(cmbFileName->lineEdit(), &QLineEdit::editingFinished, this,
            &UpgradePanel::cmbFileName_Validate);
    connect(cmdFNApp, &QPushButton::clicked, this, &UpgradePanel::cmdFNApp_Click);
    connect(cmdUpgrClear, &QPushButton::clicked, this, &UpgradePanel::cmdUpgrClear_Click);
    connect(cmdUpgrade, &QPushButton::clicked, this, &UpgradePanel::cmdUpgrade_Click);
    for (int i = 0; i < 2; ++i)
        connect(cmdStopOnBoot[i], &QPushButton::clicked, this,
                [this, i] { cmdStopOnBoot_Click(i); });
    connect(cmdEnUpgrade, &QPushButton::clicked, this, &UpgradePanel::cmdEnUpgrade_Click);
}

QString UpgradePanel::targetText() const
{
    return QStringLiteral("node %1 on CAN %2")
        .arg(QString::number(hexToNumber(txtFWNode->text()), 16).toUpper())
        .arg(bus ? bus->selectedController() : 0);
}

void UpgradePanel::setBusEnabled(bool enable)
{
    cmdUpgrade->setEnabled(enable);
    cmdEnUpgrade->setEnabled(enable);
    for (QPushButton* b : cmdStopOnBoot)
        b->setEnabled(enable);
}

void UpgradePanel::showTarget()
{
    lblTarget->setText(QStringLiteral("Target: ") + targetText());
}

void UpgradePanel::showHistory()
{
    const QString text = cmbFileName->currentText();
    {
        const QSignalBlocker block(cmbFileName);
        cmbFileName->clear();
        cmbFileName->addItems(m_history->names);
        cmbFileName->setCurrentIndex(-1);
    }
    cmbFileName->setEditText(text);
}

void UpgradePanel::SelectFile(const QString& name)
{
    const int p = FindFile(name);
    if (p < 0)
        return;
    if (cmbFileName->currentIndex() == p)
        cmbFileName_Click(p);
    else
        cmbFileName->setCurrentIndex(p);
}

void UpgradePanel::AddRecentFile(const QString& name, const QString& options)
{
    m_history->add(name, options);
    {
        const QSignalBlocker block(cmbFileName);
        cmbFileName->clear();
        cmbFileName->addItems(m_history->names);
        cmbFileName->setCurrentIndex(0);
    }
    cmbFileName->setEditText(name);
}

void UpgradePanel::cmbFileName_Click(int index)
{
    txtPostProcOpt->setText(m_history->options.value(index));
}

void UpgradePanel::cmbFileName_Validate()
{
    SelectFile(cmbFileName->currentText());
}

void UpgradePanel::cmdFNApp_Click()
{
    if (!chooseOpenFile)
        return;
    const QString name =
        chooseOpenFile(QStringLiteral("Apri hex file"), kFileFilter, cmbFileName->currentText());
    if (name.isEmpty())
        return;
    cmbFileName->setEditText(name);
    SelectFile(name);
}

void UpgradePanel::cmdUpgrClear_Click()
{
    m_history->clear();
    const QString text = cmbFileName->currentText();
    {
        const QSignalBlocker block(cmbFileName);
        cmbFileName->clear();
    }
    cmbFileName->setEditText(text);
    txtPostProcOpt->clear();
}

bool UpgradePanel::readImageToSend(QByteArray* image)
{
    QString fileName = cmbFileName->currentText();
    int error = 0;
    const auto identity = classifyImage(fileName, &error);
    if (!identity) {
        txtAbort->setText(QLatin1String(kFileError));
        return false;
    }
    if (identity->kind == ImageKind::Raw) {
        QString output;
        if (!postProcessor || !postProcessor(fileName, txtPostProcOpt->text(), &output)) {
            txtAbort->setText(QLatin1String(kPostProcessorFailed));
            emit failed(postProcessorFailure(fileName));
            return false;
        }
        fileName = output;
    }
    QFile file(fileName);
    if (QFileInfo(fileName).isDir() || !file.open(QIODevice::ReadOnly) ||
        file.size() > kMaxImageFileBytes) {
        txtAbort->setText(QLatin1String(kFileError));
        return false;
    }
    *image = file.readAll();
    return true;
}

void UpgradePanel::reattach()
{
    const QString error = m_link->advise();
    if (!error.isEmpty() && txtAbort->text().isEmpty())
        txtAbort->setText(error);
}

void UpgradePanel::cmdUpgrade_Click()
{
    WaitCursor wait;
    txtAbort->clear();
    txtAbort->repaint();
    QByteArray image;
    if (!readImageToSend(&image))
        return;

    // The image's many segments stay out of the trace, and the server keeps its frame events.
    if (bus)
        bus->setTraceHeld(true);
    QString error = m_link->unadvise();
    const int node = hexToNumber(txtFWNode->text());
    const int index = hexToNumber(txtDWIndex->text());
    const int subIndex = hexToNumber(txtDWSubIndex->text());
    CanLink::SdoResult result;
    if (error.isEmpty())
        result = m_upgrade.load(bus ? bus->selectedController() : 0, node, image, index, subIndex);
    else
        result.error = error;
    txtAbort->setText(sdoResultText(result.abortCode, result.error));
    if (!txtAbort->text().isEmpty())
        emit failed(QStringLiteral("Upgrade of %1: %2")
                        .arg(targetText(), result.error.isEmpty()
                                               ? qorcalib::sdoAbortDescription(result.abortCode)
                                               : result.error));
    if (!result.error.isEmpty()) {
        // A failed call leaves the busy flag set and the history as it was.
        reattach();
        return;
    }
    reattach();
    if (bus)
        bus->setMonitorSwitch(bus->monitorSwitchState());
    if (bus)
        bus->setTraceHeld(false);
    AddRecentFile(cmbFileName->currentText(), txtPostProcOpt->text());
    if (result.abortCode == 0)
        emit done(QStringLiteral("Upgraded node %1 on CAN %2 with %3 (%4 bytes)")
                      .arg(QString::number(node, 16).toUpper().rightJustified(2, QLatin1Char('0')))
                      .arg(bus ? bus->selectedController() : 0)
                      .arg(QFileInfo(cmbFileName->currentText()).fileName())
                      .arg(image.size()));
}

void UpgradePanel::cmdStopOnBoot_Click(int index)
{
    WaitCursor wait;
    txtAbort->clear();
    txtAbort->repaint();
    if (const QString error = m_upgrade.beginBench(); !error.isEmpty())
        txtAbort->setText(error);
    const int node = index == 1 ? hexToNumber(txtFWNode->text()) : 0;
    const int controller = bus ? bus->selectedController() : 0;
    const CanLink::BootResult caught =
        m_upgrade.catchBoot(controller, node, bus ? bus->bitRateShown() : 0);
    if (!caught.error.isEmpty())
        txtAbort->setText(caught.error);
    else if (caught.version != 0)
        txtAbort->setText(QStringLiteral("Boot V") + versionText(caught.version));
    else
        txtAbort->setText(QStringLiteral("(none)"));
    // The catch may have moved the controller to another rate: the list shows what it runs at.
    QString error;
    if (const auto rate = m_link->bitRate(controller, &error); rate && bus)
        bus->showBitRate(*rate);
}

void UpgradePanel::cmdEnUpgrade_Click()
{
    txtAbort->clear();
    txtAbort->repaint();
    if (bus)
        bus->setMonitorSwitch(bus->monitorSwitchState());
    const int node = hexToNumber(txtFWNode->text());
    WaitCursor wait;
    const auto result = m_upgrade.release(bus ? bus->selectedController() : 0, node);
    txtAbort->setText(sdoResultText(result.abortCode, result.error));
    if (bus)
        bus->setMonitorSwitch(true);
}

void UpgradePanel::refreshUpgradeTip()
{
    const QString fileName = cmbFileName->currentText();
    const QFileInfo info(fileName);
    const QString key = fileName + QLatin1Char('\n') + txtPostProcOpt->text() + QLatin1Char('\n') +
                        info.lastModified().toString(Qt::ISODateWithMs) + QLatin1Char('\n') +
                        QString::number(info.size());
    if (key == m_tipKey)
        return;
    WaitCursor wait;
    const UpgradeTip tip = upgradeTip(fileName, txtPostProcOpt->text(), postProcessor);
    // The code the tip has always shown, and what it means.
    cmdUpgrade->setToolTip(tip.explanation.isEmpty()
                               ? tip.text
                               : QStringLiteral("%1 (%2)").arg(tip.text, tip.explanation));
    cmdUpgrade->setStatusTip(tip.explanation);
    // An error is looked at again next time: the file may be there by then.
    m_tipKey = tip.explanation.isEmpty() ? key : QString();
}

bool UpgradePanel::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == cmdUpgrade && event->type() == QEvent::ToolTip)
        refreshUpgradeTip();
    return QGroupBox::eventFilter(watched, event);
}

QList<QWidget*> UpgradePanel::tabOrder() const
{
    return {cmbFileName,   cmdFNApp,   cmdUpgrClear,     txtPostProcOpt,   txtDWIndex,
            txtDWSubIndex, cmdUpgrade, cmdStopOnBoot[0], cmdStopOnBoot[1], cmdEnUpgrade};
}

} // namespace tessel

#include "frmxboot.h"

#include "canlink.h"
#include "filedialogfilter.h"
#include "machinesettings.h"
#include "processrunner.h"
#include "serialcounter.h"
#include "waitcursor.h"
#include "windowplacement.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QThread>

namespace tessel {

namespace {
const QString kFirmwareFilter = QStringLiteral("Motorola HEX files (*.S)|*.S|All Files (*.*)|*.*");
const QString kConfigurationFilter =
    QStringLiteral("Motorola CFG files (*.cfg)|*.cfg|All Files (*.*)|*.*");
} // namespace

FrmXBoot::FrmXBoot(CanLink* link, const WindowPlacement* placement, QWidget* mainWindow,
                   QWidget* parent)
    : QWidget(parent, Qt::Window), m_link(link), m_placement(placement), m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmXBoot"));
    setWindowTitle(QStringLiteral("Production programming"));
    // A serial load being waited for has ended once the unit's state is no longer "loading".
    connect(m_link, &CanLink::progressNotified, this, [this] {
        if (!m_link->productionRun)
            return;
        QString error;
        const auto state = m_link->testState(&error);
        if (state && *state != 1)
            loadCompleted();
    });
    const auto button = [this](const char* name, const QString& caption, const QString& tip,
                               void (FrmXBoot::*handler)()) {
        auto* b = new QPushButton(caption, this);
        b->setObjectName(QLatin1String(name));
        b->setToolTip(tip);
        connect(b, &QPushButton::clicked, this, handler);
        return b;
    };
    const auto box = [this](const char* name, const QString& tip) {
        auto* e = new QLineEdit(this);
        e->setObjectName(QLatin1String(name));
        e->setToolTip(tip);
        return e;
    };
    txtFileName = box("txtFileName", QStringLiteral("Firmware file (Motorola S-records, .s)"));
    cmdFNApp = button("cmdFNApp", QStringLiteral("..."), QStringLiteral("Apri bootx hex file"),
                      &FrmXBoot::cmdFNApp_Click);
    txtCfgFile = box("txtCfgFile", QStringLiteral("The JTAG flasher's configuration file"));
    cmdFNCfg = button("cmdFNCfg", QStringLiteral("..."), QStringLiteral("Open flash configuration"),
                      &FrmXBoot::cmdFNCfg_Click);
    chkFR = new QCheckBox(QStringLiteral("Flash Recover"), this);
    chkFR->setObjectName(QStringLiteral("chkFR"));
    chkFR->setToolTip(QStringLiteral("Have the flasher recover a controller that does not answer"));
    txtIDSK = box("txtIDSK", QStringLiteral("The serial of the last unit programmed; the unit in "
                                            "hand keeps its serial until it is done"));
    txtIDSK->setReadOnly(true);
    cmdJtagPrg = button("cmdJtagPrg", QStringLiteral("&JTAG Prg"),
                        QStringLiteral("Stamp the firmware with the unit's serial and flash it "
                                       "through the JTAG probe"),
                        &FrmXBoot::cmdJtagPrg_Click);
    cmdSerialLoc = button("cmdSerialLoc", QStringLiteral("Serial &Loc"),
                          QStringLiteral("Make the unit's identity data and load them over the "
                                         "bench's serial link"),
                          &FrmXBoot::cmdSerialLoc_Click);
    cmdSerialPrg = button("cmdSerialPrg", QStringLiteral("Serial &Prg"),
                          QStringLiteral("Stamp the firmware with the unit's serial and load it "
                                         "with the kickstart loader over the bench's serial link"),
                          &FrmXBoot::cmdSerialPrg_Click);

    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(QStringLiteral("Firmware:"), this), 0, 0);
    grid->addWidget(txtFileName, 0, 1, 1, 3);
    grid->addWidget(cmdFNApp, 0, 4);
    grid->addWidget(new QLabel(QStringLiteral("Flash cfg:"), this), 1, 0);
    grid->addWidget(txtCfgFile, 1, 1, 1, 3);
    grid->addWidget(cmdFNCfg, 1, 4);
    grid->addWidget(chkFR, 2, 1);
    grid->addWidget(new QLabel(QStringLiteral("Serial:"), this), 3, 0);
    grid->addWidget(txtIDSK, 3, 1);
    auto* runs = new QHBoxLayout;
    for (QPushButton* b : {cmdJtagPrg, cmdSerialPrg, cmdSerialLoc})
        runs->addWidget(b);
    grid->addLayout(runs, 4, 1, 1, 3);
    lblDone = new QLabel(this);
    lblDone->setObjectName(QStringLiteral("lblDone"));
    lblDone->setWordWrap(true);
    grid->addWidget(lblDone, 5, 1, 1, 4);
    grid->setColumnStretch(1, 1);
    resize(520, 190);
    hooks = realHooks();
    loadSettings();
}

FrmXBoot::~FrmXBoot() = default;

ProductionRun::Hooks FrmXBoot::realHooks()
{
    ProductionRun::Hooks h;
    h.run = [](const QString& line, bool show) { return runAndWait(line, show); };
    h.nextSerial = [](int* number, QString* error) {
        SerialCounter counter(SerialDatabase::fromSettings());
        return counter.next(number, error);
    };
    h.loadImage = [this](const QByteArray& image) { return m_link->loadSerialImage(image); };
    h.waitForLoad = [this](QString* error) { return waitForLoad(error); };
    h.program = [](const QString& name) { return externalProgram(name); };
    return h;
}

namespace {
const QString kPendingSerialKey = QStringLiteral("production/pendingSerial");
}

void FrmXBoot::loadSettings()
{
    QSettings s = userSettings();
    txtFileName->setText(s.value(QStringLiteral("filename/xboot")).toString());
    txtCfgFile->setText(s.value(QStringLiteral("filename/xcfg")).toString());
    idskTag = s.value(kPendingSerialKey).toString();
}

void FrmXBoot::saveSettings() const
{
    QSettings s = userSettings();
    s.setValue(QStringLiteral("filename/xboot"), txtFileName->text());
    s.setValue(QStringLiteral("filename/xcfg"), txtCfgFile->text());
}

QString FrmXBoot::chooseFile(const QString& title, const QString& filter, const QString& start)
{
    if (chooseOpenFile)
        return chooseOpenFile(title, filter, start);
    return QFileDialog::getOpenFileName(this, title, start, qtFileDialogFilter(filter));
}

void FrmXBoot::cmdFNApp_Click()
{
    const QString file =
        chooseFile(QStringLiteral("Apri bootx hex file"), kFirmwareFilter, txtFileName->text());
    if (!file.isEmpty())
        txtFileName->setText(file);
}

void FrmXBoot::cmdFNCfg_Click()
{
    const QString file = chooseFile(QStringLiteral("Open flash configuration"),
                                    kConfigurationFilter, txtCfgFile->text());
    if (!file.isEmpty())
        txtCfgFile->setText(file);
}

void FrmXBoot::cmdJtagPrg_Click()
{
    WaitCursor wait;
    ProductionRun run(hooks);
    report(run.jtag(txtFileName->text(), txtCfgFile->text(), chkFR->isChecked(), &idskTag),
           QStringLiteral("JTAG programming"));
}

void FrmXBoot::cmdSerialPrg_Click()
{
    WaitCursor wait;
    ProductionRun run(hooks);
    report(run.serialProgramming(txtFileName->text(), &idskTag),
           QStringLiteral("Serial programming"));
}

void FrmXBoot::cmdSerialLoc_Click()
{
    WaitCursor wait;
    ProductionRun run(hooks);
    report(run.identityLoading(&idskTag), QStringLiteral("Serial loading"));
}

void FrmXBoot::report(const ProductionRun::Outcome& outcome, const QString& what)
{
    // Each run says how it ended, a success too.
    lblDone->setText(outcome.kind == ProductionRun::Outcome::Done
                         ? QStringLiteral("%1 done: serial %2").arg(what).arg(outcome.serial)
                         : QStringLiteral("%1 failed%2")
                               .arg(what, outcome.message.isEmpty()
                                              ? QString()
                                              : QStringLiteral(": ") + outcome.message));
    // A serial taken by a run that failed stays the unit's for its retry, also after a
    // restart: it was taken from the line's counter, and a new one would leave a gap.
    {
        QSettings s = userSettings();
        if (idskTag.isEmpty())
            s.remove(kPendingSerialKey);
        else
            s.setValue(kPendingSerialKey, idskTag);
    }
    switch (outcome.kind) {
    case ProductionRun::Outcome::Done:
        txtIDSK->setText(QString::number(outcome.serial));
        return;
    case ProductionRun::Outcome::LoadFailed:
        if (beep)
            beep();
        else
            QApplication::beep();
        return;
    case ProductionRun::Outcome::ToolFailed:
    case ProductionRun::Outcome::Error:
        break;
    }
    emit message(outcome.message);
}

std::optional<int> FrmXBoot::waitForLoad(QString* error)
{
    // The window takes no input while the unit loads; the progress reports end the wait.
    setEnabled(false);
    m_link->productionRun = true;
    while (m_link->productionRun && m_link->isConnected()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, kLoadPollMs);
        QThread::msleep(kLoadPollMs);
    }
    const bool ended = !m_link->productionRun;
    m_link->productionRun = false;
    setEnabled(true);
    if (!ended) {
        *error = ServerConnection::kNotReachable;
        return std::nullopt;
    }
    return m_link->testState(error);
}

void FrmXBoot::loadCompleted()
{
    m_link->productionRun = false;
}

void FrmXBoot::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

void FrmXBoot::closeEvent(QCloseEvent* event)
{
    saveSettings();
    QWidget::closeEvent(event);
}

} // namespace tessel

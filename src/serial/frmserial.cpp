#include "frmserial.h"

#include "machinesettings.h"
#include "serialsettings.h"
#include "windowplacement.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFontDatabase>
#include <QGridLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QScrollBar>
#include <QSerialPort>
#include <QSerialPortInfo>
#include <QSettings>
#include <QSignalBlocker>
#include <QTextBlock>
#include <QTextCursor>

namespace tessel {

FrmSerial::FrmSerial(const WindowPlacement* placement, QWidget* mainWindow, QWidget* parent)
    : QWidget(parent, Qt::Window), m_placement(placement), m_mainWindow(mainWindow),
      m_port(new QSerialPort(this))
{
    setObjectName(QStringLiteral("frmSerial"));
    setWindowTitle(QStringLiteral("Serial Test"));
    chkEnable = new QCheckBox(QStringLiteral("&Enable"), this);
    chkEnable->setObjectName(QStringLiteral("chkEnable"));
    chkEnable->setToolTip(QStringLiteral("Open the port (tick again to reopen it with new "
                                         "settings)"));
    txtPort = new QComboBox(this);
    txtPort->setObjectName(QStringLiteral("txtPort"));
    txtPort->setEditable(true);
    txtPort->setCompleter(nullptr); // a typed name is taken as typed, never completed
    txtPort->setMinimumWidth(160);
    txtPort->setToolTip(QStringLiteral("The serial device: ttyUSB0, /dev/ttyS0, ... (a number n "
                                       "is /dev/ttyS(n-1))"));
    txtParams = new QLineEdit(this);
    txtParams->setObjectName(QStringLiteral("txtParams"));
    txtParams->setToolTip(QStringLiteral("baud,parity,data bits,stop bits: parity n, e, o, m or "
                                         "s; data bits 5 to 8; stop bits 1, 1.5 or 2"));
    txtConsole = new QPlainTextEdit(this);
    txtConsole->setObjectName(QStringLiteral("txtConsole"));
    txtConsole->setReadOnly(true); // only the device writes here
    txtConsole->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    txtConsole->setFocusPolicy(Qt::StrongFocus);
    txtConsole->setUndoRedoEnabled(false);
    txtConsole->setMaximumBlockCount(kMaxConsoleLines);
    txtConsole->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    txtConsole->setToolTip(QStringLiteral("What the device sends; type here to send to it"));
    txtConsole->installEventFilter(this);

    auto* grid = new QGridLayout(this);
    grid->addWidget(chkEnable, 0, 0);
    auto* port = new QLabel(QStringLiteral("&Port:"), this);
    port->setBuddy(txtPort);
    grid->addWidget(port, 0, 1);
    grid->addWidget(txtPort, 0, 2);
    auto* params = new QLabel(QStringLiteral("Se&ttings:"), this);
    params->setBuddy(txtParams);
    grid->addWidget(params, 0, 3);
    grid->addWidget(txtParams, 0, 4);
    grid->addWidget(txtConsole, 1, 0, 1, 5);
    grid->setColumnStretch(4, 1);
    resize(560, 380);

    QSettings s = userSettings();
    offerPorts();
    txtPort->setCurrentText(s.value(QStringLiteral("serial/port")).toString());
    txtParams->setText(
        s.value(QStringLiteral("serial/params"), SerialLineSettings::kDefault).toString());

    m_flush.setSingleShot(true);
    connect(&m_flush, &QTimer::timeout, this, &FrmSerial::flush);
    connect(chkEnable, &QCheckBox::toggled, this, &FrmSerial::chkEnable_Click);
    connect(m_port, &QSerialPort::readyRead, this, &FrmSerial::onReadyRead);
    connect(m_port, &QSerialPort::errorOccurred, this, &FrmSerial::onError);
}

FrmSerial::~FrmSerial() = default;

void FrmSerial::offerPorts()
{
    const QString current = txtPort->currentText();
    txtPort->clear();
    for (const QSerialPortInfo& info : QSerialPortInfo::availablePorts())
        txtPort->addItem(info.portName());
    txtPort->setCurrentText(current);
}

bool FrmSerial::isOpen() const
{
    return m_port->isOpen();
}

void FrmSerial::saveSettings() const
{
    QSettings s = userSettings();
    s.setValue(QStringLiteral("serial/port"), txtPort->currentText());
    s.setValue(QStringLiteral("serial/params"), txtParams->text());
}

void FrmSerial::chkEnable_Click()
{
    if (m_port->isOpen()) {
        flush();
        m_port->close();
    }
    if (!chkEnable->isChecked())
        return;
    QString error;
    const auto settings = SerialLineSettings::parse(txtParams->text(), &error);
    if (!settings)
        return closePort(error);
    const QString device = serialDeviceName(txtPort->currentText());
    if (device.isEmpty())
        return closePort(QStringLiteral("no serial port named"));
    m_port->setPortName(device);
    m_port->setBaudRate(settings->baud);
    m_port->setParity(settings->parity);
    m_port->setDataBits(settings->dataBits);
    m_port->setStopBits(settings->stopBits);
    m_port->setFlowControl(QSerialPort::NoFlowControl);
    if (!m_port->open(QIODevice::ReadWrite))
        return closePort(QStringLiteral("serial port %1 cannot be opened: %2")
                             .arg(device, m_port->errorString()));
    saveSettings();
}

void FrmSerial::closePort(const QString& why)
{
    if (m_port->isOpen())
        m_port->close();
    {
        const QSignalBlocker quiet(chkEnable);
        chkEnable->setChecked(false);
    }
    emit message(why);
}

void FrmSerial::onError()
{
    // An adapter pulled out while open fails the next read: the port is closed, said once.
    const auto error = m_port->error();
    if ((error == QSerialPort::ResourceError || error == QSerialPort::ReadError) &&
        m_port->isOpen()) {
        flush();
        closePort(QStringLiteral("serial port %1 went away: %2")
                      .arg(m_port->portName(), m_port->errorString()));
    }
}

void FrmSerial::onReadyRead()
{
    m_pending += m_port->readAll();
    // Shown in batches: a device that streams costs one update per batch, not one per byte.
    if (!m_flush.isActive())
        m_flush.start(kFlushMs);
}

void FrmSerial::flush()
{
    m_flush.stop();
    if (m_pending.isEmpty())
        return;
    // A backlog longer than the console keeps: only its newest part can stay on screen.
    if (m_pending.size() > kMaxConsoleChars)
        m_pending.remove(0, m_pending.size() - kMaxConsoleChars);
    // A slice at a time, so that a device faster than the screen never holds up a click; the
    // rest follows as soon as the window is idle.
    const QByteArray slice = m_pending.left(kMaxFlushBytes);
    m_pending.remove(0, slice.size());
    if (!m_pending.isEmpty())
        m_flush.start(0);
    // One character per byte; CR LF and lone CR end a line.
    QString text;
    text.reserve(slice.size());
    for (const char c : slice) {
        if (c == '\n' && m_pendingCr) {
            m_pendingCr = false;
            continue;
        }
        m_pendingCr = c == '\r';
        text += c == '\r' ? QChar(u'\n') : QChar(uchar(c));
    }
    QScrollBar* bar = txtConsole->verticalScrollBar();
    const bool following = bar->value() == bar->maximum();
    QTextCursor end(txtConsole->document());
    end.movePosition(QTextCursor::End);
    end.insertText(text);
    // A device that sends no line ends still gets lines: a terminal wraps them anyway, and the
    // console keeps its newest lines (maximumBlockCount), which then stay bounded too.
    if (txtConsole->document()->lastBlock().length() > kMaxLineChars)
        end.insertText(QStringLiteral("\n"));
    if (following)
        bar->setValue(bar->maximum());
}

void FrmSerial::txtConsole_KeyPress(const QString& text)
{
    if (m_port->isOpen() && !text.isEmpty()) {
        m_port->write(text.toLatin1());
        m_port->flush(); // a keystroke goes now, not at the next turn of the event loop
    }
}

bool FrmSerial::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == txtConsole && event->type() == QEvent::KeyPress) {
        const auto* key = static_cast<QKeyEvent*>(event);
        // Copying stays the console's; every typed character goes to the device.
        if (key->matches(QKeySequence::Copy) || key->matches(QKeySequence::SelectAll))
            return false;
        if (!key->text().isEmpty()) {
            txtConsole_KeyPress(key->text());
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void FrmSerial::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

} // namespace tessel

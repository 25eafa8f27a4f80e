#include "sdopanel.h"

#include "canlink.h"
#include "hexhelpers.h"
#include "numbers.h"
#include "waitcursor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QFontDatabase>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>

#include <QPlainTextEdit>
#include <QPushButton>
#include <memory>

#include <cmath>

#include <limits>

namespace tessel {

SdoPanel::SdoPanel(CanLink* link, QWidget* parent)
    : QGroupBox(QStringLiteral("SDO"), parent), m_link(link)
{
    setObjectName(QStringLiteral("fraSDO"));
    const auto box = [this](const char* name, const QString& tip) {
        auto* e = new QLineEdit(this);
        e->setObjectName(QLatin1String(name));
        e->setToolTip(tip);
        return e;
    };
    txtSDOTimeOut = box("txtSDOTimeOut", QStringLiteral("SDO time-out of the CAN server, in "
                                                        "milliseconds"));
    txtSDOTimeOut->setMaximumWidth(70);
    txtAbort = box("txtAbort", QStringLiteral("Result of the last bus operation: empty when it "
                                              "succeeded, else the SDO abort code or the error"));
    txtAbort->setReadOnly(true);
    // A result to read and copy, not a field to fill: the Tab key passes it by.
    txtAbort->setFocusPolicy(Qt::ClickFocus);
    cmbIndex = new QComboBox(this);
    cmbIndex->setObjectName(QStringLiteral("cmbIndex"));
    cmbIndex->setEditable(true);
    cmbIndex->setInsertPolicy(QComboBox::NoInsert);
    cmbIndex->setMinimumWidth(140);
    cmbIndex->setToolTip(QStringLiteral("Node, index and sub-index in hexadecimal, e.g. 1,1018,1; "
                                        "the list holds the addresses used before. Enter "
                                        "uploads; the context menu plots the entry"));
    // What is typed is what is read or written: the history stays in the list, never
    // completed into the text.
    cmbIndex->setCompleter(nullptr);
    txtDataHex = box("txtDataHex", QStringLiteral("The data as hexadecimal byte pairs, first "
                                                  "byte first"));
    txtDataText = box("txtDataText", QStringLiteral("The data as text"));
    // A domain can be large; a line edit would otherwise cut it at 32767 characters.
    txtDataHex->setMaxLength(std::numeric_limits<int>::max());
    txtDataText->setMaxLength(std::numeric_limits<int>::max());
    txtByte = box("txtByte", QStringLiteral("The first byte, decimal"));
    txtWord = box("txtWord", QStringLiteral("The first two bytes, little-endian, decimal"));
    txtLong = box("txtLong", QStringLiteral("The first four bytes, little-endian, decimal, shown "
                                            "unsigned (0 to 4294967295); a negative number is "
                                            "taken as its two's complement"));
    const auto button = [this](const char* name, const QString& caption, const QString& tip) {
        auto* b = new QPushButton(caption, this);
        b->setObjectName(QLatin1String(name));
        b->setToolTip(tip);
        return b;
    };
    cmdUpload = button("cmdUpload", QStringLiteral("&Upload"),
                       QStringLiteral("Read the entry from the drive"));
    cmdDownload = button("cmdDownload", QStringLiteral("&Download"),
                         QStringLiteral("Write the data into the entry"));
    cmdClear = button("cmdClear", QStringLiteral("&Clear"), QStringLiteral("Clear the data"));
    cmdSetSDOTout = button("cmdSetSDOTout", QStringLiteral("Set"),
                           QStringLiteral("Apply the SDO time-out (milliseconds)"));
    cmdGetVect = button("cmdGetVect", QStringLiteral("Get &vector"),
                        QStringLiteral("Read sub-index 0 and then every entry of the array"));
    chkVHex = new QCheckBox(QStringLiteral("Hex"), this);
    chkVHex->setObjectName(QStringLiteral("chkVHex"));
    chkVHex->setChecked(true);
    chkVDec = new QCheckBox(QStringLiteral("Dec"), this);
    chkVDec->setObjectName(QStringLiteral("chkVDec"));
    chkVDec->setChecked(true);
    txtVectGet = new QPlainTextEdit(this);
    txtVectGet->setObjectName(QStringLiteral("txtVectGet"));
    txtVectGet->setReadOnly(true);
    txtVectGet->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    // A few lines: the panel fits a laptop screen with the rest of the main window; the list
    // scrolls.
    txtVectGet->setMaximumHeight(64);

    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(QStringLiteral("Node, idx, subidx:"), this), 0, 0);
    grid->addWidget(cmbIndex, 0, 1, 1, 3);
    grid->addWidget(cmdUpload, 0, 4);
    grid->addWidget(cmdDownload, 0, 5);
    grid->addWidget(new QLabel(QStringLiteral("Hex:"), this), 1, 0);
    grid->addWidget(txtDataHex, 1, 1, 1, 3);
    grid->addWidget(cmdClear, 1, 4);
    grid->addWidget(new QLabel(QStringLiteral("Text:"), this), 2, 0);
    grid->addWidget(txtDataText, 2, 1, 1, 3);
    grid->addWidget(new QLabel(QStringLiteral("Byte / Word / Long:"), this), 3, 0);
    grid->addWidget(txtByte, 3, 1);
    grid->addWidget(txtWord, 3, 2);
    grid->addWidget(txtLong, 3, 3);
    grid->addWidget(cmdGetVect, 4, 0);
    grid->addWidget(chkVHex, 4, 1);
    grid->addWidget(chkVDec, 4, 2);
    grid->addWidget(txtVectGet, 5, 0, 1, 6);
    grid->addWidget(new QLabel(QStringLiteral("Abort Code:"), this), 6, 0);
    grid->addWidget(txtAbort, 6, 1, 1, 5);
    // Beside the vector's options, where the row has room: one row less to the window.
    auto* timeoutLabel = new QLabel(QStringLiteral("SDO timeout:"), this);
    timeoutLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    grid->addWidget(timeoutLabel, 4, 3);
    grid->addWidget(txtSDOTimeOut, 4, 4);
    grid->addWidget(cmdSetSDOTout, 4, 5);
    connect(cmdSetSDOTout, &QPushButton::clicked, this, &SdoPanel::cmdSetSDOTout_Click);

    connect(cmdUpload, &QPushButton::clicked, this, &SdoPanel::cmdUpload_Click);
    connect(cmdDownload, &QPushButton::clicked, this, &SdoPanel::cmdDownload_Click);
    connect(cmdClear, &QPushButton::clicked, this, &SdoPanel::cmdClear_Click);
    connect(cmdGetVect, &QPushButton::clicked, this, &SdoPanel::cmdGetVect_Click);
    connect(cmbIndex, &QComboBox::activated, this, &SdoPanel::cmbIndex_Click);
    connect(cmbIndex->lineEdit(), &QLineEdit::returnPressed, this, &SdoPanel::cmdUpload_Click);
    cmbIndex->lineEdit()->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(cmbIndex->lineEdit(), &QLineEdit::customContextMenuRequested, this, [this](QPoint at) {
        QLineEdit* edit = cmbIndex->lineEdit();
        std::unique_ptr<QMenu> menu(edit->createStandardContextMenu());
        menu->addSeparator();
        QAction* plot = menu->addAction(QStringLiteral("&Plot this entry"), this, [this] {
            emit plotRequested(QStringLiteral("sdo ") + cmbIndex->currentText().trimmed());
        });
        plot->setEnabled(!cmbIndex->currentText().trimmed().isEmpty());
        menu->exec(edit->mapToGlobal(at));
    });
    const auto view = [this](QLineEdit* edit, DataView v) {
        m_tips[size_t(v)] = edit->toolTip();
        connect(edit, &QLineEdit::textEdited, this, [this, edit, v](const QString& text) {
            RefreshViews(dataFromView(v, text), int(v));
            markOverflow(edit, v, viewOverflowNote(v, text));
        });
    };
    view(txtDataHex, DataView::Hex);
    view(txtDataText, DataView::Text);
    view(txtByte, DataView::Byte);
    view(txtWord, DataView::Word);
    view(txtLong, DataView::Long);
    RefreshViews({}, 0);
}

void SdoPanel::setBusEnabled(bool enable)
{
    cmdUpload->setEnabled(enable);
    cmdDownload->setEnabled(enable);
}

void SdoPanel::RefreshViews(const QByteArray& data, int source)
{
    if (m_updating)
        return;
    m_updating = true;
    const DataViews v = viewsOf(data);
    if (source != int(DataView::Hex))
        txtDataHex->setText(v.hex);
    if (source != int(DataView::Text))
        txtDataText->setText(v.text);
    if (source != int(DataView::Byte))
        txtByte->setText(v.byteValue);
    if (source != int(DataView::Word))
        txtWord->setText(v.wordValue);
    if (source != int(DataView::Long))
        txtLong->setText(v.longValue);
    // A view rewritten from the data shows exactly what is sent.
    for (auto [edit, view] :
         {std::pair{txtDataHex, DataView::Hex}, std::pair{txtByte, DataView::Byte},
          std::pair{txtWord, DataView::Word}, std::pair{txtLong, DataView::Long}})
        if (source != int(view))
            markOverflow(edit, view, {});
    m_updating = false;
}

QList<QWidget*> SdoPanel::tabOrder() const
{
    return {cmbIndex,    cmdUpload, cmdDownload, txtDataHex,    cmdClear,
            txtDataText, txtByte,   txtWord,     txtLong,       cmdGetVect,
            chkVHex,     chkVDec,   txtVectGet,  txtSDOTimeOut, cmdSetSDOTout};
}

void SdoPanel::markOverflow(QLineEdit* edit, DataView view, const QString& note)
{
    QPalette palette = edit->palette();
    palette.setColor(QPalette::Text,
                     note.isEmpty() ? QWidget::palette().color(QPalette::Text) : QColor(Qt::red));
    edit->setPalette(palette);
    edit->setToolTip(note.isEmpty() ? m_tips[size_t(view)] : note);
    edit->setProperty("overflow", !note.isEmpty());
}

void SdoPanel::setData(const QByteArray& data)
{
    RefreshViews(data, 0);
}

void SdoPanel::clearResult()
{
    txtAbort->clear();
    txtAbort->repaint();
}

QString SdoPanel::SdoRead(const SdoAddress& address, QByteArray* data)
{
    WaitCursor wait;
    const auto result = m_link->sdoTransfer(bus ? bus->selectedController() : 0, true, address.node,
                                            address.indexBits(), address.subIndexByte());
    if (result.error.isEmpty() && result.abortCode == 0)
        *data = result.data;
    return sdoResultText(result.abortCode, result.error);
}

QString SdoPanel::SdoWrite(const SdoAddress& address, const QByteArray& data)
{
    WaitCursor wait;
    const auto result =
        m_link->sdoTransfer(bus ? bus->selectedController() : 0, false, address.node,
                            address.indexBits(), address.subIndexByte(), data);
    return sdoResultText(result.abortCode, result.error);
}

void SdoPanel::RememberAddress(const QString& address, const QString& data)
{
    const int row = m_history.remember(address, data);
    // The list mirrors the history: a new address goes on top, a known one is respelled.
    if (cmbIndex->count() < m_history.addresses().size())
        cmbIndex->insertItem(0, address);
    else
        cmbIndex->setItemText(row, address);
    cmbIndex->setCurrentText(address);
}

void SdoPanel::cmdDownload_Click()
{
    clearResult();
    const QByteArray data = hexToBytes(txtDataHex->text());
    const QString addressText = cmbIndex->currentText();
    const SdoAddress address = SdoAddress::parse(addressText);
    RememberAddress(addressText, txtDataHex->text());
    if (bus)
        bus->setMonitorSwitch(bus->monitorSwitchState());
    QElapsedTimer took;
    took.start();
    txtAbort->setText(SdoWrite(address, data));
    if (bus)
        bus->setMonitorSwitch(true);
    if (txtAbort->text().isEmpty())
        emit done(QStringLiteral("Downloaded %1 bytes to %2 in %3 s")
                      .arg(data.size())
                      .arg(addressText.trimmed())
                      .arg(double(took.elapsed()) / 1000, 0, 'f', 1));
}

void SdoPanel::cmdUpload_Click()
{
    clearResult();
    const QString addressText = cmbIndex->currentText();
    const SdoAddress address = SdoAddress::parse(addressText);
    if (bus)
        bus->setMonitorSwitch(bus->monitorSwitchState());
    QByteArray data;
    QElapsedTimer took;
    took.start();
    txtAbort->setText(SdoRead(address, &data));
    if (bus)
        bus->setMonitorSwitch(true);
    if (!txtAbort->text().isEmpty())
        return;
    emit done(QStringLiteral("Uploaded %1 bytes from %2 in %3 s")
                  .arg(data.size())
                  .arg(addressText.trimmed())
                  .arg(double(took.elapsed()) / 1000, 0, 'f', 1));
    setData(data);
    RememberAddress(addressText, txtDataHex->text());
}

void SdoPanel::cmdClear_Click()
{
    txtDataText->clear();
    RefreshViews({}, 0);
}

void SdoPanel::cmdSetSDOTout_Click()
{
    // A value the server takes (1..65535 ms) is applied as typed; anything else is refused
    // here, never cut to another value, and the box shows the time-out in force again.
    const double value = std::nearbyint(lenientValue(txtSDOTimeOut->text()));
    QString error;
    if (value < kMinSdoTimeoutMs || value > kMaxSdoTimeoutMs)
        error = QStringLiteral("SDO time-out '%1' refused: from %2 to %3 ms")
                    .arg(txtSDOTimeOut->text().trimmed().left(20))
                    .arg(kMinSdoTimeoutMs)
                    .arg(kMaxSdoTimeoutMs);
    else
        error = m_link->setSdoTimeout(int(value));
    txtAbort->setText(error);
    txtSDOTimeOut->setText(QString::number(m_link->sdoTimeoutMs()));
}

void SdoPanel::cmbIndex_Click(int row)
{
    const QString data = m_history.dataOf(row);
    txtDataHex->setText(data);
    RefreshViews(hexToBytes(data), int(DataView::Hex));
}

void SdoPanel::cmdGetVect_Click()
{
    const QString addressText = cmbIndex->currentText();
    SdoAddress address = SdoAddress::parse(addressText);
    RememberAddress(addressText, txtDataHex->text());
    if (bus)
        bus->setMonitorSwitch(bus->monitorSwitchState());
    txtVectGet->clear();
    if (bus)
        bus->setTraceHeld(true);
    QString lines;
    address.subIndex = 0;
    QByteArray count;
    txtAbort->setText(SdoRead(address, &count));
    if (txtAbort->text().isEmpty()) {
        const int n = count.isEmpty() ? 0 : quint8(count[0]);
        for (int s = 1; s <= n; ++s) {
            address.subIndex = qint16(s);
            QByteArray entry;
            txtAbort->setText(SdoRead(address, &entry));
            if (!txtAbort->text().isEmpty())
                break;
            lines += vectorLine(entry, chkVHex->isChecked(), chkVDec->isChecked());
            lines += QLatin1String("\r\n");
        }
    }
    if (bus)
        bus->setTraceHeld(false);
    txtVectGet->setPlainText(QString(lines).replace(QLatin1String("\r\n"), QLatin1String("\n")));
    if (bus)
        bus->setMonitorSwitch(true);
}

} // namespace tessel

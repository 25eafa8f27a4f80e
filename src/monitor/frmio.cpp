#include "frmio.h"

#include "frmdiagno.h"
#include "windowplacement.h"

#include <QComboBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QSlider>
#include <QVBoxLayout>

#include <cmath>

namespace tessel {

FrmIO::FrmIO(FrmDiagno* monitor, const WindowPlacement* placement, QWidget* mainWindow,
             QWidget* parent)
    : QWidget(parent, Qt::Window), m_monitor(monitor), m_placement(placement),
      m_mainWindow(mainWindow)
{
    setObjectName(QStringLiteral("frmIO"));
    setWindowTitle(QStringLiteral("Object slider"));
    cmbObject = new QComboBox(this);
    cmbObject->setObjectName(QStringLiteral("cmbObject"));
    for (int i = 1; i <= 8; ++i)
        cmbObject->addItem(QStringLiteral("Send %1").arg(i));
    cmbObject->setToolTip(QStringLiteral("The monitor's transmit slot to write and send"));
    cmbSize = new QComboBox(this);
    cmbSize->setObjectName(QStringLiteral("cmbSize"));
    cmbSize->addItems(
        {QStringLiteral("1 byte"), QStringLiteral("2 bytes"), QStringLiteral("4 bytes")});
    cmbSize->setToolTip(QStringLiteral("Size of the value, little-endian, two's complement"));
    cmbPosition = new QComboBox(this);
    cmbPosition->setObjectName(QStringLiteral("cmbPosition"));
    for (int i = 0; i < 8; ++i)
        cmbPosition->addItem(QStringLiteral("D%1").arg(i));
    cmbPosition->setToolTip(QStringLiteral("The data byte that receives the lowest byte"));
    txtMin = new QLineEdit(QStringLiteral("-67108864"), this);
    txtMin->setObjectName(QStringLiteral("txtMin"));
    txtMin->setToolTip(QStringLiteral("Value at the slider's left end"));
    txtMax = new QLineEdit(QStringLiteral("67108864"), this);
    txtMax->setObjectName(QStringLiteral("txtMax"));
    txtMax->setToolTip(QStringLiteral("Value at the slider's right end"));
    sldSlide = new QSlider(Qt::Horizontal, this);
    sldSlide->setObjectName(QStringLiteral("sldSlide"));
    sldSlide->setRange(0, kSteps);
    sldSlide->setPageStep(kSteps / 20);
    sldSlide->setMinimumWidth(360);
    sldSlide->setToolTip(QStringLiteral("Every movement writes the value into the slot and "
                                        "sends it"));

    lblValue = new QLabel(this);
    lblValue->setObjectName(QStringLiteral("lblValue"));
    lblValue->setToolTip(QStringLiteral("The value last written into the slot"));

    auto* form = new QFormLayout;
    form->addRow(QStringLiteral("Object:"), cmbObject);
    form->addRow(QStringLiteral("Size:"), cmbSize);
    form->addRow(QStringLiteral("Position:"), cmbPosition);
    form->addRow(QStringLiteral("Min:"), txtMin);
    form->addRow(QStringLiteral("Max:"), txtMax);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(sldSlide);
    layout->addWidget(lblValue);

    cmbObject->setCurrentIndex(0);
    cmbSize->setCurrentIndex(2);
    cmbPosition->setCurrentIndex(0);
    rescale();
    connect(txtMin, &QLineEdit::editingFinished, this, [this] { validateLimit(txtMin, &m_min); });
    connect(txtMax, &QLineEdit::editingFinished, this, [this] { validateLimit(txtMax, &m_max); });
    connect(sldSlide, &QSlider::valueChanged, this, &FrmIO::sldSlide_Scroll);
    adjustSize();
}

void FrmIO::validateLimit(QLineEdit* box, double* limit)
{
    bool ok = false;
    const double typed = QLocale::c().toDouble(box->text().trimmed(), &ok);
    if (!ok || !std::isfinite(typed) || std::abs(typed) > 9.0e15) {
        const QString refused = box->text();
        box->setText(QLocale::c().toString(*limit, 'f', 0));
        emit message(QStringLiteral("\"%1\" is not a number: the limit stays %2.")
                         .arg(refused, box->text()));
        return;
    }
    *limit = typed;
    rescale();
}

void FrmIO::rescale()
{
    m_scale = SliderScale::fromRange(m_min, m_max, kSteps);
    // What the slider stands at under the new limits; sent at its next move.
    if (lblValue)
        lblValue->setText(QStringLiteral("Value: %1 (sent when the slider moves)").arg(value()));
}

qint64 FrmIO::value() const
{
    return m_scale.valueAt(sldSlide->value());
}

void FrmIO::sldSlide_Scroll()
{
    const int slot = cmbObject->currentIndex();
    const qint64 v = value();
    // Identifier 000 is NMT: a sweep of values there would send node commands to every node
    // (in the sample configuration, slot 1 is the NMT start frame).
    bool ok = false;
    const QString id = m_monitor->slotGrid->texts(slot).id.trimmed();
    if (id.toUInt(&ok, 16) == 0 && ok) {
        lblValue->setText(QStringLiteral("Value: %1, not sent: Send %2 is identifier 000 (NMT); "
                                         "choose another object")
                              .arg(v)
                              .arg(slot + 1));
        return;
    }
    lblValue->setText(QStringLiteral("Value: %1").arg(v));
    for (const BoxWrite& w :
         sliderBoxWrites(v, 1 << cmbSize->currentIndex(), slot, cmbPosition->currentIndex()))
        m_monitor->setDataBox(w.box, w.text);
    m_monitor->sendSlot(slot);
}

void FrmIO::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    WindowPlacement::placeOnFirstShow(m_placement, this, m_mainWindow, &m_positioned);
}

} // namespace tessel

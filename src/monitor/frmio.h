#pragma once

#include "sliderbytes.h"

#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QSlider;

namespace tessel {

class FrmDiagno;
class WindowPlacement;

// The object slider: sweeps a whole number from Min to Max and writes it, little-endian, into
// the data boxes of a monitor transmit slot, sending the slot on every movement. The slot's own
// identifier and length go as they stand.
class FrmIO : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kSteps = 10000;

    FrmIO(FrmDiagno* monitor, const WindowPlacement* placement, QWidget* mainWindow,
          QWidget* parent = nullptr);

    void sldSlide_Scroll();
    qint64 value() const;

    QComboBox* cmbObject = nullptr;
    QComboBox* cmbSize = nullptr;
    QComboBox* cmbPosition = nullptr;
    QSlider* sldSlide = nullptr;
    QLineEdit* txtMin = nullptr;
    QLineEdit* txtMax = nullptr;
    QLabel* lblValue = nullptr;

protected:
    void showEvent(QShowEvent* event) override;

private:
    // Takes a typed limit, or refuses it with a message and shows the one in force.
    void validateLimit(QLineEdit* box, double* limit);
    void rescale();

    FrmDiagno* m_monitor;
    const WindowPlacement* m_placement;
    QWidget* m_mainWindow;
    double m_min = -67108864;
    double m_max = 67108864;
    SliderScale m_scale;
    bool m_positioned = false;

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

#pragma once

#include "transmitslot.h"

#include <QWidget>

#include <array>

class QCheckBox;
class QLineEdit;
class QPushButton;

namespace tessel {

// The eight transmit slots of the CAN monitor as a grid: a row per slot with its button, its
// identifier, its eight data boxes, its length and its remote-request box.
class SlotGrid : public QWidget
{
    Q_OBJECT
public:
    static constexpr int kSlots = 8;

    explicit SlotGrid(QWidget* parent = nullptr);

    SlotTexts texts(int slot) const;
    void setTexts(int slot, const SlotTexts& texts);
    QList<QWidget*> tabOrder() const;

    std::array<QLineEdit*, kSlots> edID0{};
    std::array<QLineEdit*, kSlots * 8> edD0{};
    std::array<QLineEdit*, kSlots> edLen0{};
    std::array<QCheckBox*, kSlots> chRem{};
    std::array<QPushButton*, kSlots> btnSend{};

signals:
    void sendClicked(int slot);
};

} // namespace tessel

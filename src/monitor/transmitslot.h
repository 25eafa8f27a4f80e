#pragma once

#include <QByteArray>
#include <QString>

#include <array>
#include <optional>

namespace tessel {

// One transmit slot of the CAN monitor as the user typed it: texts only, read at the moment
// of sending, so what is sent is always what the boxes show.
struct SlotTexts
{
    QString id;                  // hexadecimal, no prefix ("181")
    std::array<QString, 8> data; // hexadecimal bytes ("FF"); boxes past the length are unread
    QString length;              // decimal, 0 to 8
    bool remote = false;         // a remote request for `length` bytes, no data read
};

struct SlotFrame
{
    quint16 id = 0;
    int length = 0;
    QByteArray data; // exactly `length` bytes; empty for a remote request
    bool remote = false;
};

// The frame a slot sends, or the reason (for the user) why nothing is sent. The identifier and
// the data boxes are read leniently as hexadecimal after trimming (reading stops at a typo,
// "1FF" gives FF); the
// length must be a whole number from 0 to 8, else "Invalid message lenght".
std::optional<SlotFrame> slotFrame(const SlotTexts& slot, int slotIndex, QString* error);

} // namespace tessel

#include "transmitslot.h"

#include "numbers.h"

#include <cmath>

namespace tessel {

std::optional<SlotFrame> slotFrame(const SlotTexts& slot, int slotIndex, QString* error)
{
    const QString lengthText = slot.length.trimmed();
    bool isNumber = false;
    const double length = lengthText.toDouble(&isNumber);
    if (!isNumber || !std::isfinite(length)) {
        *error = QStringLiteral("The length of slot %1 is \"%2\", not a number: nothing sent.")
                     .arg(slotIndex + 1)
                     .arg(slot.length);
        return std::nullopt;
    }
    // A fractional length would send some bytes the user did not count: refused like one
    // outside the range.
    if (length < 0 || length > 8 || length != std::floor(length)) {
        *error = QStringLiteral("Invalid message lenght");
        return std::nullopt;
    }
    // Blanks around a typed number are not part of it: " 181" must not read as 0, the NMT
    // identifier.
    const QString idText = slot.id.trimmed();
    if (!isHexDigits(idText)) {
        *error = QStringLiteral("The identifier \"%1\" of slot %2 is not hexadecimal: nothing "
                                "sent.")
                     .arg(slot.id)
                     .arg(slotIndex + 1);
        return std::nullopt;
    }
    const qint64 id = qint64(lenientHexValue(idText));
    if (id < 0 || id > 0x7FF) {
        *error = QStringLiteral("The identifier %1 of slot %2 is not an 11-bit CAN identifier "
                                "(0 to 7FF): nothing sent.")
                     .arg(slot.id.trimmed())
                     .arg(slotIndex + 1);
        return std::nullopt;
    }
    SlotFrame frame;
    frame.id = quint16(id);
    frame.length = int(length);
    frame.remote = slot.remote;
    if (!frame.remote) {
        frame.data.resize(frame.length);
        for (int j = 0; j < frame.length; ++j) {
            // An empty box is a 00; anything else is one byte in hexadecimal.
            const QString byte = slot.data[j].trimmed();
            if (!byte.isEmpty() && (!isHexDigits(byte) || byte.toUInt(nullptr, 16) > 0xFF)) {
                *error = QStringLiteral("D%1 of slot %2 holds \"%3\", not a byte (00 to FF): "
                                        "nothing sent.")
                             .arg(j)
                             .arg(slotIndex + 1)
                             .arg(slot.data[j]);
                return std::nullopt;
            }
            frame.data[j] = char(byte.toUInt(nullptr, 16));
        }
    }
    return frame;
}

} // namespace tessel

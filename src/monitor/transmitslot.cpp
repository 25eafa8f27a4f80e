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
    const qint64 id = qint64(lenientHexValue(slot.id.trimmed()));
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
        for (int j = 0; j < frame.length; ++j)
            frame.data[j] = char(qint64(lenientHexValue(slot.data[j].trimmed())) & 0xFF);
    }
    return frame;
}

} // namespace tessel

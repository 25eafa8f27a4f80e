#include "sliderbytes.h"

#include <cmath>

namespace tessel {

SliderScale SliderScale::fromRange(double min, double max, int sliderMaximum)
{
    SliderScale s;
    s.offset = min;
    s.scale = sliderMaximum > 0 ? (max - min) / sliderMaximum : 0;
    return s;
}

qint64 SliderScale::valueAt(int position) const
{
    const double v = std::nearbyint(position * scale + offset);
    if (!(v > -9.2e18 && v < 9.2e18))
        return v > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    return qint64(v);
}

QList<BoxWrite> sliderBoxWrites(qint64 value, int size, int slot, int position)
{
    QList<BoxWrite> writes;
    const quint64 bits = quint64(value); // two's complement: the low bytes are the value's
    for (int k = 0; k < size; ++k) {
        const int box = slot * 8 + position + k;
        if (box < 0 || box >= 64)
            break;
        const unsigned byte = unsigned((bits >> (8 * k)) & 0xFF);
        writes.append({box, QString::number(byte, 16).toUpper()});
    }
    return writes;
}

} // namespace tessel

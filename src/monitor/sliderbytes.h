#pragma once

#include <QList>
#include <QString>

namespace tessel {

// The object slider's mapping of its positions onto Min..Max, linear with the slider's ends on
// Min and Max.
struct SliderScale
{
    double scale = 1;
    double offset = 0;
    static SliderScale fromRange(double min, double max, int sliderMaximum);
    // The whole number for a slider position (halves to even).
    qint64 valueAt(int position) const;
};

struct BoxWrite
{
    int box = 0;  // the monitor's data box: slot * 8 + byte
    QString text; // upper-case hexadecimal without padding ("2", "FF")
};

// The value as a little-endian two's-complement integer of `size` bytes (1, 2 or 4) from data
// box slot * 8 + position on: lowest byte first, never past box 63, the last of slot 8.
QList<BoxWrite> sliderBoxWrites(qint64 value, int size, int slot, int position);

} // namespace tessel

#pragma once

#include <QString>

#include <optional>

namespace tessel {

// Where a plotted trace's values come from, as one line of text that the user types, the
// other windows hand over and the plot's settings keep:
//   sdo NODE,INDEX[,SUB] [TYPE]              an entry read by SDO at the plot's period (hex;
//                                            TYPE u8 u16 u32 i8 i16 i32, else by its size)
//   frame ID BIT:BITS [signed] [*SCALE]      a field of every frame with the identifier (hex),
//                                            little-endian from its first bit
//   analog CHANNEL [latched]                 a bench fixture's analog channel at the period;
//                                            latched: the board holds its readings until told
//                                            to acquire, which each read does first
//   file PATH column NAME                    a column of a CSV with a header line whose first
//                                            column is the time in seconds
//   file PATH frame ID BIT:BITS [signed] [*SCALE]
//                                            a field of the frames of a trace file (candump log,
//                                            ASC, PCAN-View trace) or an acquisition file
// Each may end in "on CONTROLLER" (the live ones; the selected controller when missing), "every
// MS" (the periodic ones: the plot's period when missing) and "as NAME" (the trace's name;
// quoted when it has spaces).
struct PlotSource
{
    enum class Kind
    {
        Entry,
        Frame,
        Analog,
        FileColumn,
        FileFrame,
    };
    Kind kind = Kind::Entry;
    int controller = -1; // -1: the selected one
    int periodMs = 0;    // 0: the plot's
    int node = 0;
    int index = 0;
    int subIndex = 0;
    QString type;
    int id = 0;
    int bit = 0;
    int bits = 8;
    bool isSigned = false;
    double scale = 1;
    int channel = 0;
    bool latched = false;
    QString path;
    QString column;
    QString name;

    static std::optional<PlotSource> parse(const QString& text, QString* error);
    // The line that parses back to this source.
    QString text() const;
    // The trace's name: the one given, else what it shows ("1,6064,00", "181 16:32").
    QString label() const;
    bool isLive() const { return kind != Kind::FileColumn && kind != Kind::FileFrame; }
    bool isPeriodic() const { return kind == Kind::Entry || kind == Kind::Analog; }
    bool isFrameField() const { return kind == Kind::Frame || kind == Kind::FileFrame; }
    // The field's value in a frame's data, scaled; nullopt when the frame is too short for it.
    std::optional<double> fieldValue(const char* data, int length) const;
};

} // namespace tessel

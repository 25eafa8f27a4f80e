#pragma once

#include "plotsource.h"
#include "sampletrace.h"

namespace tessel {

// A recording's values as a trace: a column of a CSV with a header (the first column the time in
// seconds, as tessel-cli sample writes it), or a field of the frames of a trace file or of an
// acquisition file ("ID;TIME;LENGTH;BYTES;" in decimal), times from the recording's first
// frame. A row without a value, or whose value is not a number, is a gap with the reason; a frame
// too short for the field too. What cannot be read at all (no such file, no such column, not a
// recording) is an error, and lines that cannot be read are counted, the first named by its
// number, in *note.
struct FileTrace
{
    SampleRing ring;
    QString error; // empty when the file was read
    QString note;  // what was passed over
    qint64 values = 0;
    qint64 gaps = 0;
};
FileTrace readFileTrace(const PlotSource& source, qsizetype capacity);

} // namespace tessel

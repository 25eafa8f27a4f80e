#pragma once

#include "transmitslot.h"

#include <QByteArray>
#include <QString>

#include <array>

namespace tessel {

// The monitor's set-up as a ".cnd" file holds it: the eight transmit slots, the six receive
// filter boxes and the six sequencer texts.
struct MonitorSetup
{
    static constexpr int kSlots = 8;
    static constexpr int kFilters = 6;
    static constexpr int kSequences = 6;
    std::array<SlotTexts, kSlots> transmitSlots;
    std::array<QString, kFilters> filters;
    std::array<QString, kSequences> sequences;
};

// The file is a list of fields: texts in double quotes (a quote inside a text is doubled),
// numbers bare, separated by commas; lines end with CR LF but a reader takes the fields one by
// one wherever the lines break. Written, it reads:
//   ";COPDIB config file"                                   header
//   "181","12","34","","","","","","","2",0                 8 lines: slot 0..7: identifier,
//                                                           8 data texts, length, remote 0/1
//   "f0",...,"f5","s0",...,"s5"                             filter texts, sequence texts,
//                                                           without a line end
// The first seven characters of the header give the version, which says what follows the
// slots: ";CANDIA" nothing, ";COPDIA" the filters, ";COPDIB" filters and sequences.
QByteArray writeMonitorConfig(const MonitorSetup& setup);

struct MonitorConfigLoad
{
    enum Result
    {
        Loaded,
        UnknownHeader,
        Failed
    };
    Result result = Failed;
    // The set-up given to the reader with every field read so far put in: a load that fails
    // half-way leaves what it read, as the window shows it.
    MonitorSetup setup;
    QString reason; // for a failure: what was wrong, and where
};

MonitorConfigLoad readMonitorConfig(const QByteArray& file, const MonitorSetup& current);

} // namespace tessel

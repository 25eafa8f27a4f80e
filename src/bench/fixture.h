#pragma once

#include "benchcontrol.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace tessel {

class BenchPort;

// One digital output of a fixture board, as its window offers it: the channel is the box's
// index. An assembly fixture's output names the bench versions that have it ("V1", "V2",
// "V1V2"); a box hidden in the form is shown at load on the benches that have it.
struct FixtureOutput
{
    int channel = 0;
    QString caption;
    QString versions;
    bool hiddenInForm = false;
};

struct FixtureDoor
{
    QString label; // up to "= "
    int input = 0;
};

// A fixture window of the family: its outputs, its analog channels and how its read-out reads.
struct FixtureDescription
{
    FixtureKind kind = FixtureKind::Assembly;
    QString objectName;
    QString caption;
    QList<FixtureOutput> outputs;
    QStringList channelNames; // empty: the read-out shows channel numbers only
    // Per channel, what the bench server measures there and in which unit.
    QStringList channelMeanings;
    QStringList channelUnits;
    int channelCount = 0;
    QList<FixtureDoor> doors;
    QString refreshName; // the refresh button's control name
    bool hasGet = false; // "Get" (Command2), the same as Refresh
    bool hasArm = false; // "Arm" (Command1)
    bool acquireFirst = false;
    bool fixedFont = false;
};

const FixtureDescription& fixtureDescription(FixtureKind kind);

// The box rules at load. Assembly: a box is enabled when its versions name the bench's
// ("V2" on type 3, else "V1"). PcbZd3: boxes hidden in the form are shown unless the bench
// is of type 34.
bool fixtureOutputEnabled(const FixtureDescription& d, const FixtureOutput& o, int benchType);
bool fixtureOutputVisible(const FixtureDescription& d, const FixtureOutput& o, int benchType);
// The last analog channel read: "vsupply" (22) is not read on a bench of type 34.
int fixtureLastChannel(const FixtureDescription& d, int benchType);

// Fixed point with three decimals and at least integerDigits integer digits ("00.000" is 2):
// 1.5 -> "01.500", 100 -> "100.000", -3.25 -> "-03.250". A value that rounds to zero has no
// sign.
QString fixedPointText(double value, int integerDigits);
// An analog channel's line, without its line end.
QString fixtureChannelLine(const FixtureDescription& d, int channel, double value);
QString fixtureDoorLine(const FixtureDoor& door, bool closed);
// The read-out line of a channel that could not be read (the assembly fixture carries on).
QString fixtureFailedLine(const FixtureDescription& d, int channel);

// The read-out explained, one row per line in the order of the read-out: the line's start as
// it reads ("Door SW1", "ch 0 pwr short", "vdcbus"), its unit and what it measures.
struct FixtureLegendRow
{
    QString line;
    QString unit;
    QString meaning;
    int channel = -1; // the analog channel; -1 for a door
};
QList<FixtureLegendRow> fixtureLegend(const FixtureDescription& d, int benchType);

// One refresh: the whole read-out (lines ending in CR LF) and the error of the call that failed,
// if one did. The assembly fixture passes over a failed read and carries on (the line reads
// "n/a"); the others stop at the first failure and give no text. Both stop when the server is
// gone.
struct FixtureReadout
{
    QString text;
    QString error;
};
FixtureReadout readFixture(const FixtureDescription& d, int benchType, BenchPort* port);

} // namespace tessel

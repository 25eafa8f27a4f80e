#include "fixture.h"

#include "benchport.h"

#include <cmath>

namespace tessel {

namespace {
const QString kLineEnd = QStringLiteral("\r\n");
constexpr int kZd3NameWidth = 13;

FixtureOutput output(int channel, const char* caption, bool hiddenInForm = false)
{
    return FixtureOutput{channel, QLatin1String(caption), QString(), hiddenInForm};
}

FixtureDescription assembly()
{
    FixtureDescription d;
    d.kind = FixtureKind::Assembly;
    d.objectName = QStringLiteral("frmAcqAsm");
    d.caption = QStringLiteral("Assembly (Asm/19)(AsmV2)");
    const std::pair<const char*, const char*> outputs[] = {
        {"powershort", "V1"}, {"brake-aux", "V1"},    {"aux/PR", "V1"},      {"can", "V1V2"},
        {"gnd-shld", "V1V2"}, {"main/signl", "V1V2"}, {"aux in", "V1V2"},    {"gnd-only", "V1V2"},
        {"en aux pwr", "V2"}, {"led green", "V2"},    {"test aux pwr", "V2"}};
    for (int i = 0; i < int(std::size(outputs)); ++i)
        d.outputs.append(FixtureOutput{i, QLatin1String(outputs[i].first),
                                       QLatin1String(outputs[i].second), false});
    d.channelNames = QStringList{QStringLiteral("pwr short"),     QStringLiteral("brk short"),
                                 QStringLiteral("cont canH"),     QStringLiteral("cont canL"),
                                 QStringLiteral("cont gnd shld"), QStringLiteral("cont aux pwr")};
    d.channelMeanings = QStringList{QStringLiteral("supply at the drive"),
                                    QStringLiteral("brake supply"),
                                    QStringLiteral("CAN high line (continuity)"),
                                    QStringLiteral("CAN low line (continuity)"),
                                    QStringLiteral("ground to shield (continuity)"),
                                    QStringLiteral("auxiliary supply")};
    d.channelUnits = QStringList(6, QStringLiteral("V"));
    d.channelCount = 6;
    d.refreshName = QStringLiteral("Command1");
    d.acquireFirst = true;
    return d;
}

FixtureDescription pcb()
{
    FixtureDescription d;
    d.kind = FixtureKind::Pcb;
    d.objectName = QStringLiteral("frmAcqPcb");
    d.caption = QStringLiteral("Pcb (Pcb/20)");
    d.outputs = {output(1, "endat enable"), output(2, "board reset"), output(3, "Led verde"),
                 output(5, "main power"),   output(6, "aux in"),      output(7, "led rosso")};
    d.channelCount = 13;
    for (int ch = 0; ch < d.channelCount; ++ch)
        d.channelMeanings << QStringLiteral("analog input %1 of the board").arg(ch);
    d.channelUnits = QStringList(d.channelCount, QStringLiteral("V"));
    d.doors = {{QStringLiteral("Door = "), 0}};
    d.refreshName = QStringLiteral("Command3");
    d.hasGet = true;
    d.hasArm = true;
    return d;
}

FixtureDescription pcbZd3()
{
    FixtureDescription d;
    d.kind = FixtureKind::PcbZd3;
    d.objectName = QStringLiteral("frmAcqPcbZd3");
    d.caption = QStringLiteral("PcbZd3");
    d.outputs = {output(1, "endat enable"),      output(3, "led verde"),
                 output(5, "+310V power"),       output(6, "aux in"),
                 output(7, "led rosso"),         output(8, "sel aux +24V"),
                 output(9, "+24V power"),        output(11, "en IGBT short"),
                 output(12, "acq -5V", true),    output(13, "load +5V opto", true),
                 output(14, "STO enable", true), output(15, "sel +12V power", true)};
    const char* names[] = {"vdcbus",       "15v_dig",   "7v_end",     "5v_dig",     "5v_can",
                           "33v_dig",      "30v_ref",   "led0",       "led1",       "led2",
                           "led3",         "endat_clk", "endat_data", "5v_end",     "-5v_dig",
                           "isupply [mA]", "5v_opto",   "4v6_ref",    "vdcfloat_u", "vdcfloat_v",
                           "vdcfloat_w",   "vcan",      "vsupply"};
    for (const char* n : names)
        d.channelNames << QString::fromLatin1(n).leftJustified(kZd3NameWidth, QLatin1Char(' '));
    const char* meanings[] = {"DC bus",
                              "15 V digital rail",
                              "7 V encoder rail",
                              "5 V digital rail",
                              "5 V CAN rail",
                              "3.3 V digital rail",
                              "3.0 V reference",
                              "LED 0",
                              "LED 1",
                              "LED 2",
                              "LED 3",
                              "EnDat clock line",
                              "EnDat data line",
                              "5 V encoder rail",
                              "-5 V digital rail",
                              "supply current",
                              "5 V opto rail",
                              "4.6 V reference",
                              "phase U, floating",
                              "phase V, floating",
                              "phase W, floating",
                              "CAN supply",
                              "board supply"};
    for (const char* m : meanings)
        d.channelMeanings << QString::fromLatin1(m);
    d.channelUnits = QStringList(23, QStringLiteral("V"));
    d.channelUnits[15] = QStringLiteral("mA");
    d.channelCount = 23;
    d.doors = {{QStringLiteral("Door SW1     = "), 0}, {QStringLiteral("Door SW2     = "), 10}};
    d.refreshName = QStringLiteral("Command3");
    d.fixedFont = true;
    return d;
}
} // namespace

const FixtureDescription& fixtureDescription(FixtureKind kind)
{
    static const FixtureDescription kAssembly = assembly();
    static const FixtureDescription kPcb = pcb();
    static const FixtureDescription kPcbZd3 = pcbZd3();
    switch (kind) {
    case FixtureKind::Pcb:
        return kPcb;
    case FixtureKind::PcbZd3:
        return kPcbZd3;
    case FixtureKind::Assembly:
        break;
    }
    return kAssembly;
}

bool fixtureOutputEnabled(const FixtureDescription& d, const FixtureOutput& o, int benchType)
{
    if (d.kind != FixtureKind::Assembly)
        return true;
    return o.versions.contains(benchType == 3 ? QLatin1String("V2") : QLatin1String("V1"));
}

bool fixtureOutputVisible(const FixtureDescription& d, const FixtureOutput& o, int benchType)
{
    if (!o.hiddenInForm)
        return true;
    return d.kind == FixtureKind::PcbZd3 && benchType != 34;
}

int fixtureLastChannel(const FixtureDescription& d, int benchType)
{
    if (d.kind == FixtureKind::PcbZd3 && benchType == 34)
        return 21;
    return d.channelCount - 1;
}

QString fixedPointText(double value, int integerDigits)
{
    QString digits = QString::number(std::fabs(value), 'f', 3);
    const bool negative = value < 0 && digits != QLatin1String("0.000");
    const int integerLength = int(digits.indexOf(QLatin1Char('.')));
    if (integerLength < integerDigits)
        digits.prepend(QString(integerDigits - integerLength, QLatin1Char('0')));
    return negative ? QLatin1Char('-') + digits : digits;
}

QString fixtureChannelLine(const FixtureDescription& d, int channel, double value)
{
    switch (d.kind) {
    case FixtureKind::Assembly:
        return QStringLiteral("ch %1 %2 = %3")
            .arg(channel)
            .arg(d.channelNames.value(channel), fixedPointText(value, 2));
    case FixtureKind::Pcb:
        return QStringLiteral("ch %1 = %2").arg(channel).arg(fixedPointText(value, 3));
    case FixtureKind::PcbZd3:
        break;
    }
    return d.channelNames.value(channel) + QStringLiteral("= ") + fixedPointText(value, 3);
}

QString fixtureFailedLine(const FixtureDescription& d, int channel)
{
    QString line = fixtureChannelLine(d, channel, 0.0);
    return line.left(line.lastIndexOf(QLatin1Char(' ')) + 1) + QStringLiteral("n/a");
}

QList<FixtureLegendRow> fixtureLegend(const FixtureDescription& d, int benchType)
{
    QList<FixtureLegendRow> rows;
    for (const FixtureDoor& door : d.doors)
        rows.append({door.label.left(door.label.indexOf(QLatin1Char('='))).trimmed(), QString(),
                     QStringLiteral("door switch: H closed, L open")});
    for (int ch = 0; ch <= fixtureLastChannel(d, benchType); ++ch) {
        const QString line = fixtureChannelLine(d, ch, 0.0);
        rows.append({line.left(line.lastIndexOf(QLatin1Char('='))).trimmed(),
                     d.channelUnits.value(ch), d.channelMeanings.value(ch), ch});
    }
    return rows;
}

QString fixtureDoorLine(const FixtureDoor& door, bool closed)
{
    return door.label + (closed ? QLatin1Char('H') : QLatin1Char('L'));
}

FixtureReadout readFixture(const FixtureDescription& d, int benchType, BenchPort* port)
{
    FixtureReadout r;
    const bool carryOn = d.kind == FixtureKind::Assembly;
    // The first failure is the one reported; the assembly fixture goes on unless the server
    // itself is gone.
    const auto failed = [&](const QString& error) {
        if (error.isEmpty())
            return false;
        if (r.error.isEmpty())
            r.error = error;
        return !carryOn || !port->reachable();
    };
    if (d.acquireFirst && failed(port->acquire()))
        return {QString(), r.error};
    for (const FixtureDoor& door : d.doors) {
        bool closed = false;
        if (failed(port->readInput(door.input, &closed)))
            return {QString(), r.error};
        r.text += fixtureDoorLine(door, closed) + kLineEnd;
    }
    for (int ch = 0; ch <= fixtureLastChannel(d, benchType); ++ch) {
        double value = 0.0;
        const QString error = port->readAnalog(ch, &value);
        if (failed(error))
            return {QString(), r.error};
        r.text += (error.isEmpty() ? fixtureChannelLine(d, ch, value) : fixtureFailedLine(d, ch)) +
                  kLineEnd;
    }
    return r;
}

} // namespace tessel

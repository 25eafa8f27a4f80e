#include "simbench.h"

#include <QStringList>
#include <QTimer>

namespace qorcalib {

namespace {
// Bench board parameters and commands.
constexpr int kParamMainVoltage = 26;
constexpr int kParamCurrentLimit = 27;
constexpr int kParamBrakeVoltage = 29;
constexpr int kCmdMainOn = 10;
constexpr int kCmdMainOff = 11;
constexpr int kCmdBrakeOff = 12;
constexpr int kCmdBrakeOn = 13;
constexpr int kCmdTransferStart = 16;
constexpr int kCmdTransferEnd = 17;
constexpr double kMaxSupplyVoltage = 60.0;
constexpr double kMaxCurrentLimit = 20.0;
constexpr int kAssemblyChannels = 6;
constexpr int kPcbChannels = 23;
constexpr int kPcb33Channels = 13;
constexpr int kTriggerChannel = 12; // the PCB fixture of type 33 reads its trigger here
constexpr double kTriggerArmedVolts = 5.0;
} // namespace

std::optional<SimBench::Identity> SimBench::parseIdentity(const QString& text)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() != 2)
        return std::nullopt;
    Identity id;
    const QString kind = parts[0].trimmed().toLower();
    bool ok = true;
    if (kind == QLatin1String("asm"))
        id.kind = 1;
    else if (kind == QLatin1String("pcb"))
        id.kind = 2;
    else
        id.kind = kind.toInt(&ok);
    if (!ok)
        return std::nullopt;
    id.type = parts[1].trimmed().toInt(&ok);
    if (!ok)
        return std::nullopt;
    return id;
}

SimBench::SimBench(Identity identity, QObject* parent)
    : QObject(parent), m_identity(identity), m_outputs(kOutputCount, false),
      m_inputs(kInputCount, true)
{
    // The bench comes up with the unit under test powered, as an operator leaves it.
    m_outputs[powerRelayOutput()] = true;
    m_powered = drivesPowered();
    acquire();
}

int SimBench::analogChannelCount() const
{
    if (m_identity.kind == 1)
        return kAssemblyChannels;
    return m_identity.type == 33 ? kPcb33Channels : kPcbChannels;
}

int SimBench::powerRelayOutput() const
{
    return (m_identity.kind == 1 || m_identity.type == 33) ? 5 : 9;
}

bool SimBench::drivesPowered() const
{
    return m_mainOn && !m_cycling && m_mainVoltage >= kMinimumDriveVoltage &&
           m_outputs[powerRelayOutput()];
}

void SimBench::updatePower()
{
    const bool powered = drivesPowered();
    if (powered != m_powered) {
        m_powered = powered;
        m_armed = false; // the trigger fires on the unit's power switching
        emit drivePowerChanged(powered);
        checkOvervoltage();
    }
}

void SimBench::checkOvervoltage()
{
    if (m_powered && m_mainVoltage > kDriveOvervoltage)
        emit overvoltage(m_mainVoltage);
}

void SimBench::dropSession(quint64 session)
{
    if (m_transfer && m_transferOwner == session)
        m_transfer = false;
}

bool SimBench::command(int command, int argument, int* status, QString* error, quint64 session)
{
    Q_UNUSED(argument);
    switch (command) {
    case kCmdMainOn:
        m_mainOn = true;
        break;
    case kCmdMainOff:
        m_mainOn = false;
        break;
    case kCmdBrakeOff:
        m_brakeOn = false;
        break;
    case kCmdBrakeOn:
        m_brakeOn = true;
        break;
    case kCmdTransferStart:
        *status = m_transfer ? 1 : 0;
        m_transfer = true;
        m_transferOwner = session;
        if (drivesPowered()) {
            m_cycling = true;
            QTimer::singleShot(kPowerCycleMs, this, [this] {
                m_cycling = false;
                updatePower();
            });
        }
        updatePower();
        return true;
    case kCmdTransferEnd:
        *status = m_transfer ? 1 : 0;
        m_transfer = false;
        return true;
    default:
        *error = QStringLiteral("unknown bench command %1").arg(command);
        return false;
    }
    *status = 0;
    updatePower();
    return true;
}

bool SimBench::setParameter(int parameter, double value, QString* error)
{
    const auto inRange = [&](const char* what, double max, const char* unit) {
        if (value >= 0.0 && value <= max)
            return true;
        *error = QStringLiteral("bench parameter %1 (%2): %3 %4 is out of range (0 to %5 %4)")
                     .arg(parameter)
                     .arg(QLatin1String(what))
                     .arg(value, 0, 'g', 10)
                     .arg(QLatin1String(unit))
                     .arg(max);
        return false;
    };
    switch (parameter) {
    case kParamMainVoltage:
        if (!inRange("main supply voltage", kMaxSupplyVoltage, "V"))
            return false;
        {
            const bool wasPowered = m_powered;
            const bool changed = value != m_mainVoltage;
            m_mainVoltage = value;
            updatePower(); // a unit switched on here is checked there
            if (wasPowered && m_powered && changed)
                checkOvervoltage();
            return true;
        }
    case kParamCurrentLimit:
        if (!inRange("main supply current limit", kMaxCurrentLimit, "A"))
            return false;
        m_currentLimit = value;
        break;
    case kParamBrakeVoltage:
        if (!inRange("brake supply voltage", kMaxSupplyVoltage, "V"))
            return false;
        m_brakeVoltage = value;
        break;
    default:
        *error = QStringLiteral("unknown bench parameter %1").arg(parameter);
        return false;
    }
    updatePower();
    return true;
}

void SimBench::acquire()
{
    m_latched.resize(analogChannelCount());
    for (int ch = 0; ch < m_latched.size(); ++ch)
        m_latched[ch] = idealAnalog(ch) + (m_noise.generateDouble() - 0.5) * 0.02;
}

double SimBench::idealAnalog(int channel) const
{
    const bool powered = drivesPowered();
    const double vbus = powered ? m_mainVoltage : 0.0;
    if (m_identity.kind == 1) {
        const int auxOutput = m_identity.type == 3 ? 8 : 2;
        switch (channel) {
        case 0: // pwr short: supply at the drive
            return vbus;
        case 1: // brk short
            return m_brakeOn ? m_brakeVoltage : 0.0;
        case 2: // cont canH
        case 3: // cont canL
            return powered ? 2.5 : 0.0;
        case 4: // cont gnd shld
            return 0.0;
        case 5: // cont aux pwr
            return m_outputs[auxOutput] ? 24.0 : 0.0;
        default:
            return 0.0;
        }
    }
    if (!powered)
        return 0.0;
    // The board's rails, in the fixture's channel order.
    static constexpr double rails[kPcbChannels] = {-1.0 /* vdcbus */,
                                                   15.0,
                                                   7.0,
                                                   5.0,
                                                   5.0,
                                                   3.3,
                                                   3.0,
                                                   3.3,
                                                   0.0,
                                                   3.3,
                                                   0.0,
                                                   2.5,
                                                   2.5,
                                                   5.0,
                                                   -5.0,
                                                   -2.0 /* isupply */,
                                                   5.0,
                                                   4.6,
                                                   -3.0,
                                                   -3.0,
                                                   -3.0,
                                                   5.0,
                                                   -1.0 /* vsupply */};
    if (channel < 0 || channel >= kPcbChannels)
        return 0.0;
    const double rail = rails[channel];
    if (rail == -1.0)
        return vbus;
    if (rail == -2.0) // isupply [mA]: standby current of the board
        return 85.0 + vbus * 0.5;
    if (rail == -3.0) // floating phase voltages sit at half the bus
        return vbus / 2.0;
    return rail;
}

bool SimBench::readAnalog(int channel, double* value, QString* error)
{
    if (channel < 0 || channel >= analogChannelCount()) {
        *error = QStringLiteral("analog channel %1 out of range (0..%2)")
                     .arg(channel)
                     .arg(analogChannelCount() - 1);
        return false;
    }
    if (m_identity.kind == 1)
        *value = m_latched.value(channel);
    else if (m_identity.type == 33 && channel == kTriggerChannel)
        *value = m_armed ? kTriggerArmedVolts : 0.0;
    else
        *value = idealAnalog(channel) + (m_noise.generateDouble() - 0.5) * 0.02;
    return true;
}

bool SimBench::readInput(int channel, bool* state, QString* error) const
{
    if (channel < 0 || channel >= kInputCount) {
        *error = QStringLiteral("input %1 out of range (0..%2)").arg(channel).arg(kInputCount - 1);
        return false;
    }
    *state = m_inputs[channel];
    return true;
}

bool SimBench::setInput(int channel, bool state)
{
    if (channel < 0 || channel >= kInputCount)
        return false;
    if (m_inputs[channel] != state) {
        m_inputs[channel] = state;
        emit inputChanged(channel, state);
    }
    return true;
}

bool SimBench::setOutput(int channel, bool state, QString* error)
{
    if (channel < 0 || channel >= kOutputCount) {
        *error =
            QStringLiteral("output %1 out of range (0..%2)").arg(channel).arg(kOutputCount - 1);
        return false;
    }
    m_outputs[channel] = state;
    updatePower();
    return true;
}

bool SimBench::output(int channel) const
{
    return channel >= 0 && channel < kOutputCount && m_outputs[channel];
}

} // namespace qorcalib

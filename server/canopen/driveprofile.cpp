#include "driveprofile.h"

#include <QtEndian>

#include <algorithm>
#include <cmath>

namespace qorcalib {

namespace {

constexpr quint16 kControlword = 0x6040;
constexpr quint16 kStatusword = 0x6041;
constexpr quint16 kErrorCode = 0x603F;
constexpr quint16 kMode = 0x6060;
constexpr quint16 kModeDisplay = 0x6061;
constexpr quint16 kPositionActual = 0x6064;
constexpr quint16 kFollowingWindow = 0x6065;
constexpr quint16 kVelocityActual = 0x606C;
constexpr quint16 kMaxTorque = 0x6072;
constexpr quint16 kTargetPosition = 0x607A;
constexpr quint16 kProfileSpeed = 0x6081; // "profile velocity": the name is the mode's
constexpr quint16 kAcceleration = 0x6083;
constexpr quint16 kDeceleration = 0x6084;
constexpr quint16 kQuickStopDeceleration = 0x6085;
constexpr quint16 kHomingMethod = 0x6098;
constexpr quint16 kHomingSpeeds = 0x6099;
constexpr quint16 kTargetVelocity = 0x60FF;

// Controlword bits.
constexpr quint16 kSwitchOn = 0x0001;
constexpr quint16 kEnableVoltage = 0x0002;
constexpr quint16 kQuickStop = 0x0004;
constexpr quint16 kEnableOperation = 0x0008;
constexpr quint16 kNewSetPoint = 0x0010;
constexpr quint16 kRelative = 0x0040;
constexpr quint16 kFaultReset = 0x0080;
constexpr quint16 kHalt = 0x0100;

// A position is reached within this many increments, a velocity within this many per second.
constexpr double kPositionWindow = 0.5;
constexpr double kVelocityWindow = 1.0;

} // namespace

DriveProfile::DriveProfile(ObjectValues* dictionary, Hooks hooks)
    : m_dictionary(dictionary), m_hooks(std::move(hooks))
{
}

qint64 DriveProfile::integer(quint16 index, quint8 subIndex) const
{
    const QByteArray raw = m_dictionary->value(index, subIndex);
    if (raw.isEmpty())
        return 0;
    QByteArray padded = raw.left(8);
    // Signed entries of the profile are the 32-bit positions and velocities and the 8-bit
    // modes; unsigned ones are read as they are.
    const bool isSigned = index == kTargetPosition || index == kTargetVelocity || index == kMode ||
                          index == kHomingMethod;
    const bool negative = isSigned && (quint8(raw.back()) & 0x80);
    padded.append(8 - padded.size(), negative ? '\xFF' : '\0');
    return qFromLittleEndian<qint64>(padded.constData());
}

void DriveProfile::setInteger(quint16 index, qint64 value, int bytes)
{
    QByteArray raw(8, '\0');
    qToLittleEndian(value, raw.data());
    raw.truncate(bytes);
    if (m_dictionary->value(index, 0) == raw)
        return;
    m_dictionary->write(index, 0, raw);
    if (m_hooks.changed)
        m_hooks.changed(index);
}

void DriveProfile::start(qint64 nowUs)
{
    m_state = State::NotReadyToSwitchOn;
    m_lastControlword = quint16(integer(kControlword));
    m_activeFault = 0;
    m_lastStepUs = nowUs;
    m_mode = qint8(integer(kMode));
    m_demand = m_actual = double(integer(kPositionActual));
    m_velocity = m_actualVelocity = 0.0;
    m_hasTarget = m_setPointAck = m_homed = m_followingError = false;
    setInteger(kModeDisplay, m_mode, 1);
    // The drive's own initialisation takes no time here.
    enter(State::SwitchOnDisabled);
}

void DriveProfile::enter(State state)
{
    const bool wasEnabled = m_state == State::OperationEnabled;
    m_state = state;
    if (state != State::OperationEnabled && state != State::QuickStopActive) {
        // Without an enabled power stage nothing is driven: the motor stops where it is.
        m_velocity = m_actualVelocity = 0.0;
        m_demand = m_actual;
        m_hasTarget = false;
    }
    if (state == State::OperationEnabled && !wasEnabled) {
        m_demand = m_actual;
        m_target = m_actual;
    }
    publishStatus();
}

bool DriveProfile::moving() const
{
    return m_hasTarget || std::abs(m_velocity) > 0.0 || std::abs(m_actualVelocity) > 0.0 ||
           std::abs(m_actual - m_demand) > kPositionWindow ||
           (m_state == State::OperationEnabled && m_mode == kProfileVelocity &&
            integer(kTargetVelocity) != 0);
}

void DriveProfile::publishStatus()
{
    quint16 word = 0x0200; // remote: the controlword is obeyed
    switch (m_state) {
    case State::NotReadyToSwitchOn:
        break;
    case State::SwitchOnDisabled:
        word |= 0x0040;
        break;
    case State::ReadyToSwitchOn:
        word |= 0x0031;
        break;
    case State::SwitchedOn:
        word |= 0x0033;
        break;
    case State::OperationEnabled:
        word |= 0x0037;
        break;
    case State::QuickStopActive:
        word |= 0x0017;
        break;
    case State::FaultReactionActive:
        word |= 0x001F;
        break;
    case State::Fault:
        word |= 0x0008;
        break;
    }
    const quint16 control = quint16(integer(kControlword));
    const bool stopped = std::abs(m_velocity) <= 0.0;
    bool reached = false;
    if (m_mode == kProfileVelocity)
        reached = (control & kHalt)
                      ? stopped
                      : std::abs(m_velocity - double(integer(kTargetVelocity))) < kVelocityWindow;
    else
        reached = !m_hasTarget && stopped;
    if (reached && m_state == State::OperationEnabled)
        word |= 0x0400;
    if (m_mode == kProfilePosition && m_setPointAck)
        word |= 0x1000;
    if (m_mode == kHoming && m_homed)
        word |= 0x1000;
    if (m_followingError)
        word |= 0x2000;
    setInteger(kStatusword, word, 2);
}

void DriveProfile::controlwordWritten(qint64 nowUs)
{
    const quint16 control = quint16(integer(kControlword));
    const quint16 rising = quint16(control & ~m_lastControlword);
    m_lastControlword = control;
    const bool disableVoltage = !(control & kEnableVoltage);
    const bool quickStop = (control & (kEnableVoltage | kQuickStop)) == kEnableVoltage;
    const bool shutdown = (control & 0x0007) == 0x0006;
    const bool switchOn = (control & 0x000F) == 0x0007;
    const bool enableOperation = (control & 0x000F) == 0x000F;

    switch (m_state) {
    case State::Fault:
        if (rising & kFaultReset) {
            const quint16 cleared = m_activeFault;
            m_activeFault = 0;
            m_followingError = false;
            setInteger(kErrorCode, 0, 2);
            enter(State::SwitchOnDisabled);
            if (cleared && m_hooks.faultCleared)
                m_hooks.faultCleared(cleared);
        }
        return;
    case State::FaultReactionActive:
    case State::NotReadyToSwitchOn:
        return;
    case State::SwitchOnDisabled:
        if (shutdown)
            enter(State::ReadyToSwitchOn);
        break;
    case State::ReadyToSwitchOn:
        if (disableVoltage || quickStop)
            enter(State::SwitchOnDisabled);
        else if (switchOn)
            enter(State::SwitchedOn);
        else if (enableOperation)
            enter(State::OperationEnabled); // switch on and enable at once
        break;
    case State::SwitchedOn:
        if (disableVoltage || quickStop)
            enter(State::SwitchOnDisabled);
        else if (shutdown)
            enter(State::ReadyToSwitchOn);
        else if (enableOperation)
            enter(State::OperationEnabled);
        break;
    case State::OperationEnabled:
        if (disableVoltage)
            enter(State::SwitchOnDisabled);
        else if (quickStop) {
            m_hasTarget = false;
            enter(State::QuickStopActive);
        } else if (shutdown)
            enter(State::ReadyToSwitchOn);
        else if (switchOn)
            enter(State::SwitchedOn);
        break;
    case State::QuickStopActive:
        if (disableVoltage)
            enter(State::SwitchOnDisabled);
        else if (enableOperation && (control & kQuickStop))
            enter(State::OperationEnabled);
        break;
    }
    if (m_state == State::OperationEnabled) {
        if (m_mode == kProfilePosition && (rising & kNewSetPoint))
            acceptSetPoint(control);
        else if (m_mode == kHoming && (rising & kNewSetPoint)) {
            m_homed = false;
            const qint64 method = integer(kHomingMethod);
            if (method == 35 || method == 37) {
                m_actual = m_demand = 0.0;
                setInteger(kPositionActual, 0, 4);
                m_homed = true;
            } else {
                m_target = 0.0;
                m_hasTarget = true;
            }
        }
    }
    if (m_mode == kProfilePosition && !(control & kNewSetPoint))
        m_setPointAck = false;
    m_lastStepUs = nowUs;
    publishStatus();
}

void DriveProfile::acceptSetPoint(quint16 controlword)
{
    // Every new set-point is taken at once, as with "change set immediately": this drive keeps
    // no set-point waiting behind a running move.
    const double target = double(integer(kTargetPosition));
    m_target = (controlword & kRelative) ? m_target + target : target;
    m_hasTarget = true;
    m_setPointAck = true;
}

void DriveProfile::modeWritten()
{
    m_mode = qint8(integer(kMode));
    m_hasTarget = false;
    m_homed = false;
    setInteger(kModeDisplay, m_mode, 1);
    publishStatus();
}

void DriveProfile::raiseFault(quint16 errorCode, qint64 nowUs)
{
    Q_UNUSED(nowUs)
    if (m_state == State::Fault || m_state == State::FaultReactionActive)
        return;
    m_activeFault = errorCode;
    setInteger(kErrorCode, errorCode, 2);
    // The fault reaction (the power stage switched off) is immediate here.
    enter(State::FaultReactionActive);
    enter(State::Fault);
    if (m_hooks.fault)
        m_hooks.fault(errorCode);
}

void DriveProfile::moveProfile(double dt)
{
    const quint16 control = quint16(integer(kControlword));
    const double accel = std::max(1.0, double(integer(kAcceleration)));
    const double decel = std::max(1.0, double(integer(kDeceleration)));
    const double quickDecel =
        integer(kQuickStopDeceleration) > 0 ? double(integer(kQuickStopDeceleration)) : decel;
    double wanted = 0.0; // the velocity the profile heads for
    double brake = decel;
    if (m_state == State::QuickStopActive) {
        brake = quickDecel;
    } else if (control & kHalt) {
        brake = quickDecel;
    } else if (m_mode == kProfileVelocity) {
        wanted = double(integer(kTargetVelocity));
    } else if (m_hasTarget) {
        const double speed = m_mode == kHoming && integer(kHomingSpeeds, 1) > 0
                                 ? double(integer(kHomingSpeeds, 1))
                                 : std::max(1.0, double(integer(kProfileSpeed)));
        const double distance = m_target - m_demand;
        // The highest speed from which the move still stops at the target.
        const double reachable = std::sqrt(2.0 * decel * std::abs(distance));
        wanted = std::copysign(std::min(speed, reachable), distance);
        if (std::abs(distance) <= kPositionWindow && std::abs(m_velocity) <= decel * dt) {
            m_demand = m_target;
            m_velocity = 0.0;
            m_hasTarget = false;
            if (m_mode == kHoming) {
                m_homed = true;
                m_actual = m_demand = m_target = 0.0;
            }
            return;
        }
    }
    const bool speedingUp = std::abs(wanted) > std::abs(m_velocity) &&
                            (m_velocity == 0.0 || (wanted > 0.0) == (m_velocity > 0.0));
    const double limit = speedingUp ? accel : brake;
    const double change = std::clamp(wanted - m_velocity, -limit * dt, limit * dt);
    m_velocity += change;
    m_demand += m_velocity * dt;
    if (m_state == State::QuickStopActive && m_velocity == 0.0)
        enter(State::SwitchOnDisabled);
}

void DriveProfile::moveActual(double dt, qint64 nowUs)
{
    // The motor follows the demand through a lag: 1 ms at 300 % torque, longer with less.
    const double torque = std::max(1.0, double(integer(kMaxTorque)));
    const double lag = 0.001 * 3000.0 / torque;
    const double before = m_actual;
    m_actual += (m_demand - m_actual) * std::min(1.0, dt / lag);
    m_actualVelocity = dt > 0.0 ? (m_actual - before) / dt : 0.0;
    if (std::abs(m_demand - m_actual) < 0.01 && m_velocity == 0.0) {
        m_actual = m_demand;
        m_actualVelocity = 0.0;
    }
    setInteger(kPositionActual, qint64(std::llround(m_actual)), 4);
    setInteger(kVelocityActual, qint64(std::llround(m_actualVelocity)), 4);
    // No window (a drive without 6065) or FFFFFFFF: the lag is never a fault.
    const bool watched = !m_dictionary->value(kFollowingWindow, 0).isEmpty() &&
                         quint64(integer(kFollowingWindow)) != 0xFFFFFFFFu;
    if (watched && std::abs(m_demand - m_actual) > double(integer(kFollowingWindow))) {
        m_followingError = true;
        raiseFault(kFollowingError, nowUs);
    }
}

void DriveProfile::step(qint64 nowUs)
{
    double dt = m_lastStepUs < 0 ? 0.0 : double(nowUs - m_lastStepUs) / 1e6;
    m_lastStepUs = nowUs;
    // At rest the drive is stepped only when something else wakes it; a move that begins (a
    // target velocity written by SDO or PDO) begins now, one step's time, not at that wake-up.
    if (!m_movingAtLastStep)
        dt = std::min(dt, double(kStepUs) / 1e6);
    m_movingAtLastStep = moving();
    if (m_state != State::OperationEnabled && m_state != State::QuickStopActive)
        return;
    if (dt <= 0.0)
        return;
    moveProfile(dt);
    moveActual(dt, nowUs);
    publishStatus();
}

qint64 DriveProfile::nextDeadlineUs() const
{
    if (m_state != State::OperationEnabled && m_state != State::QuickStopActive)
        return -1;
    if (!moving())
        return -1;
    return m_lastStepUs + kStepUs;
}

} // namespace qorcalib

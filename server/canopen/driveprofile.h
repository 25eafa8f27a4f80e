#pragma once

#include "objectvalues.h"

#include <functional>

namespace qorcalib {

// The drive profile of a servo drive (CiA 402): the state machine driven by the controlword
// (6040) and shown in the statusword (6041), the modes of operation (6060, shown in 6061)
// profile position (1), profile velocity (3) and homing (6), and a motion model with
// trapezoidal profiles. Time comes through step (every kStepUs while something moves); the
// objects live in the node's dictionary, read and written through ObjectValues.
//
// Controlword: bit 0 switch on, 1 enable voltage, 2 quick stop (0 stops), 3 enable operation,
// 4 new set-point (profile position) or start homing, 5 change set immediately, 6 relative,
// 7 fault reset (on its rising edge), 8 halt. A command the current state does not take is
// ignored, as the profile says.
// Statusword: bit 0 ready to switch on, 1 switched on, 2 operation enabled, 3 fault, 4 voltage
// enabled, 5 quick stop (0 while stopping), 6 switch on disabled, 9 remote, 10 target reached,
// 12 set-point acknowledge (profile position) / homing attained, 13 following error / homing
// error.
//
// Motion (units: increments, increments/s, increments/s²): a profile position move goes to
// 607A (absolute, or relative to the last target) at up to 6081 with 6083 and 6084; a profile
// velocity move ramps to 60FF; homing moves to position 0 at 6099 sub 1 (methods 35 and 37 take
// the present position as home at once). Quick stop and halt decelerate with 6085. The actual
// position follows the demand with a lag that grows as the maximum torque (6072, per mille of
// the rated torque) falls; a lag beyond the following error window (6065; FFFFFFFF: never)
// raises fault 8611.
class DriveProfile
{
public:
    enum class State
    {
        NotReadyToSwitchOn,
        SwitchOnDisabled,
        ReadyToSwitchOn,
        SwitchedOn,
        OperationEnabled,
        QuickStopActive,
        FaultReactionActive,
        Fault,
    };
    static constexpr qint8 kProfilePosition = 1;
    static constexpr qint8 kProfileVelocity = 3;
    static constexpr qint8 kHoming = 6;
    static constexpr qint64 kStepUs = 1000;
    static constexpr quint16 kFollowingError = 0x8611;

    struct Hooks
    {
        // An entry the profile wrote (statusword, actual values): transmit PDOs may be due.
        std::function<void(quint16 index)> changed;
        // A fault was raised (its error code), or cleared by a fault reset.
        std::function<void(quint16 errorCode)> fault;
        std::function<void(quint16 errorCode)> faultCleared;
    };

    DriveProfile(ObjectValues* dictionary, Hooks hooks);

    // The drive's application starts (or starts over): switch on disabled, nothing moving.
    void start(qint64 nowUs);
    // The controlword, or the mode of operation, was written.
    void controlwordWritten(qint64 nowUs);
    void modeWritten();
    // A fault from outside the profile (the bus's over-voltage): fault reaction, then fault.
    void raiseFault(quint16 errorCode, qint64 nowUs);

    void step(qint64 nowUs);
    // When step wants to run next; -1 while nothing moves.
    qint64 nextDeadlineUs() const;

    State state() const { return m_state; }
    double demandPosition() const { return m_demand; }

private:
    qint64 integer(quint16 index, quint8 subIndex = 0) const;
    void setInteger(quint16 index, qint64 value, int bytes);
    void enter(State state);
    void publishStatus();
    void acceptSetPoint(quint16 controlword);
    void moveProfile(double dt);
    void moveActual(double dt, qint64 nowUs);
    bool moving() const;

    ObjectValues* m_dictionary;
    Hooks m_hooks;
    State m_state = State::NotReadyToSwitchOn;
    quint16 m_lastControlword = 0;
    quint16 m_activeFault = 0;
    qint64 m_lastStepUs = -1;
    bool m_movingAtLastStep = false;
    qint8 m_mode = 0;
    // The profile generator: where the drive is asked to be, and how fast it goes there.
    double m_demand = 0.0;
    double m_velocity = 0.0;
    double m_target = 0.0;
    bool m_hasTarget = false;   // a profile position move or homing runs
    bool m_setPointAck = false; // statusword bit 12 in profile position
    bool m_homed = false;
    bool m_followingError = false;
    // The motor: where it is.
    double m_actual = 0.0;
    double m_actualVelocity = 0.0;
};

} // namespace qorcalib

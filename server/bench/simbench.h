#pragma once

#include "serialloader.h"

#include <QObject>
#include <QRandomGenerator>
#include <QVector>

#include <optional>

namespace qorcalib {

// The simulated test bench: programmable main and brake supplies, the fixture board's digital
// outputs and inputs, and analog channels that follow the supplies with a little noise.
//
// Kind 1 is an assembly bench (type 3 by default), any other kind a PCB bench (type 33, 34, ...).
// The drives get power while the main supply is on at 18 V or more and the bench's power relay
// output is closed (output 5 on assembly benches and PCB benches of type 33, else output 9).
//
// Firmware transfers: command 16 begins one. The bench cycles the drives' supply (off for
// kPowerCycleMs, when they have power), so that they boot into their boot loader while a boot
// catch waits; command 17 ends it. Both answer 1 when a transfer was under way before, else 0.
// A transfer belongs to the session that began it and ends with that session.
//
// The fixture's inputs all read True, its door switches (inputs 0 and 10) closed, until set
// otherwise (setInput: the server's status window and its --doors-open option). Arm arms the
// fixture's trigger: the PCB fixture of type 33 reads it on analog channel 12 (5 V armed, 0 V
// idle) until the unit's power next switches, which fires it. Drives powered above
// kDriveOvervoltage report an overvoltage (the server has them raise the alarm).
class SimBench : public QObject
{
    Q_OBJECT
public:
    struct Identity
    {
        int kind = 1;
        int type = 3;
    };
    // "asm:3", "pcb:33", "pcb:34", or "KIND:TYPE" in numbers.
    static std::optional<Identity> parseIdentity(const QString& text);

    static constexpr int kOutputCount = 32;
    static constexpr int kInputCount = 16;
    static constexpr double kMinimumDriveVoltage = 18.0;
    static constexpr int kPowerCycleMs = 50;
    static constexpr double kDriveOvervoltage = 56.0;
    static constexpr int kDoorInputs[] = {0, 10};

    explicit SimBench(Identity identity, QObject* parent = nullptr);

    Identity identity() const { return m_identity; }
    // Third value of GetBenchInfo: the bench board's firmware version.
    int boardVersion() const { return 0x0203; }
    int analogChannelCount() const;
    bool drivesPowered() const;

    // session: who sends it (0: nobody in particular).
    bool command(int command, int argument, int* status, QString* error, quint64 session = 0);
    // The session is gone: a firmware transfer it began is no longer under way.
    void dropSession(quint64 session);
    bool setParameter(int parameter, double value, QString* error);
    // The serial link to the unit (GetTestState is its state); it loads while the unit has power.
    SerialLoader* serialLoader() { return &m_serial; }
    int testState() const { return m_serial.state(); }

    void initIo() { m_ioInitialised = true; }
    void acquire();
    void arm() { m_armed = true; }
    bool setInput(int channel, bool state);
    bool readAnalog(int channel, double* value, QString* error);
    bool readInput(int channel, bool* state, QString* error) const;
    bool setOutput(int channel, bool state, QString* error);
    bool output(int channel) const;

    bool mainSupplyOn() const { return m_mainOn; }
    bool transferActive() const { return m_transfer; }
    double mainVoltage() const { return m_mainVoltage; }

signals:
    void drivePowerChanged(bool powered);
    // The drives have power above kDriveOvervoltage: at the given voltage.
    void overvoltage(double volts);
    void inputChanged(int channel, bool state);

private:
    int powerRelayOutput() const;
    double idealAnalog(int channel) const;
    void updatePower();
    void checkOvervoltage();

    Identity m_identity;
    bool m_mainOn = true;
    double m_mainVoltage = 48.0;
    double m_currentLimit = 5.0;
    bool m_brakeOn = false;
    double m_brakeVoltage = 24.0;
    QVector<bool> m_outputs;
    QVector<bool> m_inputs;
    QVector<double> m_latched; // assembly benches read what the last Acquire latched
    bool m_ioInitialised = false;
    bool m_armed = false;
    bool m_powered = false;
    bool m_transfer = false;
    quint64 m_transferOwner = 0;
    bool m_cycling = false; // the supply is off for a power cycle
    SerialLoader m_serial{[this] { return drivesPowered(); }};
    QRandomGenerator m_noise{0x5eed};
};

} // namespace qorcalib

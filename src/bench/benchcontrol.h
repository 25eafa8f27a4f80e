#pragma once

#include <QMap>
#include <QObject>
#include <QString>

#include <optional>

namespace tessel {

class BenchPort;

// The fixture window that serves a bench.
enum class FixtureKind
{
    Assembly, // frmAcqAsm, any assembly bench
    Pcb,      // frmAcqPcb, the PCB bench of type 33
    PcbZd3,   // frmAcqPcbZd3, every other PCB bench
};

// What the main window's bench panel shows for a bench (kind 1: assembly bench; type 3: its
// second version; 33 and 34: PCB benches).
//
// Assembly benches show picAsm: the unit's supply relay (output 5, "Main", or "Sgnl" on the
// second version, whose programmable supply powers the unit), the auxiliary supply ("En PR" on
// the first version, output 2; "AuxPwr" on the second, output 8), the auxiliary input and the
// brake. PCB benches show picPcb: the board's supply relay and, on type 33 whose board has a
// reset line on output 2, the reset. The main supply is on every bench; the brake supply is
// programmable on the assembly bench of type 3 only.
struct BenchLayout
{
    bool assembly = false;     // picAsm, else picPcb
    bool pcbReset = false;     // chkPCBReset
    bool brakeBox = false;     // chkPowerBrake
    bool brakeSupply = false;  // txtBrkVout, cmdDoBrkVout
    bool mainSupply = true;    // txtVout, cmdDoVout, cmdShutdown
    QString mainCaption;       // chkPowerMain
    QString auxCaption;        // chkPowerAux
    int supplyRelayOutput = 5; // the output that powers the unit
    FixtureKind fixture = FixtureKind::Assembly;
};
BenchLayout benchLayout(int kind, int type);

// The rules of the bench panel: which output or command each control sends on the bench, the
// I/O initialisation at the first action, and the supply sequences. Every action answers with
// the error that stopped it (empty when it went through); an action stops at its first failed
// call, so a refused voltage leaves the supply as it was.
class BenchControl : public QObject
{
    Q_OBJECT
public:
    // Bench board parameters and commands.
    static constexpr int kParamMainVoltage = 26;
    static constexpr int kParamMainStart = 27;
    static constexpr int kParamBrakeVoltage = 29;
    static constexpr double kMainStartValue = 5.0;
    static constexpr int kCmdMainOn = 10;
    static constexpr int kCmdMainOff = 11;
    static constexpr int kCmdBrakeOff = 12;
    static constexpr int kCmdBrakeOn = 13;

    BenchControl(int kind, int type, BenchPort* port, QObject* parent = nullptr);

    int kind() const { return m_kind; }
    int type() const { return m_type; }
    const BenchLayout& layout() const { return m_layout; }
    BenchPort* port() const { return m_port; }

    // BenchIoPending: true until the first action, which initialises the bench's I/O once
    // (whether or not that works: it is not tried again).
    bool ioPending() const { return m_ioPending; }
    QString prologue();

    QString powerMain(bool ticked);
    QString powerAux(bool ticked);
    QString powerAuxIn(bool ticked);
    QString powerBrake(bool ticked);
    QString pcbMain(bool ticked);
    // The reset line is driven inverted: ticked drives the output false.
    QString pcbReset(bool ticked);
    // The texts are read leniently (0 when they hold no number) and go to the board as read.
    QString mainSupplyOn(const QString& volts);
    QString brakeSupplyOn(const QString& volts);
    QString shutdown(bool brakeSupplyShown);

    // An output set from this program (prologue included), remembered so that every control of
    // that output shows it; the bench's own state is not read back. The unit's supply relay
    // starts closed, as the bench comes up.
    QString setOutput(int channel, bool state);
    std::optional<bool> knownOutput(int channel) const;

signals:
    void outputChanged(int channel, bool state);

private:
    QString command(int code);

    int m_kind;
    int m_type;
    BenchLayout m_layout;
    BenchPort* m_port;
    bool m_ioPending = true;
    QMap<int, bool> m_known;
};

} // namespace tessel

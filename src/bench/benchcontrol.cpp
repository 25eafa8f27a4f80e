#include "benchcontrol.h"

#include "benchport.h"
#include "numbers.h"
#include "waitcursor.h"

namespace tessel {

BenchLayout benchLayout(int kind, int type)
{
    BenchLayout l;
    l.assembly = kind == 1;
    if (l.assembly) {
        const bool second = type == 3;
        l.brakeBox = true;
        l.brakeSupply = second;
        l.mainCaption = second ? QStringLiteral("Sgnl") : QStringLiteral("Main");
        l.auxCaption = second ? QStringLiteral("AuxPwr") : QStringLiteral("En PR");
        l.supplyRelayOutput = 5;
        l.fixture = FixtureKind::Assembly;
    } else {
        l.pcbReset = type == 33;
        l.mainCaption = QStringLiteral("Main");
        l.auxCaption = QStringLiteral("Aux Zd");
        l.supplyRelayOutput = type == 33 ? 5 : 9;
        l.fixture = type == 33 ? FixtureKind::Pcb : FixtureKind::PcbZd3;
    }
    return l;
}

BenchControl::BenchControl(int kind, int type, BenchPort* port, QObject* parent)
    : QObject(parent), m_kind(kind), m_type(type), m_layout(benchLayout(kind, type)), m_port(port)
{
    m_known.insert(m_layout.supplyRelayOutput, true);
}

QString BenchControl::prologue()
{
    if (!m_ioPending)
        return {};
    m_ioPending = false;
    WaitCursor wait;
    return m_port->initIo();
}

QString BenchControl::setOutput(int channel, bool state)
{
    QString error = prologue();
    if (error.isEmpty())
        error = m_port->setOutput(channel, state);
    if (error.isEmpty() && m_known.value(channel, !state) != state) {
        m_known.insert(channel, state);
        emit outputChanged(channel, state);
    }
    return error;
}

std::optional<bool> BenchControl::knownOutput(int channel) const
{
    const auto it = m_known.constFind(channel);
    return it == m_known.constEnd() ? std::nullopt : std::optional<bool>(*it);
}

QString BenchControl::command(int code)
{
    return m_port->boardCommand(code, 0);
}

QString BenchControl::powerMain(bool ticked)
{
    return setOutput(5, ticked);
}

QString BenchControl::powerAux(bool ticked)
{
    return setOutput(m_type == 3 ? 8 : 2, ticked);
}

QString BenchControl::powerAuxIn(bool ticked)
{
    return setOutput(6, ticked);
}

QString BenchControl::powerBrake(bool ticked)
{
    if (m_type != 3)
        return setOutput(1, ticked);
    const QString error = prologue();
    return error.isEmpty() ? command(ticked ? kCmdBrakeOn : kCmdBrakeOff) : error;
}

QString BenchControl::pcbMain(bool ticked)
{
    return setOutput(m_type == 33 ? 5 : 9, ticked);
}

QString BenchControl::pcbReset(bool ticked)
{
    return setOutput(2, !ticked);
}

namespace {
// A box without a number would set the supply to 0 V: refused before anything is switched.
QString notAVoltage(const QString& box, const QString& volts)
{
    bool read = false;
    lenientValue(volts, &read);
    return read ? QString()
                : QStringLiteral("%1 '%2' is not a voltage: nothing was switched")
                      .arg(box, volts.trimmed().left(20));
}
} // namespace

QString BenchControl::mainSupplyOn(const QString& volts)
{
    if (QString refused = notAVoltage(QStringLiteral("Vout"), volts); !refused.isEmpty())
        return refused;
    WaitCursor wait;
    QString error = prologue();
    if (error.isEmpty())
        error = m_port->setBoardParam(kParamMainStart, kMainStartValue);
    if (error.isEmpty())
        error = m_port->setBoardParam(kParamMainVoltage, lenientValue(volts));
    return error.isEmpty() ? command(kCmdMainOn) : error;
}

QString BenchControl::brakeSupplyOn(const QString& volts)
{
    if (QString refused = notAVoltage(QStringLiteral("Brake V"), volts); !refused.isEmpty())
        return refused;
    WaitCursor wait;
    QString error = prologue();
    if (error.isEmpty())
        error = m_port->setBoardParam(kParamBrakeVoltage, lenientValue(volts));
    return error.isEmpty() ? command(kCmdBrakeOn) : error;
}

QString BenchControl::shutdown(bool brakeSupplyShown)
{
    WaitCursor wait;
    QString error = prologue();
    if (error.isEmpty() && brakeSupplyShown)
        error = command(kCmdBrakeOff);
    return error.isEmpty() ? command(kCmdMainOff) : error;
}

} // namespace tessel

#include "datatable.h"
#include "frametext.h"
#include "nmtslave.h"

#include <QTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

struct Node
{
    explicit Node(quint8 id = 5, quint16 heartbeatMs = 100)
        : nmt({[this](const CanFrame& f) { sent << hexOf(f); }, [this] { ++resetNodes; },
               [this] { ++resetComms; }})
    {
        nmt.setNodeId(id);
        nmt.setHeartbeatPeriodMs(heartbeatMs, 0);
    }
    // Runs the timer up to `us`, firing at every deadline on the way, as the node's timer would.
    void runUntil(qint64 us)
    {
        for (qint64 d = nmt.nextDeadlineUs(); d >= 0 && d <= us; d = nmt.nextDeadlineUs())
            nmt.onTimer(d);
    }
    QStringList take()
    {
        QStringList out;
        out.swap(sent);
        return out;
    }
    NmtSlave nmt;
    QStringList sent;
    int resetNodes = 0;
    int resetComms = 0;
};

CanFrame nmtCommand(quint8 cs, quint8 node)
{
    return CanFrame::make(0x000, {cs, node});
}

} // namespace

class TstNmtSlave : public QObject
{
    Q_OBJECT
private slots:
    void bootUpThenHeartbeats()
    {
        Node n(5, 100);
        n.nmt.bootUp(0);
        QCOMPARE(n.take(), QStringList{"705:00"});
        QCOMPARE(n.nmt.state(), NmtSlave::State::PreOperational);
        n.runUntil(99'999);
        QVERIFY(n.take().isEmpty());
        n.runUntil(300'000);
        QCOMPARE(n.take(), (QStringList{"705:7f", "705:7f", "705:7f"}));
        // A late timer does not send a burst to catch up.
        n.nmt.onTimer(1'000'000);
        QCOMPARE(n.take(), QStringList{"705:7f"});
        QCOMPARE(n.nmt.nextDeadlineUs(), 1'100'000);
    }

    void commands_data()
    {
        // command: NMT frame data, in hex
        // state: state after the command, as the heartbeat says
        columns<QByteArray, int>({"command", "state"});

        row("start", QByteArray("0105"), 0x05);
        row("start all", QByteArray("0100"), 0x05);
        row("stop", QByteArray("0205"), 0x04);
        row("pre-operational after start", QByteArray("0105|8005"), 0x7F);
        row("start after stop", QByteArray("0205|0105"), 0x05);
        row("other node", QByteArray("0106"), 0x7F);
        row("unknown specifier", QByteArray("0305"), 0x7F);
        row("one byte is no command", QByteArray("01"), 0x7F);
        row("three bytes is no command", QByteArray("010500"), 0x7F);
    }

    void commands()
    {
        auto [command, state] = fetch<QByteArray, int>("command", "state");

        Node n(5, 100);
        n.nmt.bootUp(0);
        n.take();
        for (const QByteArray& hex : command.split('|')) {
            const QByteArray data = QByteArray::fromHex(hex);
            CanFrame f;
            f.len = quint8(data.size());
            for (int i = 0; i < data.size(); ++i)
                f.data[i] = quint8(data[i]);
            n.nmt.onFrame(f, 50'000);
        }
        n.runUntil(100'000);
        QCOMPARE(n.take(),
                 QStringList{QStringLiteral("705:%1").arg(state, 2, 16, QLatin1Char('0'))});
        QCOMPARE(n.resetNodes + n.resetComms, 0);
    }

    void resetNodeWaitsForTheNodeToBoot()
    {
        Node n(5, 100);
        n.nmt.bootUp(0);
        n.nmt.onFrame(nmtCommand(0x01, 5), 10'000);
        n.take();
        n.nmt.onFrame(nmtCommand(0x81, 0), 20'000);
        QCOMPARE(n.resetNodes, 1);
        QCOMPARE(n.nmt.state(), NmtSlave::State::Initialising);
        // Rebooting: no heartbeat and no reaction to commands until the node is up again.
        n.runUntil(1'000'000);
        n.nmt.onFrame(nmtCommand(0x01, 5), 500'000);
        QVERIFY(n.take().isEmpty());
        QCOMPARE(n.nmt.nextDeadlineUs(), -1);
        n.nmt.bootUp(1'000'000);
        n.runUntil(1'100'000);
        QCOMPARE(n.take(), (QStringList{"705:00", "705:7f"}));
    }

    void resetCommunicationBootsAtOnce()
    {
        Node n(5, 100);
        n.nmt.bootUp(0);
        n.nmt.onFrame(nmtCommand(0x02, 5), 10'000);
        n.take();
        n.nmt.onFrame(nmtCommand(0x82, 5), 20'000);
        QCOMPARE(n.resetComms, 1);
        QCOMPARE(n.resetNodes, 0);
        QCOMPARE(n.take(), QStringList{"705:00"});
        QCOMPARE(n.nmt.state(), NmtSlave::State::PreOperational);
        QCOMPARE(n.nmt.nextDeadlineUs(), 120'000);
    }

    void silentWhenUnconfiguredOrUnpowered()
    {
        Node unconfigured(NmtSlave::kUnconfigured, 100);
        unconfigured.nmt.bootUp(0);
        unconfigured.nmt.onFrame(nmtCommand(0x01, 0), 10);
        unconfigured.runUntil(1'000'000);
        QVERIFY(unconfigured.take().isEmpty());

        Node n(5, 100);
        n.nmt.bootUp(0);
        n.nmt.powerOff();
        n.take();
        n.nmt.onFrame(nmtCommand(0x82, 0), 10);
        n.runUntil(1'000'000);
        QVERIFY(n.take().isEmpty());
        QCOMPARE(n.resetComms, 0);
    }
};

QTEST_APPLESS_MAIN(TstNmtSlave)
#include "tst_nmtslave.moc"

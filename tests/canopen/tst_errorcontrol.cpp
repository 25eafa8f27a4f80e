// A node's error reporting against frames written out by hand: emergencies with their register,
// error field, inhibit time and parameter checks; node guarding's answers and toggle, life
// guarding and the heartbeat consumer losing and finding their peer.
#include "datatable.h"
#include "emcy.h"
#include "errorcontrol.h"
#include "frametext.h"
#include "sdoabort.h"

#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// Node 5's error entries as its EDS gives them.
struct Node : ObjectValues
{
    Node()
        : emcy(this, [this](const CanFrame& f) { sent << hexOf(f); }),
          control(this, [this](const CanFrame& f) { sent << hexOf(f); })
    {
        entries[0x100100] = le(0, 1);
        entries[0x100300] = le(0, 1);
        for (quint8 s = 1; s <= EmcyProducer::kHistory; ++s)
            entries[0x100300 | s] = le(0, 4);
        entries[0x101400] = le(0x85, 4);
        entries[0x101500] = le(0, 2);
        entries[0x100C00] = le(0, 2);
        entries[0x100D00] = le(0, 1);
        for (quint8 s = 1; s <= ErrorControl::kConsumers; ++s)
            entries[0x101600 | s] = le(0, 4);
        control.changed = [this] { ++changes; };
    }
    QByteArray value(quint16 i, quint8 s) const override
    {
        return entries.value(quint32(i) << 8 | s);
    }
    void write(quint16 i, quint8 s, const QByteArray& v) override
    {
        entries[quint32(i) << 8 | s] = v;
    }
    quint32 u(quint16 i, quint8 s = 0) const
    {
        QByteArray raw = value(i, s);
        raw.append(4 - raw.size(), '\0');
        return qFromLittleEndian<quint32>(raw.constData());
    }
    QStringList take()
    {
        QStringList out;
        out.swap(sent);
        return out;
    }

    QMap<quint32, QByteArray> entries;
    EmcyProducer emcy;
    ErrorControl control;
    QStringList sent;
    int changes = 0;
};

} // namespace

class TstErrorControl : public QObject
{
    Q_OBJECT
private slots:
    void emergencies()
    {
        Node n;
        n.emcy.raise(0x3210, EmcyProducer::kVoltage, 0);
        n.emcy.raise(0x3210, EmcyProducer::kVoltage, 0); // already active: nothing
        n.emcy.raise(0x8611, EmcyProducer::kProfile, 0);
        QCOMPARE(n.take(),
                 (QStringList{"085:10 32 05 00 00 00 00 00", "085:11 86 25 00 00 00 00 00"}));
        QCOMPARE(n.u(0x1001), 0x25u);
        // The error field: the newest first.
        QCOMPARE(n.u(0x1003), 2u);
        QCOMPARE(n.u(0x1003, 1), 0x8611u);
        QCOMPARE(n.u(0x1003, 2), 0x3210u);
        // An error that ends: 0000 with the register as it is then; none left: register 0.
        n.emcy.clear(0x3210, 0);
        n.emcy.clear(0x8611, 0);
        QCOMPARE(n.take(),
                 (QStringList{"085:00 00 21 00 00 00 00 00", "085:00 00 00 00 00 00 00 00"}));
        // Nine errors: the field keeps the newest eight.
        for (quint16 code = 0x1000; code < 0x1009; ++code)
            n.emcy.raise(code, 0, 0);
        QCOMPARE(n.u(0x1003), 8u);
        QCOMPARE(n.u(0x1003, 1), 0x1008u);
        QCOMPARE(n.u(0x1003, 8), 0x1001u);
        // Inhibit time 10 ms: a later EMCY waits for it, in order.
        n.take();
        n.write(0x1015, 0, le(100, 2));
        n.emcy.raise(0x2000, 0, 1000000);
        n.emcy.raise(0x2001, 0, 1002000);
        QCOMPARE(n.take().size(), 1);
        QCOMPARE(n.emcy.nextDeadlineUs(), 1010000);
        n.emcy.onTimer(1010000);
        QCOMPARE(n.take(), QStringList{"085:01 20 01 00 00 00 00 00"});
        // Not valid: not sent.
        n.write(0x1014, 0, le(0x80000085, 4));
        n.emcy.raise(0x2002, 0, 2000000);
        QVERIFY(n.take().isEmpty());
    }

    void emergencyParameters_data()
    {
        columns<int, int, quint32, quint32>({"index", "sub", "value", "abort"});
        row("error field emptied", 0x1003, 0, 0u, 0u);
        row("error field count other than 0", 0x1003, 0, 2u, quint32(SdoAbort::InvalidValue));
        row("COB-ID made not valid", 0x1014, 0, 0x80000085u, 0u);
        row("new COB-ID while valid", 0x1014, 0, 0x86u, quint32(SdoAbort::InvalidValue));
        row("extended COB-ID", 0x1014, 0, 0x20000085u, quint32(SdoAbort::InvalidValue));
    }

    void emergencyParameters()
    {
        auto [index, sub, value, abort] =
            fetch<int, int, quint32, quint32>("index", "sub", "value", "abort");
        Node n;
        n.emcy.raise(0x1000, 0, 0);
        QCOMPARE(n.emcy.checkWrite(quint16(index), quint8(sub), le(value, 4)), abort);
        if (index == 0x1003 && abort == 0) {
            n.write(0x1003, 0, le(0, 1));
            n.emcy.written(0x1003, 0);
            QCOMPARE(n.u(0x1003, 1), 0u);
        }
    }

    void nodeAndLifeGuarding()
    {
        Node n;
        const CanFrame request = [] {
            CanFrame f = fromHex(0x705, "");
            f.remote = true;
            f.len = 1;
            return f;
        }();
        // Answered with the state and a toggle that starts at 0; another node's request is not
        // ours.
        for (int i = 0; i < 3; ++i)
            QVERIFY(n.control.onFrame(request, 5, 0x7F, i * 100000));
        QVERIFY(!n.control.onFrame(request, 6, 0x7F, 0));
        QCOMPARE(n.take(), (QStringList{"705:7f", "705:ff", "705:7f"}));
        // Life guarding off (factor 0): silence is no loss.
        QCOMPARE(n.control.nextDeadlineUs(), -1);
        n.write(0x100C, 0, le(100, 2));
        n.write(0x100D, 0, le(3, 1));
        QCOMPARE(n.control.nextDeadlineUs(), 500000);
        n.control.onTimer(499999);
        QVERIFY(!n.control.lifeGuardingLost());
        n.control.onTimer(500000);
        QVERIFY(n.control.lifeGuardingLost());
        QCOMPARE(n.changes, 1);
        // The next request finds the master again; the toggle goes on.
        n.control.onFrame(request, 5, 0x05, 600000);
        QVERIFY(!n.control.anyLost());
        QCOMPARE(n.changes, 2);
        QCOMPARE(n.take(), QStringList{"705:85"});
        // A reset starts over.
        n.control.reset();
        n.control.onFrame(request, 5, 0x7F, 700000);
        QCOMPARE(n.take(), QStringList{"705:7f"});
    }

    void heartbeatConsumer()
    {
        Node n;
        n.write(0x1016, 2, le(0x00220064, 4)); // node 22, 100 ms
        // Not yet heard: nothing to lose.
        QCOMPARE(n.control.nextDeadlineUs(), -1);
        QVERIFY(n.control.onFrame(fromHex(0x722, "05"), 5, 0x05, 0));
        QVERIFY(!n.control.onFrame(fromHex(0x723, "05"), 5, 0x05, 0)); // not monitored
        n.control.onTimer(99999);
        QVERIFY(!n.control.anyLost());
        n.control.onTimer(100000);
        QVERIFY(n.control.heartbeatLost(0x22));
        QCOMPARE(n.changes, 1);
        n.control.onFrame(fromHex(0x722, "05"), 5, 0x05, 150000);
        QVERIFY(!n.control.anyLost());
        // A boot-up starts the watch over: lost only after the next heartbeat stays away.
        n.control.onFrame(fromHex(0x722, "00"), 5, 0x05, 200000);
        n.control.onTimer(400000);
        QVERIFY(!n.control.anyLost());
    }
};

QTEST_GUILESS_MAIN(TstErrorControl)
#include "tst_errorcontrol.moc"

// The PDO engine against frames written out by hand: the mapping procedure and its refusals,
// TPDOs on SYNC, on change, on the event timer within the inhibit time, RPDOs at once or at the
// next SYNC, and RPDOs of the wrong length.
#include "datatable.h"
#include "frametext.h"
#include "pdo.h"
#include "sdoabort.h"

#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// A drive's PDO-related entries as its EDS gives them: node 5, TPDO1 statusword on change,
// RPDO1 controlword at once, the other PDOs not valid.
struct Node : PdoDictionary
{
    Node()
        : pdo(this, {[this](const CanFrame& f) { sent << hexOf(f); },
                     [this](quint16 code) { errors << code; }})
    {
        const auto set = [this](quint16 i, quint8 s, quint32 v, int bytes) {
            entries[key(i, s)] = le(v, bytes);
        };
        for (int n = 0; n < PdoEngine::kCount; ++n) {
            const bool first = n == 0;
            set(quint16(0x1400 + n), 1, (first ? 0 : PdoEngine::kNotValid) + 0x205 + n * 0x100, 4);
            set(quint16(0x1400 + n), 2, 255, 1);
            set(quint16(0x1800 + n), 1, (first ? 0 : PdoEngine::kNotValid) + 0x185 + n * 0x100, 4);
            set(quint16(0x1800 + n), 2, 255, 1);
            set(quint16(0x1800 + n), 3, 0, 2);
            set(quint16(0x1800 + n), 5, 0, 2);
            for (quint16 m : {quint16(0x1600 + n), quint16(0x1A00 + n)}) {
                set(m, 0, 0, 1);
                for (quint8 s = 1; s <= 8; ++s)
                    set(m, s, 0, 4);
            }
        }
        set(0x1600, 0, 1, 1);
        set(0x1600, 1, 0x60400010, 4);
        set(0x1A00, 0, 1, 1);
        set(0x1A00, 1, 0x60410010, 4);
        set(0x6040, 0, 0, 2);
        set(0x6041, 0, 0x0250, 2);
        set(0x607A, 0, 0, 4);
        set(0x6064, 0, 0, 4);
        set(0x6060, 0, 1, 1);
        set(0x1008, 0, 0, 4); // a name: never mapped
        pdo.setOperational(true, 0);
    }
    static quint32 key(quint16 i, quint8 s) { return quint32(i) << 8 | s; }
    QByteArray value(quint16 i, quint8 s) const override { return entries.value(key(i, s)); }
    int mappableBits(quint16 i, quint8 s, bool receive) const override
    {
        if (!entries.contains(key(i, s)))
            return -1;
        const bool mappable = i >= 0x6000 && (!receive || i != 0x6041) && (!receive || i != 0x6064);
        return mappable ? int(entries.value(key(i, s)).size()) * 8 : 0;
    }
    void write(quint16 i, quint8 s, const QByteArray& v) override { entries[key(i, s)] = v; }
    // An SDO write: checked by the engine, then taken.
    quint32 sdo(quint16 i, quint8 s, quint32 v)
    {
        const QByteArray data = le(v, int(entries.value(key(i, s)).size()));
        if (const quint32 code = pdo.checkWrite(i, s, data))
            return code;
        entries[key(i, s)] = data;
        pdo.parametersChanged(now);
        return 0;
    }
    void change(quint16 i, quint32 v)
    {
        entries[key(i, 0)] = le(v, int(entries.value(key(i, 0)).size()));
        pdo.objectChanged(i, 0, now);
    }
    void runUntil(qint64 us)
    {
        for (qint64 d = pdo.nextDeadlineUs(); d >= 0 && d <= us; d = pdo.nextDeadlineUs())
            pdo.onTimer(now = d);
        now = us;
    }
    QStringList take()
    {
        QStringList out;
        out.swap(sent);
        return out;
    }

    QMap<quint32, QByteArray> entries;
    PdoEngine pdo;
    QStringList sent;
    QList<quint16> errors;
    qint64 now = 0;
};

} // namespace

class TstPdo : public QObject
{
    Q_OBJECT
private slots:
    void parameterWrites_data()
    {
        // Writes "INDEX,SUB=VALUE" in order; the abort code of the last one.
        columns<QStringList, quint32>({"writes", "abort"});
        const quint32 none = 0;
        row("the whole procedure",
            QStringList{"1800,1=80000185", "1A00,0=0", "1A00,1=60410010", "1A00,2=607A0020",
                        "1A00,0=2", "1800,1=00000185"},
            none);
        row("mapping of a valid PDO", QStringList{"1A00,0=0"},
            quint32(SdoAbort::UnsupportedAccess));
        row("entry while sub 0 is not 0",
            QStringList{"1A01,1=60410010", "1A01,0=1", "1A01,1=607A0020"},
            quint32(SdoAbort::UnsupportedAccess));
        row("missing entry", QStringList{"1A01,1=60990010"}, quint32(SdoAbort::NoObject));
        row("entry that may not be mapped", QStringList{"1A01,1=10080020"},
            quint32(SdoAbort::CannotMap));
        row("part of an entry", QStringList{"1A01,1=607A0010"}, quint32(SdoAbort::CannotMap));
        row("read-only entry into an RPDO", QStringList{"1601,1=60410010"},
            quint32(SdoAbort::CannotMap));
        row("72 bits",
            QStringList{"1A01,1=607A0020", "1A01,2=60640020", "1A01,3=60600008", "1A01,0=3"},
            quint32(SdoAbort::PdoTooLong));
        row("more than 8 entries", QStringList{"1A01,0=9"}, quint32(SdoAbort::PdoTooLong));
        row("sub 0 counting an empty entry", QStringList{"1A01,0=1"}, quint32(SdoAbort::NoObject));
        row("new CAN-ID while valid", QStringList{"1800,1=00000186"},
            quint32(SdoAbort::InvalidValue));
        row("new CAN-ID after not valid", QStringList{"1800,1=80000185", "1800,1=00000186"}, none);
        row("CAN-ID of the SDO server", QStringList{"1800,1=80000185", "1800,1=00000585"},
            quint32(SdoAbort::InvalidValue));
        row("extended frame", QStringList{"1800,1=A0000185"}, quint32(SdoAbort::InvalidValue));
        row("reserved transmission type", QStringList{"1800,2=000000F1"},
            quint32(SdoAbort::InvalidValue));
        row("transmission type on request", QStringList{"1800,2=000000FD"},
            quint32(SdoAbort::InvalidValue));
        row("inhibit time while valid", QStringList{"1800,3=00000064"},
            quint32(SdoAbort::InvalidValue));
    }

    void parameterWrites()
    {
        auto [writes, abort] = fetch<QStringList, quint32>("writes", "abort");
        Node n;
        quint32 code = 0;
        for (const QString& w : writes) {
            const QStringList parts = w.split(QRegularExpression("[,=]"));
            code = n.sdo(quint16(parts[0].toUInt(nullptr, 16)),
                         quint8(parts[1].toUInt(nullptr, 16)), parts[2].toUInt(nullptr, 16));
            if (code != 0)
                break;
        }
        QCOMPARE(QString::number(code, 16), QString::number(abort, 16));
        if (QTest::currentDataTag() == QLatin1String("the whole procedure")) {
            n.entries[Node::key(0x607A, 0)] = le(0x01020304, 4);
            n.change(0x6041, 0x0237);
            QCOMPARE(n.take(), QStringList{"185:37 02 04 03 02 01"});
        }
    }

    void tpdoTransmissionTypes()
    {
        Node n;
        // Event-driven: a change goes out at once, with the value as it is now.
        n.change(0x6041, 0x0231);
        QCOMPARE(n.take(), QStringList{"185:31 02"});
        n.change(0x6040, 1); // not mapped
        QVERIFY(n.take().isEmpty());
        // Every second SYNC.
        QCOMPARE(n.sdo(0x1800, 2, 2), 0u);
        for (int s = 0; s < 4; ++s)
            n.pdo.onSync(0, n.now);
        QCOMPARE(n.take(), (QStringList{"185:31 02", "185:31 02"}));
        // Acyclic: at the SYNC after a change, once.
        QCOMPARE(n.sdo(0x1800, 2, 0), 0u);
        n.pdo.onSync(0, n.now);
        n.change(0x6041, 0x0233);
        QVERIFY(n.take().isEmpty());
        n.pdo.onSync(0, n.now);
        n.pdo.onSync(0, n.now);
        QCOMPARE(n.take(), QStringList{"185:33 02"});
        // Not operational, or not valid: nothing.
        n.pdo.setOperational(false, n.now);
        n.change(0x6041, 0x0234);
        n.pdo.onSync(0, n.now);
        QVERIFY(n.take().isEmpty());
        n.pdo.setOperational(true, n.now);
        QCOMPARE(n.sdo(0x1800, 1, PdoEngine::kNotValid + 0x185), 0u);
        n.change(0x6041, 0x0235);
        n.pdo.onSync(0, n.now);
        QVERIFY(n.take().isEmpty());
    }

    void eventTimerAndInhibitTime()
    {
        Node n;
        QCOMPARE(n.sdo(0x1800, 1, PdoEngine::kNotValid + 0x185), 0u);
        QCOMPARE(n.sdo(0x1800, 3, 100), 0u); // 10 ms
        QCOMPARE(n.sdo(0x1800, 5, 50), 0u);  // 50 ms
        QCOMPARE(n.sdo(0x1800, 1, 0x185), 0u);
        // The event timer sends the value as it is, again and again.
        n.runUntil(49999);
        QVERIFY(n.take().isEmpty());
        n.runUntil(100000);
        QCOMPARE(n.take(), (QStringList{"185:50 02", "185:50 02"}));
        // Changes within the inhibit time wait for its end, and go out once with the last value.
        n.runUntil(120000);
        n.change(0x6041, 0x0237);
        QCOMPARE(n.take(), QStringList{"185:37 02"});
        n.runUntil(n.now + 2000);
        n.change(0x6041, 0x0233);
        n.runUntil(n.now + 2000);
        n.change(0x6041, 0x0231);
        QVERIFY(n.take().isEmpty());
        n.runUntil(n.now + 6000);
        QCOMPARE(n.take(), QStringList{"185:31 02"});
        // The event timer starts over at each transmission.
        n.runUntil(n.now + 49000);
        QVERIFY(n.take().isEmpty());
        n.runUntil(n.now + 1000);
        QCOMPARE(n.take(), QStringList{"185:31 02"});
    }

    void rpdos()
    {
        Node n;
        // Event-driven RPDO: taken at once; a remote frame or another node's is not ours.
        QVERIFY(n.pdo.onFrame(fromHex(0x205, "0f00"), 0));
        QCOMPARE(n.value(0x6040, 0), le(0x000F, 2));
        QVERIFY(!n.pdo.onFrame(fromHex(0x206, "0700"), 0));
        // Synchronous: taken at the next SYNC.
        QCOMPARE(n.sdo(0x1400, 2, 1), 0u);
        QVERIFY(n.pdo.onFrame(fromHex(0x205, "0700"), 0));
        QCOMPARE(n.value(0x6040, 0), le(0x000F, 2));
        n.pdo.onSync(0, 0);
        QCOMPARE(n.value(0x6040, 0), le(0x0007, 2));
        // Too short: not taken, reported; too long: taken from its first bytes, reported.
        QCOMPARE(n.sdo(0x1400, 2, 255), 0u);
        QVERIFY(n.pdo.onFrame(fromHex(0x205, "06"), 0));
        QCOMPARE(n.value(0x6040, 0), le(0x0007, 2));
        QVERIFY(n.pdo.onFrame(fromHex(0x205, "060000"), 0));
        QCOMPARE(n.value(0x6040, 0), le(0x0006, 2));
        QCOMPARE(n.errors, (QList<quint16>{PdoEngine::kLengthShort, PdoEngine::kLengthLong}));
        // Not operational: ignored.
        n.pdo.setOperational(false, 0);
        QVERIFY(n.pdo.onFrame(fromHex(0x205, "0f00"), 0));
        QCOMPARE(n.value(0x6040, 0), le(0x0006, 2));
    }
};

QTEST_GUILESS_MAIN(TstPdo)
#include "tst_pdo.moc"

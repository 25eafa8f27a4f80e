#include "datatable.h"
#include "frametext.h"
#include "lssmaster.h"
#include "lssslave.h"

#include <QTest>

#include <deque>
#include <optional>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

const lss::Address kAddress{0x000003A1, 0x00000300, 0x00010002, 0x12345678};

// The master against answers written out by hand: each frame it sends is answered with the
// next scripted frame on 0x7E4 ("-": not answered; the clock then runs past the time-out).
struct ScriptedSlave
{
    explicit ScriptedSlave(QStringList script)
        : script(std::move(script)), master([this](const CanFrame& f) { sent << f; })
    {
        master.setTimeoutMs(20);
        master.done = [this](const LssMaster::Result& r) { result = r; };
    }
    void run()
    {
        for (int guard = 0; guard < 1000 && master.isBusy(); ++guard) {
            if (sent.isEmpty()) {
                now = master.nextDeadlineUs();
                master.onTimer(now);
                continue;
            }
            const CanFrame request = sent.takeFirst();
            log << "> " + hexOf(request);
            if (script.isEmpty())
                continue;
            const QString next = script.takeFirst();
            if (next == QLatin1String("-"))
                continue;
            const CanFrame answer = fromHex(lss::kSlaveId, next.toLatin1().constData());
            log << "< " + hexOf(answer);
            now += 1000;
            master.onFrame(answer, now);
        }
    }
    QStringList script;
    QList<CanFrame> sent;
    LssMaster master;
    std::optional<LssMaster::Result> result;
    QStringList log;
    qint64 now = 0;
};

// A slave fed frames written out by hand; its answers are logged.
struct Slave
{
    explicit Slave(quint8 nodeId = lss::kUnconfigured, lss::Address address = kAddress)
        : slave(address, nodeId, 3,
                {[this](const CanFrame& f) { answers << hexOf(f); },
                 {},
                 {},
                 [this](quint8) { ++taken; }})
    {
    }
    void feed(std::initializer_list<const char*> frames)
    {
        for (const char* hex : frames)
            slave.onFrame(fromHex(lss::kMasterId, hex), 0);
    }
    QStringList take()
    {
        QStringList out;
        out.swap(answers);
        return out;
    }
    LssSlave slave;
    QStringList answers;
    int taken = 0;
};

// One master and several slaves on one bus, with a clock: the master's frames reach every
// slave, every slave's answer reaches the master (identical answers merge into one on a bus).
struct Bus
{
    explicit Bus(const QList<lss::Address>& addresses)
        : master([this](const CanFrame& f) { toSlaves.push_back(f); })
    {
        master.setTimeoutMs(10);
        master.done = [this](const LssMaster::Result& r) { result = r; };
        for (const lss::Address& a : addresses)
            slaves.push_back(std::make_unique<LssSlave>(
                a, lss::kUnconfigured, 3,
                LssSlave::Hooks{[this](const CanFrame& f) { toMaster.push_back(f); }, {}, {}, {}}));
    }
    LssMaster::Result run()
    {
        result.reset();
        while (master.isBusy()) {
            if (!toSlaves.empty()) {
                const CanFrame f = toSlaves.front();
                toSlaves.pop_front();
                for (auto& s : slaves)
                    s->onFrame(f, now);
                now += 200;
                continue;
            }
            if (!toMaster.empty()) {
                const CanFrame f = toMaster.front();
                toMaster.clear(); // the answers of several slaves are one frame on the bus
                master.onFrame(f, now);
                continue;
            }
            now = master.nextDeadlineUs();
            master.onTimer(now);
        }
        return *result;
    }
    LssMaster master;
    std::vector<std::unique_ptr<LssSlave>> slaves;
    std::deque<CanFrame> toSlaves;
    std::deque<CanFrame> toMaster;
    std::optional<LssMaster::Result> result;
    qint64 now = 0;
};

} // namespace

class TstLss : public QObject
{
    Q_OBJECT
private slots:
    void masterConfirmedServices_data()
    {
        // service: 0 node-ID, 1 bit timing, 2 store, 3 inquire node-ID
        columns<int, QStringList, QString, QString>({"service", "script", "request", "error"});

        row("node-ID", 0, QStringList{"1100000000000000"}, "7e5:11 22 00 00 00 00 00 00", "");
        row("node-ID out of range", 0, QStringList{"1101000000000000"},
            "7e5:11 22 00 00 00 00 00 00", "LSS error 01: node-ID out of range");
        row("node-ID, specific error", 0, QStringList{"11ff050000000000"},
            "7e5:11 22 00 00 00 00 00 00", "LSS error FF: implementation specific error 05");
        row("node-ID, no answer", 0, QStringList{"-"}, "7e5:11 22 00 00 00 00 00 00",
            "no LSS slave answered");
        row("bit timing", 1, QStringList{"1300000000000000"}, "7e5:13 00 02 00 00 00 00 00", "");
        row("bit timing not supported", 1, QStringList{"1301000000000000"},
            "7e5:13 00 02 00 00 00 00 00", "LSS error 01: bit timing not supported");
        row("store", 2, QStringList{"1700000000000000"}, "7e5:17 00 00 00 00 00 00 00", "");
        row("store not supported", 2, QStringList{"1701000000000000"},
            "7e5:17 00 00 00 00 00 00 00",
            "LSS error 01: storing the configuration is not supported");
        row("store failed", 2, QStringList{"1702000000000000"}, "7e5:17 00 00 00 00 00 00 00",
            "LSS error 02: storage media access error");
        row("store, reserved code", 2, QStringList{"1707000000000000"},
            "7e5:17 00 00 00 00 00 00 00", "LSS error 07 (reserved)");
        row("inquire node-ID", 3, QStringList{"5e22000000000000"}, "7e5:5e 00 00 00 00 00 00 00",
            "");
        row("inquire node-ID, no answer", 3, QStringList{"-"}, "7e5:5e 00 00 00 00 00 00 00",
            "no LSS slave answered");
        // An answer to another service is not the one awaited.
        row("answer of another service", 3, QStringList{"1100000000000000"},
            "7e5:5e 00 00 00 00 00 00 00", "no LSS slave answered");
    }

    void masterConfirmedServices()
    {
        auto [service, script, request, error] =
            fetch<int, QStringList, QString, QString>("service", "script", "request", "error");
        ScriptedSlave s(script);
        if (service == 0)
            s.master.configureNodeId(0x22, 0);
        else if (service == 1)
            s.master.configureBitTiming(2, 0);
        else if (service == 2)
            s.master.storeConfiguration(0);
        else
            s.master.inquireNodeId(0);
        s.run();
        QVERIFY2(s.result, qPrintable(s.log.join('\n')));
        QCOMPARE(s.log.first(), "> " + request);
        QCOMPARE(s.result->error, error);
        if (service == 3 && error.isEmpty())
            QCOMPARE(s.result->value, 0x22u);
        // A service that waited in vain took its time-out, no longer.
        if (error == LssMaster::kNoAnswer)
            QCOMPARE(s.now, qint64(20000));
    }

    void masterSwitchSelectiveAndInquire()
    {
        ScriptedSlave s({"-", "-", "-", "4400000000000000"});
        s.master.switchSelective(kAddress, 0);
        s.run();
        QCOMPARE(s.log,
                 (QStringList{"> 7e5:40 a1 03 00 00 00 00 00", "> 7e5:41 00 03 00 00 00 00 00",
                              "> 7e5:42 02 00 01 00 00 00 00", "> 7e5:43 78 56 34 12 00 00 00",
                              "< 7e4:44 00 00 00 00 00 00 00"}));
        QCOMPARE(s.result->error, QString());

        ScriptedSlave q(
            {"5aa1030000000000", "5b00030000000000", "5c02000100000000", "5d78563412000000"});
        q.master.inquireAddress(0);
        q.run();
        QCOMPARE(q.result->error, QString());
        QCOMPARE(q.result->address, kAddress);

        ScriptedSlave none({"-", "-", "-", "-"});
        none.master.switchSelective(kAddress, 0);
        none.run();
        QCOMPARE(none.result->error, LssMaster::kNoAnswer);
    }

    void slaveAgainstScriptedMaster()
    {
        Slave s;
        // Waiting: configuration services are not for it; non-configured identification is.
        s.feed({"1122000000000000", "5e00000000000000"});
        QVERIFY(s.take().isEmpty());
        s.feed({"4c00000000000000"});
        QCOMPARE(s.take(), QStringList{"7e4:50 00 00 00 00 00 00 00"});
        // Switch state selective with a wrong serial number: no answer; with the right one, 44.
        s.feed({"40a1030000000000", "4100030000000000", "4202000100000000", "4379563412000000"});
        QVERIFY(s.take().isEmpty());
        QCOMPARE(s.slave.state(), LssSlave::State::Waiting);
        // The parts must come in order.
        s.feed({"4100030000000000", "40a1030000000000", "4202000100000000", "4378563412000000"});
        QVERIFY(s.take().isEmpty());
        s.feed({"40a1030000000000", "4100030000000000", "4202000100000000", "4378563412000000"});
        QCOMPARE(s.take(), QStringList{"7e4:44 00 00 00 00 00 00 00"});
        QCOMPARE(s.slave.state(), LssSlave::State::Configuration);
        // Inquiries, then configuration with its error codes.
        s.feed({"5e00000000000000", "5d00000000000000"});
        QCOMPARE(s.take(),
                 (QStringList{"7e4:5e ff 00 00 00 00 00 00", "7e4:5d 78 56 34 12 00 00 00"}));
        s.feed({"1180000000000000"}); // 0x80: out of range
        s.feed({"1100000000000000"}); // 0: out of range
        s.feed({"1122000000000000"});
        s.feed({"1301020000000000"}); // table 1 does not exist
        s.feed({"1300090000000000"}); // index 9 is past the list
        s.feed({"1300020000000000"});
        QCOMPARE(s.take(),
                 (QStringList{"7e4:11 01 00 00 00 00 00 00", "7e4:11 01 00 00 00 00 00 00",
                              "7e4:11 00 00 00 00 00 00 00", "7e4:13 01 00 00 00 00 00 00",
                              "7e4:13 01 00 00 00 00 00 00", "7e4:13 00 00 00 00 00 00 00"}));
        QCOMPARE(s.slave.pendingNodeId(), quint8(0x22));
        QCOMPARE(s.slave.activeNodeId(), lss::kUnconfigured); // until the node is reset
        QCOMPARE(s.slave.pendingBitRate(), 2);
        // Back to waiting, a node that had no node-ID takes the new one and starts up with it.
        s.feed({"0400000000000000"});
        QCOMPARE(s.slave.activeNodeId(), quint8(0x22));
        QCOMPARE(s.taken, 1);
        s.feed({"4c00000000000000"});
        s.feed({"5100000000800000"}); // Fastscan reset
        QVERIFY(s.take().isEmpty());
        // Identify remote slave: in the ranges, 4F; a serial outside them, nothing.
        const char* identify[] = {"46a1030000000000", "4700030000000000", "4800000000000000",
                                  "49ffffffff000000", "4a00000000000000", "4bffffffff000000"};
        for (const char* f : identify)
            s.feed({f});
        QCOMPARE(s.take(), QStringList{"7e4:4f 00 00 00 00 00 00 00"});
        for (const char* f : identify)
            s.feed({QByteArray(f).replace("4a00000000", "4a79563412").constData()});
        QVERIFY(s.take().isEmpty());
        // Bounds are part of the range: a revision equal to the upper bound is in it.
        for (const char* f : identify)
            s.feed({QByteArray(f).replace("49ffffffff", "4902000100").constData()});
        QCOMPARE(s.take(), QStringList{"7e4:4f 00 00 00 00 00 00 00"});
        // A frame of fewer than 8 bytes is no LSS service: the identification lacks its last part.
        for (int i = 0; i < 5; ++i)
            s.feed({identify[i]});
        s.feed({"4bffffffff0000"});
        QVERIFY(s.take().isEmpty());
    }

    void fastscanFindsEachSlave_data()
    {
        QTest::addColumn<QList<quint32>>("serials");
        row("one", QList<quint32>{0x12345678});
        row("two", QList<quint32>{0x80000001, 0x00000002});
        row("three", QList<quint32>{5, 3, 9});
    }

    void fastscanFindsEachSlave()
    {
        QFETCH(QList<quint32>, serials);
        QList<lss::Address> addresses;
        for (quint32 serial : serials)
            addresses.append({kAddress[0], kAddress[1], kAddress[2], serial});
        Bus bus(addresses);
        QList<quint32> expected = serials;
        std::sort(expected.begin(), expected.end());
        for (quint32 serial : expected) {
            bus.master.fastscan(bus.now);
            const LssMaster::Result found = bus.run();
            QCOMPARE(found.error, QString());
            QVERIFY(found.answered);
            QCOMPARE(found.address, (lss::Address{kAddress[0], kAddress[1], kAddress[2], serial}));
            // Exactly that slave is in configuration state: it alone takes a node-ID.
            int configuring = 0;
            for (auto& s : bus.slaves)
                configuring += s->state() == LssSlave::State::Configuration;
            QCOMPARE(configuring, 1);
            bus.master.configureNodeId(quint8(0x20 + configuring), bus.now);
            QCOMPARE(bus.run().error, QString());
            bus.master.switchGlobal(false, bus.now);
            bus.run();
            for (auto& s : bus.slaves)
                if (s->pendingNodeId() != lss::kUnconfigured)
                    s->applyPendingNodeId(); // the node's reset
        }
        // Every slave has its node-ID: nobody answers any more.
        bus.master.fastscan(bus.now);
        const LssMaster::Result none = bus.run();
        QVERIFY(!none.answered);
        QCOMPARE(none.error, QString());
    }
};

QTEST_GUILESS_MAIN(TstLss)
#include "tst_lss.moc"

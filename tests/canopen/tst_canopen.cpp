#include "bootcatch.h"
#include "datatable.h"
#include "driveprofile.h"
#include "emcy.h"
#include "errorcontrol.h"
#include "frametext.h"
#include "lssmaster.h"
#include "lssslave.h"
#include "nmtslave.h"
#include "pdo.h"
#include "sdoabort.h"
#include "sdoclient.h"
#include "sdoserver.h"

#include <QtTest>

#include <deque>
#include <optional>

using namespace tessel::test;
using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// A dictionary for the server under test: entries by (index, sub), one read-only, one
// write-only, one with a fixed size.
class Store : public SdoObjectAccess
{
public:
    QMap<QPair<int, int>, QByteArray> values;
    quint32 upload(quint16 index, quint8 sub, QByteArray* data) override
    {
        if (index == 0x2020)
            return quint32(SdoAbort::WriteOnly);
        const auto it = values.find({index, sub});
        if (it == values.end())
            return quint32(SdoAbort::NoObject);
        *data = *it;
        return 0;
    }
    quint32 checkDownload(quint16 index, quint8, qint64 size) override
    {
        if (index == 0x1018)
            return quint32(SdoAbort::ReadOnly);
        if (index == 0x1017 && size > 2)
            return quint32(SdoAbort::TooLong);
        return 0;
    }
    quint32 download(quint16 index, quint8 sub, const QByteArray& data) override
    {
        if (index == 0x1017 && data.size() != 2)
            return quint32(SdoAbort::TooShort);
        values[{index, sub}] = data;
        return 0;
    }
};

// Client and server joined by a queue of frames, with a fake clock and a hand on the wire.
struct Link
{
    Link()
        : client([this](const CanFrame& f) {
              wire.push_back({true, f});
          }),
          server(&store, [this](const CanFrame& f) {
              wire.push_back({false, f});
          })
    {
        server.setNodeId(5);
        client.done = [this](const SdoClient::Result& r) { result = r; };
        client.progress = [this](double p) { progress.append(p); };
    }
    // Delivers frames until the wire is quiet; `tamper` may drop (false) or change a frame.
    void run(std::function<bool(bool toServer, CanFrame& f)> tamper = {})
    {
        while (!wire.empty()) {
            auto [toServer, f] = wire.front();
            wire.pop_front();
            log << (toServer ? "> " : "< ") + hexOf(f);
            if (tamper && !tamper(toServer, f))
                continue;
            if (toServer)
                server.onFrame(f, now);
            else
                client.onFrame(f, now);
        }
    }
    std::deque<std::pair<bool, CanFrame>> wire;
    Store store;
    SdoClient client;
    SdoServer server;
    std::optional<SdoClient::Result> result;
    QList<double> progress;
    QStringList log;
    qint64 now = 0;
};

QByteArray pattern(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + 3) & 0xFF);
    return data;
}



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



// What a node under test sent, as "ID:HEX" texts; take() hands them over once.
struct SentFrames
{
    std::function<void(const CanFrame&)> sink()
    {
        return [this](const CanFrame& f) { sent << hexOf(f); };
    }
    QStringList take() { return std::exchange(sent, {}); }
    QStringList sent;
};

struct NmtNode : SentFrames
{
    explicit NmtNode(quint8 id = 5, quint16 heartbeatMs = 100)
        : nmt({sink(), [this] { ++resetNodes; }, [this] { ++resetComms; }})
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
    NmtSlave nmt;
    int resetNodes = 0;
    int resetComms = 0;
};

CanFrame nmtCommand(quint8 cs, quint8 node)
{
    return CanFrame::make(0x000, {cs, node});
}



// Node 5's error entries as its EDS gives them.
struct ErrorNode : ObjectValues, SentFrames
{
    ErrorNode() : emcy(this, sink()), control(this, sink())
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

    QMap<quint32, QByteArray> entries;
    EmcyProducer emcy;
    ErrorControl control;
    int changes = 0;
};



// A drive's PDO-related entries as its EDS gives them: node 5, TPDO1 statusword on change,
// RPDO1 controlword at once, the other PDOs not valid.
struct PdoNode : PdoDictionary, SentFrames
{
    PdoNode() : pdo(this, {sink(), [this](quint16 code) { errors << code; }})
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

    QMap<quint32, QByteArray> entries;
    PdoEngine pdo;
    QList<quint16> errors;
    qint64 now = 0;
};



using State = DriveProfile::State;

// The profile's entries with the drive's defaults.
struct Drive : ObjectValues
{
    Drive()
        : profile(this, {[this](quint16 index) { changed << index; },
                         [this](quint16 code) { faults << code; },
                         [this](quint16 code) { cleared << code; }})
    {
        for (const auto& [index, value, bytes] :
             std::initializer_list<std::tuple<quint16, qint64, int>>{{0x6040, 0, 2},
                                                                     {0x6041, 0, 2},
                                                                     {0x603F, 0, 2},
                                                                     {0x6060, 1, 1},
                                                                     {0x6061, 0, 1},
                                                                     {0x6064, 0, 4},
                                                                     {0x6065, 10000, 4},
                                                                     {0x606C, 0, 4},
                                                                     {0x6072, 3000, 2},
                                                                     {0x607A, 0, 4},
                                                                     {0x6081, 100000, 4},
                                                                     {0x6083, 500000, 4},
                                                                     {0x6084, 500000, 4},
                                                                     {0x6085, 5000000, 4},
                                                                     {0x6098, 35, 1},
                                                                     {0x60FF, 0, 4}})
            entries[index] = le(value, bytes);
        profile.start(0);
    }
    QByteArray value(quint16 index, quint8) const override { return entries.value(index); }
    void write(quint16 index, quint8, const QByteArray& v) override { entries[index] = v; }
    qint64 read(quint16 index) const
    {
        QByteArray raw = entries.value(index);
        const bool negative = !raw.isEmpty() && (quint8(raw.back()) & 0x80) && raw.size() == 4;
        raw.append(8 - raw.size(), negative ? '\xFF' : '\0');
        return qFromLittleEndian<qint64>(raw.constData());
    }
    void set(quint16 index, qint64 value)
    {
        entries[index] = le(value, int(entries[index].size()));
    }
    void control(quint16 word)
    {
        set(0x6040, word);
        profile.controlwordWritten(now);
    }
    quint16 status() const { return quint16(read(0x6041)); }
    // Runs the profile's steps for `us`.
    void run(qint64 us)
    {
        const qint64 end = now + us;
        for (qint64 d = profile.nextDeadlineUs(); d >= 0 && d <= end; d = profile.nextDeadlineUs())
            profile.step(now = d);
        now = end;
    }
    void enable()
    {
        control(0x06);
        control(0x07);
        control(0x0F);
    }

    QMap<quint16, QByteArray> entries;
    DriveProfile profile;
    QList<quint16> changed;
    QList<quint16> faults;
    QList<quint16> cleared;
    qint64 now = 0;
};


struct CatchRig
{
    QStringList sent;
    QList<BootCatcher::Result> results;
    BootCatcher catcher{[this](const CanFrame& f) { sent << hexOf(f); }};
    CatchRig()
    {
        catcher.done = [this](const BootCatcher::Result& r) { results << r; };
    }
};
constexpr qint64 kMs = 1000;
} // namespace

class TstCanopen : public QObject
{
    Q_OBJECT
private slots:
    void roundTrip_data()
    {
        columns<int, bool>({"size", "block"});
        for (bool block : {true, false})
            for (int size : {0, 1, 4, 5, 7, 8, 14, 15, 127 * 7, 127 * 7 + 1, 3000, 100 * 1024})
                QTest::addRow("%d bytes, %s", size, block ? "block" : "segmented") << size << block;
    }

    void roundTrip()
    {
        auto [size, block] = fetch<int, bool>("size", "block");
        Link link;
        link.client.setBlockTransfer(block);
        const QByteArray data = pattern(size);
        link.client.startDownload(5, 0x2040, 0, data, 0);
        link.run();
        QVERIFY(link.result);
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), data);
        QCOMPARE(link.server.state(), SdoServer::State::Idle);

        link.result.reset();
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run();
        QVERIFY(link.result);
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.result->data, data);
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
        QVERIFY(!link.client.isBusy());
        if (size > 7) {
            QVERIFY(!link.progress.isEmpty());
            QCOMPARE(link.progress.last(), 1.0);
        }
        // From 1 to 4 bytes every transfer is a single expedited exchange.
        if (size >= 1 && size <= 4)
            QCOMPARE(link.log.size(), 4);
    }

    void blockDownloadResendsALostSegment()
    {
        Link link;
        const QByteArray data = pattern(30); // 5 segments
        link.client.startDownload(5, 0x2040, 0, data, 0);
        bool dropped = false;
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && f.data[0] == 0x03 && !dropped) { // segment 3 is lost on the bus
                dropped = true;
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), data);
        const QStringList expected{
            "> 605:c6 40 20 00 1e 00 00 00", // block, CRC, size 30
            "< 585:a4 40 20 00 7f 00 00 00", // CRC, 127 segments a sub-block
            "> 605:01 03 0a 11 18 1f 26 2d", "> 605:02 34 3b 42 49 50 57 5e",
            "> 605:03 65 6c 73 7a 81 88 8f", // lost
            "> 605:04 96 9d a4 ab b2 b9 c0",
            "> 605:85 c7 ce 00 00 00 00 00", // last
            "< 585:a2 02 7f 00 00 00 00 00", // two taken
            "> 605:01 65 6c 73 7a 81 88 8f", // again from the third, numbered from 1
            "> 605:02 96 9d a4 ab b2 b9 c0", "> 605:83 c7 ce 00 00 00 00 00",
            "< 585:a2 03 7f 00 00 00 00 00",
        };
        QCOMPARE(link.log.mid(0, expected.size()), expected);
        const quint16 crc = sdoCrc(data);
        QCOMPARE(link.log.mid(expected.size()),
                 (QStringList{QStringLiteral("> 605:d5 %1 %2 00 00 00 00 00") // 5 bytes unused
                                  .arg(crc & 0xFF, 2, 16, QLatin1Char('0'))
                                  .arg(crc >> 8, 2, 16, QLatin1Char('0')),
                              "< 585:a1 00 00 00 00 00 00 00"}));
    }

    void blockUploadResendsALostSegment()
    {
        Link link;
        const QByteArray data = pattern(20);
        link.store.values[{0x2040, 0}] = data;
        link.client.startUpload(5, 0x2040, 0, 0);
        bool dropped = false;
        link.run([&](bool toServer, CanFrame& f) {
            if (!toServer && f.data[0] == 0x01 && !dropped &&
                link.client.state() == SdoClient::State::BlockUploadSegments) {
                dropped = true;
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.result->data, data);
        QVERIFY(link.log.contains("> 605:a2 00 7f 00 00 00 00 00")); // nothing taken: all again
        QCOMPARE(link.log.last(), QString("> 605:a1 00 00 00 00 00 00 00")); // the end confirmed
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void nodeWithoutBlockTransfer()
    {
        Link link;
        link.run();
        // A node that does not know block commands answers 05040001: the client goes plain.
        link.client.startDownload(5, 0x2040, 0, pattern(10), 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && (f.data[0] & 0xE0) == 0xC0) {
                link.wire.push_back({false, sdo::abortFrame(0x585, 0x2040, 0, 0x05040001)});
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), pattern(10));
        QVERIFY(link.log.contains("> 605:21 40 20 00 0a 00 00 00"));

        link.result.reset();
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && (f.data[0] & 0xE3) == 0xA0) {
                link.wire.push_back({false, sdo::abortFrame(0x585, 0x2040, 0, 0x05040001)});
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->data, pattern(10));
    }

    void aborts_data()
    {
        columns<bool, int, int, quint32>({"upload", "index", "size", "code"});
        row("missing object", true, 0x3000, 0, 0x06020000u);
        row("write-only", true, 0x2020, 0, 0x06010001u);
        row("read-only, expedited", false, 0x1018, 4, 0x06010002u);
        row("read-only, block", false, 0x1018, 40, 0x06010002u);
        row("too long, expedited", false, 0x1017, 3, 0x06070012u);
        row("too short, expedited", false, 0x1017, 1, 0x06070013u);
        row("too long, block", false, 0x1017, 20, 0x06070012u);
    }

    void aborts()
    {
        auto [upload, index, size] = fetch<bool, int, int>("upload", "index", "size");
        Link link;
        if (upload)
            link.client.startUpload(5, quint16(index), 0, 0);
        else
            link.client.startDownload(5, quint16(index), 0, pattern(size), 0);
        link.run();
        QVERIFY(link.result);
        QTEST(link.result->abortCode, "code");
        QVERIFY(link.result->data.isEmpty());
        QVERIFY(link.log.last().startsWith(QStringLiteral("< 585:80")));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void wrongToggleFromTheServer()
    {
        Link link;
        link.client.setBlockTransfer(false);
        link.store.values[{0x2040, 0}] = pattern(20);
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run([](bool toServer, CanFrame& f) {
            if (!toServer && (f.data[0] & 0xE0) == 0x00 && (f.data[0] & 0x10)) // second segment
                f.data[0] &= ~0x10;
            return true;
        });
        QCOMPARE(link.result->abortCode, 0x05030000u);
        QVERIFY(link.log.contains("> 605:80 40 20 00 00 00 03 05"));
    }

    void corruptedBlockCrc_data()
    {
        QTest::addColumn<bool>("upload");
        row("download", false);
        row("upload", true);
    }

    void corruptedBlockCrc()
    {
        QFETCH(bool, upload);
        Link link;
        link.store.values[{0x2040, 0}] = pattern(50);
        if (upload)
            link.client.startUpload(5, 0x2040, 0, 0);
        else
            link.client.startDownload(5, 0x2041, 0, pattern(50), 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer != upload && (f.data[0] & 0xE3) == 0xC1) // the end frame with the CRC
                f.data[1] ^= 0x01;
            return true;
        });
        QCOMPARE(link.result->abortCode, 0x05040004u);
        QVERIFY(!link.store.values.contains({0x2041, 0}));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void nodeFallsSilentMidTransfer_data()
    {
        columns<bool, bool>({"upload", "block"});
        row("segmented upload", true, false);
        row("segmented download", false, false);
        row("block upload", true, true);
        row("block download", false, true);
    }

    void nodeFallsSilentMidTransfer()
    {
        auto [upload, block] = fetch<bool, bool>("upload", "block");
        Link link;
        link.client.setBlockTransfer(block);
        link.client.setTimeoutMs(300);
        link.store.values[{0x2040, 0}] = pattern(3000);
        if (upload)
            link.client.startUpload(5, 0x2040, 0, 0);
        else
            link.client.startDownload(5, 0x2040, 0, pattern(3000), 0);
        // The node answers a few times, then its power goes.
        int answers = 0;
        link.run([&](bool toServer, CanFrame&) { return toServer || ++answers <= 3; });
        QVERIFY(!link.result);
        QVERIFY(link.client.isBusy());
        link.now = 10'000; // last frame at time 0
        link.client.onTimer(link.client.nextDeadlineUs());
        QVERIFY(link.result);
        QCOMPARE(link.result->error, SdoClient::kTimeoutText);
        QVERIFY(link.result->data.isEmpty());
        QVERIFY(!link.client.isBusy());
    }

    void serverForgetsASilentClient()
    {
        Link link;
        link.client.setBlockTransfer(false);
        link.client.startDownload(5, 0x2040, 0, pattern(30), 0);
        link.run([&](bool toServer, CanFrame&) {
            return !(toServer && link.server.state() == SdoServer::State::DownloadSegments);
        });
        QCOMPARE(link.server.state(), SdoServer::State::DownloadSegments);
        link.server.onTimer(999'999);
        QVERIFY(link.wire.empty());
        link.server.onTimer(1'000'000);
        QCOMPARE(hexOf(link.wire.front().second), QStringLiteral("585:80 40 20 00 00 00 04 05"));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void crcKnownValue()
    {
        // CRC-16/XMODEM check value.
        QCOMPARE(sdoCrc(QByteArray("123456789")), quint16(0x31C3));
        QCOMPARE(sdoCrc(QByteArray()), quint16(0));
        QCOMPARE(sdoAbortText(0x06020000),
                 QStringLiteral("Object does not exist in the object dictionary"));
    }

    void serverRefusesASegmentPastTheIndicatedSize()
    {
        Store store;
        QStringList answers;
        SdoServer server(&store, [&answers](const CanFrame& f) { answers << hexOf(f); });
        server.setNodeId(5);
        const auto request = [&server](const char* hex) { server.onFrame(fromHex(0x605, hex), 0); };
        request("2140200008000000"); // segmented, 8 bytes indicated
        request("0041424344454647"); // 7 bytes, t=0
        request("1041424344454647"); // 7 more, t=1, not last: 14 > 8
        QCOMPARE(answers, (QStringList{"585:60 40 20 00 00 00 00 00", "585:20 00 00 00 00 00 00 00",
                                       "585:80 40 20 00 12 00 07 06"}));
        QVERIFY(!store.values.contains({0x2040, 0}));
        // A frame of fewer than 8 bytes is no request of the protocol: no answer at all.
        answers.clear();
        CanFrame shortRequest = fromHex(0x605, "4018100100000000");
        shortRequest.len = 4;
        server.onFrame(shortRequest, 0);
        QCOMPARE(answers, QStringList());
    }

    // The client against a node written out by hand. Each client frame is followed by the frames
    // of one script step as they appear on the bus ("HEX" on 0x585 or "ID:HEX", several joined by
    // "|"; "-" for none, as for a block's segments): this transfer's answers, late answers of an
    // earlier one, answers to a frame sent by hand, another node's answers. What the transfer
    // then reports is its result; one still waiting when the script ends meets its time-out.
    void foreignNode_data()
    {
        // size: bytes to download; outcome: data as hex, "abort CODE" or "timeout"; last: the
        // client's last frame ("": not checked)
        columns<bool, bool, int, QStringList, QString, QString>(
            {"upload", "block", "size", "script", "outcome", "last"});

        row("upload answered first with another object's value", true, false, 0,
            QStringList{"43 41 20 00 11 22 33 44|43 40 20 00 aa bb cc dd"}, "aabbccdd", "");
        row("download confirmed only for another object", false, false, 4,
            QStringList{"60 00 10 00 00 00 00 00"}, "timeout", "");
        row("abort naming another object, then the answer", true, false, 0,
            QStringList{"80 41 20 00 00 00 02 06|4f 40 20 00 07 00 00 00"}, "07", "");
        row("abort naming the object ends the transfer", true, false, 0,
            QStringList{"80 40 20 00 00 00 02 06"}, "abort 06020000", "");
        row("another node's answer", true, false, 0,
            QStringList{"586:43 40 20 00 11 22 33 44|4b 40 20 00 34 12 00 00"}, "3412", "");
        row("late segment of a transfer that timed out", true, false, 0,
            QStringList{"00 61 62 63 64 65 66 67|4b 40 20 00 34 12 00 00"}, "3412", "");
        row("block upload offered for another object", true, true, 0,
            QStringList{"c6 41 20 00 1e 00 00 00"}, "timeout", "");
        row("block download accepted for another object", false, true, 30,
            QStringList{"a4 41 20 00 7f 00 00 00"}, "timeout", "");
        row("segmented upload announcing 16 MiB", true, false, 0,
            QStringList{"41 40 20 00 00 00 00 01"}, "abort 05040005", "");
        row("segment answer during the segments with the wrong command", false, false, 20,
            QStringList{"60 40 20 00 00 00 00 00", "60 40 20 00 00 00 00 00"}, "abort 05040001",
            "");
        row("download segment acknowledged with the wrong toggle", false, false, 20,
            QStringList{"6040200000000000", "3000000000000000"}, "abort 05030000",
            "605:80 40 20 00 00 00 03 05");
        row("upload that announces more than it sends", true, false, 0,
            QStringList{"4140200014000000", "0941424300000000"}, "abort 06070013",
            "605:80 40 20 00 13 00 07 06");
        row("upload that sends more than it announces", true, false, 0,
            QStringList{"4140200002000000", "0941424300000000"}, "abort 06070012",
            "605:80 40 20 00 12 00 07 06");
        row("upload that announces no bytes and sends some", true, false, 0,
            QStringList{"4140200000000000", "0941424300000000"}, "abort 06070012",
            "605:80 40 20 00 12 00 07 06");
        row("block size 0 offered", false, true, 30, QStringList{"a440200000000000"},
            "abort 05040002", "605:80 40 20 00 02 00 04 05");
        row("block size 128 offered", false, true, 30, QStringList{"a440200080000000"},
            "abort 05040002", "605:80 40 20 00 02 00 04 05");
        // 30 bytes are 5 segments; the node claims to have received 9.
        row("sequence number past the segments sent", false, true, 30,
            QStringList{"a44020007f000000", "-", "-", "-", "-", "a2097f0000000000"},
            "abort 05040003", "605:80 40 20 00 03 00 04 05");
        // What a node may leave out. An expedited answer with the unused bit 4 set still counts
        // its bytes from bits 2-3; a block upload that indicates no size gives what it carries.
        row("expedited answer with bit 4 set", true, false, 0, QStringList{"5340200041424344"},
            "41424344", "");
        row("block upload without a size", true, true, 0,
            QStringList{"c040200000000000", "8141424344454647", "c100000000000000"},
            "41424344454647", "");
    }

    void foreignNode()
    {
        auto [upload, block, size, script, outcome, last] =
            fetch<bool, bool, int, QStringList, QString, QString>("upload", "block", "size",
                                                                  "script", "outcome", "last");
        QList<CanFrame> sent;
        SdoClient client([&sent](const CanFrame& f) { sent << f; });
        client.setBlockTransfer(block);
        client.setTimeoutMs(500);
        std::optional<SdoClient::Result> result;
        client.done = [&result](const SdoClient::Result& r) { result = r; };
        qint64 now = 0;
        if (upload)
            client.startUpload(5, 0x2040, 0, now);
        else
            client.startDownload(5, 0x2040, 0, pattern(size), now);
        while (!sent.isEmpty() && !script.isEmpty() && !result) {
            sent.removeFirst();
            for (QString text : script.takeFirst().remove(' ').split('|')) {
                if (text == "-")
                    continue;
                const quint16 id =
                    text.contains(':') ? text.section(':', 0, 0).toUShort(nullptr, 16) : 0x585;
                now += 1000;
                client.onFrame(fromHex(id, text.section(':', -1).toLatin1().constData()), now);
                if (result)
                    break;
            }
        }
        if (!result) {
            QVERIFY(client.isBusy());
            client.onTimer(client.nextDeadlineUs());
        }
        QVERIFY(result);
        if (outcome == QLatin1String("timeout"))
            QCOMPARE(result->error, SdoClient::kTimeoutText);
        else if (outcome.startsWith(QLatin1String("abort ")))
            QCOMPARE(QString::number(result->abortCode, 16).rightJustified(8, '0'), outcome.mid(6));
        else
            QCOMPARE(result->data.toHex(), outcome.toLatin1());
        if (result->abortCode != 0 || !result->error.isEmpty())
            QCOMPARE(result->data, QByteArray());
        if (!last.isEmpty())
            QCOMPARE(hexOf(sent.last()), last);
        QVERIFY(!client.isBusy());
    }

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

    void bootUpThenHeartbeats()
    {
        NmtNode n(5, 100);
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

        NmtNode n(5, 100);
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
        NmtNode n(5, 100);
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
        NmtNode n(5, 100);
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
        NmtNode unconfigured(NmtSlave::kUnconfigured, 100);
        unconfigured.nmt.bootUp(0);
        unconfigured.nmt.onFrame(nmtCommand(0x01, 0), 10);
        unconfigured.runUntil(1'000'000);
        QVERIFY(unconfigured.take().isEmpty());

        NmtNode n(5, 100);
        n.nmt.bootUp(0);
        n.nmt.powerOff();
        n.take();
        n.nmt.onFrame(nmtCommand(0x82, 0), 10);
        n.runUntil(1'000'000);
        QVERIFY(n.take().isEmpty());
        QCOMPARE(n.resetComms, 0);
    }

    // A node's error reporting against frames written out by hand: emergencies with their register,
    // error field, inhibit time and parameter checks; node guarding's answers and toggle, life
    // guarding and the heartbeat consumer losing and finding their peer.
    void emergencies()
    {
        ErrorNode n;
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
        ErrorNode n;
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
        ErrorNode n;
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
        ErrorNode n;
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

    // The PDO engine against frames written out by hand: the mapping procedure and its refusals,
    // TPDOs on SYNC, on change, on the event timer within the inhibit time, RPDOs at once or at the
    // next SYNC, and RPDOs of the wrong length.
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
        PdoNode n;
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
            n.entries[PdoNode::key(0x607A, 0)] = le(0x01020304, 4);
            n.change(0x6041, 0x0237);
            QCOMPARE(n.take(), QStringList{"185:37 02 04 03 02 01"});
        }
    }

    void tpdoTransmissionTypes()
    {
        PdoNode n;
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
        PdoNode n;
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
        PdoNode n;
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

    // The drive profile against controlwords written out by hand: its state machine (every
    // transition, and commands a state does not take), profile position, profile velocity and
    // homing moves in time, quick stop, and the following error fault with its reset.
    void stateMachine_data()
    {
        // Controlwords in order from switch on disabled; the state after the last, its statusword.
        columns<QList<int>, State, int>({"words", "state", "status"});
        row("start", QList<int>{}, State::SwitchOnDisabled, 0x0240);
        row("shutdown", QList<int>{0x06}, State::ReadyToSwitchOn, 0x0231);
        row("switch on", QList<int>{0x06, 0x07}, State::SwitchedOn, 0x0233);
        row("enable operation", QList<int>{0x06, 0x07, 0x0F}, State::OperationEnabled, 0x0637);
        row("switch on and enable at once", QList<int>{0x06, 0x0F}, State::OperationEnabled,
            0x0637);
        row("disable operation", QList<int>{0x06, 0x0F, 0x07}, State::SwitchedOn, 0x0233);
        row("shutdown from enabled", QList<int>{0x06, 0x0F, 0x06}, State::ReadyToSwitchOn, 0x0231);
        row("disable voltage from enabled", QList<int>{0x06, 0x0F, 0x00}, State::SwitchOnDisabled,
            0x0240);
        row("quick stop from switched on", QList<int>{0x06, 0x07, 0x02}, State::SwitchOnDisabled,
            0x0240);
        row("quick stop from enabled, standing", QList<int>{0x06, 0x0F, 0x02},
            State::QuickStopActive, 0x0217);
        row("back from quick stop", QList<int>{0x06, 0x0F, 0x02, 0x0F}, State::OperationEnabled,
            0x0637);
        // Commands the state does not take change nothing.
        row("switch on without shutdown", QList<int>{0x07}, State::SwitchOnDisabled, 0x0240);
        row("enable without shutdown", QList<int>{0x0F}, State::SwitchOnDisabled, 0x0240);
        row("fault reset without a fault disables the voltage", QList<int>{0x06, 0x80},
            State::SwitchOnDisabled, 0x0240);
    }

    void stateMachine()
    {
        auto [words, status] = fetch<QList<int>, int>("words", "status");
        Drive d;
        for (int w : words)
            d.control(quint16(w));
        QTEST(d.profile.state(), "state");
        QCOMPARE(QString::number(d.status(), 16), QString::number(status, 16));
    }

    void profilePositionMove()
    {
        Drive d;
        d.enable();
        d.set(0x607A, 20000);
        d.control(0x1F);
        // Acknowledged at once, not reached; the acknowledgement goes with bit 4.
        QCOMPARE(d.status() & 0x1400, 0x1000);
        d.control(0x0F);
        QCOMPARE(d.status() & 0x1000, 0);
        // 20000 at 100000/s with 500000/s² both ways: 0.2 s up to full speed (10000), 0.2 s down.
        d.run(100000);
        const qint64 early = d.read(0x6064);
        QVERIFY2(early > 2000 && early < 3000, qPrintable(QString::number(early)));
        QVERIFY(d.read(0x606C) > 40000 && d.read(0x606C) < 60000);
        d.run(350000);
        QCOMPARE(d.read(0x6064), 20000);
        QCOMPARE(d.read(0x606C), 0);
        QCOMPARE(d.status() & 0x0400, 0x0400);
        QVERIFY(d.changed.contains(0x6064) && d.changed.contains(0x6041));
        // Relative: from the last target.
        d.set(0x607A, -5000);
        d.control(0x5F);
        d.control(0x4F);
        d.run(500000);
        QCOMPARE(d.read(0x6064), 15000);
        QCOMPARE(d.profile.nextDeadlineUs(), -1); // standing: no steps
    }

    void profileVelocityAndQuickStop()
    {
        Drive d;
        d.set(0x6060, DriveProfile::kProfileVelocity);
        d.profile.modeWritten();
        QCOMPARE(d.read(0x6061), 3);
        d.enable();
        d.set(0x60FF, -50000);
        d.control(0x0F);
        d.run(50000);
        QVERIFY(d.read(0x606C) < -20000 && !(d.status() & 0x0400));
        d.run(100000);
        QCOMPARE(d.read(0x606C), -50000);
        QCOMPARE(d.status() & 0x0400, 0x0400);
        // At rest, while only other timers wake the drive, a new target velocity starts a ramp
        // from that moment: not a jump by all the time since the last wake-up.
        d.set(0x60FF, 0);
        d.run(200000);
        QCOMPARE(d.read(0x606C), 0);
        d.profile.step(d.now += 900000);
        d.set(0x60FF, 50000);
        d.profile.step(d.now += 400000); // the drive's timer, now that it moves
        QVERIFY2(d.read(0x606C) > 0 && d.read(0x606C) < 5000,
                 qPrintable(QString::number(d.read(0x606C))));
        // Quick stop: down with 6085, then switch on disabled.
        d.control(0x0B);
        QCOMPARE(d.profile.state(), State::QuickStopActive);
        d.run(20000);
        QCOMPARE(d.profile.state(), State::SwitchOnDisabled);
        QCOMPARE(d.read(0x606C), 0);
    }

    void homing()
    {
        Drive d;
        d.set(0x6064, 777);
        d.profile.start(0);
        d.set(0x6060, DriveProfile::kHoming);
        d.profile.modeWritten();
        d.enable();
        // Method 35: the present position is home at once.
        d.control(0x1F);
        QCOMPARE(d.read(0x6064), 0);
        QCOMPARE(d.status() & 0x3400, 0x1400);
        // Another method moves to 0 first.
        d.control(0x0F);
        d.set(0x6098, 1);
        d.set(0x607A, 3000);
        d.profile.modeWritten();
        d.set(0x6060, DriveProfile::kProfilePosition);
        d.profile.modeWritten();
        d.control(0x1F);
        d.control(0x0F);
        d.run(400000);
        QCOMPARE(d.read(0x6064), 3000);
        d.set(0x6060, DriveProfile::kHoming);
        d.profile.modeWritten();
        d.control(0x1F);
        QCOMPARE(d.status() & 0x3400, 0x0000); // in progress
        d.run(500000);
        QCOMPARE(d.read(0x6064), 0);
        QCOMPARE(d.status() & 0x3400, 0x1400);
    }

    void followingErrorAndFaultReset()
    {
        Drive d;
        d.set(0x6072, 5); // 0.5 % torque: the motor lags far behind
        d.enable();
        d.set(0x607A, 100000);
        d.control(0x1F);
        d.run(1000000);
        QCOMPARE(d.profile.state(), State::Fault);
        QCOMPARE(d.faults, QList<quint16>{DriveProfile::kFollowingError});
        QCOMPARE(d.read(0x603F), DriveProfile::kFollowingError);
        QCOMPARE(d.status() & 0x204F, 0x2008);
        // Commands other than the reset are not taken; the reset's rising edge is.
        d.control(0x0F);
        QCOMPARE(d.profile.state(), State::Fault);
        d.control(0x80);
        QCOMPARE(d.profile.state(), State::SwitchOnDisabled);
        QCOMPARE(d.cleared, QList<quint16>{DriveProfile::kFollowingError});
        QCOMPARE(d.read(0x603F), 0);
        // A fault from outside (the bus's over-voltage) takes the same way.
        d.enable();
        d.profile.raiseFault(0x3210, d.now);
        QCOMPARE(d.profile.state(), State::Fault);
        QCOMPARE(d.faults.last(), quint16(0x3210));
    }

    // The boot catch, against frames written out by hand: the catcher's requests and how it takes
    // (or ignores) answers, and which requests a boot loader must take.
    void repeatsItsRequestUntilTheTimeIsUp()
    {
        CatchRig rig;
        rig.catcher.start(5, 35, 0);
        QCOMPARE(rig.sent, QStringList{"6a0:b0 05"});
        QCOMPARE(rig.catcher.nextDeadlineUs(), 10 * kMs);
        rig.catcher.onTimer(9 * kMs); // early: nothing
        QCOMPARE(rig.sent.size(), 1);
        for (const qint64 t : {10, 20, 30})
            rig.catcher.onTimer(t * kMs);
        QCOMPARE(rig.sent.size(), 4);
        // The last wait is cut to the end of the catch.
        QCOMPARE(rig.catcher.nextDeadlineUs(), 35 * kMs);
        rig.catcher.onTimer(35 * kMs);
        QCOMPARE(rig.sent.size(), 4);
        QCOMPARE(rig.results.size(), 1);
        QVERIFY(!rig.results[0].caught);
        QCOMPARE(rig.results[0].version, 0u);
        QVERIFY(!rig.catcher.isBusy());
        QCOMPARE(rig.catcher.nextDeadlineUs(), -1);
    }

    void answers_data()
    {
        columns<int, quint16, QByteArray, bool, int, quint32>(
            {"node", "id", "data", "caught", "caughtNode", "version"});

        row("any node", 0, quint16(0x6A1), QByteArray("0703020100"), true, 7, 0x00010203u);
        row("the named node", 5, quint16(0x6A1), QByteArray("05010a0200"), true, 5, 0x00020A01u);
        row("another node than the named one", 5, quint16(0x6A1), QByteArray("0603020100"), false,
            0, 0u);
        row("too short", 0, quint16(0x6A1), QByteArray("07030201"), false, 0, 0u);
        row("longer is fine", 0, quint16(0x6A1), QByteArray("0704030201ffff"), true, 7,
            0x01020304u);
        row("not the answer's COB-ID", 0, quint16(0x6A0), QByteArray("0703020100"), false, 0, 0u);
        row("version 0 is still an answer", 0, quint16(0x6A1), QByteArray("0100000000"), true, 1,
            0u);
    }

    void answers()
    {
        auto [node, id, data, caught, version] = fetch<int, quint16, QByteArray, bool, quint32>(
            "node", "id", "data", "caught", "version");
        CatchRig rig;
        rig.catcher.start(quint8(node), 5000, 0);
        QCOMPARE(rig.catcher.onFrame(fromHex(id, data.constData()), 3 * kMs), caught);
        QCOMPARE(rig.results.size(), caught ? 1 : 0);
        QCOMPARE(rig.catcher.isBusy(), !caught);
        if (!caught)
            return;
        QVERIFY(rig.results[0].caught);
        QTEST(int(rig.results[0].node), "caughtNode");
        QCOMPARE(rig.results[0].version, version);
        // Once caught, no more requests and no second report.
        rig.catcher.onTimer(100 * kMs);
        QCOMPARE(rig.sent.size(), 1);
        QVERIFY(!rig.catcher.onFrame(fromHex(id, data.constData()), 4 * kMs));
        QCOMPARE(rig.results.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TstCanopen)
#include "tst_canopen.moc"

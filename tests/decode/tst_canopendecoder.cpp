// The CANopen decoder byte by byte: each service's frames and what they say, frames whose length
// fits no service, identifiers no service uses, and SDO transfers followed across their frames
// with two nodes interleaved; the network watch's states, missed heartbeats and emergencies.
#include "canopendecoder.h"
#include "datatable.h"
#include "identifiertable.h"
#include "networkwatch.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstCanopenDecoder : public QObject
{
    Q_OBJECT
private slots:
    void frames_data()
    {
        // data: hexadecimal
        columns<int, bool, QByteArray, QString>({"id", "remote", "data", "text"});
        const auto add = [](const char* tag, int id, const char* hex, const char* text,
                            bool remote = false) {
            tessel::test::row(tag, id, remote, QByteArray(hex), QString::fromUtf8(text));
        };
        add("NMT start", 0x000, "0105", "NMT node 5: start");
        add("NMT reset all", 0x000, "8100", "NMT: reset node, all nodes");
        add("NMT unknown command", 0x000, "0701", "NMT node 1: malformed: unknown command 07");
        add("NMT of 3 bytes", 0x000, "010500", "NMT: malformed: 3 bytes (2 expected)");
        add("SYNC", 0x080, "", "SYNC: no counter");
        add("SYNC with counter", 0x080, "2A", "SYNC: counter 42");
        add("SYNC of 2 bytes", 0x080, "0102", "SYNC: malformed: 2 bytes (0, or 1 with a counter)");
        add("EMCY following error", 0x081, "1186210000000000",
            "EMCY node 1: 8611 following error; register 21 (generic, device profile)");
        add("EMCY reset", 0x0A2, "0000000000000000",
            "EMCY node 34: 0000 error reset or no error; register 00 (no error)");
        add("EMCY class only", 0x081, "4532050000000000",
            "EMCY node 1: 3245 voltage inside the device (3245); register 05 (generic, voltage)");
        add("EMCY in no table", 0x081, "34A2010000000000",
            "EMCY node 1: A234 (in no table); register 01 (generic)");
        add("EMCY of 4 bytes", 0x081, "10320500", "EMCY node 1: malformed: 4 bytes (8 expected)");
        add("TIME", 0x100, "E8030000803A", "TIME: 2025-01-01 00:00:01.000");
        add("TPDO1", 0x181, "3702", "TPDO1 node 1: 37 02");
        add("RPDO4", 0x57F, "0F00A0860100", "RPDO4 node 127: 0F 00 A0 86 01 00");
        add("TPDO remote request", 0x285, "", "TPDO2 node 5: remote request", true);
        add("SDO expedited upload", 0x601, "4018100100000000",
            "SDO request node 1: upload 1018:01");
        add("SDO expedited answer", 0x581, "4318100 1A1030000",
            "SDO answer node 1: upload 1018:01 = A1 03 00 00 (929)");
        add("SDO expedited download of 2 bytes", 0x605, "2B17100064000000",
            "SDO request node 5: download 1017:00, expedited: 64 00");
        add("SDO download accepted", 0x585, "6017100000000000",
            "SDO answer node 5: download 1017:00 accepted");
        add("SDO abort", 0x581, "8000300000000206",
            "SDO answer node 1: abort 3000:00 06020000 (Object does not exist in the object "
            "dictionary)");
        add("SDO of 3 bytes", 0x601, "400018",
            "SDO request node 1: malformed: 3 bytes (8 expected)");
        add("SDO unknown command", 0x601, "E000000000000000",
            "SDO request node 1: malformed: unknown command E0");
        add("boot-up", 0x701, "00", "boot-up node 1: started");
        add("heartbeat", 0x77F, "7F", "heartbeat node 127: pre-operational");
        add("guarding request", 0x705, "", "guarding node 5: request", true);
        add("guarding answer", 0x705, "85", "guarding node 5: answer: operational, toggle 1");
        add("heartbeat of no state", 0x701, "03", "heartbeat node 1: malformed: state 03 is none");
        add("heartbeat of 2 bytes", 0x701, "0505",
            "heartbeat node 1: malformed: 2 bytes (1 expected)");
        add("LSS switch global", 0x7E5, "0401000000000000",
            "LSS: master switch state global: 01 00 00 00 00 00 00");
        add("LSS node-ID confirmed", 0x7E4, "1100000000000000",
            "LSS: slave configure node-ID: confirmed: 00 00 00 00 00 00 00");
        add("LSS unknown", 0x7E5, "9900000000000000", "LSS: malformed: unknown command 99");
        add("no service", 0x123, "01", "unknown: no CANopen service uses identifier 123");
        add("reserved range", 0x7F0, "", "unknown: no CANopen service uses identifier 7F0");
    }

    void frames()
    {
        auto [id, remote, data, text] =
            fetch<int, bool, QByteArray, QString>("id", "remote", "data", "text");
        CanopenDecoder decoder;
        const DecodedFrame d =
            decoder.decode(quint16(id), remote, QByteArray::fromHex(data.replace(' ', "")));
        QCOMPARE(CanopenDecoder::text(d), text);
        QCOMPARE(d.malformed, text.contains(QLatin1String("malformed")));
    }

    void withDictionary_data()
    {
        columns<int, QByteArray, QString>({"id", "data", "text"});
        row("TPDO1 by its mapping", 0x181, QByteArray::fromHex("3702FF"),
            "TPDO1 node 1: Statusword = 567; Modes of operation display = -1");
        row("a negative 32-bit value", 0x281, QByteArray::fromHex("FEFFFFFF"),
            "TPDO2 node 1: Position actual value = -2");
        row("fields that do not start on a byte", 0x381, QByteArray::fromHex("B5"),
            "TPDO3 node 1: 2000:01 = 5; 2000:02 = 6; 2000:03 = 1");
        row("shorter than its mapping", 0x181, QByteArray::fromHex("3702"),
            "TPDO1 node 1: malformed: 2 bytes, its mapping takes 3: 37 02");
        row("longer than its mapping", 0x281, QByteArray::fromHex("0100000000"),
            "TPDO2 node 1: Position actual value = 1; 1 bytes past the mapping");
        row("no mapping in the EDS: the bytes", 0x481, QByteArray::fromHex("0102"),
            "TPDO4 node 1: 01 02");
        row("an SDO entry by its name", 0x605, QByteArray::fromHex("4018100100000000"),
            "SDO request node 5: upload 1018:01 (Identity Object/Vendor-ID)");
        row("an SDO entry the EDS does not have", 0x605, QByteArray::fromHex("4000300000000000"),
            "SDO request node 5: upload 3000:00");
    }

    void withDictionary()
    {
        auto [id, data] = fetch<int, QByteArray>("id", "data");
        auto d = std::make_shared<DeviceDictionary>();
        d->names.insert(0x604100, "Statusword");
        d->names.insert(0x606100, "Modes of operation display");
        d->names.insert(0x606400, "Position actual value");
        d->names.insert(0x101801, "Identity Object/Vendor-ID");
        d->tpdo[0] = {{0x6041, 0, 16, false}, {0x6061, 0, 8, true}};
        d->tpdo[1] = {{0x6064, 0, 32, true}};
        d->tpdo[2] = {{0x2000, 1, 3, false}, {0x2000, 2, 4, false}, {0x2000, 3, 1, false}};
        CanopenDecoder decoder;
        decoder.setDictionary(d);
        QTEST(CanopenDecoder::text(decoder.decode(quint16(id), false, data)), "text");
    }

    void transfersAcrossFrames()
    {
        CanopenDecoder decoder;
        const auto d = [&](int id, const char* hex) {
            return CanopenDecoder::text(
                decoder.decode(quint16(id), false, QByteArray::fromHex(hex)));
        };
        // Node 1 uploads 1008 segmented while node 2 downloads 2030 segmented: each segment names
        // its own node's entry, and the last says how much went.
        QCOMPARE(d(0x601, "4008100000000000"), "SDO request node 1: upload 1008:00");
        QCOMPARE(d(0x602, "2130200009000000"),
                 "SDO request node 2: download 2030:00, segmented, 9 bytes");
        QCOMPARE(d(0x581, "4108100009000000"),
                 "SDO answer node 1: upload 1008:00, segmented, 9 bytes");
        QCOMPARE(d(0x582, "6030200000000000"), "SDO answer node 2: download 2030:00 accepted");
        QCOMPARE(d(0x601, "6000000000000000"),
                 "SDO request node 1: upload segment of 1008:00, toggle 0");
        QCOMPARE(d(0x602, "0068656C6C6F2077"),
                 "SDO request node 2: download segment of 2030:00, toggle 0: 68 65 6C 6C 6F 20 77");
        QCOMPARE(d(0x581, "0051442D33303020"),
                 "SDO answer node 1: upload segment of 1008:00, toggle 0: 51 44 2D 33 30 30 20");
        QCOMPARE(d(0x582, "2000000000000000"),
                 "SDO answer node 2: download segment of 2030:00 acknowledged, toggle 0");
        QCOMPARE(d(0x612, "1B6F720000000000"),
                 "SDO request node 18: download segment of a transfer whose start was not seen, "
                 "toggle 1: 6F 72, last (2 bytes in all)");
        QCOMPARE(d(0x602, "1B6F720000000000"),
                 "SDO request node 2: download segment of 2030:00, toggle 1: 6F 72, last (9 bytes "
                 "in all)");
        QCOMPARE(d(0x581, "1B58590000000000"),
                 "SDO answer node 1: upload segment of 1008:00, toggle 1: 58 59, last (9 bytes in "
                 "all)");
        // A block download: its segments carry sequence numbers, the last one is marked.
        QCOMPARE(d(0x603, "C640200010000000"),
                 "SDO request node 3: block download 2040:00, 16 bytes");
        QCOMPARE(d(0x583, "A440200002000000"),
                 "SDO answer node 3: block download 2040:00 accepted, 2 segments a block");
        QCOMPARE(d(0x603, "0111111111111111"), "SDO request node 3: block segment 1 of 2040:00");
        QCOMPARE(d(0x603, "0211111111111111"), "SDO request node 3: block segment 2 of 2040:00");
        QCOMPARE(d(0x583, "A202020000000000"),
                 "SDO answer node 3: block of 2040:00: 2 segments received");
        QCOMPARE(d(0x603, "8311111111111111"),
                 "SDO request node 3: block segment 3 of 2040:00, last");
        QCOMPARE(d(0x583, "A203020000000000"),
                 "SDO answer node 3: block of 2040:00: 3 segments received");
        // The end is a command again, not a segment.
        QCOMPARE(d(0x603, "D500000000000000"),
                 "SDO request node 3: block download of 2040:00 ends, 5 bytes unused in its last "
                 "segment");
        QCOMPARE(d(0x583, "A100000000000000"), "SDO answer node 3: block download of 2040:00 done");
    }

    void identifierTable_data()
    {
        // counters: the transmit and receive error counters packed as the server sends them
        columns<quint32, int, QString>({"status", "counters", "load"});
        row("running", 0u, 0, "CAN 0: 0.0 %  CAN 2: 0.0 %");
        row("counters unknown", 0u, -1, "CAN 0: 0.0 %  CAN 2: 0.0 %");
        row("error warning", 4u, 96 << 16 | 8,
            "CAN 0: 0.0 %  CAN 2: 0.0 % error warning TEC 8 REC 96");
        row("bus off and overrun", 10u, 256,
            "CAN 0: 0.0 %  CAN 2: 0.0 % bus off overrun TEC 256 REC 0");
    }

    void identifierTable()
    {
        IdentifierTable table;
        CanopenDecoder decoder;
        const quint8 beat[] = {0x05};
        for (qint64 us : {0, 1000, 3000})
            table.add(0, false, 0x701, false, us, 1, beat, decoder.decode(0x701, false, "\x05"));
        table.add(0, true, 0x701, false, 500, 1, beat, decoder.decode(0x701, false, "\x05"));
        table.add(1, false, 0x181, false, 10, 9, beat, {}); // no frame: not counted
        QCOMPARE(table.rowCount(), 0);                      // nothing shows before it is published
        table.publish();
        QCOMPARE(table.rowCount(), 2);
        const auto cell = [&table](int row, int column) {
            return table.data(table.index(row, column), Qt::DisplayRole).toString();
        };
        QCOMPARE(
            QStringList({cell(0, IdentifierTable::Controller), cell(0, IdentifierTable::Count),
                         cell(0, IdentifierTable::CycleLast), cell(0, IdentifierTable::CycleMin),
                         cell(0, IdentifierTable::CycleMax), cell(0, IdentifierTable::Meaning),
                         cell(0, IdentifierTable::Data)}),
            QStringList({"0", "3", "2.0", "1.0", "2.0", "operational", "05"}));
        QCOMPARE(cell(1, IdentifierTable::Controller), QString("0 Tx"));
        QCOMPARE(cell(1, IdentifierTable::CycleLast), QString());
        // The load of the controllers whose rate is known, with the error state.
        QFETCH(quint32, status);
        table.setBitRate(0, 1000000);
        table.setBitRate(2, 125000);
        table.setStatus(2, status);
        QFETCH(int, counters);
        table.setErrorCounters(2, qorcalib::ErrorCounters::unpacked(counters));
        table.measureLoad(); // the frames above were counted in the period before
        table.measureLoad();
        QTEST(table.loadText(), "load");
        table.clear();
        QCOMPARE(table.rowCount(), 0);
    }

    void emergencyTexts_data()
    {
        columns<int, QString>({"code", "text"});
        row("exact 301", 0x8130, "life guard error or heartbeat error");
        row("exact 402", 0x3210, "DC link over-voltage");
        row("sub-class", 0x2350, "current, device output side (2350)");
        row("class", 0x4999, "temperature (4999)");
        row("none", 0xA000, "");
    }

    void emergencyTexts()
    {
        QFETCH(int, code);
        QTEST(emcyText(quint16(code)), "text");
    }

    void networkWatch()
    {
        NetworkWatch w;
        QStringList said;
        const auto take = [&](const QList<NetworkWatch::Event>& events) {
            for (const auto& e : events)
                said << QStringLiteral("%1 node %2: %3")
                            .arg(e.timeUs / 1000)
                            .arg(e.node)
                            .arg(e.text);
        };
        const auto frame = [&](int id, const char* hex, qint64 ms) {
            take(w.onFrame(quint16(id), false, QByteArray::fromHex(hex), ms * 1000));
        };
        frame(0x705, "00", 0);      // boot-up
        frame(0x705, "7F", 500);    // its first heartbeat: no period yet
        frame(0x705, "7F", 1500);   // period 1 s
        frame(0x000, "0105", 1600); // NMT: not a node's own frame
        frame(0x705, "05", 2500);
        take(w.check(3700 * 1000)); // within 1.5 periods
        take(w.check(4100 * 1000)); // missed, said once
        take(w.check(5000 * 1000));
        frame(0x085, "1086210000000000", 4200);
        frame(0x705, "05", 5000);
        frame(0x706, "0500", 5000); // malformed: not taken
        QCOMPARE(said,
                 (QStringList{"0 node 5: boot-up", "500 node 5: pre-operational",
                              "2500 node 5: pre-operational -> operational",
                              "4100 node 5: heartbeat missed: none for 1.6 s (every 1.0 s "
                              "before)",
                              "4200 node 5: EMCY 8610 positioning controller (8610); register "
                              "21 (generic, device profile)",
                              "5000 node 5: heartbeat back: operational"}));
        QCOMPARE(w.nodes().value(5).state, quint8(0x05));
        QVERIFY(!w.nodes().contains(6));
    }
};

QTEST_GUILESS_MAIN(TstCanopenDecoder)
#include "tst_canopendecoder.moc"

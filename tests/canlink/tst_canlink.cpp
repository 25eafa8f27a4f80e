#include "datatable.h"
#include "sampling.h"
#include "serverconnection.h"

#include <QtTest>

using namespace tessel::test;
using namespace qorcalib;
using namespace tessel;

class TstCanLink : public QObject
{
    Q_OBJECT
private slots:
    void fromMachineName_data()
    {
        columns<QString, bool, QString, int>({"machine", "local", "host", "port"});
        row("localhost", "localhost", true, "", 0);
        // Only the exact spelling is the local server; anything else goes over the network.
        row("LOCALHOST", "LOCALHOST", false, "LOCALHOST", 17420);
        row("name", "bench7", false, "bench7", 17420);
        row("name and port", "bench7:5000", false, "bench7", 5000);
        row("ipv4 and port", "10.1.2.3:6000", false, "10.1.2.3", 6000);
        row("bare ipv6", "fe80::1", false, "fe80::1", 17420);
        row("bracketed ipv6", "[::1]:7000", false, "::1", 7000);
        row("bad port", "bench7:http", false, "bench7", 0);
        row("port too big", "bench7:70000", false, "bench7", 0);
    }

    void fromMachineName()
    {
        auto [machine, local, host, port] =
            fetch<QString, bool, QString, int>("machine", "local", "host", "port");
        const auto address = ServerAddress::fromMachineName(machine, QStringLiteral("/run/q"));
        QCOMPARE(address.isLocal(), local);
        if (local) {
            QCOMPARE(address.localPath, QStringLiteral("/run/q"));
        } else {
            QCOMPARE(address.host, host);
            QCOMPARE(int(address.port), port);
        }
    }

    // Reading an entry at a period: when each read is due when reads take their time, and the
    // shortest period each bit rate carries.
    void schedule_data()
    {
        // reads: how long each read takes (ms); due: when each read starts; skipped: at the end
        columns<int, QList<int>, QList<int>, int>({"period", "reads", "due", "skipped"});
        row("quick reads stay on the grid", 10, QList<int>{1, 2, 9}, QList<int>{0, 10, 20, 30}, 0);
        row("a read ending on the next time", 10, QList<int>{10, 1}, QList<int>{0, 10, 20}, 0);
        row("a slow read skips what it missed", 10, QList<int>{1, 25, 1}, QList<int>{0, 10, 40, 50},
            2);
        row("a read just past the next time skips one", 10, QList<int>{11, 1},
            QList<int>{0, 20, 30}, 1);
        row("a time-out of a second at 20 ms", 20, QList<int>{1000, 5}, QList<int>{0, 1000, 1020},
            49);
    }

    void schedule()
    {
        auto [period, reads] = fetch<int, QList<int>>("period", "reads");
        SampleSchedule s(period);
        QList<int> due{int(s.dueMs())};
        for (int took : reads) {
            // Each read starts when it is due and ends `took` later.
            s.taken(s.dueMs() + took);
            due << int(s.dueMs());
        }
        QTEST(due, "due");
        QTEST(int(s.skipped()), "skipped");
    }

    void smallestPeriod_data()
    {
        columns<int, int, int>({"bitsPerSecond", "entries", "ms"});
        row("1000K: the floor", 1000000, 1, 10);
        row("125K: still the floor", 125000, 1, 10);
        // 8 bytes of ones stuff to 127 bits: four such frames take 50.8 ms at 10K.
        row("10K: half the bus", 10000, 1, 51);
        row("10K: three entries share it", 10000, 3, 152);
        row("125K: twenty entries past the floor", 125000, 20, 81);
        row("rate not known", 0, 5, 10);
    }

    void smallestPeriod()
    {
        auto [bitsPerSecond, entries] = fetch<int, int>("bitsPerSecond", "entries");
        QTEST(smallestSamplePeriodMs(bitsPerSecond, entries), "ms");
    }

    void values_data()
    {
        // value: as read, or NaN when the bytes are not one (why: the reason)
        columns<QByteArray, QString, double, QString>({"data", "type", "value", "why"});
        row("u8 by its size", QByteArray::fromHex("ff"), "", 255.0, "");
        row("i8", QByteArray::fromHex("ff"), "i8", -1.0, "");
        row("u16 by its size", QByteArray::fromHex("3412"), "", 4660.0, "");
        row("i16", QByteArray::fromHex("feff"), "i16", -2.0, "");
        row("u32 by its size", QByteArray::fromHex("feffffff"), "", 4294967294.0, "");
        row("i32", QByteArray::fromHex("00000080"), "i32", -2147483648.0, "");
        row("three bytes", QByteArray::fromHex("010203"), "", qQNaN(), "3 bytes are not a number");
        row("none", QByteArray(), "", qQNaN(), "0 bytes are not a number");
        row("four bytes typed i16", QByteArray::fromHex("01020304"), "i16", qQNaN(),
            "4 bytes are not a number");
    }

    void values()
    {
        auto [data, type, value] = fetch<QByteArray, QString, double>("data", "type", "value");
        QString why;
        const auto v = sampleValue(data, type, &why);
        QCOMPARE(v.has_value(), !qIsNaN(value));
        if (v)
            QCOMPARE(*v, value);
        QTEST(why, "why");
    }
};

QTEST_GUILESS_MAIN(TstCanLink)
#include "tst_canlink.moc"

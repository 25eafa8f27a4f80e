#include "alarmlog.h"
#include "datatable.h"
#include "dictionaryaccess.h"
#include "frametext.h"
#include "objectdictionary.h"
#include "sdoserver.h"

#include <QtEndian>
#include <QtTest>

using namespace tessel::test;
using namespace qorcalib;
using namespace qorcalib::test;

namespace {
QString writeFile(const QTemporaryDir& dir, const QByteArray& content)
{
    const QString path = dir.filePath(QStringLiteral("test.eds"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return {};
    file.write(content);
    return path;
}


OdEntry entry(quint16 index, quint8 sub, OdType type, OdAccess access,
              std::optional<qint64> low = {}, std::optional<qint64> high = {})
{
    OdEntry e;
    e.index = index;
    e.subIndex = sub;
    e.dataType = quint16(type);
    e.access = access;
    const int size = odTypeSize(e.dataType);
    e.value = e.defaultValue = QByteArray(size > 0 ? size : 0, '\0');
    e.lowLimit = low;
    e.highLimit = high;
    return e;
}

ObjectDictionary dictionary()
{
    ObjectDictionary od;
    od.insert(entry(0x1000, 0, OdType::Unsigned32, OdAccess::ReadOnly));
    od.insert(entry(0x1008, 0, OdType::VisibleString, OdAccess::Const));
    od.insert(entry(0x2000, 0, OdType::Unsigned16, OdAccess::ReadWrite, 100, 5000));
    od.insert(entry(0x2001, 0, OdType::Integer16, OdAccess::ReadWrite, -300, 300));
    od.insert(entry(0x2002, 0, OdType::Unsigned32, OdAccess::WriteOnly));
    od.insert(entry(0x2003, 0, OdType::Boolean, OdAccess::ReadWrite));
    od.insert(entry(0x2004, 0, OdType::Integer8, OdAccess::ReadWrite, -128, 127));
    od.insert(entry(0x2005, 0, OdType::Unsigned64, OdAccess::ReadWrite));
    od.insert(entry(0x2100, 1, OdType::Unsigned8, OdAccess::ReadWrite));
    od.insert(entry(0x2040, 0, OdType::Domain, OdAccess::ReadWrite));
    od.insert(entry(0x2030, 0, OdType::VisibleString, OdAccess::ReadWrite));
    return od;
}


struct Drive
{
    Drive() : server(&log, [this](const CanFrame& f) { answers << hexOf(f); })
    {
        server.setNodeId(1);
    }
    QString ask(const char* hex)
    {
        answers.clear();
        server.onFrame(fromHex(0x601, hex), 0);
        return answers.value(0);
    }
    AlarmLog log;
    SdoServer server;
    QStringList answers;
};
} // namespace

class TstSim : public QObject
{
    Q_OBJECT
private slots:
    void driveEds()
    {
        QString error;
        const auto od =
            ObjectDictionary::fromEds(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"), 1, &error);
        QVERIFY2(od, qPrintable(error));
        QCOMPARE(od->unsignedValue(0x1018, 1), 0x3A1u);
        QCOMPARE(od->unsignedValue(0x1017, 0), 1000u);
        QCOMPARE(od->unsignedValue(0x1200, 1), 0x601u); // $NODEID+0x600
        QCOMPARE(od->find(0x1008, 0)->value, QByteArray("QD-300"));
        QCOMPARE(od->find(0x1008, 0)->access, OdAccess::Const);
        QCOMPARE(od->find(0x2020, 0)->access, OdAccess::WriteOnly);
        QCOMPARE(od->find(0x2101, 3)->highLimit, std::optional<qint64>(100000));
        QVERIFY(od->hasObject(0x2100));
        QVERIFY(!od->hasObject(0x2102));
        QVERIFY(!od->find(0x1018, 5));
        for (quint8 sub = 1; sub <= 8; ++sub)
            QCOMPARE(od->find(0x2100, sub)->dataType, quint16(OdType::Unsigned32));
        // What the drive's engines read and write is there, with the access they need; what a PDO
        // carries may be mapped, and the default mappings name such entries at their size.
        const QList<std::tuple<quint16, OdAccess, bool>> used{
            {0x1001, OdAccess::ReadOnly, true},   {0x1005, OdAccess::ReadWrite, false},
            {0x100C, OdAccess::ReadWrite, false}, {0x100D, OdAccess::ReadWrite, false},
            {0x1014, OdAccess::ReadWrite, false}, {0x1015, OdAccess::ReadWrite, false},
            {0x1017, OdAccess::ReadWrite, false}, {0x603F, OdAccess::ReadOnly, true},
            {0x6040, OdAccess::ReadWrite, true},  {0x6041, OdAccess::ReadOnly, true},
            {0x6060, OdAccess::ReadWrite, true},  {0x6061, OdAccess::ReadOnly, true},
            {0x6064, OdAccess::ReadOnly, true},   {0x6065, OdAccess::ReadWrite, true},
            {0x606C, OdAccess::ReadOnly, true},   {0x6072, OdAccess::ReadWrite, false},
            {0x607A, OdAccess::ReadWrite, true},  {0x6081, OdAccess::ReadWrite, false},
            {0x6083, OdAccess::ReadWrite, false}, {0x6084, OdAccess::ReadWrite, false},
            {0x6085, OdAccess::ReadWrite, false}, {0x6098, OdAccess::ReadWrite, true},
            {0x60FF, OdAccess::ReadWrite, true}};
        for (const auto& [index, access, mappable] : used) {
            const OdEntry* e = od->find(index, 0);
            QVERIFY2(e && e->access == access && e->pdoMapping == mappable,
                     qPrintable(QString::number(index, 16)));
        }
        for (quint16 mapping : {0x1600, 0x1601, 0x1602, 0x1603, 0x1A00, 0x1A01, 0x1A02, 0x1A03}) {
            for (quint8 sub = 1; sub <= od->unsignedValue(mapping, 0); ++sub) {
                const quint64 m = od->unsignedValue(mapping, sub);
                const OdEntry* e = od->find(quint16(m >> 16), quint8(m >> 8));
                QVERIFY2(e && e->pdoMapping && odTypeSize(e->dataType) * 8 == int(m & 0xFF),
                         qPrintable(QString::number(m, 16)));
            }
            QVERIFY(od->find(mapping, 8)); // room for eight entries
        }
        QCOMPARE(od->unsignedValue(0x6502, 0), 0x25u); // profile position, profile velocity, homing
        QVERIFY(!od->hasObject(0x6071));               // no torque mode
    }

    void encodeValue_data()
    {
        // bytes: hex, or "-" when the text does not fit
        columns<QString, int, QByteArray>({"text", "type", "bytes"});
        row("u8", "255", 0x5, QByteArray("ff"));
        row("u8 too big", "256", 0x5, QByteArray("-"));
        row("i8 negative", "-128", 0x2, QByteArray("80"));
        row("i8 too small", "-129", 0x2, QByteArray("-"));
        row("u16 hex", "0x1234", 0x6, QByteArray("3412"));
        row("u32 node id", "$NODEID+0x180", 0x7, QByteArray("85010000"));
        row("node id alone", "$NODEID", 0x5, QByteArray("05"));
        row("i32 -1", "-1", 0x4, QByteArray("ffffffff"));
        row("empty is zero", "", 0x6, QByteArray("0000"));
        row("not a number", "twelve", 0x7, QByteArray("-"));
        row("real32", "1.5", 0x8, QByteArray("0000c03f"));
        row("string", "axis 1", 0x9, QByteArray("6178697320 31").replace(' ', ""));
        row("u64", "0x0102030405060708", 0x1B, QByteArray("0807060504030201"));
        row("unknown type", "1", 0x7777, QByteArray("-"));
    }

    void encodeValue()
    {
        auto [text, type, bytes] = fetch<QString, int, QByteArray>("text", "type", "bytes");
        const auto value = ObjectDictionary::encodeValue(text, quint16(type), 5);
        if (bytes == "-") {
            QVERIFY(!value);
        } else {
            QVERIFY(value);
            QCOMPARE(value->toHex(), bytes);
        }
    }

    void badObjectsAreLeftOutWithWarnings()
    {
        QTemporaryDir dir;
        const QString path =
            writeFile(dir, "[1000]\r\nParameterName=Device Type\r\nObjectType=0x7\r\n"
                           "DataType=0x0007\r\nAccessType=ro\r\nDefaultValue=0x192\r\n"
                           "[2000]\r\nObjectType=0x7\r\nDataType=0x0009\r\n"
                           "AccessType=weird\r\nDefaultValue=300\r\n"
                           "[2001]\r\nObjectType=0x7\r\nDataType=0x0005\r\n"
                           "AccessType=sometimes\r\n"
                           "[2002\r\nDataType=0x0005\r\n");
        QString error;
        QStringList warnings;
        const auto od = ObjectDictionary::fromEds(path, 1, &error, &warnings);
        QVERIFY(od);
        QCOMPARE(od->size(), 1);
        QCOMPARE(od->unsignedValue(0x1000, 0), 0x192u);
        QCOMPARE(warnings.size(), 2);
        QVERIFY(warnings.join(' ').contains("[2000]"));
        QVERIFY(warnings.join(' ').contains("[2001]"));
    }

    void valuesMustFitTheirType_data()
    {
        columns<QString, QString, QString, bool>({"type", "key", "value", "fits"});
        row("300 in 8 bits", "0x0005", "DefaultValue", "300", false);
        row("lowest 64-bit signed", "0x0015", "DefaultValue", "-0x8000000000000000", true);
        row("below the lowest 64-bit signed", "0x0015", "DefaultValue", "-0x8000000000000001",
            false);
        row("highest 64-bit unsigned", "0x001B", "DefaultValue", "0xFFFFFFFFFFFFFFFF", true);
        row("negative unsigned limit", "0x001B", "LowLimit", "-0x8000000000000000", false);
        row("node-ID past the highest 64-bit signed", "0x0015", "HighLimit",
            "$NODEID+0x7FFFFFFFFFFFFFFF", false);
        row("node-ID up to the highest 64-bit signed", "0x0015", "HighLimit",
            "$NODEID+0x7FFFFFFFFFFFFFFE", true);
        row("16-bit limit of 65536", "0x0006", "HighLimit", "65536", false);
        row("sign twice", "0x0004", "LowLimit", "--5", false);
        row("more digits than 64 bits", "0x001B", "DefaultValue", "0x1FFFFFFFFFFFFFFFF", false);
    }

    void valuesMustFitTheirType()
    {
        auto [type, key, value, fits] =
            fetch<QString, QString, QString, bool>("type", "key", "value", "fits");
        QTemporaryDir dir;
        QString text = "[1000]\nObjectType=0x7\nDataType=0x0007\nAccessType=ro\nDefaultValue=1\n"
                       "[2100]\nObjectType=0x7\nAccessType=rw\nDataType=" +
                       type + "\n";
        if (key != "DefaultValue")
            text += "DefaultValue=0\n";
        text += key + "=" + value + "\n";
        const QString path = writeFile(dir, text.toLatin1());
        QString error;
        const auto od = ObjectDictionary::fromEds(path, 1, &error);
        QCOMPARE(bool(od), fits);
        if (!fits)
            QVERIFY2(error.contains(path) && error.contains("[2100]") && error.contains(key),
                     qPrintable(error));
    }

    void unreadableFiles_data()
    {
        columns<QByteArray, bool>({"content", "exists"});
        row("missing", QByteArray(), false);
        row("empty", QByteArray(), true);
        QByteArray garbage(4096, '\0');
        for (int i = 0; i < garbage.size(); ++i)
            garbage[i] = char((i * 7919) & 0xFF);
        row("binary garbage", garbage, true);
    }

    void unreadableFiles()
    {
        auto [content, exists] = fetch<QByteArray, bool>("content", "exists");
        QTemporaryDir dir;
        const QString path = exists ? writeFile(dir, content) : dir.filePath("none.eds");
        QString error;
        QVERIFY(!ObjectDictionary::fromEds(path, 1, &error));
        QVERIFY(error.contains(path));
    }

    void restoreDefaultsByRange()
    {
        QString error;
        auto od =
            ObjectDictionary::fromEds(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"), 1, &error);
        QVERIFY(od);
        od->find(0x1017, 0)->value = QByteArray("\x64\x00", 2);
        od->find(0x2100, 1)->value = QByteArray(4, '\x11');
        od->restoreDefaults(0x1000, 0x1FFF);
        QCOMPARE(od->unsignedValue(0x1017, 0), 1000u);
        QCOMPARE(od->unsignedValue(0x2100, 1), 0x11111111u);
        od->restoreDefaults(0x0000, 0xFFFF);
        QCOMPARE(od->unsignedValue(0x2100, 1), 1000u);
    }

    void rules_data()
    {
        columns<bool, int, int, QByteArray, quint32>(
            {"upload", "index", "sub", "data", "abortCode"});

        row("read", true, 0x1000, 0, QByteArray(), 0u);
        row("no object", true, 0x3000, 0, QByteArray(), 0x06020000u);
        row("no sub-index", true, 0x2100, 2, QByteArray(), 0x06090011u);
        row("no object, download", false, 0x3000, 0, le(1, 4), 0x06020000u);
        row("no sub-index, download", false, 0x2100, 9, le(1, 1), 0x06090011u);
        row("read a write-only entry", true, 0x2002, 0, QByteArray(), 0x06010001u);
        row("write a read-only entry", false, 0x1000, 0, le(1, 4), 0x06010002u);
        row("write a constant", false, 0x1008, 0, QByteArray("x"), 0x06010002u);
        row("too long", false, 0x2000, 0, le(200, 4), 0x06070012u);
        row("too short", false, 0x2000, 0, le(200, 1), 0x06070013u);
        row("string too long", false, 0x2030, 0, QByteArray(256, 'x'), 0x06070012u);
        row("string at its limit", false, 0x2030, 0, QByteArray(255, 'x'), 0u);
        row("domain at its limit", false, 0x2040, 0, QByteArray(1024 * 1024, 'd'), 0u);
        row("domain past its limit", false, 0x2040, 0, QByteArray(1024 * 1024 + 1, 'd'),
            0x06070012u);
        // Limits, exactly at them and one beyond, unsigned and signed.
        row("unsigned at its low limit", false, 0x2000, 0, le(100, 2), 0u);
        row("unsigned below its low limit", false, 0x2000, 0, le(99, 2), 0x06090032u);
        row("unsigned at its high limit", false, 0x2000, 0, le(5000, 2), 0u);
        row("unsigned above its high limit", false, 0x2000, 0, le(5001, 2), 0x06090031u);
        row("signed at its low limit", false, 0x2001, 0, le(-300, 2), 0u);
        row("signed below its low limit", false, 0x2001, 0, le(-301, 2), 0x06090032u);
        row("signed at its high limit", false, 0x2001, 0, le(300, 2), 0u);
        row("signed above its high limit", false, 0x2001, 0, le(301, 2), 0x06090031u);
        row("signed byte -128", false, 0x2004, 0, le(-128, 1), 0u);
        row("highest unsigned 64", false, 0x2005, 0, le(-1, 8), 0u);
        row("boolean 1", false, 0x2003, 0, le(1, 1), 0u);
        row("boolean 2", false, 0x2003, 0, le(2, 1), 0x06090030u);
    }

    void rules()
    {
        auto [upload, index, sub, data, abortCode] = fetch<bool, int, int, QByteArray, quint32>(
            "upload", "index", "sub", "data", "abortCode");
        ObjectDictionary od = dictionary();
        DictionaryAccess access(&od);
        int written = 0;
        access.written = [&written](quint16, quint8) { ++written; };
        if (upload) {
            QByteArray value;
            QCOMPARE(access.upload(quint16(index), quint8(sub), &value), abortCode);
            return;
        }
        quint32 code = access.checkDownload(quint16(index), quint8(sub), data.size());
        if (code == 0)
            code = access.download(quint16(index), quint8(sub), data);
        QCOMPARE(code, abortCode);
        // Only an accepted value is stored, and only then is the node told.
        QCOMPARE(written, abortCode == 0 ? 1 : 0);
        if (abortCode == 0)
            QCOMPARE(od.find(quint16(index), quint8(sub))->value, data);
    }

    // The simulated drive's alarm log as a master meets it: SDO requests written out by hand and
    // the drive's answers on the bus.
    void exchanges_data()
    {
        // answer: to the last request
        columns<QStringList, QString>({"requests", "answer"});
        // Six records: the last is number 5; six alarms raised so far.
        row("status", QStringList{"4010580000000000"}, "581:43 10 58 00 06 00 05 00");
        row("select record 3", QStringList{"2b0b520003000000"}, "581:60 0b 52 00 00 00 00 00");
        row("selection read back", QStringList{"2b0b520003000000", "400b520000000000"},
            "581:4b 0b 52 00 03 00 00 00");
        row("entry count", QStringList{"2b0b520003000000", "400c520000000000"},
            "581:4f 0c 52 00 0c 00 00 00");
        row("alarm number of record 3", QStringList{"2b0b520003000000", "400c520100000000"},
            "581:43 0c 52 01 0d 00 00 00");
        row("time stamp of record 3", QStringList{"2b0b520003000000", "400c520c00000000"},
            "581:43 0c 52 0c 34 13 13 00");
        row("one-byte selector", QStringList{"2f0b520001000000", "400c520100000000"},
            "581:43 0c 52 01 02 00 00 00");
        row("no entry 13", QStringList{"400c520d00000000"}, "581:80 0c 52 0d 11 00 09 06");
        row("no such record", QStringList{"2b0b520006000000"}, "581:80 0b 52 00 30 00 09 06");
        row("selector too long", QStringList{"230b520001000000"}, "581:80 0b 52 00 12 00 07 06");
        row("records are read-only", QStringList{"230c520101000000"},
            "581:80 0c 52 01 02 00 01 06");
        row("status is read-only", QStringList{"2310580001000000"}, "581:80 10 58 00 02 00 01 06");
        row("status has no sub 1", QStringList{"4010580100000000"}, "581:80 10 58 01 11 00 09 06");
    }

    void exchanges()
    {
        QFETCH(QStringList, requests);
        Drive drive;
        QString answer;
        for (const QString& r : requests)
            answer = drive.ask(r.toLatin1().constData());
        QTEST(answer, "answer");
    }

    void seededRecordsAreNotInTimeOrder()
    {
        const AlarmLog log;
        QCOMPARE(log.size(), 6);
        bool descending = false;
        bool equal = false;
        for (int i = 1; i < log.size(); ++i) {
            const quint32 before = log.record(i - 1)[AlarmLog::TimeStamp - 1];
            const quint32 now = log.record(i)[AlarmLog::TimeStamp - 1];
            descending |= now < before;
            equal |= now == before;
        }
        // What the reader's sort is there for: one record older than the one before, and two from
        // one scan.
        QVERIFY(descending);
        QVERIFY(equal);
        for (int i = 0; i < log.size(); ++i)
            QVERIFY(log.record(i)[AlarmLog::TimeStamp - 1] < AlarmLog::kOperatingSecondsAtStart);
    }

    void raisedAlarmsGrowTheLogThenWrap()
    {
        Drive drive;
        drive.log.raise(15, 480, AlarmLog::kOperatingSecondsAtStart + 3);
        QCOMPARE(drive.log.size(), 7);
        QCOMPARE(drive.ask("4010580000000000"), QString("581:43 10 58 00 07 00 06 00"));
        drive.ask("2b0b520006000000");
        QCOMPARE(drive.ask("400c520100000000"), QString("581:43 0c 52 01 0f 00 00 00"));
        QCOMPARE(drive.ask("400c520200000000"), QString("581:43 0c 52 02 e0 01 00 00"));
        for (int i = 0; i < 9; ++i)
            drive.log.raise(quint32(i + 1), 480,
                            AlarmLog::kOperatingSecondsAtStart + 10 + quint32(i));
        QCOMPARE(drive.log.size(), AlarmLog::kCapacity);
        // Full: the next alarm takes the oldest slot, record 0.
        drive.log.raise(22, 481, AlarmLog::kOperatingSecondsAtStart + 60);
        QCOMPARE(drive.log.size(), AlarmLog::kCapacity);
        QCOMPARE(drive.log.record(0)[0], 22u);
        QCOMPARE(drive.log.record(1)[0], 2u);
        QCOMPARE(drive.log.countWord(), (15u << 16) | 17u);
        drive.log.raise(5, 481, AlarmLog::kOperatingSecondsAtStart + 61);
        QCOMPARE(drive.log.record(1)[0], 5u);
    }
};

QTEST_GUILESS_MAIN(TstSim)
#include "tst_sim.moc"

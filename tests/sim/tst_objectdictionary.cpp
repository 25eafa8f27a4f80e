#include "datatable.h"
#include "objectdictionary.h"

#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;

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
} // namespace

class TstObjectDictionary : public QObject
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
};

QTEST_APPLESS_MAIN(TstObjectDictionary)
#include "tst_objectdictionary.moc"

#include "datatable.h"
#include "hexhelpers.h"
#include "sdoaddress.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstSdoHelpers : public QObject
{
    Q_OBJECT
private slots:
    void hexToNumber_data()
    {
        columns<QString, qint32>({"text", "value"});
        row("1f50", "1f50", 0x1F50);
        row("empty", "", 0);
        row("upper", "FF", 255);
        row("a bad digit counts -1", "1G", 15);    // 1 * 16 - 1
        row("prefix is not accepted", "0x1", -15); // (0 * 16 - 1) * 16 + 1
        row("eight digits", "FFFFFFFF", -1);
    }

    void hexToNumber()
    {
        QFETCH(QString, text);
        QTEST(tessel::hexToNumber(text), "value");
    }

    void bytesToNumber_data()
    {
        columns<QByteArray, qint32>({"bytes", "value"});
        row("FF", QByteArray::fromHex("ff"), -1);
        row("80", QByteArray::fromHex("80"), -128);
        row("00 80", QByteArray::fromHex("0080"), -32768);
        row("D2 04", QByteArray::fromHex("d204"), 1234);
        row("4 bytes", QByteArray::fromHex("78563412"), 0x12345678);
        row("4 bytes negative", QByteArray::fromHex("feffffff"), -2);
    }

    void bytesToNumber()
    {
        auto [bytes, value] = fetch<QByteArray, qint32>("bytes", "value");
        QCOMPARE(tessel::bytesToNumber(int(bytes.size()), bytes), value);
        QCOMPARE(textToNumber(int(bytes.size()), bytes), value);
        QCOMPARE(numberToText(value, int(bytes.size())), bytes);
    }

    void views_data()
    {
        columns<int, QString, QString, QString, QString, QString, QString>(
            {"view", "typed", "hex", "text", "byteValue", "word", "longValue"});
        // The text view shows each byte as the character of that code.
        const auto latin1 = [](const char* bytes) { return QString::fromLatin1(bytes); };
        row("word 1234", 4, "1234", "D204", latin1("\xd2\x04"), "210", "1234", "1234");
        row("hex 4142", 1, "4142", "4142", "AB", "65", "16961", "16961");
        row("odd hex digit alone", 1, "ABC", "AB0C", latin1("\xab\x0c"), "171", "3243", "3243");
        row("text", 2, "Qor", "516F72", "Qor", "81", "28497", "7499601");
        row("byte keeps one byte", 3, "300", "2C", ",", "44", "44", "44");
        row("long negative", 5, "-2", "FEFFFFFF", latin1("\xfe\xff\xff\xff"), "254", "65534",
            "4294967294");
        row("not a number", 4, "abc", "0000", QString(2, QChar(0)), "0", "0", "0");
        row("empty hex", 1, "", "", "", "0", "0", "0");
    }

    void views()
    {
        auto [view, typed, hex, text, byteValue, word, longValue] =
            fetch<int, QString, QString, QString, QString, QString, QString>(
                "view", "typed", "hex", "text", "byteValue", "word", "longValue");
        const QByteArray data = dataFromView(DataView(view), typed);
        const DataViews v = viewsOf(data);
        QCOMPARE(v.hex, hex);
        QCOMPARE(v.text, text);
        QCOMPARE(v.byteValue, byteValue);
        QCOMPARE(v.wordValue, word);
        QCOMPARE(v.longValue, longValue);
    }

    void resultText_data()
    {
        columns<quint32, QString, QString>({"code", "error", "text"});
        row("success", 0u, "", "");
        row("06020000", 0x06020000u, "", "06020000");
        row("leading zero", 0x5030000u, "", "05030000");
        row("error wins", 0x05040000u, "SDO timeout", "SDO timeout");
    }

    void resultText()
    {
        auto [code, error] = fetch<quint32, QString>("code", "error");
        QTEST(sdoResultText(code, error), "text");
    }

    void parseAddress_data()
    {
        columns<QString, int, int, int>({"text", "node", "index", "sub"});
        row("three fields", "1,2000,3", 1, 0x2000, 3);
        row("blanks around", "7f , 1018 , 01", 0x7F, 0x1018, 1);
        row("two fields: sub from the index", "1,2000", 1, 0x2000, 0x2000);
        row("1,1018 is sub-index 0x18", "1,1018", 1, 0x1018, 0x1018);
        row("node only", "1", 1, 0, 0);
        row("empty", "", 0, 0, 0);
        // The comma is the last character: the rest is the whole text, index 1, no sub-index.
        row("trailing comma", "1,", 1, 1, 0);
        row("high index is negative", "1,FFFF,0", 1, -1, 0);
        row("garbage", "x,y,z", 0, 0, 0);
    }

    void parseAddress()
    {
        auto [text, node, index, sub] =
            fetch<QString, int, int, int>("text", "node", "index", "sub");
        const SdoAddress a = SdoAddress::parse(text);
        QCOMPARE(int(a.node), node);
        QCOMPARE(int(a.index), index);
        QCOMPARE(int(a.subIndex), sub);
        QCOMPARE(a.subIndexByte(), quint8(sub & 0xFF));
    }

    void history()
    {
        SdoAddressHistory h;
        QCOMPARE(h.remember("1,2000,0", "11"), 0);
        QCOMPARE(h.remember("1,1018,1", "22"), 0);
        QCOMPARE(h.addresses(), (QStringList{"1,1018,1", "1,2000,0"}));
        // Another spelling of an address already there updates it in place.
        QCOMPARE(h.remember("01,2000,00", "33"), 1);
        QCOMPARE(h.addresses(), (QStringList{"1,1018,1", "01,2000,00"}));
        QCOMPARE(h.dataOf(1), QString("33"));
        QCOMPARE(h.dataOf(0), QString("22"));
        QCOMPARE(h.remember("2,2000,0", "44"), 0);
        QCOMPARE(h.dataOf(0), QString("44"));
        QCOMPARE(h.dataOf(2), QString("33"));
        QCOMPARE(h.dataOf(7), QString());
    }

    void vectorLine_data()
    {
        columns<QByteArray, bool, bool, QString>({"bytes", "hex", "decimal", "line"});
        row("FE FF both", QByteArray::fromHex("feff"), true, true, "FFFE -2");
        row("80 both", QByteArray::fromHex("80"), true, true, "80 -128");
        row("4 bytes both", QByteArray::fromHex("78563412"), true, true, "12345678 305419896");
        row("hex only", QByteArray::fromHex("0a00"), true, false, "000A");
        row("decimal only", QByteArray::fromHex("0a00"), false, true, "10");
        row("neither", QByteArray::fromHex("0a00"), false, false, "");
    }

    void vectorLine()
    {
        auto [bytes, hex, decimal] = fetch<QByteArray, bool, bool>("bytes", "hex", "decimal");
        QTEST(tessel::vectorLine(bytes, hex, decimal), "line");
    }
};

QTEST_APPLESS_MAIN(TstSdoHelpers)
#include "tst_sdohelpers.moc"

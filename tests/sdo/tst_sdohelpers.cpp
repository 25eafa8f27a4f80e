#include "hexhelpers.h"
#include "sdoaddress.h"

#include <QTest>

using namespace tessel;

class TstSdoHelpers : public QObject
{
    Q_OBJECT
private slots:
    void hexToNumber_data();
    void hexToNumber();
    void bytesToNumber_data();
    void bytesToNumber();
    void views_data();
    void views();
    void resultText_data();
    void resultText();
    void parseAddress_data();
    void parseAddress();
    void history();
    void vectorLine_data();
    void vectorLine();
};

void TstSdoHelpers::hexToNumber_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<qint32>("value");
    QTest::newRow("1f50") << "1f50" << 0x1F50;
    QTest::newRow("empty") << "" << 0;
    QTest::newRow("upper") << "FF" << 255;
    QTest::newRow("a bad digit counts -1") << "1G" << 15; // 1 * 16 - 1
    QTest::newRow("prefix is not accepted") << "0x1" << -15; // (0 * 16 - 1) * 16 + 1
    QTest::newRow("eight digits") << "FFFFFFFF" << -1;
}

void TstSdoHelpers::hexToNumber()
{
    QFETCH(QString, text);
    QFETCH(qint32, value);
    QCOMPARE(tessel::hexToNumber(text), value);
}

void TstSdoHelpers::bytesToNumber_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<qint32>("value");
    QTest::newRow("FF") << QByteArray::fromHex("ff") << -1;
    QTest::newRow("80") << QByteArray::fromHex("80") << -128;
    QTest::newRow("00 80") << QByteArray::fromHex("0080") << -32768;
    QTest::newRow("D2 04") << QByteArray::fromHex("d204") << 1234;
    QTest::newRow("4 bytes") << QByteArray::fromHex("78563412") << 0x12345678;
    QTest::newRow("4 bytes negative") << QByteArray::fromHex("feffffff") << -2;
}

void TstSdoHelpers::bytesToNumber()
{
    QFETCH(QByteArray, bytes);
    QFETCH(qint32, value);
    QCOMPARE(tessel::bytesToNumber(int(bytes.size()), bytes), value);
    QCOMPARE(textToNumber(int(bytes.size()), bytes), value);
    QCOMPARE(numberToText(value, int(bytes.size())), bytes);
}

void TstSdoHelpers::views_data()
{
    QTest::addColumn<int>("view");
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("hex");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("byteValue");
    QTest::addColumn<QString>("word");
    QTest::addColumn<QString>("longValue");
    // The text view shows each byte as the character of that code.
    const auto latin1 = [](const char* bytes) { return QString::fromLatin1(bytes); };
    QTest::newRow("word 1234") << 4 << "1234" << "D204" << latin1("\xd2\x04") << "210" << "1234"
                               << "1234";
    QTest::newRow("hex 4142") << 1 << "4142" << "4142" << "AB" << "65" << "16961" << "16961";
    QTest::newRow("odd hex digit alone") << 1 << "ABC" << "AB0C" << latin1("\xab\x0c") << "171" << "3243"
                                         << "3243";
    QTest::newRow("text") << 2 << "Qor" << "516F72" << "Qor" << "81" << "28497" << "7499601";
    QTest::newRow("byte keeps one byte") << 3 << "300" << "2C" << "," << "44" << "44" << "44";
    QTest::newRow("long negative") << 5 << "-2" << "FEFFFFFF" << latin1("\xfe\xff\xff\xff") << "254"
                                   << "65534" << "4294967294";
    QTest::newRow("not a number") << 4 << "abc" << "0000" << QString(2, QChar(0)) << "0" << "0"
                                  << "0";
    QTest::newRow("empty hex") << 1 << "" << "" << "" << "0" << "0" << "0";
}

void TstSdoHelpers::views()
{
    QFETCH(int, view);
    QFETCH(QString, typed);
    QFETCH(QString, hex);
    QFETCH(QString, text);
    QFETCH(QString, byteValue);
    QFETCH(QString, word);
    QFETCH(QString, longValue);
    const QByteArray data = dataFromView(DataView(view), typed);
    const DataViews v = viewsOf(data);
    QCOMPARE(v.hex, hex);
    QCOMPARE(v.text, text);
    QCOMPARE(v.byteValue, byteValue);
    QCOMPARE(v.wordValue, word);
    QCOMPARE(v.longValue, longValue);
}

void TstSdoHelpers::resultText_data()
{
    QTest::addColumn<quint32>("code");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("text");
    QTest::newRow("success") << 0u << "" << "";
    QTest::newRow("06020000") << 0x06020000u << "" << "06020000";
    QTest::newRow("leading zero") << 0x5030000u << "" << "05030000";
    QTest::newRow("error wins") << 0x05040000u << "SDO timeout" << "SDO timeout";
}

void TstSdoHelpers::resultText()
{
    QFETCH(quint32, code);
    QFETCH(QString, error);
    QFETCH(QString, text);
    QCOMPARE(sdoResultText(code, error), text);
}

void TstSdoHelpers::parseAddress_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("node");
    QTest::addColumn<int>("index");
    QTest::addColumn<int>("sub");
    QTest::newRow("three fields") << "1,2000,3" << 1 << 0x2000 << 3;
    QTest::newRow("blanks around") << "7f , 1018 , 01" << 0x7F << 0x1018 << 1;
    QTest::newRow("two fields: sub from the index") << "1,2000" << 1 << 0x2000 << 0x2000;
    QTest::newRow("1,1018 is sub-index 0x18") << "1,1018" << 1 << 0x1018 << 0x1018;
    QTest::newRow("node only") << "1" << 1 << 0 << 0;
    QTest::newRow("empty") << "" << 0 << 0 << 0;
    // The comma is the last character: the rest is the whole text, index 1, no sub-index.
    QTest::newRow("trailing comma") << "1," << 1 << 1 << 0;
    QTest::newRow("high index is negative") << "1,FFFF,0" << 1 << -1 << 0;
    QTest::newRow("garbage") << "x,y,z" << 0 << 0 << 0;
}

void TstSdoHelpers::parseAddress()
{
    QFETCH(QString, text);
    QFETCH(int, node);
    QFETCH(int, index);
    QFETCH(int, sub);
    const SdoAddress a = SdoAddress::parse(text);
    QCOMPARE(int(a.node), node);
    QCOMPARE(int(a.index), index);
    QCOMPARE(int(a.subIndex), sub);
    QCOMPARE(a.subIndexByte(), quint8(sub & 0xFF));
}

void TstSdoHelpers::history()
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

void TstSdoHelpers::vectorLine_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("hex");
    QTest::addColumn<bool>("decimal");
    QTest::addColumn<QString>("line");
    QTest::newRow("FE FF both") << QByteArray::fromHex("feff") << true << true << "FFFE -2";
    QTest::newRow("80 both") << QByteArray::fromHex("80") << true << true << "80 -128";
    QTest::newRow("4 bytes both") << QByteArray::fromHex("78563412") << true << true
                                  << "12345678 305419896";
    QTest::newRow("hex only") << QByteArray::fromHex("0a00") << true << false << "000A";
    QTest::newRow("decimal only") << QByteArray::fromHex("0a00") << false << true << "10";
    QTest::newRow("neither") << QByteArray::fromHex("0a00") << false << false << "";
}

void TstSdoHelpers::vectorLine()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, hex);
    QFETCH(bool, decimal);
    QFETCH(QString, line);
    QCOMPARE(tessel::vectorLine(bytes, hex, decimal), line);
}

QTEST_APPLESS_MAIN(TstSdoHelpers)
#include "tst_sdohelpers.moc"

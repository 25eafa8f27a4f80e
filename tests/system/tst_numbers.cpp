#include "numbers.h"

#include <QTest>

using namespace tessel;

class TstNumbers : public QObject
{
    Q_OBJECT
private slots:
    void lenientValue_data();
    void lenientValue();
    void rounding_data();
    void rounding();
    void hexField_data();
    void hexField();
};

void TstNumbers::lenientValue_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<double>("value");
    QTest::newRow("empty") << "" << 0.0;
    QTest::newRow("blanks") << "   " << 0.0;
    QTest::newRow("integer") << "42" << 42.0;
    QTest::newRow("leading blanks") << "  42" << 42.0;
    QTest::newRow("stops at a letter") << "12abc" << 12.0;
    QTest::newRow("stops at an inner blank") << "1 2" << 1.0;
    QTest::newRow("negative") << "-7.5" << -7.5;
    QTest::newRow("plus") << "+3" << 3.0;
    QTest::newRow("decimal point only once") << "1.2.3" << 1.2;
    QTest::newRow("leading point") << ".5" << 0.5;
    QTest::newRow("no exponent") << "1.5E3" << 1.5;
    QTest::newRow("no lower-case exponent") << "1e3" << 1.0;
    QTest::newRow("exponent without digits") << "2E" << 2.0;
    QTest::newRow("comma is not a decimal point") << "3,5" << 3.0;
    QTest::newRow("not a number") << "abc" << 0.0;
    QTest::newRow("sign alone") << "-" << 0.0;
    QTest::newRow("hex") << "&H1F" << 31.0;
    QTest::newRow("hex lower case") << "&hff" << 255.0;
    QTest::newRow("hex stops") << "&H1Fz9" << 31.0;
    QTest::newRow("hex 0x text is 0") << "&H0x181" << 0.0;
    QTest::newRow("hex without digits") << "&H" << 0.0;
    QTest::newRow("hex wraps at 32 bits") << "&HFFFFFFFF" << -1.0;
    QTest::newRow("octal") << "&O17" << 15.0;
    QTest::newRow("octal stops at 8") << "&O178" << 15.0;
    QTest::newRow("ampersand alone") << "&" << 0.0;
    QTest::newRow("unknown radix") << "&X12" << 0.0;
}

void TstNumbers::lenientValue()
{
    QFETCH(QString, text);
    QFETCH(double, value);
    QCOMPARE(tessel::lenientValue(text), value);
}

void TstNumbers::rounding_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<int>("int16");
    QTest::addColumn<qint64>("int32");
    QTest::newRow("half to even, down") << 2.5 << 2 << qint64(2);
    QTest::newRow("half to even, up") << 3.5 << 4 << qint64(4);
    QTest::newRow("negative half") << -2.5 << -2 << qint64(-2);
    QTest::newRow("just above half") << 2.5000001 << 3 << qint64(3);
    QTest::newRow("16-bit top") << 32767.4 << 32767 << qint64(32767);
    QTest::newRow("past 16 bits saturates") << 40000.0 << 32767 << qint64(40000);
    QTest::newRow("below 16 bits saturates") << -40000.0 << -32768 << qint64(-40000);
    QTest::newRow("past 32 bits saturates") << 1e12 << 32767 << qint64(2147483647);
    QTest::newRow("nan") << qQNaN() << 0 << qint64(0);
}

void TstNumbers::rounding()
{
    QFETCH(double, value);
    QFETCH(int, int16);
    QFETCH(qint64, int32);
    QCOMPARE(int(roundToInt16(value)), int16);
    QCOMPARE(qint64(roundToInt32(value)), int32);
}

void TstNumbers::hexField_data()
{
    QTest::addColumn<quint32>("value");
    QTest::addColumn<int>("width");
    QTest::addColumn<QString>("text");
    QTest::newRow("zero") << 0u << 3 << "000";
    QTest::newRow("pads") << 0x1Au << 3 << "01A";
    QTest::newRow("exact") << 0x181u << 3 << "181";
    QTest::newRow("keeps the last digits") << 0x12345u << 3 << "345";
    QTest::newRow("upper case") << 0xabcdu << 4 << "ABCD";
}

void TstNumbers::hexField()
{
    QFETCH(quint32, value);
    QFETCH(int, width);
    QFETCH(QString, text);
    QCOMPARE(tessel::hexField(value, width), text);
}

QTEST_APPLESS_MAIN(TstNumbers)
#include "tst_numbers.moc"

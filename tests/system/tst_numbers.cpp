#include "datatable.h"
#include "numbers.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstNumbers : public QObject
{
    Q_OBJECT
private slots:
    void lenientValue_data()
    {
        columns<QString, double>({"text", "value"});
        row("empty", "", 0.0);
        row("blanks", "   ", 0.0);
        row("integer", "42", 42.0);
        row("leading blanks", "  42", 42.0);
        row("stops at a letter", "12abc", 12.0);
        row("stops at an inner blank", "1 2", 1.0);
        row("negative", "-7.5", -7.5);
        row("plus", "+3", 3.0);
        row("decimal point only once", "1.2.3", 1.2);
        row("leading point", ".5", 0.5);
        row("no exponent", "1.5E3", 1.5);
        row("no lower-case exponent", "1e3", 1.0);
        row("exponent without digits", "2E", 2.0);
        row("comma is not a decimal point", "3,5", 3.0);
        row("not a number", "abc", 0.0);
        row("sign alone", "-", 0.0);
        row("hex", "&H1F", 31.0);
        row("hex lower case", "&hff", 255.0);
        row("hex stops", "&H1Fz9", 31.0);
        row("hex 0x text is 0", "&H0x181", 0.0);
        row("hex without digits", "&H", 0.0);
        row("hex wraps at 32 bits", "&HFFFFFFFF", -1.0);
        row("octal", "&O17", 15.0);
        row("octal stops at 8", "&O178", 15.0);
        row("ampersand alone", "&", 0.0);
        row("unknown radix", "&X12", 0.0);
    }

    void lenientValue()
    {
        QFETCH(QString, text);
        QTEST(tessel::lenientValue(text), "value");
    }

    void rounding_data()
    {
        columns<double, int, qint64>({"value", "int16", "int32"});
        row("half to even, down", 2.5, 2, qint64(2));
        row("half to even, up", 3.5, 4, qint64(4));
        row("negative half", -2.5, -2, qint64(-2));
        row("just above half", 2.5000001, 3, qint64(3));
        row("16-bit top", 32767.4, 32767, qint64(32767));
        row("past 16 bits saturates", 40000.0, 32767, qint64(40000));
        row("below 16 bits saturates", -40000.0, -32768, qint64(-40000));
        row("past 32 bits saturates", 1e12, 32767, qint64(2147483647));
        row("nan", qQNaN(), 0, qint64(0));
    }

    void rounding()
    {
        QFETCH(double, value);
        QTEST(int(roundToInt16(value)), "int16");
        QTEST(qint64(roundToInt32(value)), "int32");
    }

    void hexField_data()
    {
        columns<quint32, int, QString>({"value", "width", "text"});
        row("zero", 0u, 3, "000");
        row("pads", 0x1Au, 3, "01A");
        row("exact", 0x181u, 3, "181");
        row("keeps the last digits", 0x12345u, 3, "345");
        row("upper case", 0xabcdu, 4, "ABCD");
    }

    void hexField()
    {
        auto [value, width] = fetch<quint32, int>("value", "width");
        QTEST(tessel::hexField(value, width), "text");
    }
};

QTEST_APPLESS_MAIN(TstNumbers)
#include "tst_numbers.moc"

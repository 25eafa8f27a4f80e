#include "datatable.h"
#include "sliderbytes.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstSliderBytes : public QObject
{
    Q_OBJECT
private slots:
    void writes_data()
    {
        columns<qint64, int, int, int>({"value", "size", "slot", "position"});
        // "box=text" for each write, in order.
        QTest::addColumn<QString>("writes");
        row("258 in 2 bytes", qint64(258), 2, 0, 0, "0=2 1=1");
        row("one byte", qint64(0x1234), 1, 2, 3, "19=34");
        row("four bytes", qint64(0x12345678), 4, 1, 2, "10=78 11=56 12=34 13=12");
        row("-1 in 4", qint64(-1), 4, 0, 0, "0=FF 1=FF 2=FF 3=FF");
        row("-256 in 2", qint64(-256), 2, 0, 0, "0=0 1=FF");
        row("-258 in 2", qint64(-258), 2, 0, 0, "0=FE 1=FE");
        row("-67108864 in 4", qint64(-67108864), 4, 3, 0, "24=0 25=0 26=0 27=FC");
        row("-65536 in 4", qint64(-65536), 4, 0, 4, "4=0 5=0 6=FF 7=FF");
        row("never past box 63", qint64(-2), 4, 7, 6, "62=FE 63=FF");
        row("last box alone", qint64(0x0102), 2, 7, 7, "63=2");
        row("into the next slot", qint64(0x0102), 2, 0, 7, "7=2 8=1");
        row("zero", qint64(0), 2, 0, 0, "0=0 1=0");
    }

    void writes()
    {
        auto [value, size, slot, position] =
            fetch<qint64, int, int, int>("value", "size", "slot", "position");
        QStringList got;
        for (const BoxWrite& w : sliderBoxWrites(value, size, slot, position))
            got << QStringLiteral("%1=%2").arg(w.box).arg(w.text);
        QTEST(got.join(QLatin1Char(' ')), "writes");
    }

    void scaleMapsTheEndsOntoMinAndMax_data()
    {
        columns<double, double, qint64>({"min", "max", "middle"});
        row("default", -67108864.0, 67108864.0, qint64(0));
        row("0..254", 0.0, 254.0, qint64(127));
        row("reversed", 100.0, -100.0, qint64(0));
        row("equal", 7.0, 7.0, qint64(7));
    }

    void scaleMapsTheEndsOntoMinAndMax()
    {
        auto [min, max] = fetch<double, double>("min", "max");
        const SliderScale s = SliderScale::fromRange(min, max, 10000);
        QCOMPARE(s.valueAt(0), qint64(min));
        QCOMPARE(s.valueAt(10000), qint64(max));
        QTEST(s.valueAt(5000), "middle");
    }
};

QTEST_APPLESS_MAIN(TstSliderBytes)
#include "tst_sliderbytes.moc"

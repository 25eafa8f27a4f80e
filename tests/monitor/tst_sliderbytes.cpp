#include "sliderbytes.h"

#include <QTest>

using namespace tessel;

class TstSliderBytes : public QObject
{
    Q_OBJECT
private slots:
    void writes_data();
    void writes();
    void scaleMapsTheEndsOntoMinAndMax_data();
    void scaleMapsTheEndsOntoMinAndMax();
};

void TstSliderBytes::writes_data()
{
    QTest::addColumn<qint64>("value");
    QTest::addColumn<int>("size");
    QTest::addColumn<int>("slot");
    QTest::addColumn<int>("position");
    // "box=text" for each write, in order.
    QTest::addColumn<QString>("writes");
    QTest::newRow("258 in 2 bytes") << qint64(258) << 2 << 0 << 0 << "0=2 1=1";
    QTest::newRow("one byte") << qint64(0x1234) << 1 << 2 << 3 << "19=34";
    QTest::newRow("four bytes") << qint64(0x12345678) << 4 << 1 << 2 << "10=78 11=56 12=34 13=12";
    QTest::newRow("-1 in 4") << qint64(-1) << 4 << 0 << 0 << "0=FF 1=FF 2=FF 3=FF";
    QTest::newRow("-256 in 2") << qint64(-256) << 2 << 0 << 0 << "0=0 1=FF";
    QTest::newRow("-258 in 2") << qint64(-258) << 2 << 0 << 0 << "0=FE 1=FE";
    QTest::newRow("-67108864 in 4") << qint64(-67108864) << 4 << 3 << 0 << "24=0 25=0 26=0 27=FC";
    QTest::newRow("-65536 in 4") << qint64(-65536) << 4 << 0 << 4 << "4=0 5=0 6=FF 7=FF";
    QTest::newRow("never past box 63") << qint64(-2) << 4 << 7 << 6 << "62=FE 63=FF";
    QTest::newRow("last box alone") << qint64(0x0102) << 2 << 7 << 7 << "63=2";
    QTest::newRow("into the next slot") << qint64(0x0102) << 2 << 0 << 7 << "7=2 8=1";
    QTest::newRow("zero") << qint64(0) << 2 << 0 << 0 << "0=0 1=0";
}

void TstSliderBytes::writes()
{
    QFETCH(qint64, value);
    QFETCH(int, size);
    QFETCH(int, slot);
    QFETCH(int, position);
    QFETCH(QString, writes);
    QStringList got;
    for (const BoxWrite& w : sliderBoxWrites(value, size, slot, position))
        got << QStringLiteral("%1=%2").arg(w.box).arg(w.text);
    QCOMPARE(got.join(QLatin1Char(' ')), writes);
}

void TstSliderBytes::scaleMapsTheEndsOntoMinAndMax_data()
{
    QTest::addColumn<double>("min");
    QTest::addColumn<double>("max");
    QTest::addColumn<qint64>("middle");
    QTest::newRow("default") << -67108864.0 << 67108864.0 << qint64(0);
    QTest::newRow("0..254") << 0.0 << 254.0 << qint64(127);
    QTest::newRow("reversed") << 100.0 << -100.0 << qint64(0);
    QTest::newRow("equal") << 7.0 << 7.0 << qint64(7);
}

void TstSliderBytes::scaleMapsTheEndsOntoMinAndMax()
{
    QFETCH(double, min);
    QFETCH(double, max);
    QFETCH(qint64, middle);
    const SliderScale s = SliderScale::fromRange(min, max, 10000);
    QCOMPARE(s.valueAt(0), qint64(min));
    QCOMPARE(s.valueAt(10000), qint64(max));
    QCOMPARE(s.valueAt(5000), middle);
}

QTEST_APPLESS_MAIN(TstSliderBytes)
#include "tst_sliderbytes.moc"

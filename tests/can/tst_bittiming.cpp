#include "bittiming.h"

#include <QRandomGenerator>
#include <QTest>

using namespace qorcalib;

class TstBitTiming : public QObject
{
    Q_OBJECT
private slots:
    void frameOfZeros();
    void stuffingStaysWithinBounds();
    void durationFollowsBitRate();
};

void TstBitTiming::frameOfZeros()
{
    // COB-ID 0 without data: start of frame to DLC are 19 dominant bits and their CRC-15 is 0,
    // so 34 dominant bits in a row. A stuff bit follows every fifth (the stuff bit starts a new
    // run of the other level): 6 of them. With the 13 bits of CRC delimiter, ACK, end of frame
    // and intermission: 34 + 6 + 13.
    QCOMPARE(frameBitCount(CanFrame()), 53);
}

void TstBitTiming::stuffingStaysWithinBounds()
{
    // Unstuffed a base frame has 47 + 8n bits (3 of intermission included); stuffing adds at
    // most one bit for every four after the first of the 34 + 8n stuffed bits.
    QRandomGenerator random(1234);
    for (int round = 0; round < 2000; ++round) {
        CanFrame frame;
        frame.id = quint16(random.bounded(0x800));
        frame.len = quint8(random.bounded(9));
        const int pattern = random.bounded(3);
        for (int i = 0; i < frame.len; ++i)
            frame.data[i] = pattern == 0 ? 0x00 : pattern == 1 ? 0xFF : quint8(random.bounded(256));
        const int n = frame.len;
        const int bits = frameBitCount(frame);
        QVERIFY2(bits >= 47 + 8 * n, qPrintable(QString::number(bits)));
        QVERIFY2(bits <= 47 + 8 * n + (34 + 8 * n - 1) / 4, qPrintable(QString::number(bits)));
    }
}

void TstBitTiming::durationFollowsBitRate()
{
    const CanFrame frame = CanFrame::make(0x701, {0x7F});
    const int bits = frameBitCount(frame);
    QCOMPARE(frameDurationUs(frame, 1000000), double(bits));
    QCOMPARE(frameDurationUs(frame, 125000), bits * 8.0);
    QCOMPARE(frameDurationUs(frame, 0), 0.0);
}

QTEST_APPLESS_MAIN(TstBitTiming)
#include "tst_bittiming.moc"

#include "bittiming.h"
#include "datatable.h"

#include <QRandomGenerator>
#include <QTest>

using namespace qorcalib;
using namespace tessel::test;

class TstBitTiming : public QObject
{
    Q_OBJECT
private slots:
    void bitCounts_data()
    {
        columns<int, QByteArray, bool, int>({"id", "data", "remote", "bits"});
        // COB-ID 0 without data: start of frame to DLC are 19 dominant bits and their CRC-15 is 0,
        // so 34 dominant bits in a row. A stuff bit follows every fifth (the stuff bit starts a new
        // run of the other level): 6 of them. With the 13 bits of CRC delimiter, ACK, end of frame
        // and intermission: 34 + 6 + 13.
        row("zeros", 0x000, QByteArray(), false, 53);
        row("eight zero bytes", 0x000, QByteArray(8, 0), false, 127);
        row("all recessive", 0x7FF, QByteArray(8, char(0xFF)), false, 126);
        row("alternating", 0x555, QByteArray(8, char(0xAA)), false, 112);
        row("heartbeat", 0x701, QByteArray("\x7f"), false, 59);
        row("counting", 0x123, QByteArray("\x01\x02\x03\x04\x05\x06\x07\x08"), false, 119);
        row("SDO answer", 0x581, QByteArray("\x43\x18\x10\x01\xa1\x03\x00\x00", 8), false, 120);
        row("remote request of 8", 0x7FF, QByteArray(8, 0), true, 50);
    }

    void bitCounts()
    {
        auto [id, data, remote] = fetch<int, QByteArray, bool>("id", "data", "remote");
        CanFrame frame;
        frame.id = quint16(id);
        frame.len = quint8(data.size());
        frame.remote = remote;
        std::copy(data.begin(), data.end(), frame.data.begin());
        QTEST(frameBitCount(frame), "bits");
    }

    void stuffingStaysWithinBounds()
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
                frame.data[i] = pattern == 0   ? 0x00
                                : pattern == 1 ? 0xFF
                                               : quint8(random.bounded(256));
            const int n = frame.len;
            const int bits = frameBitCount(frame);
            QVERIFY2(bits >= 47 + 8 * n, qPrintable(QString::number(bits)));
            QVERIFY2(bits <= 47 + 8 * n + (34 + 8 * n - 1) / 4, qPrintable(QString::number(bits)));
        }
    }

    void durationFollowsBitRate()
    {
        const CanFrame frame = CanFrame::make(0x701, {0x7F});
        const int bits = frameBitCount(frame);
        QCOMPARE(frameDurationUs(frame, 1000000), double(bits));
        QCOMPARE(frameDurationUs(frame, 125000), bits * 8.0);
        QCOMPARE(frameDurationUs(frame, 0), 0.0);
    }
};

QTEST_APPLESS_MAIN(TstBitTiming)
#include "tst_bittiming.moc"

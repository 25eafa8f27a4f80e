#include "bittiming.h"
#include "datatable.h"
#include "simulatedsegment.h"

#include <QTest>

using namespace tessel::test;

using namespace qorcalib;

namespace {

// A port that records what reaches it.
class RecordingPort : public SimPort
{
public:
    RecordingPort(int rate, bool active = true) : rate(rate), active(active) {}
    int bitRateIndex() const override { return rate; }
    bool isActive() const override { return active; }
    void receive(const BusFrame& frame) override { received.append(frame); }
    void transmitted(const BusFrame&, bool ack) override { acks.append(ack); }
    void deliveryBatchEnded() override {}

    int rate;
    bool active;
    QList<BusFrame> received;
    QList<bool> acks;
};

struct Fixture
{
    explicit Fixture(bool paced)
    {
        segment.setPaced(paced);
        segment.setClock([this] { return now; });
    }
    qint64 now = 1000;
    SimulatedSegment segment;
};

} // namespace

namespace {
// A node that answers every frame at once, as a drive answers an SDO request.
class AnsweringPort : public RecordingPort
{
public:
    AnsweringPort(SimulatedSegment* segment, int rate) : RecordingPort(rate), segment(segment) {}
    void receive(const BusFrame& frame) override
    {
        RecordingPort::receive(frame);
        if (frame.frame.id == 0x601)
            segment->transmit(this, CanFrame::make(0x581, {0x60, 0, 0, 0, 0, 0, 0, 0}), 0);
    }
    SimulatedSegment* segment;
};
} // namespace

class TstSimulatedSegment : public QObject
{
    Q_OBJECT
private slots:
    void deliveryByBitRate_data()
    {
        columns<int, int, bool, bool>(
            {"senderRate", "receiverRate", "receiverActive", "delivered"});

        row("same rate", 0, 0, true, true);
        row("other rate", 0, 2, true, false);
        row("same rate, receiver stopped", 3, 3, false, false);
    }

    void deliveryByBitRate()
    {
        auto [senderRate, receiverRate, receiverActive, delivered] = fetch<int, int, bool, bool>(
            "senderRate", "receiverRate", "receiverActive", "delivered");

        Fixture f(false);
        RecordingPort sender(senderRate), receiver(receiverRate, receiverActive);
        f.segment.attach(&sender);
        f.segment.attach(&receiver);
        f.segment.transmit(&sender, CanFrame::make(0x181, {1, 2, 3}), 7);
        QCOMPARE(f.segment.pump(), 1);

        QCOMPARE(receiver.received.size(), delivered ? 1 : 0);
        QCOMPARE(sender.acks, QList<bool>{delivered});
        if (delivered) {
            QCOMPARE(receiver.received[0].frame, CanFrame::make(0x181, {1, 2, 3}));
            QCOMPARE(receiver.received[0].origin, FrameOrigin(7));
            QCOMPARE(f.segment.status(&sender) & StatusTransmitPending, 0u);
        } else {
            QCOMPARE(f.segment.status(&sender) & StatusTransmitPending,
                     quint32(StatusTransmitPending));
        }
    }

    void unacknowledgedFrameRaisesErrorsUpToPassive()
    {
        Fixture f(false);
        RecordingPort lonely(0);
        f.segment.attach(&lonely);
        for (int i = 0; i < 11; ++i)
            f.segment.transmit(&lonely, CanFrame::make(0x100, {}), 1);
        f.segment.pump();
        QCOMPARE(f.segment.transmitErrorCount(&lonely), 88);
        QCOMPARE(f.segment.status(&lonely), quint32(StatusTransmitPending));
        for (int i = 0; i < 20; ++i)
            f.segment.transmit(&lonely, CanFrame::make(0x100, {}), 1);
        f.segment.pump();
        // Error-passive, with warning, but never bus-off from missing acknowledgements alone.
        QCOMPARE(f.segment.transmitErrorCount(&lonely), 128);
        QCOMPARE(f.segment.status(&lonely), quint32(StatusTransmitPending | StatusErrorWarning));

        // Someone at the same rate appears: acknowledged frames bring the count down again.
        RecordingPort node(0);
        f.segment.attach(&node);
        f.segment.transmit(&lonely, CanFrame::make(0x100, {}), 1);
        f.segment.pump();
        QCOMPARE(f.segment.transmitErrorCount(&lonely), 127);
        QCOMPARE(f.segment.status(&lonely) & StatusTransmitPending, 0u);
    }

    void pacedDeliveryWaitsForBusTime()
    {
        Fixture f(true);
        RecordingPort a(4), b(4); // 125K
        f.segment.attach(&a);
        f.segment.attach(&b);
        const CanFrame first = CanFrame::make(0x181, {1, 2, 3, 4, 5, 6, 7, 8});
        const CanFrame second = CanFrame::make(0x182, {});
        const qint64 firstUs = qint64(frameDurationUs(first, 125000));
        const qint64 secondUs = qint64(frameDurationUs(second, 125000));
        const qint64 start = f.now;
        f.segment.transmit(&a, first, 0);
        f.segment.transmit(&a, second, 0);

        f.now = start + firstUs - 1;
        QCOMPARE(f.segment.pump(), 0);
        f.now = start + firstUs + 1;
        QCOMPARE(f.segment.pump(), 1);
        QCOMPARE(b.received[0].frame.timeUs, quint32(start + firstUs));
        // The second frame waits for the first to leave the bus, not for its own queueing time.
        f.now = start + firstUs + secondUs - 2;
        QCOMPARE(f.segment.pump(), 0);
        f.now = start + firstUs + secondUs + 1;
        QCOMPARE(f.segment.pump(), 1);
        QCOMPARE(b.received[1].frame.id, quint16(0x182));
    }

    void answersFollowAtBusTime()
    {
        Fixture f(true);
        RecordingPort client(0);
        AnsweringPort node(&f.segment, 0);
        f.segment.attach(&client);
        f.segment.attach(&node);
        const CanFrame request = CanFrame::make(0x601, {0x40, 0x18, 0x10, 0x01, 0, 0, 0, 0});
        const qint64 start = f.now;
        f.segment.transmit(&client, request, 1);
        // The segment is served late: the answer still takes its place right after the request,
        // where it was on the bus, instead of waiting for the next service.
        f.now = start + 10000;
        QCOMPARE(f.segment.pump(), 2);
        const qint64 requestEnd = start + qint64(frameDurationUs(request, 1000000));
        QCOMPARE(client.received.size(), 1);
        QCOMPARE(client.received[0].frame.timeUs,
                 quint32(requestEnd + qint64(frameDurationUs(client.received[0].frame, 1000000))));
    }

    void arbitrationPrefersLowerIdKeepingPortOrder()
    {
        Fixture f(true);
        RecordingPort a(0), b(0), listener(0);
        for (auto* p : {&a, &b, &listener})
            f.segment.attach(p);
        f.segment.transmit(&a, CanFrame::make(0x600, {}), 0);
        f.segment.transmit(&a, CanFrame::make(0x100, {}), 0); // behind 0x600 in a's own queue
        f.segment.transmit(&b, CanFrame::make(0x300, {}), 0);
        f.now += 10000;
        QCOMPARE(f.segment.pump(), 3);
        QList<int> order;
        for (const auto& frame : listener.received)
            order << frame.frame.id;
        QCOMPARE(order, (QList<int>{0x300, 0x600, 0x100}));
    }
};

QTEST_GUILESS_MAIN(TstSimulatedSegment)
#include "tst_simulatedsegment.moc"

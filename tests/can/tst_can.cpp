#include "bittiming.h"
#include "canmsg.h"
#include "datatable.h"
#include "qcanbuschannel.h"
#include "serverclock.h"
#include "simulatedsegment.h"
#include "transmitbudget.h"

#include <QRandomGenerator>
#include <QtSerialBus>
#include <QtTest>

using namespace qorcalib;
using namespace tessel::test;

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


// A CAN interface that can be unplugged and plugged in again.
class UnpluggableDevice : public QCanBusDevice
{
public:
    bool plugged = true;
    int written = 0;
    // Reports a frame written from within writeFrame, as the socketcan and virtual plugins do.
    bool reportsWhileWriting = false;
    // Closes some time after being asked to, as a plugin does that tells a peer first.
    bool closesLater = false;

    void unplug()
    {
        plugged = false;
        setError(QStringLiteral("device removed"), QCanBusDevice::ConnectionError);
    }
    // Each frame written: its identifier and the server time it was written at.
    QList<QPair<quint32, qint64>> writes;

    bool writeFrame(const QCanBusFrame& frame) override
    {
        if (state() != ConnectedState)
            return false;
        ++written;
        writes.append({frame.frameId(), serverTimeUs()});
        if (reportsWhileWriting)
            emit framesWritten(1);
        else
            QMetaObject::invokeMethod(
                this, [this] { emit framesWritten(1); }, Qt::QueuedConnection);
        return true;
    }
    QString interpretErrorFrame(const QCanBusFrame&) override { return {}; }

protected:
    bool open() override
    {
        if (!plugged) {
            setError(QStringLiteral("no such device"), QCanBusDevice::ConnectionError);
            return false;
        }
        setState(ConnectedState);
        return true;
    }
    void close() override
    {
        if (closesLater)
            QTimer::singleShot(50, this, [this] { setState(UnconnectedState); });
        else
            setState(UnconnectedState);
    }
};

} // namespace

class TstCan : public QObject
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

    void sessionsHaveTheirOwnShare()
    {
        TransmitBudget budget(1000);
        int admitted = 0;
        while (budget.admit(1, 130))
            ++admitted;
        QCOMPARE(admitted, 7); // 910 us waiting; an eighth would make 1040
        QCOMPARE(budget.queuedUs(1), 910);
        QVERIFY(budget.admit(2, 130)); // another session is not held up by the first
        budget.forget(1);              // the first session ended
        QVERIFY(budget.admit(1, 130));
        QCOMPARE(budget.queuedUs(1), 130);
    }

    void aLongFrameAloneIsLetThrough()
    {
        // At 10K an 8-byte frame takes 13 ms; a budget smaller than that still sends one at a time.
        TransmitBudget budget(1000);
        QVERIFY(budget.admit(5, 13000));
        QVERIFY(!budget.admit(5, 13000));
        budget.release(5, 13000);
        QVERIFY(budget.admit(5, 13000));
    }

    void releasedTimeMakesRoom()
    {
        TransmitBudget budget(1000);
        QVERIFY(budget.admit(1, 600));
        QVERIFY(!budget.admit(1, 600));
        // The bit rate went up while the frame waited: it is released at its new, shorter length,
        // and the session is charged no less than nothing.
        budget.release(1, 300);
        QCOMPARE(budget.queuedUs(1), 300);
        budget.release(1, 900);
        QCOMPARE(budget.queuedUs(1), 0);
        budget.release(9, 100); // a session that never sent
        QCOMPARE(budget.queuedUs(9), 0);
        QVERIFY(budget.admit(1, 1000));
        budget.clear(); // the controller was restarted
        QCOMPARE(budget.queuedUs(1), 0);
    }

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

    void deviceThatGoesAwayIsReportedAndReopened()
    {
        auto owned = std::make_unique<UnpluggableDevice>();
        UnpluggableDevice* device = owned.get();
        auto channel = QCanBusChannel::fromDevice("fake", "can0", std::move(owned));
        QSignalSpy changes(channel.get(), &CanChannel::availabilityChanged);
        QString error;
        QVERIFY(channel->start(&error));
        QCOMPARE(channel->status(), 0u);
        QVERIFY(channel->transmit(CanFrame::make(0x123, {1}), 0, &error));

        device->unplug();
        QCOMPARE(changes.size(), 1);
        QVERIFY(channel->isLost());
        QVERIFY(channel->isRunning()); // still wanted by its clients
        QCOMPARE(channel->status(), quint32(StatusBusOff | StatusErrorWarning));
        QVERIFY(!channel->transmit(CanFrame::make(0x123, {2}), 0, &error));
        QVERIFY2(error.contains("lost its device"), qPrintable(error));

        // Still gone at the next attempt; back at the one after it is plugged in again.
        QTest::qWait(QCanBusChannel::kReconnectMs + 200);
        QVERIFY(channel->isLost());
        device->plugged = true;
        QTRY_VERIFY_WITH_TIMEOUT(!channel->isLost(), 3 * QCanBusChannel::kReconnectMs);
        QCOMPARE(changes.size(), 2);
        QCOMPARE(channel->status(), 0u);
        QVERIFY(channel->transmit(CanFrame::make(0x123, {3}), 0, &error));

        // A controller stopped on purpose is not "lost", and is not reopened.
        channel->stop();
        device->unplug();
        QVERIFY(!channel->isLost());
        device->plugged = true;
        QTest::qWait(QCanBusChannel::kReconnectMs + 200);
        QCOMPARE(device->state(), QCanBusDevice::UnconnectedState);
    }

    void ownFramesComeBackInOrderWithTheirOrigin_data()
    {
        QTest::addColumn<bool>("whileWriting");
        row("reported later", false);
        row("reported while writing", true);
    }

    void ownFramesComeBackInOrderWithTheirOrigin()
    {
        QFETCH(bool, whileWriting);
        auto owned = std::make_unique<UnpluggableDevice>();
        owned->reportsWhileWriting = whileWriting;
        auto channel = QCanBusChannel::fromDevice("fake", "can0", std::move(owned));
        QList<BusFrame> back;
        connect(channel.get(), &CanChannel::framesReceived, this,
                [&](const QVector<BusFrame>& frames) { back += frames; });
        QString error;
        QVERIFY(channel->start(&error));
        QVERIFY(channel->transmit(CanFrame::make(0x181, {1}), 7, &error));
        // Nobody hears of a frame while it is being sent.
        QVERIFY(back.isEmpty());
        QVERIFY(channel->transmit(CanFrame::make(0x182, {2}), kServiceOrigin | 8, &error));
        QTRY_COMPARE(back.size(), 2);
        QCOMPARE(back[0].frame.id, quint16(0x181));
        QCOMPARE(back[0].origin, FrameOrigin(7));
        QCOMPARE(back[1].frame.id, quint16(0x182));
        QCOMPARE(back[1].origin, kServiceOrigin | 8);
    }

    void timedFramesAreWrittenWhenDue()
    {
        auto owned = std::make_unique<UnpluggableDevice>();
        UnpluggableDevice* device = owned.get();
        auto channel = QCanBusChannel::fromDevice("fake", "can0", std::move(owned));
        QString error;
        QVERIFY(channel->start(&error));
        const qint64 now = serverTimeUs();
        // Handed over out of order, by two sessions; one of them ends before its frame is due.
        QVERIFY(channel->transmitAt(CanFrame::make(0x301, {1}), 7, now + 60000, &error));
        QVERIFY(channel->transmitAt(CanFrame::make(0x302, {2}), 7, now + 20000, &error));
        QVERIFY(channel->transmitAt(CanFrame::make(0x303, {3}), 9, now + 40000, &error));
        QVERIFY(channel->transmitAt(CanFrame::make(0x304, {4}), 7, now - 5000, &error));
        QVERIFY(!channel->transmitAt(CanFrame::make(0x305, {5}), 7, now + 2500000, &error));
        QVERIFY2(error.contains("at most 2000 ms"), qPrintable(error));
        channel->dropSession(9);
        // A frame already due goes at once, the others when due (the timer's tick is 1 ms).
        QCOMPARE(device->writes.size(), 1);
        QCOMPARE(device->writes[0].first, quint32(0x304));
        QTRY_COMPARE(device->writes.size(), 3);
        QTest::qWait(100);
        QCOMPARE(device->writes.size(), 3);
        QCOMPARE(device->writes[1].first, quint32(0x302));
        QCOMPARE(device->writes[2].first, quint32(0x301));
        QVERIFY2(device->writes[1].second >= now + 20000 - 500, "written early");
        QVERIFY2(device->writes[2].second >= now + 60000 - 500, "written early");
        // Stopped, the controller forgets what waited.
        QVERIFY(channel->transmitAt(CanFrame::make(0x306, {6}), 7, serverTimeUs() + 20000, &error));
        channel->stop();
        QVERIFY(channel->start(&error));
        QTest::qWait(60);
        QCOMPARE(device->writes.size(), 3);
    }
};

QTEST_GUILESS_MAIN(TstCan)
#include "tst_can.moc"

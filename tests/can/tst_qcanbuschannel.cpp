#include "canmsg.h"
#include "datatable.h"
#include "qcanbuschannel.h"
#include "serverclock.h"

#include <QtSerialBus>
#include <QtTest>

using tessel::test::row;

using namespace qorcalib;

namespace {

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

class TstQCanBusChannel : public QObject
{
    Q_OBJECT
private slots:
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

QTEST_GUILESS_MAIN(TstQCanBusChannel)
#include "tst_qcanbuschannel.moc"

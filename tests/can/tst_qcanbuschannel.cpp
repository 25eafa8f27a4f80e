#include "canmsg.h"
#include "qcanbuschannel.h"

#include <QCanBusDevice>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

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
    bool writeFrame(const QCanBusFrame&) override
    {
        if (state() != ConnectedState)
            return false;
        ++written;
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
    void deviceThatGoesAwayIsReportedAndReopened();
    void ownFramesComeBackInOrderWithTheirOrigin_data();
    void ownFramesComeBackInOrderWithTheirOrigin();
    void restartsWhileTheDeviceIsStillClosing();
};

void TstQCanBusChannel::ownFramesComeBackInOrderWithTheirOrigin_data()
{
    QTest::addColumn<bool>("whileWriting");
    QTest::newRow("reported later") << false;
    QTest::newRow("reported while writing") << true;
}

void TstQCanBusChannel::ownFramesComeBackInOrderWithTheirOrigin()
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

void TstQCanBusChannel::restartsWhileTheDeviceIsStillClosing()
{
    auto owned = std::make_unique<UnpluggableDevice>();
    owned->closesLater = true;
    UnpluggableDevice* device = owned.get();
    auto channel = QCanBusChannel::fromDevice("fake", "can0", std::move(owned));
    QString error;
    QVERIFY(channel->start(&error));
    channel->stop();
    QCOMPARE(device->state(), QCanBusDevice::ClosingState);
    QVERIFY2(channel->start(&error), qPrintable(error));
    QCOMPARE(device->state(), QCanBusDevice::ConnectedState);
}

void TstQCanBusChannel::deviceThatGoesAwayIsReportedAndReopened()
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

QTEST_GUILESS_MAIN(TstQCanBusChannel)
#include "tst_qcanbuschannel.moc"

#pragma once

#include "canchannel.h"
#include "transmitbudget.h"

#include <QCanBusDevice>
#include <QQueue>
#include <QTimer>

#include <deque>
#include <memory>

namespace qorcalib {

// A controller of the server on a QCanBus plugin: "socketcan:can0", "virtualcan:can0", ...
class QCanBusChannel : public CanChannel
{
    Q_OBJECT
public:
    // Checks that the plugin exists and that the interface can be opened; on failure returns
    // null with a description that names both.
    static std::unique_ptr<QCanBusChannel> open(const QString& channelName, QString* error);
    // A channel on a device made elsewhere (a test's), not yet connected.
    static std::unique_ptr<QCanBusChannel> fromDevice(const QString& plugin,
                                                      const QString& interface,
                                                      std::unique_ptr<QCanBusDevice> device);
    // While a started controller's device is gone, it is tried again this often.
    static constexpr int kReconnectMs = 1000;
    ~QCanBusChannel() override;

    QString name() const override { return m_plugin + QLatin1Char(':') + m_interface; }
    bool start(QString* error) override;
    void stop() override;
    // Started by a client, whether or not its device is there right now.
    bool isRunning() const override { return m_started; }
    bool isLost() const { return m_lost; }
    bool setBitRateIndex(int index, QString* error) override;
    int bitRateIndex() const override { return m_bitRateIndex; }
    bool transmit(const CanFrame& frame, FrameOrigin origin, QString* error) override;
    bool transmitAt(const CanFrame& frame, FrameOrigin origin, qint64 dueUs,
                    QString* error) override;
    int dropSession(quint64 session) override;
    quint32 status() const override;
    quint32 uncarried() const override { return m_uncarried; }
    ErrorCounters errorCounters() const override { return m_counters; }

private:
    QCanBusChannel(QString plugin, QString interface, std::unique_ptr<QCanBusDevice> device);
    bool connectAndWait(QString* error);
    // Runs events until the device leaves the state (or the connect time-out passes).
    void waitWhile(QCanBusDevice::CanBusDeviceState passing);
    bool deviceConnected() const;
    void onDeviceState(QCanBusDevice::CanBusDeviceState state);
    void setLost(bool lost);
    void readFrames();
    void takeErrorFrame(const QCanBusFrame& frame);
    void framesWritten(qint64 count);
    qint64 frameUs(const CanFrame& frame) const;
    // Hands a frame to the device; its session has been charged for it.
    bool write(const CanFrame& frame, FrameOrigin origin, QString* error);
    void writeDue();
    void clearQueues();

    QString m_plugin;
    QString m_interface;
    std::unique_ptr<QCanBusDevice> m_device;
    int m_bitRateIndex = 0;
    bool m_overrun = false;
    quint32 m_uncarried = 0;
    ErrorCounters m_counters;
    bool m_started = false;
    bool m_lost = false;
    QTimer m_reconnect;
    // Origins of frames handed to the device, oldest first, matched to framesWritten.
    QQueue<BusFrame> m_written;
    // Frames the device has not sent yet cannot be taken back: a session that ends only stops
    // being charged for them.
    TransmitBudget m_budget;
    // Timed frames wait here, in time order, until they are due: the device has no clock.
    struct Timed
    {
        qint64 dueUs;
        BusFrame frame;
    };
    std::deque<Timed> m_timed;
    QTimer m_dueTimer;
};

} // namespace qorcalib

#pragma once

#include "canchannel.h"
#include "transmitbudget.h"

#include <QCanBusDevice>
#include <QQueue>

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
    ~QCanBusChannel() override;

    QString name() const override { return m_plugin + QLatin1Char(':') + m_interface; }
    bool start(QString* error) override;
    void stop() override;
    bool isRunning() const override;
    bool setBitRateIndex(int index, QString* error) override;
    int bitRateIndex() const override { return m_bitRateIndex; }
    bool transmit(const CanFrame& frame, FrameOrigin origin, QString* error) override;
    void dropSession(quint64 session) override { m_budget.forget(session); }
    quint32 status() const override;

private:
    QCanBusChannel(QString plugin, QString interface, std::unique_ptr<QCanBusDevice> device);
    bool connectAndWait(QString* error);
    void readFrames();
    void framesWritten(qint64 count);
    qint64 frameUs(const CanFrame& frame) const;

    QString m_plugin;
    QString m_interface;
    std::unique_ptr<QCanBusDevice> m_device;
    int m_bitRateIndex = 0;
    bool m_overrun = false;
    // Origins of frames handed to the device, oldest first, matched to framesWritten.
    QQueue<BusFrame> m_written;
    // Frames the device has not sent yet cannot be taken back: a session that ends only stops
    // being charged for them.
    TransmitBudget m_budget;
};

} // namespace qorcalib

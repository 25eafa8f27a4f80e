#include "qcanbuschannel.h"

#include "bittiming.h"
#include "serverclock.h"

#include <QAbstractSocket>
#include <QCanBus>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <QVariant>

#include <algorithm>
#include <cmath>
#include <iterator>

namespace qorcalib {

namespace {
constexpr int kConnectTimeoutMs = 3000;
}

std::unique_ptr<QCanBusChannel> QCanBusChannel::open(const QString& channelName, QString* error)
{
    const qsizetype colon = channelName.indexOf(QLatin1Char(':'));
    if (colon <= 0 || colon == channelName.size() - 1) {
        *error =
            QStringLiteral("CAN channel '%1' is not of the form PLUGIN:INTERFACE").arg(channelName);
        return nullptr;
    }
    const QString plugin = channelName.left(colon);
    const QString interface = channelName.mid(colon + 1);
    const QStringList plugins = QCanBus::instance()->plugins();
    if (!plugins.contains(plugin)) {
        *error = QStringLiteral("CAN plugin '%1' does not exist (available: %2)")
                     .arg(plugin, plugins.join(QStringLiteral(", ")));
        return nullptr;
    }
    QString createError;
    std::unique_ptr<QCanBusDevice> device(
        QCanBus::instance()->createDevice(plugin, interface, &createError));
    // Some plugins make a device for a name they do not know and only note the error in it.
    if (device && device->error() != QCanBusDevice::NoError)
        createError = device->errorString();
    if (!device || !createError.isEmpty()) {
        *error = QStringLiteral("CAN interface '%1' of plugin '%2' cannot be created: %3")
                     .arg(interface, plugin, createError);
        return nullptr;
    }
    std::unique_ptr<QCanBusChannel> channel(
        new QCanBusChannel(plugin, interface, std::move(device)));
    // Open it once now, so that a wrong name stops the server at start-up with a clear message
    // instead of failing later in a client.
    QString connectError;
    if (!channel->connectAndWait(&connectError)) {
        *error = QStringLiteral("CAN interface '%1' of plugin '%2' cannot be opened: %3")
                     .arg(interface, plugin, connectError);
        return nullptr;
    }
    channel->stop();
    return channel;
}

std::unique_ptr<QCanBusChannel> QCanBusChannel::fromDevice(const QString& plugin,
                                                           const QString& interface,
                                                           std::unique_ptr<QCanBusDevice> device)
{
    return std::unique_ptr<QCanBusChannel>(
        new QCanBusChannel(plugin, interface, std::move(device)));
}

QCanBusChannel::QCanBusChannel(QString plugin, QString interface,
                               std::unique_ptr<QCanBusDevice> device)
    : m_plugin(std::move(plugin)), m_interface(std::move(interface)), m_device(std::move(device))
{
    m_dueTimer.setSingleShot(true);
    m_dueTimer.setTimerType(Qt::PreciseTimer);
    connect(&m_dueTimer, &QTimer::timeout, this, &QCanBusChannel::writeDue);
    m_reconnect.setInterval(kReconnectMs);
    connect(&m_reconnect, &QTimer::timeout, this, [this] {
        if (m_started && !deviceConnected() && m_device->state() == QCanBusDevice::UnconnectedState)
            m_device->connectDevice();
    });
    connect(m_device.get(), &QCanBusDevice::stateChanged, this, &QCanBusChannel::onDeviceState);
    connect(m_device.get(), &QCanBusDevice::framesReceived, this, &QCanBusChannel::readFrames);
    // SocketCAN sends error frames, with the controller's error counters, only when asked to.
    if (m_plugin == QLatin1String("socketcan"))
        m_device->setConfigurationParameter(
            QCanBusDevice::ErrorFilterKey,
            QVariant::fromValue(QCanBusFrame::FrameErrors(QCanBusFrame::AnyError)));
    // Plugins report a frame written from within writeFrame: taken later, so that the frame is
    // in m_written by then and no one hears of it while still sending it.
    connect(m_device.get(), &QCanBusDevice::framesWritten, this, &QCanBusChannel::framesWritten,
            Qt::QueuedConnection);
    connect(m_device.get(), &QCanBusDevice::errorOccurred, this,
            [this](QCanBusDevice::CanBusError e) {
                if (e == QCanBusDevice::ReadError)
                    m_overrun = true;
                // A device that fails this way is gone until it can be opened again.
                if (e == QCanBusDevice::ConnectionError && m_started) {
                    if (m_device->state() != QCanBusDevice::UnconnectedState)
                        m_device->disconnectDevice();
                    setLost(true);
                }
            });
}

QCanBusChannel::~QCanBusChannel()
{
    // Closed on purpose: not a device that went away.
    m_started = false;
    if (m_device && m_device->state() != QCanBusDevice::UnconnectedState)
        m_device->disconnectDevice();
}

void QCanBusChannel::waitWhile(QCanBusDevice::CanBusDeviceState passing)
{
    if (m_device->state() != passing)
        return;
    QEventLoop loop;
    QTimer::singleShot(kConnectTimeoutMs, &loop, &QEventLoop::quit);
    connect(m_device.get(), &QCanBusDevice::stateChanged, &loop, [&loop, passing](auto state) {
        if (state != passing)
            loop.quit();
    });
    loop.exec();
}

bool QCanBusChannel::connectAndWait(QString* error)
{
    if (m_device->state() == QCanBusDevice::ConnectedState)
        return true;
    // A device stopped a moment ago may still be closing (a network plugin waits for its peer);
    // it cannot be opened again before it has closed.
    waitWhile(QCanBusDevice::ClosingState);
    if (!m_device->connectDevice()) {
        *error = m_device->errorString();
        return false;
    }
    waitWhile(QCanBusDevice::ConnectingState);
    if (m_device->state() != QCanBusDevice::ConnectedState) {
        *error = m_device->errorString().isEmpty() ? QStringLiteral("no answer from the interface")
                                                   : m_device->errorString();
        if (m_device->state() != QCanBusDevice::UnconnectedState)
            m_device->disconnectDevice();
        return false;
    }
    // A plugin that carries the bus over TCP (Qt's virtual CAN) writes each frame as a few bytes
    // on its socket. With Nagle's algorithm a frame written while the last one is unacknowledged
    // waits for the peer's delayed acknowledgement, up to 40 ms: an LSS request sent right after
    // another reached the drives after the answer window had closed. Frames go out at once.
    for (QAbstractSocket* socket : m_device->findChildren<QAbstractSocket*>())
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return true;
}

bool QCanBusChannel::start(QString* error)
{
    m_overrun = false;
    clearQueues();
    m_started = connectAndWait(error);
    setLost(false);
    return m_started;
}

void QCanBusChannel::stop()
{
    m_started = false;
    setLost(false);
    if (m_device->state() != QCanBusDevice::UnconnectedState)
        m_device->disconnectDevice();
    clearQueues();
}

void QCanBusChannel::clearQueues()
{
    m_written.clear();
    m_timed.clear();
    m_dueTimer.stop();
    m_budget.clear();
}

bool QCanBusChannel::deviceConnected() const
{
    return m_device->state() == QCanBusDevice::ConnectedState;
}

void QCanBusChannel::onDeviceState(QCanBusDevice::CanBusDeviceState state)
{
    if (!m_started)
        return;
    if (state == QCanBusDevice::UnconnectedState) {
        // Frames handed to a device that is gone will not be reported sent.
        clearQueues();
        setLost(true);
    } else if (state == QCanBusDevice::ConnectedState) {
        setLost(false);
    }
}

void QCanBusChannel::setLost(bool lost)
{
    if (lost)
        m_reconnect.start();
    else
        m_reconnect.stop();
    if (lost == m_lost)
        return;
    m_lost = lost;
    if (m_started)
        qWarning("%s: controller %s %s", qPrintable(QCoreApplication::applicationName()),
                 qPrintable(name()),
                 lost ? "lost its device; trying to open it again every second"
                      : "has its device again");
    emit availabilityChanged();
}

qint64 QCanBusChannel::frameUs(const CanFrame& frame) const
{
    return qint64(std::ceil(frameDurationUs(frame, bitRateOfIndex(m_bitRateIndex))));
}

bool QCanBusChannel::setBitRateIndex(int index, QString* error)
{
    const int rate = bitRateOfIndex(index);
    if (rate < 0) {
        *error = QStringLiteral("bit-rate index %1 out of range (0..%2)")
                     .arg(index)
                     .arg(kBitRateCount - 1);
        return false;
    }
    // Plugins take the bit rate when the device connects; a running controller gets it at its
    // next restart.
    m_device->setConfigurationParameter(QCanBusDevice::BitRateKey, QVariant(rate));
    m_bitRateIndex = index;
    return true;
}

bool QCanBusChannel::transmit(const CanFrame& frame, FrameOrigin origin, QString* error)
{
    if (!m_started) {
        *error = QStringLiteral("controller %1 is not started").arg(name());
        return false;
    }
    if (!deviceConnected()) {
        *error = QStringLiteral("controller %1 has lost its device (bus off)").arg(name());
        return false;
    }
    if (isClientFrame(origin) && !m_budget.admit(sessionOfOrigin(origin), frameUs(frame))) {
        *error = QStringLiteral("%1 on controller %2")
                     .arg(QLatin1String(TransmitBudget::kFullText), name());
        return false;
    }
    return write(frame, origin, error);
}

bool QCanBusChannel::transmitAt(const CanFrame& frame, FrameOrigin origin, qint64 dueUs,
                                QString* error)
{
    if (!m_started) {
        *error = QStringLiteral("controller %1 is not started").arg(name());
        return false;
    }
    if (!deviceConnected()) {
        *error = QStringLiteral("controller %1 has lost its device (bus off)").arg(name());
        return false;
    }
    *error = leadError(dueUs, serverTimeUs());
    if (!error->isEmpty())
        return false;
    if (!m_budget.admit(sessionOfOrigin(origin), frameUs(frame))) {
        *error = QStringLiteral("%1 on controller %2")
                     .arg(QLatin1String(TransmitBudget::kFullText), name());
        return false;
    }
    auto at = m_timed.end();
    while (at != m_timed.begin() && std::prev(at)->dueUs > dueUs)
        --at;
    m_timed.insert(at, Timed{dueUs, BusFrame{frame, origin}});
    writeDue();
    return true;
}

void QCanBusChannel::writeDue()
{
    // The timer's tick is a millisecond: what is due within half of one goes now.
    constexpr qint64 kEarlyUs = 500;
    const qint64 now = serverTimeUs();
    while (!m_timed.empty() && m_timed.front().dueUs <= now + kEarlyUs) {
        const Timed t = m_timed.front();
        m_timed.pop_front();
        QString error;
        if (!write(t.frame.frame, t.frame.origin, &error))
            qWarning("%s: controller %s: a timed frame was not sent: %s",
                     qPrintable(QCoreApplication::applicationName()), qPrintable(name()),
                     qPrintable(error));
    }
    if (m_timed.empty())
        m_dueTimer.stop();
    else
        m_dueTimer.start(int(std::max<qint64>(0, (m_timed.front().dueUs - now) / 1000)));
}

int QCanBusChannel::dropSession(quint64 session)
{
    const auto before = m_timed.size();
    m_timed.erase(std::remove_if(m_timed.begin(), m_timed.end(),
                                 [session](const Timed& t) {
                                     return isClientFrame(t.frame.origin) &&
                                            sessionOfOrigin(t.frame.origin) == session;
                                 }),
                  m_timed.end());
    m_budget.forget(session);
    return int(before - m_timed.size());
}

bool QCanBusChannel::write(const CanFrame& frame, FrameOrigin origin, QString* error)
{
    QCanBusFrame out(frame.id, QByteArray(reinterpret_cast<const char*>(frame.data.data()),
                                          frame.remote ? 0 : frame.len));
    if (frame.remote) {
        out.setFrameType(QCanBusFrame::RemoteRequestFrame);
        out.setPayload(QByteArray(frame.len, '\0'));
    }
    if (!m_device->writeFrame(out)) {
        if (isClientFrame(origin))
            m_budget.release(sessionOfOrigin(origin), frameUs(frame));
        *error = m_device->errorString();
        return false;
    }
    m_written.enqueue(BusFrame{frame, origin});
    return true;
}

quint32 QCanBusChannel::status() const
{
    if (!m_started)
        return 0;
    // Without its device the controller is off the bus.
    if (!deviceConnected())
        return StatusBusOff | StatusErrorWarning;
    quint32 bits = 0;
    if (m_device->framesToWrite() > 0)
        bits |= StatusTransmitPending;
    if (m_overrun)
        bits |= StatusOverrun;
    if (m_device->hasBusStatus()) {
        switch (m_device->busStatus()) {
        case QCanBusDevice::CanBusStatus::Warning:
        case QCanBusDevice::CanBusStatus::Error:
            bits |= StatusErrorWarning;
            break;
        case QCanBusDevice::CanBusStatus::BusOff:
            bits |= StatusBusOff;
            break;
        default:
            break;
        }
    }
    return bits;
}

void QCanBusChannel::readFrames()
{
    QVector<BusFrame> batch;
    const auto frames = m_device->readAllFrames();
    batch.reserve(frames.size());
    const quint32 now = quint32(quint64(serverTimeUs()));
    for (const QCanBusFrame& in : frames) {
        if (in.frameType() == QCanBusFrame::ErrorFrame) {
            takeErrorFrame(in);
            continue;
        }
        if (!in.isValid())
            continue;
        // Counted, so that a client can say what its record lacks; an FD frame is never cut
        // down to a classic one.
        if (in.hasExtendedFrameFormat() || in.hasFlexibleDataRateFormat()) {
            ++m_uncarried;
            continue;
        }
        BusFrame f;
        f.frame.id = quint16(in.frameId() & 0x7FF);
        f.frame.remote = in.frameType() == QCanBusFrame::RemoteRequestFrame;
        const QByteArray payload = in.payload();
        f.frame.len = quint8(qMin<qsizetype>(payload.size(), 8));
        for (int i = 0; i < f.frame.len; ++i)
            f.frame.data[i] = quint8(payload[i]);
        f.frame.timeUs = now;
        batch.append(f);
    }
    if (!batch.isEmpty())
        emit framesReceived(batch);
}

void QCanBusChannel::takeErrorFrame(const QCanBusFrame& frame)
{
    // SocketCAN's error frames carry the controller's counters in their last two bytes when
    // their class says so (0x200, beyond the classes Qt names).
    constexpr quint32 kCountersClass = 0x200;
    const QByteArray payload = frame.payload();
    if ((frame.frameId() & kCountersClass) && payload.size() >= 8)
        m_counters = {quint8(payload[6]), quint8(payload[7])};
}

void QCanBusChannel::framesWritten(qint64 count)
{
    QVector<BusFrame> batch;
    const quint32 now = quint32(quint64(serverTimeUs()));
    for (qint64 i = 0; i < count && !m_written.isEmpty(); ++i) {
        BusFrame f = m_written.dequeue();
        if (isClientFrame(f.origin))
            m_budget.release(sessionOfOrigin(f.origin), frameUs(f.frame));
        f.frame.timeUs = now;
        batch.append(f);
    }
    if (!batch.isEmpty())
        emit framesReceived(batch);
}

} // namespace qorcalib

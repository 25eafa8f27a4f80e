#pragma once

#include "canmsg.h"

#include <QObject>
#include <QVector>

namespace qorcalib {

// Who put a frame on the bus: 0 for another node, otherwise a session's tag. Frames of a
// session's protocol service (SDO, LSS) carry its tag with kServiceOrigin added, so that
// other sessions can leave them out of their filtered stream.
using FrameOrigin = quint64;
constexpr FrameOrigin kServiceOrigin = FrameOrigin(1) << 62;
inline FrameOrigin sessionOfOrigin(FrameOrigin origin)
{
    return origin & ~kServiceOrigin;
}
// A frame a client sent itself (Send, SendRemote), as opposed to a node's or a service's.
inline bool isClientFrame(FrameOrigin origin)
{
    return origin != 0 && !(origin & kServiceOrigin);
}

// How far ahead of the server's time a client may queue a timed frame: enough for a client
// that is held up now and then, little enough that what it queued is soon gone.
constexpr qint64 kMaxLeadUs = 2000 * 1000;
// Empty when a frame due at `dueUs` may be queued at `nowUs`, otherwise why not.
inline QString leadError(qint64 dueUs, qint64 nowUs)
{
    if (dueUs - nowUs <= kMaxLeadUs)
        return {};
    return QStringLiteral("frame due %1 ms ahead (at most %2 ms)")
        .arg((dueUs - nowUs) / 1000)
        .arg(kMaxLeadUs / 1000);
}

struct BusFrame
{
    CanFrame frame;
    FrameOrigin origin = 0;
};

// One CAN controller of the server. Received frames, and the controller's own frames once they
// are on the bus, come out of framesReceived in batches, in bus order.
class CanChannel : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;

    virtual QString name() const = 0;
    virtual bool start(QString* error) = 0;
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;
    virtual bool setBitRateIndex(int index, QString* error) = 0;
    virtual int bitRateIndex() const = 0;
    // A client's frames are refused with "transmit queue full" once its session has a second of
    // bus time waiting (TransmitBudget).
    virtual bool transmit(const CanFrame& frame, FrameOrigin origin, QString* error) = 0;
    // A client's frame that takes part in arbitration at `dueUs` (server time) at the
    // earliest, at most kMaxLeadUs ahead; charged to its session as transmit() is.
    virtual bool transmitAt(const CanFrame& frame, FrameOrigin origin, qint64 dueUs,
                            QString* error) = 0;
    // The session ended, or stopped what it had queued: its frames that still wait are not
    // sent. Returns how many there were (frames a device holds already are not counted).
    virtual int dropSession(quint64 session) = 0;
    virtual quint32 status() const = 0;
    // Frames heard that the server cannot carry to its clients (29-bit identifiers, CAN FD),
    // since the controller was made; wrapping. A bus that has none says 0.
    virtual quint32 uncarried() const { return 0; }
    // The controller's error counters as it last reported them.
    virtual ErrorCounters errorCounters() const { return {}; }

signals:
    void framesReceived(const QVector<qorcalib::BusFrame>& frames);
    // The device went away, or came back, while the controller was started: what isRunning()
    // and status() say has changed without a client asking.
    void availabilityChanged();
};

} // namespace qorcalib

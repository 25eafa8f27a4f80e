#pragma once

#include "canchannel.h"

#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <vector>

namespace qorcalib {

// A participant of a simulated bus segment: a controller of the server or a simulated node.
class SimPort
{
public:
    virtual ~SimPort() = default;
    virtual int bitRateIndex() const = 0;
    // An active port receives and acknowledges frames at its own bit rate.
    virtual bool isActive() const = 0;
    virtual void receive(const BusFrame& frame) = 0;
    // The port's own frame left the bus: acknowledged by another port, or not.
    virtual void transmitted(const BusFrame& frame, bool acknowledged) = 0;
    // Called once after each batch of deliveries, so that ports can pass frames on in batches.
    virtual void deliveryBatchEnded() {}
};

// One simulated CAN segment. Frames reach only the active ports that run at the sender's bit
// rate; ports at another rate see garbage, which raises their receive error count (8 a frame,
// as a node whose error flag is overwritten counts it). A frame nobody acknowledges raises the
// sender's transmit error count (8 a frame, up to error-passive) and is dropped, where a real
// controller would retry: the sender's status then shows a pending transmission until one of
// its frames is acknowledged.
//
// Paced, the segment delivers each frame when its last bit would have passed at the sender's
// bit rate; frames waiting at the same time win arbitration by lower COB-ID, each port's own
// frames going out in the order they became ready. Unpaced, it delivers as fast as it can, in
// batches.
class SimulatedSegment : public QObject
{
    Q_OBJECT
public:
    using Clock = std::function<qint64()>;

    explicit SimulatedSegment(QObject* parent = nullptr);

    // The time base in microseconds; the server clock unless a test sets its own.
    void setClock(Clock clock);
    qint64 nowUs() const { return m_clock(); }
    void setPaced(bool paced) { m_paced = paced; }
    bool isPaced() const { return m_paced; }

    void attach(SimPort* port);
    void detach(SimPort* port);

    // The frame takes part in arbitration from `notBeforeUs` on at the earliest.
    void transmit(SimPort* from, const CanFrame& frame, FrameOrigin origin, qint64 notBeforeUs = 0);
    // Takes the port's waiting frames whose origin matches out of its queue; returns how many.
    int dropFrames(SimPort* port, const std::function<bool(FrameOrigin)>& match);
    // Forget a port's waiting frames and its error counts: the controller was restarted.
    void resetPort(SimPort* port);
    quint32 status(const SimPort* port) const;
    int transmitErrorCount(const SimPort* port) const;
    int receiveErrorCount(const SimPort* port) const;

    // Deliver every frame whose bus time has ended by now; returns how many were delivered.
    int pump();

private:
    struct Queued
    {
        BusFrame frame;
        qint64 readyUs;
    };
    struct PortState
    {
        SimPort* port = nullptr;
        std::deque<Queued> queue;
        int transmitErrors = 0;
        int receiveErrors = 0;
        bool lastTransmitFailed = false;
    };

    PortState* stateOf(const SimPort* port);
    const PortState* stateOf(const SimPort* port) const;
    PortState* nextSender(qint64 startUs);
    void deliver(PortState& sender, BusFrame frame, qint64 endUs,
                 const std::vector<PortState*>& together);
    void schedule();

    Clock m_clock;
    bool m_paced = true;
    bool m_pumping = false;
    double m_busFreeUs = 0.0;
    // The bus time of the frame being delivered: what a port sends in answer is ready from then
    // on, as a node answers within microseconds of a frame's end, not at the next timer tick.
    qint64 m_deliveryUs = 0;
    std::vector<PortState> m_ports;
    QTimer m_timer;
};

} // namespace qorcalib

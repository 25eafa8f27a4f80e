#include "simulatedsegment.h"

#include "bittiming.h"
#include "serverclock.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace qorcalib {

namespace {
constexpr int kErrorWarningLimit = 96;
constexpr int kErrorPassiveLimit = 128;
// Frames delivered in one go when unpaced, so that sessions and the event loop keep up.
constexpr int kUnpacedBatch = 4096;
} // namespace

SimulatedSegment::SimulatedSegment(QObject* parent) : QObject(parent), m_clock(serverTimeUs)
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] { pump(); });
}

void SimulatedSegment::setClock(Clock clock)
{
    m_clock = std::move(clock);
}

void SimulatedSegment::attach(SimPort* port)
{
    if (!stateOf(port))
        m_ports.push_back(PortState{port, {}, 0, 0, false});
}

void SimulatedSegment::detach(SimPort* port)
{
    m_ports.erase(std::remove_if(m_ports.begin(), m_ports.end(),
                                 [port](const PortState& s) { return s.port == port; }),
                  m_ports.end());
}

SimulatedSegment::PortState* SimulatedSegment::stateOf(const SimPort* port)
{
    for (auto& s : m_ports)
        if (s.port == port)
            return &s;
    return nullptr;
}

const SimulatedSegment::PortState* SimulatedSegment::stateOf(const SimPort* port) const
{
    for (const auto& s : m_ports)
        if (s.port == port)
            return &s;
    return nullptr;
}

void SimulatedSegment::transmit(SimPort* from, const CanFrame& frame, FrameOrigin origin,
                                qint64 notBeforeUs)
{
    PortState* state = stateOf(from);
    if (!state)
        return;
    const qint64 ready = std::max(m_pumping && m_paced ? m_deliveryUs : nowUs(), notBeforeUs);
    // A port's frames go out in the order they become ready: a frame for now does not wait
    // behind one that is due later.
    auto at = state->queue.end();
    while (at != state->queue.begin() && std::prev(at)->readyUs > ready)
        --at;
    state->queue.insert(at, Queued{BusFrame{frame, origin}, ready});
    schedule();
}

int SimulatedSegment::dropFrames(SimPort* port, const std::function<bool(FrameOrigin)>& match)
{
    PortState* state = stateOf(port);
    if (!state)
        return 0;
    const auto before = state->queue.size();
    state->queue.erase(std::remove_if(state->queue.begin(), state->queue.end(),
                                      [&match](const Queued& q) { return match(q.frame.origin); }),
                       state->queue.end());
    schedule();
    return int(before - state->queue.size());
}

void SimulatedSegment::resetPort(SimPort* port)
{
    if (PortState* state = stateOf(port)) {
        state->queue.clear();
        state->transmitErrors = 0;
        state->receiveErrors = 0;
        state->lastTransmitFailed = false;
    }
}

quint32 SimulatedSegment::status(const SimPort* port) const
{
    const PortState* state = stateOf(port);
    if (!state)
        return 0;
    quint32 bits = 0;
    if (!state->queue.empty() || state->lastTransmitFailed)
        bits |= StatusTransmitPending;
    if (state->transmitErrors >= kErrorWarningLimit || state->receiveErrors >= kErrorWarningLimit)
        bits |= StatusErrorWarning;
    return bits;
}

int SimulatedSegment::transmitErrorCount(const SimPort* port) const
{
    const PortState* state = stateOf(port);
    return state ? state->transmitErrors : 0;
}

int SimulatedSegment::receiveErrorCount(const SimPort* port) const
{
    const PortState* state = stateOf(port);
    return state ? state->receiveErrors : 0;
}

SimulatedSegment::PortState* SimulatedSegment::nextSender(qint64 startUs)
{
    // Arbitration among the first waiting frame of every port that was ready when the bus
    // became free: the lowest COB-ID wins.
    PortState* winner = nullptr;
    for (auto& s : m_ports) {
        if (s.queue.empty())
            continue;
        const Queued& head = s.queue.front();
        if (m_paced && head.readyUs > startUs)
            continue;
        if (!winner || head.frame.frame.id < winner->queue.front().frame.frame.id)
            winner = &s;
    }
    return winner;
}

int SimulatedSegment::pump()
{
    if (m_pumping)
        return 0;
    m_pumping = true;
    int delivered = 0;
    const qint64 now = nowUs();
    while (true) {
        if (!m_paced && delivered >= kUnpacedBatch)
            break;
        qint64 earliestReady = -1;
        for (const auto& s : m_ports)
            if (!s.queue.empty() && (earliestReady < 0 || s.queue.front().readyUs < earliestReady))
                earliestReady = s.queue.front().readyUs;
        if (earliestReady < 0)
            break;
        PortState* sender = nullptr;
        qint64 endUs = now;
        qint64 arbitrationUs = now;
        if (m_paced) {
            const double startUs = std::max(m_busFreeUs, double(earliestReady));
            arbitrationUs = qint64(std::ceil(startUs));
            sender = nextSender(arbitrationUs);
            const int rate = bitRateOfIndex(sender->port->bitRateIndex());
            const double end = startUs + frameDurationUs(sender->queue.front().frame.frame, rate);
            if (end > double(now))
                break;
            m_busFreeUs = end;
            endUs = qint64(end);
        } else {
            sender = nextSender(now);
        }
        BusFrame frame = sender->queue.front().frame;
        sender->queue.pop_front();
        // Ports that send the very same frame in the same arbitration send it together: on
        // a bus it is one frame (LSS slaves answering one question all at once).
        std::vector<PortState*> together;
        for (auto& s : m_ports)
            if (&s != sender && !s.queue.empty() && s.queue.front().frame.frame == frame.frame &&
                s.port->bitRateIndex() == sender->port->bitRateIndex() &&
                (!m_paced || s.queue.front().readyUs <= arbitrationUs))
                together.push_back(&s);
        m_deliveryUs = endUs;
        deliver(*sender, frame, endUs, together);
        ++delivered;
    }
    if (delivered > 0)
        for (auto& s : m_ports)
            s.port->deliveryBatchEnded();
    m_pumping = false;
    schedule();
    return delivered;
}

void SimulatedSegment::deliver(PortState& sender, BusFrame frame, qint64 endUs,
                               const std::vector<PortState*>& together)
{
    for (PortState* s : together)
        s->queue.pop_front();
    frame.frame.timeUs = quint32(quint64(endUs));
    const int rate = sender.port->bitRateIndex();
    const bool senderActive = sender.port->isActive();
    // Ports that take part in this frame; gathered first because a receiver may transmit
    // (and so touch the port list's queues) while it handles the frame.
    std::vector<SimPort*> receivers;
    for (auto& s : m_ports) {
        if (&s == &sender || !s.port->isActive() ||
            std::find(together.begin(), together.end(), &s) != together.end())
            continue;
        if (s.port->bitRateIndex() == rate) {
            receivers.push_back(s.port);
            s.receiveErrors = std::max(0, s.receiveErrors - 1);
        } else {
            s.receiveErrors = std::min(kErrorPassiveLimit, s.receiveErrors + 8);
        }
    }
    const bool acknowledged = senderActive && !receivers.empty();
    if (acknowledged) {
        sender.transmitErrors = std::max(0, sender.transmitErrors - 1);
        sender.lastTransmitFailed = false;
    } else {
        // An unacknowledged frame does not raise the count past error-passive.
        if (sender.transmitErrors < kErrorPassiveLimit)
            sender.transmitErrors += 8;
        sender.lastTransmitFailed = true;
        receivers.clear();
    }
    SimPort* senderPort = sender.port;
    senderPort->transmitted(frame, acknowledged);
    for (PortState* s : together)
        s->port->transmitted(frame, acknowledged);
    for (SimPort* port : receivers)
        port->receive(frame);
}

void SimulatedSegment::schedule()
{
    if (m_pumping)
        return;
    bool waiting = false;
    qint64 earliestReady = -1;
    for (const auto& s : m_ports) {
        if (s.queue.empty())
            continue;
        waiting = true;
        if (earliestReady < 0 || s.queue.front().readyUs < earliestReady)
            earliestReady = s.queue.front().readyUs;
    }
    if (!waiting) {
        m_timer.stop();
        return;
    }
    int delayMs = 0;
    if (m_paced) {
        const double startUs = std::max(m_busFreeUs, double(earliestReady));
        PortState* sender = nextSender(qint64(std::ceil(startUs)));
        const int rate = bitRateOfIndex(sender->port->bitRateIndex());
        const double endUs = startUs + frameDurationUs(sender->queue.front().frame.frame, rate);
        delayMs = int(std::max(0.0, std::ceil((endUs - double(nowUs())) / 1000.0)));
    }
    if (!m_timer.isActive() || m_timer.remainingTime() > delayMs)
        m_timer.start(delayMs);
}

} // namespace qorcalib

#include "channelbridge.h"

namespace qorcalib {

namespace {
// Marks the bridge's frames when the channel reports them back; not a client's, so the
// transmit budget of client sessions does not apply.
constexpr FrameOrigin kBridgeOrigin = kServiceOrigin | 1;
} // namespace

ChannelBridge::ChannelBridge(SimulatedSegment* segment, CanChannel* channel, QObject* parent)
    : QObject(parent), m_segment(segment), m_channel(channel)
{
    m_segment->attach(this);
    connect(m_channel, &CanChannel::framesReceived, this, &ChannelBridge::fromChannel);
}

ChannelBridge::~ChannelBridge()
{
    m_segment->detach(this);
}

void ChannelBridge::receive(const BusFrame& frame)
{
    // A frame the channel refuses (its device gone) is lost, as a node's frames are on a bus
    // that is down; the channel itself tells when it is gone and back.
    QString error;
    m_channel->transmit(frame.frame, kBridgeOrigin, &error);
}

void ChannelBridge::fromChannel(const QVector<BusFrame>& frames)
{
    for (const BusFrame& frame : frames)
        if (frame.origin == 0)
            m_segment->transmit(this, frame.frame, 0);
}

} // namespace qorcalib

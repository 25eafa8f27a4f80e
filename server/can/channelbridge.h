#pragma once

#include "canchannel.h"
#include "simulatedsegment.h"

#include <QObject>

namespace qorcalib {

// Joins a simulated segment to a CAN channel, so that the simulated nodes on the segment take
// part in a real or virtual bus: what they send goes out on the channel, and what other nodes
// send on the channel reaches them. The channel's own frames, which it reports once they are on
// the bus, are not passed back: every node of the segment has seen them there already.
//
// The bridge runs at the channel's bit rate: a node switched to another rate (by LSS) falls
// silent on the channel, as it would on a real bus.
class ChannelBridge : public QObject, public SimPort
{
    Q_OBJECT
public:
    ChannelBridge(SimulatedSegment* segment, CanChannel* channel, QObject* parent = nullptr);
    ~ChannelBridge() override;

    int bitRateIndex() const override { return m_channel->bitRateIndex(); }
    bool isActive() const override { return m_channel->isRunning(); }
    void receive(const BusFrame& frame) override;
    void transmitted(const BusFrame&, bool) override {}

private:
    void fromChannel(const QVector<BusFrame>& frames);

    SimulatedSegment* m_segment;
    CanChannel* m_channel;
};

} // namespace qorcalib

#pragma once

#include "canchannel.h"
#include "simulatedsegment.h"

namespace qorcalib {

// A controller of the server on a simulated segment.
class SimulatedChannel : public CanChannel, public SimPort
{
    Q_OBJECT
public:
    SimulatedChannel(SimulatedSegment* segment, int index, int bitRateIndex,
                     QObject* parent = nullptr);
    ~SimulatedChannel() override;

    QString name() const override;
    bool start(QString* error) override;
    void stop() override;
    bool isRunning() const override { return m_running; }
    bool setBitRateIndex(int index, QString* error) override;
    int bitRateIndex() const override { return m_bitRateIndex; }
    bool transmit(const CanFrame& frame, FrameOrigin origin, QString* error) override;
    quint32 status() const override;

    bool isActive() const override { return m_running; }
    void receive(const BusFrame& frame) override;
    void transmitted(const BusFrame& frame, bool acknowledged) override;
    void deliveryBatchEnded() override;

private:
    SimulatedSegment* m_segment;
    int m_index;
    int m_bitRateIndex;
    bool m_running = false;
    QVector<BusFrame> m_batch;
};

} // namespace qorcalib

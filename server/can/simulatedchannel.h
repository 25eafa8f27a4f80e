#pragma once

#include "canchannel.h"
#include "simulatedsegment.h"
#include "transmitbudget.h"

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
    bool transmitAt(const CanFrame& frame, FrameOrigin origin, qint64 dueUs,
                    QString* error) override;
    int dropSession(quint64 session) override;
    quint32 status() const override;
    ErrorCounters errorCounters() const override;

    bool isActive() const override { return m_running; }
    void receive(const BusFrame& frame) override;
    void transmitted(const BusFrame& frame, bool acknowledged) override;
    void deliveryBatchEnded() override;

    // Clients' frames take at most this share of the bus, so that however hard they send, the
    // nodes' own frames (heartbeats, emergencies) still find the bus free in time.
    static constexpr double kClientShare = 0.9;
    // Clients' frames of all sessions together wait at most this much bus time.
    static constexpr qint64 kControllerQueueUs = 2 * TransmitBudget::kPerSessionUs;

private:
    qint64 clientFrameUs(const CanFrame& frame) const;
    void resetQueue();

    SimulatedSegment* m_segment;
    int m_index;
    int m_bitRateIndex;
    bool m_running = false;
    QVector<BusFrame> m_batch;
    TransmitBudget m_budget;
    double m_clientReadyUs = 0.0; // when the next client frame may take part in arbitration
    double m_timedReadyUs = 0.0;  // the same for timed frames, which keep their own schedule
};

} // namespace qorcalib

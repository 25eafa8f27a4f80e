#pragma once

#include "dictionaryaccess.h"
#include "lssslave.h"
#include "nmtslave.h"
#include "objectdictionary.h"
#include "sdoserver.h"
#include "simulatedsegment.h"

#include <QObject>
#include <QTimer>

namespace qorcalib {

// A simulated servo drive on a simulated segment: its object dictionary, its NMT slave and
// heartbeat, its SDO server (answering while pre-operational or operational) and its LSS slave
// (its LSS address is 0x1018 sub 1..4). When it gets power (or is reset) it spends a short while
// in its boot loader before the application sends its boot-up message. A node-ID given by LSS
// is taken at the next reset; one stored by LSS also at every power-up, as long as the server
// runs.
class SimDrive : public QObject, public SimPort
{
    Q_OBJECT
public:
    static constexpr int kBootLoaderWindowMs = 200;

    SimDrive(SimulatedSegment* segment, ObjectDictionary dictionary, quint8 nodeId,
             int bitRateIndex, QObject* parent = nullptr);
    ~SimDrive() override;

    void setPowered(bool powered);
    void setBitRateIndex(int index) { m_bitRateIndex = index; }
    bool isPowered() const { return m_powered; }
    quint8 nodeId() const { return m_nmt.nodeId(); }
    const LssSlave& lss() const { return m_lss; }
    NmtSlave::State nmtState() const { return m_nmt.state(); }
    const ObjectDictionary& dictionary() const { return m_dictionary; }
    ObjectDictionary& dictionary() { return m_dictionary; }

    int bitRateIndex() const override { return m_bitRateIndex; }
    bool isActive() const override { return m_powered; }
    void receive(const BusFrame& frame) override;
    void transmitted(const BusFrame&, bool) override {}

private:
    void boot();
    void applyHeartbeatPeriod();
    void takeNodeId(quint8 nodeId);
    void rearm();

    SimulatedSegment* m_segment;
    ObjectDictionary m_dictionary;
    DictionaryAccess m_access;
    NmtSlave m_nmt;
    SdoServer m_sdo;
    LssSlave m_lss;
    int m_bitRateIndex;
    // As switched on: the node-ID and bit rate of the data sheet, or those LSS stored.
    quint8 m_startNodeId;
    int m_startBitRate;
    bool m_powered = false;
    QTimer m_bootTimer;
    QTimer m_timer;
};

} // namespace qorcalib

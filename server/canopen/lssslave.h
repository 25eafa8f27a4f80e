#pragma once

#include "lss.h"

#include <functional>

namespace qorcalib {

// The LSS slave of a node (CiA 305): its LSS address, the node-ID and bit timing it runs with
// (active) and those it has been told (pending, taken at the next reset), the switch of its bit
// rate after an activation, and Fastscan. Frames in through onFrame, time through onTimer,
// frames out through the hooks.
class LssSlave
{
public:
    enum class State
    {
        Waiting,
        Configuration
    };
    struct Hooks
    {
        std::function<void(const CanFrame&)> send;
        // The node now runs at this entry of the bit-rate list.
        std::function<void(int bitRateIndex)> switchBitRate;
        // Keeps the pending node-ID and bit timing across power cycles; false on failure.
        std::function<bool(quint8 nodeId, int bitRateIndex)> store;
        // A node that had no node-ID got one and was switched back to waiting: it goes on
        // with its NMT start-up under that node-ID.
        std::function<void(quint8 nodeId)> nodeIdTaken;
    };
    static constexpr int kBitRates = 9; // table 0: the entries of the bit-rate list

    LssSlave(lss::Address address, quint8 nodeId, int bitRateIndex, Hooks hooks);

    // True when the frame was an LSS request (answered or not).
    bool onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const { return m_switchAtUs >= 0 ? m_switchAtUs : m_silentUntilUs; }

    State state() const { return m_state; }
    quint8 activeNodeId() const { return m_activeNodeId; }
    quint8 pendingNodeId() const { return m_pendingNodeId; }
    int pendingBitRate() const { return m_pendingBitRate; }
    // A reset of the node takes the pending node-ID (NMT reset node / communication).
    void applyPendingNodeId() { m_activeNodeId = m_pendingNodeId; }
    // The node was switched on: it runs with this node-ID and bit rate, in waiting state.
    void restart(quint8 nodeId, int bitRateIndex);
    void setStoreSupported(bool supported) { m_storeSupported = supported; }

private:
    void answer(quint8 command, quint8 byte1 = 0, quint8 byte2 = 0);
    void answerValue(quint8 command, quint32 value);
    void onFastscan(const CanFrame& f);
    bool inIdentifyRanges() const;

    lss::Address m_address;
    Hooks m_hooks;
    State m_state = State::Waiting;
    quint8 m_activeNodeId;
    quint8 m_pendingNodeId;
    int m_bitRate;
    int m_pendingBitRate;
    bool m_storeSupported = true;
    // Switch state selective: how many parts of the address matched so far, in order.
    int m_selectiveStep = 0;
    // Identify remote slave: the ranges as they come in; step counts the parts received.
    std::array<quint32, 6> m_identify{};
    int m_identifyStep = 0;
    // Fastscan: the part of the address being scanned.
    int m_fastscanPos = 0;
    // Activate bit timing: when to switch, and until when to stay silent.
    qint64 m_switchAtUs = -1;
    qint64 m_silentUntilUs = -1;
    qint64 m_delayUs = 0;
};

} // namespace qorcalib

#pragma once

#include "errorkind.h"
#include "lss.h"

#include <deque>
#include <functional>

namespace qorcalib {

// The LSS master of the server (CiA 305): one service at a time. Confirmed services wait for
// their answer for the time-out and end with "no LSS slave answered" without one; the identify
// services collect answers for the time-out and report whether any came. Fastscan finds the
// unconfigured slave with the lowest LSS address bit by bit (a bit is 0 when any slave answers
// for it), so that several unconfigured slaves never answer at once, and leaves that slave in
// configuration state. Frames in through onFrame, time through onTimer, frames out through the
// send hook.
class LssMaster
{
public:
    struct Result
    {
        QString error;          // empty on success
        quint8 errorCode = 0;   // the confirmation's error code
        bool answered = false;  // identify services, Fastscan: some slave answered
        quint32 value = 0;      // inquired value, node-ID
        lss::Address address{}; // inquired or found by Fastscan
        ErrorKind kind = ErrorKind::None; // with an error
    };
    static inline const QString kNoAnswer = QStringLiteral("no LSS slave answered");

    explicit LssMaster(std::function<void(const CanFrame&)> send);
    void setTimeoutMs(int ms) { m_timeoutUs = qint64(ms) * 1000; }
    std::function<void(const Result&)> done;

    void switchGlobal(bool configuration, qint64 nowUs);
    void switchSelective(const lss::Address& address, qint64 nowUs);
    void configureNodeId(quint8 nodeId, qint64 nowUs);
    void configureBitTiming(quint8 bitRateIndex, qint64 nowUs);
    // Ends after twice the switch delay, when the slaves run at their new rate.
    void activateBitTiming(quint16 delayMs, qint64 nowUs);
    void storeConfiguration(qint64 nowUs);
    void inquireNodeId(qint64 nowUs);
    void inquireAddress(qint64 nowUs);
    void identifyRemote(const lss::Address& low, const lss::Address& high, qint64 nowUs);
    void identifyNonConfigured(qint64 nowUs);
    void fastscan(qint64 nowUs);

    bool onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const { return m_deadlineUs; }
    bool isBusy() const { return m_busy; }
    void cancel();

private:
    enum class Wait
    {
        None,
        Answer,
        Collect,
        Pause
    };
    struct Step
    {
        CanFrame frame;
        bool sendFrame = true;
        Wait wait = Wait::None;
        quint8 answer = 0; // the command awaited
        qint64 pauseUs = 0;
    };
    void start(std::deque<Step> plan, qint64 nowUs);
    void next(qint64 nowUs);
    void finish(const QString& error = {}, ErrorKind kind = ErrorKind::None);
    void onAnswer(const CanFrame& frame, qint64 nowUs);
    void fastscanStep(bool answered, qint64 nowUs);
    void probe(qint64 nowUs);

    std::function<void(const CanFrame&)> m_send;
    qint64 m_timeoutUs = 100 * 1000;
    bool m_busy = false;
    std::deque<Step> m_plan;
    Step m_current;
    qint64 m_deadlineUs = -1;
    Result m_result;
    // Fastscan: the part of the address and the bit being found, the bits found so far.
    bool m_scanning = false;
    bool m_confirming = false;
    int m_sub = 0;
    int m_bit = 0;
    quint32 m_id = 0;
};

} // namespace qorcalib

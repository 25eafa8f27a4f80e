#pragma once

#include "canmsg.h"

#include <functional>

namespace qorcalib {

// The boot catch of the drive's boot loader, a manufacturer-specific exchange on COB-IDs that
// CiA 301 leaves free:
//
//   request  0x6A0, 2 bytes: 0xB0, node-ID (0: any node)
//   answer   0x6A1, 5 bytes: node-ID, boot-loader version (32-bit, little-endian)
//
// After power-up or a reset a boot loader listens for kWindowMs before it starts the
// application. A request for its node (or for any node) in that time holds it in the boot
// loader, and it answers with its version; a held boot loader answers every further request
// again. The catcher cannot know when the drive will boot (the operator switches it on, or the
// bench cycles its supply), so it repeats its request every kRepeatMs until an answer comes or
// its time is up.
namespace boot {
constexpr quint16 kRequestId = 0x6A0;
constexpr quint16 kAnswerId = 0x6A1;
constexpr quint8 kRequestCode = 0xB0;
constexpr int kWindowMs = 200;
constexpr int kRepeatMs = 10;

CanFrame request(quint8 node);
// True when the frame is a catch request that a boot loader with this node-ID must take.
bool isRequestFor(const CanFrame& frame, quint8 nodeId);
CanFrame answer(quint8 node, quint32 version);
} // namespace boot

// The catching side. Frames in through onFrame, time through onTimer, frames out through the
// send hook; times are microseconds.
class BootCatcher
{
public:
    struct Result
    {
        bool caught = false;
        quint8 node = 0;
        quint32 version = 0;
    };

    explicit BootCatcher(std::function<void(const CanFrame&)> send);
    std::function<void(const Result&)> done;

    // Catches `node` (0: whichever boots first) within timeoutMs.
    void start(quint8 node, int timeoutMs, qint64 nowUs);
    bool onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const { return m_busy ? m_nextRequestUs : -1; }
    bool isBusy() const { return m_busy; }
    // Ends without a report.
    void cancel() { m_busy = false; }

private:
    void finish(const Result& result);

    std::function<void(const CanFrame&)> m_send;
    bool m_busy = false;
    quint8 m_node = 0;
    qint64 m_endUs = 0;
    qint64 m_nextRequestUs = 0;
};

} // namespace qorcalib

#pragma once

#include "canlink.h"

#include <QString>

#include <array>

namespace tessel {

// The CAN controllers as this program works them: start with a bit rate, stop, switch the rate,
// and the layer-setting services that find a drive's node-ID and bit rate and give it new ones.
// It keeps each controller's bit rate and the one before, which LSS Set needs: the drive still
// listens at the rate the controller ran at before the user chose the new one. Every call
// returns the server's error, empty on success; nothing here shows anything.
class ControllerSet
{
public:
    static constexpr int kControllers = 4;

    explicit ControllerSet(CanLink* link) : m_link(link) {}

    // Back to the state of a fresh start: every rate index 0.
    void reset();
    QString start(int controller, int bitRateIndex);
    QString stop(int controller);
    // Switches a running controller's rate and restarts it.
    QString switchBitRate(int controller, int bitRateIndex);
    // The rate chosen for a controller (running or not), the old one becoming the previous.
    void chooseBitRate(int controller, int bitRateIndex);
    int bitRate(int controller) const { return m_bitRate.at(size_t(controller)); }
    int previousBitRate(int controller) const { return m_previous.at(size_t(controller)); }

    // LSS Get: the node found remembers its rate as the previous one, where LSS Set talks to it.
    CanLink::LssResult lssGet(int controller);
    // LSS Set: the controller goes back to the previous rate, where the drive still listens,
    // then the waiting drive gets its node-ID and the new rate. When the switch back fails
    // nothing is configured, and `switchedBack` is false.
    struct LssSetResult
    {
        CanLink::LssResult lss;
        bool switchedBack = true;
        int listeningRate = 0; // where the controller runs now
    };
    LssSetResult lssSet(int controller, int nodeId, int newBitRateIndex);

    // SYNC on one controller at a time, from this program: a period in microseconds starts it
    // there (stopping it where it ran before), 0 stops it.
    QString produceSync(int controller, int periodUs);
    int syncController() const { return m_syncController; }

private:
    CanLink* m_link;
    std::array<int, kControllers> m_bitRate{};
    std::array<int, kControllers> m_previous{};
    int m_syncController = -1;
};

} // namespace tessel

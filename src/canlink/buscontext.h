#pragma once

namespace tessel {

// What a panel that works on the bus asks of the window around it: the controller the user
// selected and the bit rate its list shows, and the monitor's switches, which a transfer sets
// while it runs and back after it.
class BusContext
{
public:
    virtual ~BusContext() = default;
    virtual int selectedController() const = 0;
    virtual void setMonitorSwitch(bool on) = 0;
    virtual bool monitorSwitchState() const = 0;
    // The selected controller's bit-rate list: its position, and setting it without the list
    // sending it back to the server (a boot loader caught at another rate moved the controller).
    virtual int bitRateShown() const = 0;
    virtual void showBitRate(int bitRateIndex) = 0;
    // Held while a transfer's many frames (an upgrade, a vector read) would flood the trace: the
    // frames received stay out of it.
    virtual void setTraceHeld(bool held) = 0;
};

} // namespace tessel

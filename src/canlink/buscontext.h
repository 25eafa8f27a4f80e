#pragma once

namespace tessel {

// What a panel that works on the bus asks of the window around it: the controller the user
// selected and the bit rate its list shows, and the monitor's display switch, which a transfer
// sets as the monitor's box says while it runs and back on after it.
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
};

} // namespace tessel

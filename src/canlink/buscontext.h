#pragma once

namespace tessel {

// What a panel that works on the bus asks of the window around it: the controller the user
// selected, and the monitor's display switch, which a transfer sets as the monitor's box says
// while it runs and back on after it.
class BusContext
{
public:
    virtual ~BusContext() = default;
    virtual int selectedController() const = 0;
    virtual void setMonitorSwitch(bool on) = 0;
    virtual bool monitorSwitchState() const = 0;
};

} // namespace tessel

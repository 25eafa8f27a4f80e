#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace tessel {

// Where the frames sent from the monitor's tools (transmit slots, sequencer, composer) go: the
// link to the server in Tessel. Both calls answer true when the frame did not go out; the
// transmitter has then told the user why.
class FrameTransmitter
{
public:
    virtual ~FrameTransmitter() = default;
    virtual bool send(quint16 id, int length, const QByteArray& data) = 0;
    virtual bool sendRemote(quint32 id, int length) = 0;
};

} // namespace tessel

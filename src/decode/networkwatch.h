#pragma once

#include "canopendecoder.h"

#include <QList>
#include <QMap>

namespace tessel {

// The nodes of a bus as their frames show them: each node's NMT state from its heartbeats and
// boot-up (none yet for a node seen only by its SDO answers), its heartbeat period as measured, a
// heartbeat missed (none for 1.5 periods once two have come) and back, and its emergencies. Frames
// in with their time, events out; check() finds heartbeats missed by a given time, frames or not.
class NetworkWatch
{
public:
    struct Event
    {
        enum Kind
        {
            BootUp,
            StateChanged,
            HeartbeatMissed,
            HeartbeatBack,
            Emergency,
        };
        qint64 timeUs = 0;
        int node = 0;
        Kind kind = BootUp;
        QString text;
    };
    struct Node
    {
        quint8 state = 0xFF; // none seen yet
        qint64 lastUs = -1;
        qint64 periodUs = 0; // 0 until two heartbeats came
        bool missed = false;
        QString lastEmergency;
    };

    QList<Event> onFrame(quint16 id, bool remote, const QByteArray& data, qint64 timeUs);
    QList<Event> check(qint64 nowUs);
    const QMap<int, Node>& nodes() const { return m_nodes; }

private:
    CanopenDecoder m_decoder;
    QMap<int, Node> m_nodes;
};

} // namespace tessel

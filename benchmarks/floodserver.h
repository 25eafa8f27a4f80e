#pragma once

#include <QString>
#include <QThread>

#include <atomic>

namespace qorcalib {

class FloodNode;

// The server's world and host on their own thread, as they run in qorcalib-server, with the
// simulated bus unpaced and a flood node on controller 0's segment that sends numbered 8-byte
// frames (COB-ID 0x181, the frame's number little-endian in the data) when told to.
//
// Or, for a load rather than a count: `controllers` paced segments at 1000K, each with a node
// that keeps its segment full with frames of COB-ID 0x7F0 + controller, the lowest priority in
// use, so the drive and the program's own frames still win arbitration.
class FloodServer
{
public:
    FloodServer(QString socketPath, qint64 frames);
    struct Load
    {
        int controllers = 4;
    };
    FloodServer(QString socketPath, Load load);
    ~FloodServer();
    bool start();
    void flood();

private:
    QString m_socketPath;
    qint64 m_frames;
    int m_loadControllers = 0; // 0: the unpaced flood of m_frames
    QThread* m_thread = nullptr;
    std::atomic<FloodNode*> m_node{nullptr};
    std::atomic<bool> m_failed{false};
};

} // namespace qorcalib

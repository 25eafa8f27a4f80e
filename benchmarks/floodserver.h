#pragma once

#include <QString>
#include <QThread>

#include <atomic>

namespace qorcalib {

class FloodNode;

// The server's world and host on their own thread, as they run in qorcalib-server, with the
// simulated bus unpaced and a flood node on controller 0's segment that sends numbered 8-byte
// frames (COB-ID 0x181, the frame's number little-endian in the data) when told to.
class FloodServer
{
public:
    FloodServer(QString socketPath, qint64 frames);
    ~FloodServer();
    bool start();
    void flood();

private:
    QString m_socketPath;
    qint64 m_frames;
    QThread* m_thread = nullptr;
    std::atomic<FloodNode*> m_node{nullptr};
    std::atomic<bool> m_failed{false};
};

} // namespace qorcalib

#pragma once

#include "servercore.h"

#include <QString>
#include <QTemporaryDir>

#include <functional>

class QThread;

namespace qorcalib {

// A server with the simulated world in a thread of its own, listening on a private local
// socket, so that a benchmark measures the real path without a second process.
class ServerThread
{
public:
    ServerThread() = default;
    ~ServerThread();
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    // Waits until the server listens; `adjust` runs in the server's thread once its world
    // exists. False, with the reason printed, when it cannot start.
    bool start(const ServerCore::Config& config,
               const std::function<void(ServerCore*)>& adjust = {});
    QString socketPath() const { return m_dir.filePath(QStringLiteral("qorcalib")); }

private:
    QTemporaryDir m_dir;
    QThread* m_thread = nullptr;
};

} // namespace qorcalib

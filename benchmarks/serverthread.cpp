#include "serverthread.h"

#include "serverhost.h"

#include <QEventLoop>
#include <QThread>

#include <atomic>
#include <cstdio>

namespace qorcalib {

bool ServerThread::start(const ServerCore::Config& config,
                         const std::function<void(ServerCore*)>& adjust)
{
    std::atomic<bool> ready{false}, failed{false};
    const QString socket = socketPath();
    m_thread = QThread::create([&, config, adjust, socket] {
        QString error;
        auto core = ServerCore::create(config, &error);
        if (!core) {
            std::fprintf(stderr, "server: %s\n", qPrintable(error));
            failed = true;
            return;
        }
        ServerHost host(core.get());
        if (!host.listenLocal(socket, &error)) {
            std::fprintf(stderr, "server: %s\n", qPrintable(error));
            failed = true;
            return;
        }
        if (adjust)
            adjust(core.get());
        ready = true;
        QEventLoop loop;
        QObject::connect(QThread::currentThread(), &QThread::finished, &loop, &QEventLoop::quit);
        loop.exec();
    });
    m_thread->start();
    while (!ready && !failed)
        QThread::msleep(5);
    return ready;
}

ServerThread::~ServerThread()
{
    if (!m_thread)
        return;
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

} // namespace qorcalib

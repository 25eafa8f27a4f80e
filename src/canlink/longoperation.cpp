#include "longoperation.h"

#include "inputblocker.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

namespace tessel {

std::optional<OperationResult> LongOperation::run(ServerConnection* connection, const Ask& ask,
                                                  int watchdogMs, QString* error, ErrorKind* kind)
{
    // Watch for the end before asking, so that a quick answer is not missed.
    std::optional<OperationResult> finished;
    int requestId = -1;
    QList<OperationResult> early;
    QEventLoop loop;
    QTimer watchdog;
    watchdog.setSingleShot(true);
    watchdog.setInterval(watchdogMs);
    const auto doneConnection = connect(connection->notify(), &QCSNotifyReplica::OperationDone,
                                        &loop, [&](const OperationResult& r) {
                                            if (requestId < 0)
                                                early << r;
                                            else if (r.requestId() == requestId) {
                                                finished = r;
                                                loop.quit();
                                            }
                                        });
    const auto progressConnection =
        connect(connection->notify(), &QCSNotifyReplica::ProgressNotify, &watchdog,
                qOverload<>(&QTimer::start));
    connect(&watchdog, &QTimer::timeout, &loop, &QEventLoop::quit);
    connect(connection, &ServerConnection::connectionLost, &loop, &QEventLoop::quit);
    // The connection may be replaced while the wait runs; its end is noticed through the guard.
    const QPointer<ServerConnection> live(connection);

    const auto request = connection->wait(ask(), error);
    if (!request || !request->error().isEmpty()) {
        disconnect(doneConnection);
        disconnect(progressConnection);
        *kind = ErrorKind::Unreachable;
        if (request) {
            *error = request->error();
            *kind = qorcalib::errorKindOf(true, request->kind());
        }
        return std::nullopt;
    }
    requestId = request->requestId();
    emit progressChanged(0.0f);
    for (const OperationResult& r : std::as_const(early))
        if (r.requestId() == requestId)
            finished = r;
    if (!finished) {
        QTimer longWait;
        longWait.setSingleShot(true);
        bool announced = false;
        connect(&longWait, &QTimer::timeout, this, [this, &announced] {
            announced = true;
            emit longWaitStarted();
        });
        longWait.start(kLongWaitMs);
        watchdog.start();
        m_abortRequested = false;
        m_waitLoop = &loop;
        {
            InputBlocker blocker;
            loop.exec();
        }
        m_waitLoop = nullptr;
        longWait.stop();
        if (!finished && m_abortRequested && live && live->isConnected()) {
            // The server aborts the transfer on the bus and reports it at once.
            QString cancelError;
            live->wait(live->service()->CancelRequest(requestId), &cancelError);
            if (!finished) {
                watchdog.start(kAbortGraceMs);
                InputBlocker blocker;
                loop.exec();
            }
        }
        if (announced)
            emit longWaitEnded();
    }
    // The bar stays full after a transfer that worked, until the next one starts; empty after
    // one that did not.
    emit progressChanged(
        finished && finished->error().isEmpty() && finished->abortCode() == 0 ? 100.0f : 0.0f);
    // The operation's own events (its last progress comes just before its end), posted to the
    // link that owns this wait, are handled before the call returns, not during whatever the
    // caller waits for next.
    QCoreApplication::sendPostedEvents(parent(), QEvent::MetaCall);
    disconnect(doneConnection);
    disconnect(progressConnection);
    if (!finished) {
        *error = ServerConnection::kNotReachable;
        *kind = ErrorKind::Unreachable;
    }
    return finished;
}

void LongOperation::requestAbort()
{
    if (!m_waitLoop)
        return;
    m_abortRequested = true;
    m_waitLoop->quit();
}

} // namespace tessel

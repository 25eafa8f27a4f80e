#pragma once

#include "errorkind.h"
#include "serverconnection.h"

#include <QObject>

#include <functional>
#include <optional>

class QEventLoop;

namespace tessel {

using qorcalib::ErrorKind;
using qorcalib::ServerConnection;

// The wait for one long operation of the server (an SDO transfer, an LSS service, a boot
// catch): it asks, then waits for the operation's OperationDone while events run and the
// user's input is dropped. The wait ends when the server reports the end, when the server goes
// away, or when nothing at all happened (no progress either) for the watchdog's time. A wait
// longer than kLongWaitMs is announced (longWaitStarted), so that the user can abort it:
// requestAbort() has the server cancel the operation, and its end is still waited for
// kAbortGraceMs so that the result carries what the server did.
class LongOperation : public QObject
{
    Q_OBJECT
public:
    static constexpr int kLongWaitMs = 500;
    static constexpr int kAbortGraceMs = 5000;
    using Ask = std::function<QRemoteObjectPendingReply<RequestReply>()>;

    using QObject::QObject;

    // The operation's end, or nullopt with *error and *kind set when the request was refused or
    // no end came.
    std::optional<OperationResult> run(ServerConnection* connection, const Ask& ask,
                                       int watchdogMs, QString* error, ErrorKind* kind);
    bool isWaiting() const { return m_waitLoop != nullptr; }
    // Ends the running wait at once (see above); does nothing without one.
    void requestAbort();

signals:
    // 0 when the operation starts; 100 after one that worked, 0 after one that did not.
    void progressChanged(float percent);
    // The operation has waited kLongWaitMs and still waits; longWaitEnded follows it.
    void longWaitStarted();
    void longWaitEnded();

private:
    QEventLoop* m_waitLoop = nullptr;
    bool m_abortRequested = false;
};

} // namespace tessel

#pragma once

#include "canmsg.h"
#include "serverconnection.h"

#include <QtTest>

#include <functional>
#include <memory>
#include <optional>

namespace qorcalib::test {

// A qorcalib-server child process listening on a socket in a private temporary folder.
// TESSEL_SERVER_LOG=FILE sends the server's output to FILE instead of the test (with
// QT_LOGGING_RULES="qt.remoteobjects*=true" it shows what the remote objects node does).
class ServerProcess
{
public:
    ServerProcess();
    ~ServerProcess();

    // Starts the server with the extra arguments and waits until its socket answers; says why
    // in the test log when it does not.
    bool start(const QStringList& arguments = {});
    void kill();
    // Asks the server to end (SIGTERM) and tells whether it ended cleanly, with exit code 0:
    // a sanitizer's report at shut-down makes it fail.
    bool stop();
    // stop() for a server that still runs; a test's clean-up (one that was killed ended).
    bool stopIfRunning() { return m_process.state() != QProcess::Running || stop(); }
    QString socketPath() const { return m_dir.path() + QStringLiteral("/qorcalib"); }
    // The server's environment: this process's, with the user's configuration folder (where the
    // server keeps its secret for TCP clients) in the private temporary folder.
    QProcessEnvironment& environment() { return m_environment; }
    // The server may open this many files at most, as on a machine with the usual limit.
    void setFileLimit(int files) { m_fileLimit = files; }
    QString secretPath() const
    {
        return m_dir.path() + QStringLiteral("/config/Qor/qorcalib-server.secret");
    }
    // The TCP port the server reported listening on, or 0.
    quint16 waitForTcpPort(int timeoutMs = 5000);
    ServerAddress address() const
    {
        return ServerAddress::fromMachineName("localhost", socketPath());
    }
    QProcess& process() { return m_process; }
    QString output();

    // A connected session, or null with the reason in the test log.
    std::unique_ptr<ServerConnection> connect(int timeoutMs = 5000);
    // The same, attached (Advise): it gets the bus's frames.
    std::unique_ptr<ServerConnection> attach();
    // An attached session that has started controller 0 and seen the drive's heartbeat, its
    // frames recorded from before the start; both null, with the reason logged, on a failure.
    std::pair<std::unique_ptr<ServerConnection>, std::unique_ptr<class FrameRecorder>>
    attachWithRunningDrive();

private:
    bool startAndWait(const QStringList& arguments);

    QTemporaryDir m_dir;
    QProcess m_process;
    QProcessEnvironment m_environment;
    QString m_output;
    int m_fileLimit = 0;
};

// The simulated drive's EDS with a 100 ms heartbeat, so that NMT states show quickly; written
// into `dir`. Empty when it cannot be written.
QString fastHeartbeatEds(const QTemporaryDir& dir);
// The number of sessions the server reports, or -1.
int sessionCount(ServerConnection* connection);
// Resident memory of a process in KiB, from /proc; -1 when unknown.
qint64 residentKib(qint64 pid);

// What a program run to its end printed, and its exit code (-1: crashed or did not end).
struct ProgramRun
{
    int exit = -1;
    QString out;
    QString err;
};
// Runs `program` with the arguments; one that has not ended within the time is killed.
ProgramRun runProgram(const QString& program, const QStringList& arguments, int timeoutMs = 20000);

// A request that ends in OperationDone (an SDO or LSS transfer, a serial load): the server's
// refusal, or the result it ended with (none when it did not end within the time).
struct Outcome
{
    QString refused;
    std::optional<OperationResult> result;
};
Outcome finish(ServerConnection* connection,
               const std::function<QRemoteObjectPendingReply<RequestReply>()>& request,
               int timeoutMs = 30000);

// Waits for and checks a reply that must succeed.
#define CALL_OK(connection, call)                                                                  \
    do {                                                                                           \
        QString callError;                                                                         \
        const auto reply = (connection)->wait((connection)->call, &callError);                     \
        QVERIFY2(reply, qPrintable(callError));                                                    \
        QVERIFY2(reply->error().isEmpty(), qPrintable(reply->error()));                            \
    } while (0)

// Frames of FilteredRxCan events collected from a session, with helpers to wait for them.
class FrameRecorder : public QObject
{
    Q_OBJECT
public:
    struct Frame
    {
        int controller;
        CanFrame frame;
    };
    explicit FrameRecorder(ServerConnection* connection);

    QList<Frame> received;
    QList<Frame> transmitted;

    // Index of the first received frame at or after `from` with this COB-ID and data, or -1.
    int find(quint16 id, const QByteArray& data, int from = 0) const;
    bool waitFor(quint16 id, const QByteArray& data, int timeoutMs, int from = 0);
    void clear();
};

} // namespace qorcalib::test

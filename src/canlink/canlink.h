#pragma once

#include "canmsg.h"
#include "echofilter.h"
#include "errorkind.h"
#include "longoperation.h"
#include "serverconnection.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tessel {

using qorcalib::ServerConnection;

// The program's link to the CAN server: the connection made from the name the user answers at
// start-up, the calls the windows make (each returns the server's error description, empty on
// success, and keeps its kind for lastErrorKind), and the notify sink's rules. It holds no widgets;
// the main window binds to it.
class CanLink : public QObject
{
    Q_OBJECT
public:
    static constexpr int kControllerRows = 4;

    explicit CanLink(QObject* parent = nullptr);
    ~CanLink() override;

    // "NAME" or "NAME#SELECTOR". "localhost" (exactly) is the local server on localSocketPath,
    // started from serverProgram when none answers there; any other name is a server on TCP.
    bool connectToServer(const QString& answer, QString* error);
    void setLocalSocketPath(const QString& path) { m_localSocketPath = path; }
    // Whether "localhost" starts a server of its own when none answers (the default). Off, it
    // waits a moment for one that is starting there, then says that none runs.
    void setStartsServer(bool starts) { m_startsServer = starts; }
    // What a server on TCP asks for (see ServerConnection::setSecret).
    // problem: why a secret of the settings was not used, told when a server asks for one.
    void setServerSecret(const QByteArray& secret, const QString& problem = {})
    {
        m_secret = secret;
        m_secretProblem = problem;
    }
    // The server program to start for "localhost": beside this program, else on PATH.
    static QString serverProgram();
    bool isRemote() const { return m_remote; }
    QString machineName() const { return m_machine; }
    QString selector() const { return m_selector; }
    bool isConnected() const;
    ServerConnection* connection() const { return m_connection.get(); }
    // The connection for a poll that asks without waiting: connected again when it was lost,
    // but tried at most every kRetryMs; null with the reason meanwhile.
    ServerConnection* pollConnection(QString* error) { return live(error, true); }
    // The kind of the error that the last call returned; None after one that worked.
    ErrorKind lastErrorKind() const { return m_lastKind; }
    // The wait of the SDO transfers, LSS services and boot catches: its progress, its
    // announcement of a long wait and the user's abort.
    LongOperation* operation() { return &m_operation; }

    // After the server was lost, every call first connects again (starting the local server
    // when it is gone) and restores the session as it was: the sink attached, the receive-all
    // and transmit-report switches, the SDO time-out, and then whatever restoreSession sets
    // (the main window's controllers and bit rates). False, with the reason, while the server
    // cannot be reached.
    bool reconnect(QString* error);
    std::function<void()> restoreSession;

    // Bus and service calls; errors as descriptions.
    QString startController(int controller);
    QString restartController(int controller);
    QString stopController(int controller);
    QString setBitRate(int controller, int bitRateIndex);
    QString advise();
    QString unadvise();
    QString setRxAll(bool enable);
    QString setTxNotify(bool on);
    // This session's SYNC on a controller every periodUs microseconds; 0 stops it.
    QString setSyncPeriod(int controller, int periodUs);
    QString startService();
    std::optional<int> controllerCount(QString* error);
    std::optional<quint32> status(int controller, QString* error);
    // Unknown where the controller reports none, or the server could not be asked.
    qorcalib::ErrorCounters errorCounters(int controller, QString* error);
    std::optional<int> sdoTimeout(QString* error);
    struct BenchInfo
    {
        int kind = 0;
        int type = 0;
        int third = 0;
    };
    std::optional<BenchInfo> benchInfo(QString* error);
    QString showServerWindow();
    std::optional<bool> shutdownRequested(QString* error);

    // Sends a frame on a controller. The frame is remembered so that the server's report of it
    // (TxCan) is not traced a second time: the sender echoes its own frames.
    QString send(int controller, quint16 id, int length, const QByteArray& data, bool remote);
    // The server's time (its frames' time stamps: microseconds, wrapping).
    std::optional<quint32> serverTime(QString* error);
    // Queues frames on a controller, each to go out at its timeUs (server time) at the
    // earliest, remembered as send() remembers its frame. Returns how many the server took;
    // the error says why it did not take the next one.
    int sendTimed(int controller, const QVector<qorcalib::CanFrame>& frames, QString* error);
    // This session's frames still waiting on the controller are not sent; how many there were.
    std::optional<int> dropQueued(int controller, QString* error);
    // Frames the controller heard that the server cannot carry (29-bit, CAN FD); wrapping.
    std::optional<quint32> uncarried(int controller, QString* error);

    // One SDO transfer on a controller: the uploaded bytes, the abort code (0 when none) and
    // the error description (empty when the call itself worked) with its kind. The wait is a
    // LongOperation's, ended when nothing happened for the SDO time-out plus kSdoGraceMs; an
    // abort by the user has the server abort the transfer on the bus, and the result carries
    // the abort code it sent.
    struct SdoResult
    {
        QByteArray data;
        quint32 abortCode = 0;
        QString error;
        ErrorKind kind = ErrorKind::None;
    };
    static constexpr int kSdoGraceMs = 5000;
    SdoResult sdoTransfer(int controller, bool upload, int node, int index, int subIndex,
                          const QByteArray& data = {});
    // LSS on a controller. Inquire: found (error empty), the node-ID (FF when it has none yet)
    // and the bit-rate list index at which it answered. Configure: error empty on success.
    struct LssResult
    {
        QString error;
        int nodeId = -1;
        int bitRateIndex = -1;
        ErrorKind kind = ErrorKind::None;
    };
    static constexpr int kLssWatchdogMs = 30000;
    // How long the server's LSS services wait for answers (1..5000 ms; 0: the server's own);
    // kept across a reconnection. Empty, or the error.
    QString setLssTimeout(int milliseconds);
    LssResult lssInquire(int controller);
    LssResult lssConfigure(int controller, int nodeId, int bitRateIndex);

    // Boot catch on a controller at a bit-rate index: the boot loader's version (0: none
    // answered within the server's catch time) and the caught node, or the error. The wait is
    // the transfers' wait (see sdoTransfer), so the user can abort it.
    struct BootResult
    {
        QString error;
        quint32 version = 0;
        int nodeId = 0;
        ErrorKind kind = ErrorKind::None;
    };
    static constexpr int kBootWatchdogMs = 610000;
    BootResult stopOnBoot(int controller, int nodeId, int bitRateIndex);
    // The bench board's numbered command; its status, or nullopt with the error.
    std::optional<int> boardCommand(int command, int argument, QString* error);
    std::optional<int> bitRate(int controller, QString* error);
    // The bench's supplies and its fixture's I/O.
    QString setBoardParam(int parameter, double value);
    QString initIo();
    QString acquire();
    QString arm();
    QString setOutput(int channel, bool state);
    std::optional<double> readAnalog(int channel, QString* error);
    std::optional<bool> readInput(int channel, QString* error);
    // The bench's serial link: starts loading an image into the unit (its progress and end come
    // as ProgressNotify), and the link's test state (1 while loading, 3 loaded).
    QString loadSerialImage(const QByteArray& image);
    std::optional<int> testState(QString* error);
    // The production-run flag: set while a serial load is awaited; the production window's
    // completion routine clears it when a progress report finds the load ended.
    bool productionRun = false;

    // Both the service's and the bus's setter, so that both sides use it.
    QString setSdoTimeout(int milliseconds);
    // The time-out in force: one held for a piece of work, else the user's.
    int sdoTimeoutMs() const { return m_heldSdoTimeoutMs.value_or(m_sdoTimeoutMs); }
    // A time-out for one piece of work (a scan's short one), given back by releaseSdoTimeout().
    // The user's stays what a new connection is given once the work is over, even when the
    // server was lost meanwhile and the setting back could not reach it; SdoTimeoutHold does
    // both.
    QString holdSdoTimeout(int milliseconds);
    void releaseSdoTimeout();

    // ProgressNotify's rule: the fraction clamped to 0..1, as a percentage.
    static float progressPercent(double fraction);

signals:
    // The running transfer's progress; 0 again when it has ended.
    void progressChanged(float percent);
    // Every ProgressNotify of the server, as it came (the transfer-pending rule acts on it).
    void progressNotified(double fraction);
    // FilteredRxCan, records unpacked by the receiver (qorcalib::recordAt).
    void framesReceived(int controller, const QByteArray& records, int count);
    void configChanged(int controller, bool enabled, int bitRateIndex);
    // A frame the server sent for this program and that it did not echo itself.
    void frameTransmitted(int controller, quint16 id, int length, const QByteArray& data);
    // The server went away; said once until the link is back (reconnected).
    void connectionLost();
    void reconnected();

private:
    // A long operation on the live connection (see LongOperation::run); its error's kind is
    // the last one.
    std::optional<OperationResult> runOperation(const LongOperation::Ask& ask, int watchdogMs,
                                                QString* error);
    bool openSession(QString* error);
    // An answer's error, its kind kept as the last one; waitError when no answer came.
    template <typename R>
    QString replyError(const std::optional<R>& reply, const QString& waitError);
    template <typename R, typename V>
    std::optional<V> valueOf(const std::optional<R>& reply, QString* error, V (R::*get)() const);
    // The connection, connected again when it was lost; null with the reason when it cannot be.
    ServerConnection* live(QString* error, bool background = false);
    void onLost();
    bool startLocalServer(QString* error);
    void replaceConnection(std::unique_ptr<ServerConnection> next);
    void reapRetired();
    // After the connection: the session's events and its service.
    bool finishOpening(QString* error);
    bool waitForStartingServer(const qorcalib::ServerAddress& address, QString* error);
    void onTxCan(int controller, const CanMsg& msg);
    void onFilteredRxCan(int controller, const QByteArray& records, int count);
    void releaseHeldFrames();

    std::unique_ptr<ServerConnection> m_connection;
    QString m_localSocketPath;
    QString m_localSocketError; // why there is no local socket path
    bool m_startsServer = true;
    QByteArray m_secret;
    QString m_secretProblem;
    QString m_machine;
    QString m_selector;
    bool m_remote = false;
    EchoFilter m_echoes;
    // Frames that arrive while a send waits for its answer come after it on the bus; they are
    // held until the sender has echoed its frame, so the trace keeps the bus order.
    int m_holdFrames = 0;
    struct HeldBatch
    {
        int controller;
        QByteArray records;
        int count;
    };
    QList<HeldBatch> m_held;
    QString sendSdoTimeout(int milliseconds);
    int m_sdoTimeoutMs = 1000;
    std::optional<int> m_heldSdoTimeoutMs;
    int m_lssTimeoutMs = 0;
    LongOperation m_operation{this};
    ErrorKind m_lastKind = ErrorKind::None;
    // What the session had set, to be set again on a new connection.
    static constexpr int kRetryMs = 2000;
    QElapsedTimer m_lastAttempt;
    // Connections replaced while something may still refer to them (see replaceConnection).
    std::vector<std::unique_ptr<ServerConnection>> m_retired;
    QTimer m_reaper;
    bool m_everConnected = false;
    bool m_reconnecting = false;
    bool m_lostReported = false;
    bool m_advised = false;
    bool m_rxAll = false;
    bool m_txNotify = true;
};

// Holds the link's SDO time-out at `milliseconds` while it lives.
class SdoTimeoutHold
{
public:
    SdoTimeoutHold(CanLink* link, int milliseconds, QString* error) : m_link(link)
    {
        *error = link->holdSdoTimeout(milliseconds);
    }
    ~SdoTimeoutHold() { m_link->releaseSdoTimeout(); }
    SdoTimeoutHold(const SdoTimeoutHold&) = delete;
    SdoTimeoutHold& operator=(const SdoTimeoutHold&) = delete;

private:
    CanLink* m_link;
};
} // namespace tessel

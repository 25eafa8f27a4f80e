#include "canlink.h"

#include "canmsg.h"
#include "handshake.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>

#include <utility>

namespace tessel {

namespace {
constexpr int kConnectTimeoutMs = 5000;
constexpr int kServerStartTimeoutMs = 10000;
// A server started for us ends this long after its last client left.
constexpr int kStartedServerIdleSeconds = 10;
} // namespace

CanLink::CanLink(QObject* parent)
    : QObject(parent), m_localSocketPath(qorcalib::defaultLocalSocketPath(&m_localSocketError))
{
    m_reaper.setInterval(100);
    connect(&m_reaper, &QTimer::timeout, this, &CanLink::reapRetired);
    connect(&m_operation, &LongOperation::progressChanged, this, &CanLink::progressChanged);
}

CanLink::~CanLink() = default;

QString CanLink::serverProgram()
{
    const QString beside =
        QCoreApplication::applicationDirPath() + QStringLiteral("/qorcalib-server");
    if (QFileInfo(beside).isExecutable())
        return beside;
    return QStandardPaths::findExecutable(QStringLiteral("qorcalib-server"));
}

bool CanLink::isConnected() const
{
    return m_connection && m_connection->isConnected();
}

bool CanLink::connectToServer(const QString& answer, QString* error)
{
    m_lastKind = ErrorKind::Unreachable;
    const qsizetype hash = answer.indexOf(QLatin1Char('#'));
    m_machine = hash < 0 ? answer : answer.left(hash);
    m_selector = hash < 0 ? QString() : answer.mid(hash + 1);
    m_remote = m_machine != QLatin1String("localhost");
    if (!m_remote && m_localSocketPath.isEmpty()) {
        *error = QStringLiteral("%1: %2").arg(ServerConnection::kNotReachable, m_localSocketError);
        return false;
    }
    if (!openSession(error))
        return false;
    m_everConnected = true;
    return true;
}

bool CanLink::openSession(QString* error)
{
    const auto address = qorcalib::ServerAddress::fromMachineName(m_machine, m_localSocketPath);
    replaceConnection(std::make_unique<ServerConnection>());
    m_connection->setSecret(m_secret);
    if (!m_connection->open(address, kConnectTimeoutMs, error)) {
        if (m_remote && !m_secretProblem.isEmpty() && error->contains(QLatin1String("secret")))
            *error += QStringLiteral("; ") + m_secretProblem;
        if (!m_remote && !m_startsServer)
            return waitForStartingServer(address, error);
        if (m_remote || !startLocalServer(error))
            return false;
        replaceConnection(std::make_unique<ServerConnection>());
        m_connection->setSecret(m_secret);
        if (!m_connection->open(address, kConnectTimeoutMs, error))
            return false;
    }
    return finishOpening(error);
}

bool CanLink::finishOpening(QString* error)
{
    // The server's events reach the program from the event loop, never from inside the
    // remote objects node's read handler: a handler that calls the server (ProgressNotify
    // asks the bench) would otherwise wait for an answer that the busy handler cannot read.
    auto* notify = m_connection->notify();
    connect(
        notify, &QCSNotifyReplica::ProgressNotify, this,
        [this](double fraction) {
            // Progress belongs to the running transfer or serial load; a report that arrives
            // after its end would leave the bar full. The bar first: the rules that follow may
            // end the load.
            if (m_operation.isWaiting() || productionRun)
                emit progressChanged(progressPercent(fraction));
            emit progressNotified(fraction);
        },
        Qt::QueuedConnection);
    connect(notify, &QCSNotifyReplica::FilteredRxCan, this, &CanLink::onFilteredRxCan,
            Qt::QueuedConnection);
    connect(notify, &QCSNotifyReplica::ChangedConfig, this, &CanLink::configChanged,
            Qt::QueuedConnection);
    connect(notify, &QCSNotifyReplica::TxCan, this, &CanLink::onTxCan, Qt::QueuedConnection);
    connect(m_connection.get(), &ServerConnection::connectionLost, this, &CanLink::onLost);

    // The service the selector names; the objects of a session are its own, so the name it
    // answers only confirms that the service exists.
    const auto service =
        m_connection->wait(m_connection->connector()->GetService(m_selector), error);
    *error = replyError(service, *error);
    return error->isEmpty();
}

void CanLink::replaceConnection(std::unique_ptr<ServerConnection> next)
{
    // A lost connection is still on the stack while its loss is told: the message about it
    // runs an event loop of its own, in which a poll may connect again. It is kept until
    // nothing on the stack works with it any more.
    if (m_connection) {
        m_connection->disconnect(this);
        m_retired.push_back(std::move(m_connection));
        if (!m_reaper.isActive())
            m_reaper.start();
    }
    m_connection = std::move(next);
}

void CanLink::reapRetired()
{
    std::erase_if(m_retired, [](const auto& c) { return !c->inUse(); });
    if (m_retired.empty())
        m_reaper.stop();
}

void CanLink::onLost()
{
    // Said once; the link comes back at the next operation (or the next attempt of the main
    // window's timer).
    if (!m_lostReported) {
        m_lostReported = true;
        // After the waits on this connection have ended with their errors: a message about
        // the loss is not shown inside an operation that is still waiting for its answer.
        QMetaObject::invokeMethod(this, &CanLink::connectionLost, Qt::QueuedConnection);
    }
}

ServerConnection* CanLink::live(QString* error, bool background)
{
    // Every call starts here: the kind of an earlier call's error is forgotten.
    m_lastKind = ErrorKind::None;
    if (m_connection && m_connection->isConnected())
        return m_connection.get();
    m_lastKind = ErrorKind::Unreachable;
    // A poll tries again now and then, an operation the user asked for every time.
    if (!m_everConnected || m_reconnecting ||
        (background && m_lastAttempt.isValid() && m_lastAttempt.elapsed() < kRetryMs)) {
        *error = ServerConnection::kNotReachable;
        return nullptr;
    }
    m_lastAttempt.start();
    if (!reconnect(error))
        return nullptr;
    m_lastKind = ErrorKind::None;
    return m_connection.get();
}

bool CanLink::reconnect(QString* error)
{
    if (m_connection && m_connection->isConnected())
        return true;
    if (!m_everConnected || m_reconnecting) {
        *error = ServerConnection::kNotReachable;
        return false;
    }
    m_reconnecting = true;
    if (!openSession(error)) {
        replaceConnection(nullptr);
        m_reconnecting = false;
        return false;
    }
    bool ok = true;
    // The session as it was: its sink attached, its switches and its SDO time-out.
    const auto restore = [&](auto reply) {
        if (!ok)
            return;
        const auto r = m_connection->wait(reply, error);
        if (!r || !r->error().isEmpty()) {
            if (r)
                *error = r->error();
            ok = false;
        }
    };
    if (m_advised)
        restore(m_connection->bus()->Advise());
    if (m_rxAll)
        restore(m_connection->bus()->setallrxflag(-1));
    restore(m_connection->bus()->SetTxNotify(m_txNotify));
    restore(m_connection->service()->SetSdoTimeout(sdoTimeoutMs()));
    restore(m_connection->bus()->SetSdoTimeout(sdoTimeoutMs()));
    if (m_lssTimeoutMs > 0)
        restore(m_connection->service()->SetLssTimeout(m_lssTimeoutMs));
    if (ok && restoreSession)
        restoreSession();
    m_reconnecting = false;
    if (!ok) {
        replaceConnection(nullptr);
        return false;
    }
    m_lostReported = false;
    emit reconnected();
    return true;
}

bool CanLink::waitForStartingServer(const qorcalib::ServerAddress& address, QString* error)
{
    // A server that holds the socket's lock is starting (its drives boot before it listens).
    const QDeadlineTimer deadline(kServerStartTimeoutMs);
    while (qorcalib::socketLockTaken(m_localSocketPath) && !deadline.hasExpired()) {
        QThread::msleep(50);
        replaceConnection(std::make_unique<ServerConnection>());
        if (m_connection->open(address, kConnectTimeoutMs, error))
            return finishOpening(error);
    }
    replaceConnection(nullptr);
    *error = QStringLiteral("%1: no CAN server runs on %2; start one there "
                            "(qorcalib-server --socket %2), or leave the socket to the default")
                 .arg(ServerConnection::kNotReachable, m_localSocketPath);
    return false;
}

bool CanLink::startLocalServer(QString* error)
{
    const QString program = serverProgram();
    if (program.isEmpty()) {
        *error = QStringLiteral("%1: qorcalib-server is neither beside this program nor on PATH")
                     .arg(ServerConnection::kNotReachable);
        return false;
    }
    QProcess server;
    server.setProgram(program);
    server.setArguments({QStringLiteral("--socket"), m_localSocketPath,
                         QStringLiteral("--idle-exit"),
                         QString::number(kStartedServerIdleSeconds)});
    // The server outlives its starter: on the starter's output it would keep a script's pipe
    // open (x=$(tessel-cli ...) would wait for the server's end), so it writes beside its socket.
    server.setStandardInputFile(QProcess::nullDevice());
    server.setStandardOutputFile(QProcess::nullDevice());
    server.setStandardErrorFile(m_localSocketPath + QStringLiteral(".log"));
    if (!server.startDetached()) {
        *error = QStringLiteral("%1: %2 cannot be started")
                     .arg(ServerConnection::kNotReachable, program);
        return false;
    }
    const QDeadlineTimer deadline(kServerStartTimeoutMs);
    while (!deadline.hasExpired()) {
        if (QFileInfo::exists(m_localSocketPath)) {
            ServerConnection probe;
            QString ignored;
            if (probe.open(qorcalib::ServerAddress::fromMachineName(QStringLiteral("localhost"),
                                                                    m_localSocketPath),
                           1000, &ignored))
                return true;
        }
        QThread::msleep(50);
    }
    *error = QStringLiteral("%1: %2 did not start listening on %3")
                 .arg(ServerConnection::kNotReachable, program, m_localSocketPath);
    return false;
}

template <typename R>
QString CanLink::replyError(const std::optional<R>& reply, const QString& waitError)
{
    if (!reply) {
        m_lastKind = ErrorKind::Unreachable;
        return waitError;
    }
    m_lastKind = qorcalib::errorKindOf(!reply->error().isEmpty(), reply->kind());
    return reply->error();
}

#define LINK_CALL(expression)                                                                      \
    do {                                                                                           \
        QString callError;                                                                         \
        ServerConnection* c = live(&callError);                                                    \
        if (!c)                                                                                    \
            return callError;                                                                      \
        const auto reply = c->wait(c->expression, &callError);                                     \
        return replyError(reply, callError);                                                       \
    } while (0)

QString CanLink::startController(int controller)
{
    LINK_CALL(bus()->StartController(controller));
}

QString CanLink::restartController(int controller)
{
    LINK_CALL(bus()->RestartController(controller));
}

QString CanLink::stopController(int controller)
{
    LINK_CALL(bus()->StopController(controller));
}

QString CanLink::setBitRate(int controller, int bitRateIndex)
{
    LINK_CALL(bus()->SetBitRate(controller, bitRateIndex));
}

QString CanLink::advise()
{
    m_advised = true;
    LINK_CALL(bus()->Advise());
}

QString CanLink::unadvise()
{
    m_advised = false;
    LINK_CALL(bus()->Unadvise());
}

QString CanLink::setRxAll(bool enable)
{
    m_rxAll = enable;
    // -1 receives every frame; 32767 (deliberately not 0) goes back to the filtered stream.
    LINK_CALL(bus()->setallrxflag(enable ? -1 : 32767));
}

QString CanLink::setSyncPeriod(int controller, int periodUs)
{
    LINK_CALL(bus()->SetSyncPeriod(controller, periodUs));
}

QString CanLink::setTxNotify(bool on)
{
    m_txNotify = on;
    LINK_CALL(bus()->SetTxNotify(on));
}

QString CanLink::startService()
{
    LINK_CALL(service()->Start(0));
}

QString CanLink::showServerWindow()
{
    LINK_CALL(serverWindow()->Show());
}

QString CanLink::setBoardParam(int parameter, double value)
{
    LINK_CALL(benchBoard()->SetBoardParam(parameter, value));
}

QString CanLink::initIo()
{
    LINK_CALL(benchIo()->InitIo());
}

QString CanLink::acquire()
{
    LINK_CALL(benchIo()->Acquire());
}

QString CanLink::arm()
{
    LINK_CALL(benchIo()->Arm());
}

QString CanLink::setOutput(int channel, bool state)
{
    LINK_CALL(benchIo()->SetOutput(channel, state));
}

QString CanLink::setLssTimeout(int milliseconds)
{
    const QString error = [&]() -> QString { LINK_CALL(service()->SetLssTimeout(milliseconds)); }();
    if (error.isEmpty())
        m_lssTimeoutMs = milliseconds;
    return error;
}

#undef LINK_CALL

template <typename R, typename V>
std::optional<V> CanLink::valueOf(const std::optional<R>& reply, QString* error,
                                  V (R::*get)() const)
{
    const QString failure = replyError(reply, *error);
    if (!reply || !failure.isEmpty()) {
        *error = failure;
        return std::nullopt;
    }
    return ((*reply).*get)();
}

std::optional<int> CanLink::controllerCount(QString* error)
{
    ServerConnection* c = live(error);
    if (!c)
        return std::nullopt;
    return valueOf(c->wait(c->bus()->GetControllerCount(), error), error, &IntReply::value);
}

std::optional<quint32> CanLink::status(int controller, QString* error)
{
    ServerConnection* c = live(error, true);
    if (!c)
        return std::nullopt;
    const auto value =
        valueOf(c->wait(c->bus()->GetStatus(controller), error), error, &IntReply::value);
    return value ? std::optional<quint32>(quint32(*value)) : std::nullopt;
}

qorcalib::ErrorCounters CanLink::errorCounters(int controller, QString* error)
{
    ServerConnection* c = live(error, true);
    if (!c)
        return {};
    const auto value =
        valueOf(c->wait(c->bus()->GetErrorCounters(controller), error), error, &IntReply::value);
    return value ? qorcalib::ErrorCounters::unpacked(*value) : qorcalib::ErrorCounters();
}

std::optional<int> CanLink::sdoTimeout(QString* error)
{
    ServerConnection* c = live(error);
    if (!c)
        return std::nullopt;
    const auto value =
        valueOf(c->wait(c->service()->GetSdoTimeOut(), error), error, &IntReply::value);
    if (value)
        m_sdoTimeoutMs = *value;
    return value;
}

QString CanLink::sendSdoTimeout(int milliseconds)
{
    QString error;
    if (!live(&error))
        return error;
    const auto service =
        m_connection->wait(m_connection->service()->SetSdoTimeout(milliseconds), &error);
    error = replyError(service, error);
    if (!error.isEmpty())
        return error;
    const auto bus = m_connection->wait(m_connection->bus()->SetSdoTimeout(milliseconds), &error);
    return replyError(bus, error);
}

QString CanLink::setSdoTimeout(int milliseconds)
{
    const QString error = sendSdoTimeout(milliseconds);
    if (error.isEmpty())
        m_sdoTimeoutMs = milliseconds;
    return error;
}

QString CanLink::holdSdoTimeout(int milliseconds)
{
    const QString error = sendSdoTimeout(milliseconds);
    if (error.isEmpty())
        m_heldSdoTimeoutMs = milliseconds;
    return error;
}

void CanLink::releaseSdoTimeout()
{
    if (!m_heldSdoTimeoutMs)
        return;
    m_heldSdoTimeoutMs.reset();
    // A server that cannot be reached now gets the user's value when the link connects again.
    if (m_connection)
        sendSdoTimeout(m_sdoTimeoutMs);
}

CanLink::SdoResult CanLink::sdoTransfer(int controller, bool upload, int node, int index,
                                        int subIndex, const QByteArray& data)
{
    SdoResult result;
    const auto finished = runOperation(
        [&]() {
            return upload ? m_connection->service()->SdoUpload(controller, node, index, subIndex)
                          : m_connection->service()->SdoDownload(controller, node, index, subIndex,
                                                                 data);
        },
        sdoTimeoutMs() + kSdoGraceMs, &result.error);
    result.kind = m_lastKind;
    if (!finished)
        return result;
    result.data = finished->data();
    result.abortCode = finished->abortCode();
    result.error = finished->error();
    return result;
}

CanLink::LssResult CanLink::lssInquire(int controller)
{
    LssResult result;
    const auto finished =
        runOperation([&]() { return m_connection->service()->LssInquire(controller); },
                     kLssWatchdogMs, &result.error);
    result.kind = m_lastKind;
    if (!finished)
        return result;
    result.error = finished->error();
    if (result.error.isEmpty() && finished->data().size() == 1) {
        result.nodeId = finished->value();
        result.bitRateIndex = quint8(finished->data()[0]);
    }
    return result;
}

CanLink::LssResult CanLink::lssConfigure(int controller, int nodeId, int bitRateIndex)
{
    LssResult result;
    const auto finished = runOperation(
        [&]() { return m_connection->service()->LssConfigure(controller, nodeId, bitRateIndex); },
        kLssWatchdogMs, &result.error);
    result.kind = m_lastKind;
    if (finished) {
        result.error = finished->error();
        result.nodeId = finished->value();
        result.bitRateIndex = bitRateIndex;
    }
    return result;
}

std::optional<OperationResult> CanLink::runOperation(const LongOperation::Ask& ask, int watchdogMs,
                                                     QString* error)
{
    if (!live(error))
        return std::nullopt;
    auto finished = m_operation.run(m_connection.get(), ask, watchdogMs, error, &m_lastKind);
    if (finished)
        m_lastKind = qorcalib::errorKindOf(
            !finished->error().isEmpty() || finished->abortCode() != 0, finished->kind());
    return finished;
}

std::optional<CanLink::BenchInfo> CanLink::benchInfo(QString* error)
{
    if (!live(error))
        return std::nullopt;
    const auto reply = m_connection->wait(m_connection->benchBoard()->GetBenchInfo(), error);
    const QString failure = replyError(reply, *error);
    if (!failure.isEmpty())
        return (*error = failure, std::nullopt);
    return BenchInfo{reply->benchKind(), reply->type(), reply->third()};
}

CanLink::BootResult CanLink::stopOnBoot(int controller, int nodeId, int bitRateIndex)
{
    BootResult result;
    const auto finished = runOperation(
        [&]() { return m_connection->service()->StopOnBoot(controller, nodeId, bitRateIndex); },
        kBootWatchdogMs, &result.error);
    result.kind = m_lastKind;
    if (finished) {
        result.error = finished->error();
        result.version = quint32(finished->value());
        result.nodeId = finished->data().isEmpty() ? 0 : quint8(finished->data()[0]);
    }
    return result;
}

std::optional<int> CanLink::boardCommand(int command, int argument, QString* error)
{
    if (!live(error))
        return std::nullopt;
    return valueOf(
        m_connection->wait(m_connection->benchBoard()->BoardCommand(command, argument), error),
        error, &IntReply::value);
}

QString CanLink::loadSerialImage(const QByteArray& image)
{
    QString error;
    ServerConnection* c = live(&error);
    if (!c)
        return error;
    const auto reply = c->wait(c->benchBoard()->LoadSerialImage(image), &error, 30000);
    return replyError(reply, error);
}

std::optional<int> CanLink::testState(QString* error)
{
    ServerConnection* c = live(error);
    if (!c)
        return std::nullopt;
    return valueOf(c->wait(c->benchBoard()->GetTestState(), error), error, &IntReply::value);
}

std::optional<double> CanLink::readAnalog(int channel, QString* error)
{
    ServerConnection* c = live(error);
    if (!c)
        return std::nullopt;
    return valueOf(c->wait(c->benchIo()->ReadAnalog(channel), error), error, &DoubleReply::value);
}

std::optional<bool> CanLink::readInput(int channel, QString* error)
{
    ServerConnection* c = live(error);
    if (!c)
        return std::nullopt;
    return valueOf(c->wait(c->benchIo()->ReadInput(channel), error), error, &BoolReply::value);
}

std::optional<int> CanLink::bitRate(int controller, QString* error)
{
    if (!live(error))
        return std::nullopt;
    return valueOf(m_connection->wait(m_connection->bus()->GetBitRate(controller), error), error,
                   &IntReply::value);
}

std::optional<bool> CanLink::shutdownRequested(QString* error)
{
    if (!live(error))
        return std::nullopt;
    const auto value =
        valueOf(m_connection->wait(m_connection->testConnector()->GetShutdownRequest(), error),
                error, &IntReply::value);
    return value ? std::optional<bool>(*value == -1) : std::nullopt;
}

QString CanLink::send(int controller, quint16 id, int length, const QByteArray& data, bool remote)
{
    QString error;
    if (!live(&error))
        return error;
    const CanMsg msg(id, length, remote ? QByteArray() : data.left(8));
    // Remembered before the call: a busy client may read the server's report of the frame in
    // the same go as the answer, before the call returns.
    QByteArray padded = remote ? QByteArray() : data.left(qBound(0, length, 8));
    if (!remote)
        padded.append(qBound(0, length, 8) - padded.size(), '\0');
    m_echoes.remember(EchoFilter::Kind::Now, controller, id, padded);
    ++m_holdFrames;
    const auto reply =
        remote ? m_connection->wait(m_connection->bus()->SendRemote(controller, msg), &error)
               : m_connection->wait(m_connection->bus()->Send(controller, msg, 0), &error);
    if (--m_holdFrames == 0 && !m_held.isEmpty())
        QMetaObject::invokeMethod(this, &CanLink::releaseHeldFrames, Qt::QueuedConnection);
    if (reply && reply->error().isEmpty()) {
        m_echoes.bound(EchoFilter::Kind::Now);
        return {};
    }
    // A frame refused is never reported: it was the last one remembered.
    m_echoes.forgetLast(EchoFilter::Kind::Now);
    return replyError(reply, error);
}

std::optional<quint32> CanLink::serverTime(QString* error)
{
    if (!live(error))
        return std::nullopt;
    const auto value =
        valueOf(m_connection->wait(m_connection->bus()->GetTime(), error), error, &IntReply::value);
    return value ? std::optional<quint32>(quint32(*value)) : std::nullopt;
}

std::optional<int> CanLink::dropQueued(int controller, QString* error)
{
    // Frames taken back are never reported sent.
    m_echoes.forgetTimed(controller);
    if (!live(error))
        return std::nullopt;
    return valueOf(m_connection->wait(m_connection->bus()->DropQueued(controller), error), error,
                   &IntReply::value);
}

std::optional<quint32> CanLink::uncarried(int controller, QString* error)
{
    if (!live(error))
        return std::nullopt;
    const auto value =
        valueOf(m_connection->wait(m_connection->bus()->GetUncarried(controller), error), error,
                &IntReply::value);
    return value ? std::optional<quint32>(quint32(*value)) : std::nullopt;
}

int CanLink::sendTimed(int controller, const QVector<qorcalib::CanFrame>& frames, QString* error)
{
    if (!live(error))
        return 0;
    QByteArray records;
    records.reserve(frames.size() * qorcalib::kRecordSize);
    for (qorcalib::CanFrame frame : frames) {
        if (frame.remote)
            frame.data = {};
        qorcalib::appendRecord(records, frame); // marks a remote request in its Id
    }
    // Remembered before the call, as send() does.
    for (const qorcalib::CanFrame& f : frames)
        m_echoes.remember(
            EchoFilter::Kind::Timed, controller, f.id,
            QByteArray(reinterpret_cast<const char*>(f.data.data()), f.remote ? 0 : f.len));
    const auto reply = m_connection->wait(
        m_connection->bus()->SendTimed(controller, records, int(frames.size())), error);
    const int taken = reply ? qBound(0, reply->value(), int(frames.size())) : 0;
    // The frames refused are the last ones remembered.
    m_echoes.forgetLast(EchoFilter::Kind::Timed, frames.size() - taken);
    m_echoes.bound(EchoFilter::Kind::Timed);
    *error = replyError(reply, *error);
    return taken;
}

void CanLink::onFilteredRxCan(int controller, const QByteArray& records, int count)
{
    // Once frames are held, later ones wait behind them.
    if (m_holdFrames > 0 || !m_held.isEmpty()) {
        m_held.append({controller, records, count});
        return;
    }
    emit framesReceived(controller, records, count);
}

void CanLink::releaseHeldFrames()
{
    if (m_holdFrames > 0)
        return; // another send waits: its own release comes later
    const QList<HeldBatch> held = std::exchange(m_held, {});
    for (const HeldBatch& batch : held)
        emit framesReceived(batch.controller, batch.records, batch.count);
}

void CanLink::onTxCan(int controller, const CanMsg& msg)
{
    if (!m_echoes.takeOwn(controller, msg.Id(), msg.Data()))
        emit frameTransmitted(controller, quint16(msg.Id()), msg.Len(), msg.Data());
}

float CanLink::progressPercent(double fraction)
{
    const double clamped = fraction < 0.0 ? 0.0 : fraction > 1.0 ? 1.0 : fraction;
    return float(clamped * 100.0);
}

} // namespace tessel

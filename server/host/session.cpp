#include "session.h"

#include "bootrunner.h"
#include "lssrunner.h"
#include "rep_qorcalib_source.h"
#include "sdorunner.h"
#include "serverclock.h"
#include "servercore.h"
#include "serverhost.h"
#include "syncproducer.h"

#include <QElapsedTimer>
#include <QIODevice>
#include <QRemoteObjectHost>

namespace qorcalib {

namespace {

// At most 20 progress messages a second go to the client, the first and the last of a transfer
// always: a segmented transfer would otherwise send one a segment, thousands a second, each
// costing the server and the client more than the segment itself.
constexpr int kProgressIntervalMs = 50;
std::function<void(double)> coalescedProgress(QCSNotifySource* notify)
{
    auto last = std::make_shared<QElapsedTimer>();
    return [notify, last](double fraction) {
        if (last->isValid() && last->elapsed() < kProgressIntervalMs && fraction < 1.0)
            return;
        last->start();
        emit notify->ProgressNotify(fraction);
    };
}

// The number an answer carries for its error: 0 when there is none; a failure whose kind its
// source left open is a plain failure.
int kindOf(const QString& error, ErrorKind kind)
{
    if (error.isEmpty())
        return 0;
    return int(kind == ErrorKind::None ? ErrorKind::Failed : kind);
}

// A controller's call failed: naming a controller that does not exist is the request's fault,
// any other failure is the bus's.
int controllerKind(const ServerCore* core, int controller, const QString& error)
{
    return kindOf(error, core->checkController(controller).isEmpty() ? ErrorKind::BusError
                                                                     : ErrorKind::BadArgument);
}

// A started controller refuses a client's frame only while its queue is full.
ErrorKind transmitKind(const CanChannel* channel)
{
    return channel->isRunning() ? ErrorKind::Busy : ErrorKind::BusError;
}

// A client's text quoted in an error description is cut to a readable length.
QString clipped(const QString& text)
{
    constexpr int kQuoted = 40;
    return text.size() <= kQuoted ? text : text.left(kQuoted) + QStringLiteral("...");
}

CanMsg toCanMsg(const CanFrame& frame)
{
    return CanMsg(frame.id, frame.len,
                  QByteArray(reinterpret_cast<const char*>(frame.data.data()), frame.len));
}

// Checks a frame record from a client; empty when it can be sent.
QString frameFromMsg(const CanMsg& msg, bool remote, CanFrame* frame)
{
    if (msg.Id() < 0 || msg.Id() > 0x7FF)
        return QStringLiteral("COB-ID 0x%1 out of range (0..0x7FF)")
            .arg(QString::number(msg.Id(), 16).toUpper());
    if (msg.Len() < 0 || msg.Len() > 8)
        return QStringLiteral("frame length %1 out of range (0..8)").arg(msg.Len());
    if (msg.Data().size() > 8)
        return QStringLiteral("frame data of %1 bytes (at most 8)").arg(msg.Data().size());
    frame->id = quint16(msg.Id());
    frame->len = quint8(msg.Len());
    frame->remote = remote;
    // The record always carries 8 data bytes; bytes the client left out are zero.
    if (!remote)
        for (int i = 0; i < frame->len && i < msg.Data().size(); ++i)
            frame->data[i] = quint8(msg.Data()[i]);
    return {};
}

// A timed frame record: kRemoteRecordFlag added to Id marks a remote request.
QString frameFromRecord(const QByteArray& records, int index, CanFrame* frame)
{
    const CanFrame record = recordAt(records, index);
    // A negative Id stays negative, for frameFromMsg to refuse.
    const int id = record.remote ? record.id : qint16(record.id);
    const CanMsg msg(id, recordLength(records, index),
                     record.remote
                         ? QByteArray()
                         : QByteArray(reinterpret_cast<const char*>(record.data.data()), 8));
    const QString error = frameFromMsg(msg, record.remote, frame);
    frame->timeUs = record.timeUs;
    return error;
}

class CanConnector : public QCSCanConnectorSource
{
public:
    explicit CanConnector(Session* s) : m_s(s) {}
    ObjectReply GetService(QString selector) override
    {
        if (!selector.isEmpty() && selector.compare(QLatin1String("CANopen"), Qt::CaseInsensitive))
            return ObjectReply({},
                               QStringLiteral("unknown service '%1' (this server offers "
                                              "\"CANopen\")")
                                   .arg(clipped(selector)),
                               int(ErrorKind::NotSupported));
        return ObjectReply(m_s->objectName("QCSService"), {}, 0);
    }
    ObjectReply GetBus(QString) override { return ObjectReply(m_s->objectName("QCSBus"), {}, 0); }

private:
    Session* m_s;
};

class Bus : public QCSBusSource
{
public:
    explicit Bus(Session* s) : m_s(s) {}
    Reply StartController(int controller) override
    {
        QString error;
        m_s->core()->startController(controller, &error);
        return Reply(error, controllerKind(m_s->core(), controller, error));
    }
    Reply RestartController(int controller) override
    {
        QString error;
        m_s->core()->restartController(controller, &error);
        return Reply(error, controllerKind(m_s->core(), controller, error));
    }
    Reply StopController(int controller) override
    {
        QString error;
        m_s->core()->stopController(controller, &error);
        return Reply(error, controllerKind(m_s->core(), controller, error));
    }
    Reply Advise() override
    {
        m_s->attached = true;
        return Reply({}, 0);
    }
    Reply Unadvise() override
    {
        m_s->attached = false;
        return Reply({}, 0);
    }
    Reply setallrxflag(int flag) override
    {
        if (flag == -1)
            m_s->receiveAll = true;
        else if (flag == 32767)
            m_s->receiveAll = false;
        else
            return Reply(
                QStringLiteral("receive-all flag %1 not understood (-1 or 32767)").arg(flag),
                int(ErrorKind::BadArgument));
        return Reply({}, 0);
    }
    Reply Send(int controller, CanMsg msg, int) override { return send(controller, msg, false); }
    Reply SendRemote(int controller, CanMsg msg) override { return send(controller, msg, true); }
    IntReply GetTime() override { return IntReply(int(quint32(quint64(serverTimeUs()))), {}, 0); }
    IntReply SendTimed(int controller, QByteArray frames, int count) override
    {
        QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        if (count < 0 || count > recordCount(frames))
            return IntReply(0,
                            QStringLiteral("%1 frame records announced, %2 bytes sent")
                                .arg(count)
                                .arg(frames.size()),
                            int(ErrorKind::BadArgument));
        CanChannel* channel = m_s->core()->channel(controller);
        const qint64 now = serverTimeUs();
        for (int i = 0; i < count; ++i) {
            CanFrame frame;
            error = frameFromRecord(frames, i, &frame);
            // Record times are the server's wrapping microseconds: the one meant is the one
            // nearest to now.
            const qint64 due = now + qint32(frame.timeUs - quint32(quint64(now)));
            if (error.isEmpty())
                error = leadError(due, now);
            if (!error.isEmpty())
                return IntReply(i, error, int(ErrorKind::BadArgument));
            if (!channel->transmitAt(frame, m_s->id(), due, &error))
                return IntReply(i, error, int(transmitKind(channel)));
        }
        return IntReply(count, {}, 0);
    }
    IntReply DropQueued(int controller) override
    {
        const QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        return IntReply(m_s->core()->channel(controller)->dropSession(m_s->id()), {}, 0);
    }
    IntReply GetUncarried(int controller) override
    {
        const QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        return IntReply(int(m_s->core()->channel(controller)->uncarried()), {}, 0);
    }
    IntReply GetStatus(int controller) override
    {
        const QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        return IntReply(
            int(m_s->core()->channel(controller)->status() | m_s->takeOverrun(controller)), {}, 0);
    }
    IntReply GetErrorCounters(int controller) override
    {
        const QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        return IntReply(m_s->core()->channel(controller)->errorCounters().packed(), {}, 0);
    }
    IntReply GetBitRate(int controller) override
    {
        const QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return IntReply(0, error, int(ErrorKind::BadArgument));
        return IntReply(m_s->core()->channel(controller)->bitRateIndex(), {}, 0);
    }
    Reply SetBitRate(int controller, int bitRateIndex) override
    {
        QString error;
        m_s->core()->setBitRate(controller, bitRateIndex, &error);
        if (!error.isEmpty() && bitRateOfIndex(bitRateIndex) < 0)
            return Reply(error, int(ErrorKind::BadArgument));
        return Reply(error, controllerKind(m_s->core(), controller, error));
    }
    IntReply GetControllerCount() override
    {
        return IntReply(m_s->core()->controllerCount(), {}, 0);
    }
    Reply SetSdoTimeout(int milliseconds) override;
    Reply SetTxNotify(bool on) override
    {
        m_s->txNotify = on;
        return Reply({}, 0);
    }
    Reply SetSyncPeriod(int controller, int periodUs) override
    {
        QString error = m_s->core()->checkController(controller);
        if (!error.isEmpty())
            return Reply(error, int(ErrorKind::BadArgument));
        SyncProducer* sync = m_s->core()->syncProducer(controller);
        error = sync->start(m_s->id(), periodUs);
        if (error.isEmpty())
            return Reply({}, 0);
        const bool badPeriod = periodUs != 0 && (periodUs < SyncProducer::kMinPeriodUs ||
                                                 periodUs > SyncProducer::kMaxPeriodUs);
        const bool taken = sync->owner() != 0 && sync->owner() != m_s->id();
        return Reply(error, int(badPeriod ? ErrorKind::BadArgument
                                : taken   ? ErrorKind::Busy
                                          : ErrorKind::BusError));
    }

private:
    Reply send(int controller, const CanMsg& msg, bool remote)
    {
        QString error = m_s->core()->checkController(controller);
        CanFrame frame;
        if (error.isEmpty())
            error = frameFromMsg(msg, remote, &frame);
        if (!error.isEmpty())
            return Reply(error, int(ErrorKind::BadArgument));
        CanChannel* channel = m_s->core()->channel(controller);
        channel->transmit(frame, m_s->id(), &error);
        return Reply(error, kindOf(error, transmitKind(channel)));
    }
    Session* m_s;
};

QString setSdoTimeout(Session* s, int milliseconds)
{
    if (milliseconds < 1 || milliseconds > 65535)
        return QStringLiteral("SDO time-out %1 ms out of range (1..65535)").arg(milliseconds);
    s->sdoTimeoutMs = milliseconds;
    return {};
}

Reply Bus::SetSdoTimeout(int milliseconds)
{
    const QString error = setSdoTimeout(m_s, milliseconds);
    return Reply(error, kindOf(error, ErrorKind::BadArgument));
}

class Notify : public QCSNotifySource
{
public:
    using QCSNotifySource::QCSNotifySource;
};

class Service : public QCSServiceSource
{
public:
    explicit Service(Session* s) : m_s(s) {}
    Reply Start(int) override
    {
        m_s->serviceStarted = true;
        return Reply({}, 0);
    }
    IntReply GetSdoTimeOut() override { return IntReply(m_s->sdoTimeoutMs, {}, 0); }
    Reply SetSdoTimeout(int milliseconds) override
    {
        const QString error = setSdoTimeout(m_s, milliseconds);
        return Reply(error, kindOf(error, ErrorKind::BadArgument));
    }
    RequestReply SdoDownload(int channel, int node, int index, int subIndex,
                             QByteArray data) override
    {
        return m_s->startSdo(false, channel, node, index, subIndex, data);
    }
    RequestReply SdoUpload(int channel, int node, int index, int subIndex) override
    {
        return m_s->startSdo(true, channel, node, index, subIndex, {});
    }
    RequestReply StopOnBoot(int channel, int node, int bitRateIndex) override
    {
        return m_s->startBootCatch(channel, node, bitRateIndex);
    }
    RequestReply LssInquire(int channel) override { return m_s->startLss(channel, false, 0, 0); }
    RequestReply LssConfigure(int channel, int nodeId, int bitRateIndex) override
    {
        return m_s->startLss(channel, true, nodeId, bitRateIndex);
    }
    Reply CancelRequest(int requestId) override
    {
        const QString error = m_s->cancelRequest(requestId);
        return Reply(error, kindOf(error, ErrorKind::BadArgument));
    }
    Reply SetLssTimeout(int milliseconds) override
    {
        if (milliseconds < LssRunner::kMinTimeoutMs || milliseconds > LssRunner::kMaxTimeoutMs)
            return Reply(QStringLiteral("LSS time-out %1 ms out of range (%2..%3)")
                             .arg(milliseconds)
                             .arg(LssRunner::kMinTimeoutMs)
                             .arg(LssRunner::kMaxTimeoutMs),
                         int(ErrorKind::BadArgument));
        m_s->lssTimeoutMs = milliseconds;
        return Reply({}, 0);
    }

private:
    Session* m_s;
};

class TestConnector : public QCSTestConnectorSource
{
public:
    explicit TestConnector(Session* s) : m_s(s) {}
    ObjectReply GetBenchBoard() override
    {
        return ObjectReply(m_s->objectName("QCSBenchBoard"), {}, 0);
    }
    ObjectReply GetBenchIo() override { return ObjectReply(m_s->objectName("QCSBenchIo"), {}, 0); }
    ObjectReply GetServerWindow() override
    {
        return ObjectReply(m_s->objectName("QCSServerWindow"), {}, 0);
    }
    IntReply GetShutdownRequest() override
    {
        return IntReply(m_s->core()->shutdownRequested() ? -1 : 0, {}, 0);
    }

private:
    Session* m_s;
};

class BenchBoard : public QCSBenchBoardSource
{
public:
    explicit BenchBoard(Session* s) : m_s(s) {}
    IntReply BoardCommand(int command, int argument) override
    {
        int status = 0;
        QString error;
        m_s->core()->bench()->command(command, argument, &status, &error, m_s->id());
        return IntReply(status, error, kindOf(error, ErrorKind::BadArgument));
    }
    Reply SetBoardParam(int parameter, double value) override
    {
        QString error;
        m_s->core()->bench()->setParameter(parameter, value, &error);
        return Reply(error, kindOf(error, ErrorKind::BadArgument));
    }
    BenchInfoReply GetBenchInfo() override
    {
        const SimBench* bench = m_s->core()->bench();
        return BenchInfoReply(bench->identity().kind, bench->identity().type, bench->boardVersion(),
                              {}, 0);
    }
    RequestReply LoadSerialImage(QByteArray image) override { return m_s->startSerialLoad(image); }
    IntReply GetTestState() override { return IntReply(m_s->core()->bench()->testState(), {}, 0); }

private:
    Session* m_s;
};

class BenchIo : public QCSBenchIoSource
{
public:
    explicit BenchIo(Session* s) : m_s(s) {}
    Reply InitIo() override
    {
        m_s->core()->bench()->initIo();
        return Reply({}, 0);
    }
    Reply Acquire() override
    {
        m_s->core()->bench()->acquire();
        return Reply({}, 0);
    }
    Reply Arm() override
    {
        m_s->core()->bench()->arm();
        return Reply({}, 0);
    }
    DoubleReply ReadAnalog(int channel) override
    {
        double value = 0.0;
        QString error;
        m_s->core()->bench()->readAnalog(channel, &value, &error);
        return DoubleReply(value, error, kindOf(error, ErrorKind::BadArgument));
    }
    BoolReply ReadInput(int channel) override
    {
        bool state = false;
        QString error;
        m_s->core()->bench()->readInput(channel, &state, &error);
        return BoolReply(state, error, kindOf(error, ErrorKind::BadArgument));
    }
    Reply SetOutput(int channel, bool state) override
    {
        QString error;
        m_s->core()->bench()->setOutput(channel, state, &error);
        return Reply(error, kindOf(error, ErrorKind::BadArgument));
    }

private:
    Session* m_s;
};

class ServerWindow : public QCSServerWindowSource
{
public:
    explicit ServerWindow(Session* s) : m_s(s) {}
    Reply Show() override
    {
        emit m_s->core()->showWindowRequested();
        return Reply({}, 0);
    }
    TextListReply Sessions() override
    {
        return TextListReply(m_s->host()->sessionDescriptions(), {}, 0);
    }

private:
    Session* m_s;
};

} // namespace

struct Session::Objects
{
    explicit Objects(Session* s)
        : connector(s), bus(s), service(s), test(s), board(s), io(s), window(s)
    {
    }
    CanConnector connector;
    Bus bus;
    Notify notify;
    Service service;
    TestConnector test;
    BenchBoard board;
    BenchIo io;
    ServerWindow window;

    QList<QPair<QObject*, const char*>> all()
    {
        return {{&connector, "QCSCanConnector"},
                {&bus, "QCSBus"},
                {&notify, "QCSNotify"},
                {&service, "QCSService"},
                {&test, "QCSTestConnector"},
                {&board, "QCSBenchBoard"},
                {&io, "QCSBenchIo"},
                {&window, "QCSServerWindow"}};
    }
};

Session::Session(ServerCore* core, ServerHost* host, quint64 id, QString peer,
                 QIODevice* connection)
    : m_core(core), m_host(host), m_id(id), m_peer(std::move(peer)), m_connection(connection),
      m_overrun(core->controllerCount(), false), m_pending(core->controllerCount()),
      m_objects(std::make_unique<Objects>(this))
{
    m_flushTimer.setSingleShot(true);
    connect(&m_flushTimer, &QTimer::timeout, this, &Session::flushFrames);
    lssTimeoutMs = core->lssTimeoutMs();
    for (int c = 0; c < core->controllerCount(); ++c)
        connect(core->channel(c), &CanChannel::framesReceived, this,
                [this, c](const QVector<BusFrame>& frames) { onFrames(c, frames); });
    connect(core, &ServerCore::configChanged, &m_objects->notify,
            [this](int controller, bool enabled, int rate) {
                flushFrames();
                if (attached)
                    emit m_objects->notify.ChangedConfig(controller, enabled, rate);
            });
}

Session::~Session()
{
    for (int c = 0; c < m_core->controllerCount(); ++c) {
        m_core->sdoRunner(c)->dropSession(m_id);
        m_core->lssRunner(c)->dropSession(m_id);
        m_core->bootRunner(c)->dropSession(m_id);
        m_core->syncProducer(c)->dropSession(m_id);
        m_core->channel(c)->dropSession(m_id);
    }
    m_core->bench()->serialLoader()->dropOwner(m_id);
    m_core->bench()->dropSession(m_id);
    if (m_node)
        for (const auto& [object, name] : m_objects->all())
            m_node->disableRemoting(object);
}

bool Session::enableRemoting(QRemoteObjectHostBase* node, QString* error)
{
    m_node = node;
    for (const auto& [object, className] : m_objects->all()) {
        if (!node->enableRemoting(object, objectName(className))) {
            *error = QStringLiteral("cannot offer %1 (remote objects error %2)")
                         .arg(objectName(className))
                         .arg(int(node->lastError()));
            return false;
        }
    }
    return true;
}

QString Session::name() const
{
    return QStringLiteral("session-%1").arg(m_id);
}

QString Session::objectName(const char* className) const
{
    return name() + QLatin1Char('/') + QLatin1String(className);
}

QString Session::description() const
{
    return QStringLiteral("%1 %2%3%4")
        .arg(name(), m_peer, attached ? QStringLiteral(" attached") : QString(),
             receiveAll ? QStringLiteral(" receive-all") : QString());
}

RequestReply Session::startSdo(bool upload, int channel, int node, int index, int subIndex,
                               const QByteArray& data)
{
    QString error = m_core->checkController(channel);
    if (error.isEmpty() && (node < 1 || node > 127))
        error = QStringLiteral("node-ID %1 out of range (1..127)").arg(node);
    if (error.isEmpty() && (index < 0 || index > 0xFFFF))
        error = QStringLiteral("index %1 out of range (0..0xFFFF)").arg(index);
    if (error.isEmpty() && (subIndex < 0 || subIndex > 0xFF))
        error = QStringLiteral("sub-index %1 out of range (0..0xFF)").arg(subIndex);
    if (error.isEmpty() && data.size() > kMaxSdoBytes)
        error =
            QStringLiteral("%1 bytes to download, at most %2").arg(data.size()).arg(kMaxSdoBytes);
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::BadArgument));
    const int requestId = m_nextRequest++;
    SdoRunner::Request request;
    request.session = m_id;
    request.requestId = requestId;
    request.upload = upload;
    request.node = quint8(node);
    request.index = quint16(index);
    request.subIndex = quint8(subIndex);
    request.data = data;
    request.timeoutMs = sdoTimeoutMs;
    auto* notify = &m_objects->notify;
    request.progress = coalescedProgress(notify);
    request.done = [this, notify, requestId](const SdoClient::Result& result) {
        flushFrames();
        // The end of a transfer brings the progress back to 0, as the client's bar and a bench
        // waiting for the transfer's end expect.
        emit notify->ProgressNotify(0.0);
        emit notify->OperationDone(OperationResult(requestId, result.data, 0, result.abortCode,
                                                   result.error, int(result.kind)));
    };
    // The request itself was checked above: the runner refuses it only for its full queue.
    error = m_core->sdoRunner(channel)->submit(std::move(request));
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::Busy));
    return RequestReply(requestId, {}, 0);
}

RequestReply Session::startLss(int channel, bool configure, int nodeId, int bitRateIndex)
{
    QString error = m_core->checkController(channel);
    if (error.isEmpty() && configure && (nodeId < 1 || nodeId > 127))
        error = QStringLiteral("node-ID 0x%1 out of range (1..0x7F)")
                    .arg(QString::number(nodeId, 16).toUpper());
    if (error.isEmpty() && configure && bitRateOfIndex(bitRateIndex) < 0)
        error = QStringLiteral("bit-rate index %1 out of range (0..%2)")
                    .arg(bitRateIndex)
                    .arg(kBitRateCount - 1);
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::BadArgument));
    const int requestId = m_nextRequest++;
    LssRunner::Request request;
    request.session = m_id;
    request.requestId = requestId;
    request.configure = configure;
    request.nodeId = quint8(nodeId);
    request.bitRateIndex = bitRateIndex;
    request.timeoutMs = lssTimeoutMs;
    auto* notify = &m_objects->notify;
    request.done = [this, notify, requestId, configure](const LssRunner::Outcome& o) {
        flushFrames();
        const QByteArray rate =
            configure || !o.error.isEmpty() ? QByteArray() : QByteArray(1, char(o.bitRateIndex));
        emit notify->OperationDone(
            OperationResult(requestId, rate, o.nodeId, 0, o.error, kindOf(o.error, o.kind)));
    };
    error = m_core->lssRunner(channel)->submit(std::move(request));
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::Busy));
    return RequestReply(requestId, {}, 0);
}

RequestReply Session::startSerialLoad(const QByteArray& image)
{
    const int requestId = m_nextRequest++;
    auto* notify = &m_objects->notify;
    const QString error = m_core->bench()->serialLoader()->start(
        image, m_id, coalescedProgress(notify), [notify, requestId](int state) {
            // The state has changed when the progress comes back to 0: a client waiting for the
            // load reads it then.
            emit notify->ProgressNotify(0.0);
            emit notify->OperationDone(OperationResult(requestId, {}, state, 0, {}, 0));
        });
    if (!error.isEmpty())
        return RequestReply(0, error,
                            int(m_core->bench()->serialLoader()->busy() ? ErrorKind::Busy
                                                                        : ErrorKind::BadArgument));
    return RequestReply(requestId, {}, 0);
}

RequestReply Session::startBootCatch(int channel, int node, int bitRateIndex)
{
    QString error = m_core->checkController(channel);
    if (error.isEmpty() && (node < 0 || node > 127))
        error = QStringLiteral("node-ID %1 out of range (0..127; 0: any node)").arg(node);
    if (error.isEmpty() && bitRateOfIndex(bitRateIndex) < 0)
        error = QStringLiteral("bit-rate index %1 out of range (0..%2)")
                    .arg(bitRateIndex)
                    .arg(kBitRateCount - 1);
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::BadArgument));
    const int requestId = m_nextRequest++;
    BootRunner::Request request;
    request.session = m_id;
    request.requestId = requestId;
    request.node = quint8(node);
    request.bitRateIndex = bitRateIndex;
    auto* notify = &m_objects->notify;
    request.done = [this, notify, requestId](const BootRunner::Outcome& o) {
        flushFrames();
        const QByteArray node = o.error.isEmpty() ? QByteArray(1, char(o.node)) : QByteArray();
        emit notify->OperationDone(OperationResult(requestId, node, qint32(o.version), 0, o.error,
                                                   kindOf(o.error, o.kind)));
    };
    error = m_core->bootRunner(channel)->submit(std::move(request));
    if (!error.isEmpty())
        return RequestReply(0, error, int(ErrorKind::Busy));
    return RequestReply(requestId, {}, 0);
}

QString Session::cancelRequest(int requestId)
{
    for (int c = 0; c < m_core->controllerCount(); ++c)
        if (m_core->sdoRunner(c)->cancel(m_id, requestId) ||
            m_core->lssRunner(c)->cancel(m_id, requestId) ||
            m_core->bootRunner(c)->cancel(m_id, requestId))
            return {};
    return QStringLiteral("request %1 is not running in this session").arg(requestId);
}

quint32 Session::takeOverrun(int controller)
{
    if (controller < 0 || controller >= m_overrun.size() || !m_overrun[controller])
        return 0;
    m_overrun[controller] = false;
    return StatusOverrun;
}

void Session::onFrames(int controller, const QVector<BusFrame>& frames)
{
    if (!attached)
        return;
    const SdoRunner* runner = m_core->sdoRunner(controller);
    QByteArray& records = m_pending[controller];
    for (const BusFrame& f : frames) {
        if (f.origin != 0 && sessionOfOrigin(f.origin) == m_id) {
            if (txNotify) {
                flushFrames();
                emit m_objects->notify.TxCan(controller, toCanMsg(f.frame));
            }
            continue;
        }
        // Another session's SDO or LSS exchange is its own business unless this one asked for
        // every frame of the bus.
        if (!receiveAll) {
            if (f.origin & kServiceOrigin)
                continue;
            const quint64 owner = runner->ownerOf(f.frame);
            if (owner != 0 && owner != m_id)
                continue;
        }
        appendRecord(records, f.frame);
    }
    if (records.isEmpty())
        return;
    if (recordCount(records) >= kFrameFlushRecords) {
        flushFrames();
        return;
    }
    if (m_flushTimer.isActive())
        return;
    const qint64 since = m_sinceFlush.isValid() ? m_sinceFlush.elapsed() : kFrameFlushMs;
    if (since >= kFrameFlushMs)
        flushFrames();
    else
        m_flushTimer.start(int(kFrameFlushMs - since));
}

void Session::flushFrames()
{
    m_flushTimer.stop();
    const bool backlogged =
        m_connection && m_connection->bytesToWrite() > m_host->gateLimits().backlog;
    bool sent = false;
    for (int c = 0; c < m_pending.size(); ++c) {
        if (m_pending[c].isEmpty())
            continue;
        QByteArray records;
        records.swap(m_pending[c]);
        if (!attached)
            continue;
        if (backlogged) {
            m_overrun[c] = true;
            continue;
        }
        emit m_objects->notify.FilteredRxCan(c, records, recordCount(records));
        sent = true;
    }
    if (sent)
        m_sinceFlush.start();
}

} // namespace qorcalib

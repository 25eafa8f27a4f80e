#include "serverprocess.h"

#include <QtNetwork>
#include <QtTest>

#include <csignal>

#include <sys/prctl.h>
#include <sys/resource.h>

namespace qorcalib::test {

QString fastHeartbeatEds(const QTemporaryDir& dir)
{
    QFile in(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"));
    if (!in.open(QIODevice::ReadOnly))
        return {};
    QByteArray text = in.readAll();
    const qsizetype value = text.indexOf("DefaultValue=1000", text.indexOf("[1017]"));
    if (value < 0)
        return {};
    text.replace(value, qsizetype(strlen("DefaultValue=1000")), "DefaultValue=100");
    const QString path = dir.filePath(QStringLiteral("fast.eds"));
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly))
        return {};
    out.write(text);
    return path;
}

ProgramRun runProgram(const QString& program, const QStringList& arguments, int timeoutMs)
{
    QProcess p;
    p.start(program, arguments);
    ProgramRun r;
    if (!p.waitForFinished(timeoutMs)) {
        p.kill();
        p.waitForFinished();
        r.err = QStringLiteral("did not end");
        return r;
    }
    r.exit = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

int sessionCount(ServerConnection* connection)
{
    QString error;
    const auto reply = connection->wait(connection->serverWindow()->Sessions(), &error);
    return reply ? int(reply->value().size()) : -1;
}

qint64 residentKib(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    return -1;
}

ServerProcess::ServerProcess() : m_environment(QProcessEnvironment::systemEnvironment())
{
    m_environment.insert(QStringLiteral("XDG_CONFIG_HOME"),
                         m_dir.path() + QStringLiteral("/config"));
}

quint16 ServerProcess::waitForTcpPort(int timeoutMs)
{
    const QRegularExpression port(QStringLiteral("TCP port (\\d+)"));
    const QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        m_process.waitForReadyRead(50);
        m_output += QString::fromLocal8Bit(m_process.readAll());
        const auto match = port.match(m_output);
        if (match.hasMatch())
            return quint16(match.captured(1).toUInt());
    }
    return 0;
}

ServerProcess::~ServerProcess()
{
    kill();
}

bool ServerProcess::start(const QStringList& arguments)
{
    if (startAndWait(arguments))
        return true;
    qWarning("server did not start: %s", qPrintable(output()));
    return false;
}

bool ServerProcess::startAndWait(const QStringList& arguments)
{
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.setProcessEnvironment(m_environment);
    m_process.setChildProcessModifier([limit = rlim_t(m_fileLimit)] {
        // A test program killed by its time-out runs no destructor: its server goes with it
        // instead of serving on for nobody.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (limit > 0) {
            const rlimit files{limit, limit};
            ::setrlimit(RLIMIT_NOFILE, &files);
        }
    });
    if (qEnvironmentVariableIsSet("TESSEL_SERVER_LOG"))
        m_process.setStandardOutputFile(qEnvironmentVariable("TESSEL_SERVER_LOG"));
    m_process.start(QStringLiteral(QORCALIB_SERVER_PATH),
                    QStringList{QStringLiteral("--socket"), socketPath()} + arguments);
    if (!m_process.waitForStarted(5000))
        return false;
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        if (m_process.state() == QProcess::NotRunning)
            return false;
        QLocalSocket probe;
        probe.connectToServer(socketPath());
        if (probe.waitForConnected(100))
            return true;
        QTest::qWait(20);
    }
    return false;
}

void ServerProcess::kill()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

bool ServerProcess::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return false;
    m_process.terminate();
    if (!m_process.waitForFinished(10000)) {
        kill();
        return false;
    }
    return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
}

QString ServerProcess::output()
{
    QString text = m_output + QString::fromLocal8Bit(m_process.readAll());
    m_output.clear();
    return text;
}

std::unique_ptr<ServerConnection> ServerProcess::connect(int timeoutMs)
{
    auto connection = std::make_unique<ServerConnection>();
    QString error;
    if (!connection->open(address(), timeoutMs, &error)) {
        qWarning("connect: %s", qPrintable(error));
        return nullptr;
    }
    return connection;
}

std::unique_ptr<ServerConnection> ServerProcess::attach()
{
    auto connection = connect();
    if (!connection)
        return nullptr;
    QString error;
    const auto reply = connection->wait(connection->bus()->Advise(), &error);
    if (!reply || !reply->error().isEmpty()) {
        qWarning("attach: %s", qPrintable(reply ? reply->error() : error));
        return nullptr;
    }
    return connection;
}

Outcome finish(ServerConnection* connection,
               const std::function<QRemoteObjectPendingReply<RequestReply>()>& request,
               int timeoutMs)
{
    Outcome out;
    QSignalSpy done(connection->notify(), &QCSNotifyReplica::OperationDone);
    const auto reply = connection->wait(request(), &out.refused);
    if (reply && !reply->error().isEmpty())
        out.refused = reply->error();
    if (!out.refused.isEmpty() || !reply)
        return out;
    // The end may already have come while the request was answered.
    (void)QTest::qWaitFor(
        [&] {
            for (const auto& args : done)
                if (args.at(0).value<OperationResult>().requestId() == reply->requestId())
                    out.result = args.at(0).value<OperationResult>();
            return out.result.has_value();
        },
        timeoutMs);
    return out;
}

std::pair<std::unique_ptr<ServerConnection>, std::unique_ptr<FrameRecorder>>
ServerProcess::attachWithRunningDrive()
{
    auto connection = attach();
    if (!connection)
        return {};
    auto frames = std::make_unique<FrameRecorder>(connection.get());
    QString error;
    const auto started = connection->wait(connection->bus()->StartController(0), &error);
    if (!started || !started->error().isEmpty()) {
        qWarning("start: %s", qPrintable(started ? started->error() : error));
        return {};
    }
    if (!frames->waitFor(0x701, QByteArray::fromHex("7f"), 3000)) {
        qWarning("no heartbeat from the drive");
        return {};
    }
    return {std::move(connection), std::move(frames)};
}

FrameRecorder::FrameRecorder(ServerConnection* connection)
{
    QObject::connect(connection->notify(), &QCSNotifyReplica::FilteredRxCan, this,
                     [this](int controller, const QByteArray& frames, int count) {
                         QCOMPARE(recordCount(frames), count);
                         for (int i = 0; i < count; ++i)
                             received.append({controller, recordAt(frames, i)});
                     });
    QObject::connect(connection->notify(), &QCSNotifyReplica::TxCan, this,
                     [this](int controller, const CanMsg& msg) {
                         CanFrame f;
                         f.id = quint16(msg.Id());
                         f.len = quint8(msg.Len());
                         for (int i = 0; i < f.len && i < msg.Data().size(); ++i)
                             f.data[i] = quint8(msg.Data()[i]);
                         transmitted.append({controller, f});
                     });
}

int FrameRecorder::find(quint16 id, const QByteArray& data, int from) const
{
    for (int i = from; i < received.size(); ++i) {
        const CanFrame& f = received[i].frame;
        if (f.id == id && f.len == data.size() &&
            std::equal(data.begin(), data.end(), f.data.begin(),
                       [](char a, quint8 b) { return quint8(a) == b; }))
            return i;
    }
    return -1;
}

bool FrameRecorder::waitFor(quint16 id, const QByteArray& data, int timeoutMs, int from)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (find(id, data, from) < 0) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(10);
    }
    return true;
}

void FrameRecorder::clear()
{
    received.clear();
    transmitted.clear();
}

} // namespace qorcalib::test

#include "tesselcli.h"

#include "canmsg.h"
#include "canopendecoder.h"
#include "cliparse.h"
#include "edsreader.h"
#include "firmwareupgrade.h"
#include "imagefile.h"
#include "machinesettings.h"
#include "networkwatch.h"
#include "nodescan.h"
#include "numbers.h"
#include "sampling.h"
#include "sdoabort.h"
#include "tracefile.h"
#include "tracereplay.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>
#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace tessel::cli {

using qorcalib::bitRateIndexOfText;
using qorcalib::bitRateText;
using qorcalib::CanFrame;
using qorcalib::recordAt;

namespace {
std::atomic<bool> interrupted{false};

const QString kUsage = QStringLiteral(
    "Usage: tessel-cli [OPTIONS] COMMAND ...\n"
    "The CAN server's services for line scripts: object-dictionary entries, NMT, frames, LSS\n"
    "and firmware, through the same server as Tessel.\n"
    "\n"
    "Commands:\n"
    "  sdo read NODE,INDEX[,SUB] [--type T]          read an object-dictionary entry\n"
    "  sdo write NODE,INDEX[,SUB] VALUE [--type T]   write one (T: hex, u8, u16, u32, i8, i16,\n"
    "                                                i32, str; hex by default)\n"
    "  sdo read|write NODE,INDEX[,SUB] --file FILE   the entry's bytes to or from a file\n"
    "  nmt start|stop|preop|reset|resetcomm [NODE] [--wait]\n"
    "                                                NMT command (NODE hexadecimal; 0: all);\n"
    "                                                --wait: until the node confirms\n"
    "  send ID#DATA                                  send a frame (candump syntax; ID#R remote)\n"
    "  dump [--count N] [--seconds S] [--filter F]   received frames as a candump log\n"
    "  lss get | lss set NODE RATE [--lss-timeout MS]\n"
    "                                                find the node / give a waiting one its\n"
    "                                                node-ID and rate\n"
    "  upgrade FILE [--node N]                       load firmware through the boot loader\n"
    "  bitrate CONTROLLER RATE                       switch a controller's bit rate\n"
    "  sample NODE,INDEX[,SUB] --period MS [--count N | --seconds S] [--type T]\n"
    "                                                an entry read every MS ms, as CSV lines\n"
    "  sync PERIOD_MS [--seconds S]                  send SYNC every PERIOD_MS until S seconds\n"
    "                                                or an interrupt\n"
    "  monitor [--decode] [--node N] [--service S]   received frames, decoded, of a node or a\n"
    "          [--eds FILE]                          service; names and PDO values by the EDS\n"
    "  scan [--wait MS]                              the nodes that answer SDO, with device\n"
    "                                                type and identity\n"
    "  watch heartbeat|emcy [--seconds S]            nodes' state changes, boot-ups, missed\n"
    "                                                heartbeats / emergencies as they come\n"
    "  decode [--eds FILE] TRACE                     a candump log's, ASC file's or .trc trace's\n"
    "                                                frames with their CANopen meaning (no\n"
    "                                                server needed)\n"
    "  replay FILE [canN=C ...] [--speed X] [--loop N] [--ignore-times]\n"
    "                                                send a candump log or ASC file's frames\n"
    "                                                with their recorded spacing\n"
    "COMMAND --help tells more.\n"
    "\n"
    "Options:\n"
    "  --server NAME     \"localhost\" (the local server, started when none runs; the default),\n"
    "                    HOST or HOST:PORT on TCP; \"#SELECTOR\" after it chooses the service\n"
    "  --socket PATH     the local server's socket, when not the default one; no server is\n"
    "                    started there: one that is starting is waited for\n"
    "  --controller N    the server's controller (default: 0)\n"
    "  --timeout MS      the SDO time-out (default: the server's)\n"
    "  --json            results as one JSON object per line\n"
    "  --version         the version\n"
    "\n"
    "Exit status:\n"
    "  0  done\n"
    "  1  SDO abort (the abort code and its meaning on standard error)\n"
    "  2  bad arguments\n"
    "  3  server not reachable\n"
    "  4  the service failed (no answer, bus or file error)\n"
    "  5  not supported by this server\n");

// Runs `onInterrupt` from the event loop once the user interrupts (SIGINT) or the system asks
// the program to end (SIGTERM): the handler itself only sets a flag.
class InterruptWatch
{
public:
    InterruptWatch(QObject* context, std::function<void()> onInterrupt)
    {
        std::signal(SIGINT, [](int) { interrupted = true; });
        std::signal(SIGTERM, [](int) { interrupted = true; });
        QObject::connect(&m_timer, &QTimer::timeout, context, [onInterrupt] {
            if (interrupted)
                onInterrupt();
        });
        m_timer.start(50);
    }

private:
    QTimer m_timer;
};

// An entry's bytes from a file; a file past what one transfer carries (kMaxSdoBytes) is
// refused before it is read.

std::optional<QByteArray> readDataFile(const QString& name, QString* error)
{
    QFile file(name);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(name, file.errorString());
        return std::nullopt;
    }
    if (file.size() > qorcalib::kMaxSdoBytes) {
        *error = QStringLiteral("%1: %2 bytes, more than one transfer carries (at most %3)")
                     .arg(name)
                     .arg(file.size())
                     .arg(qorcalib::kMaxSdoBytes);
        return std::nullopt;
    }
    return file.readAll();
}

bool writeDataFile(const QString& name, const QByteArray& data, QString* error)
{
    QSaveFile file(name);
    if (file.open(QIODevice::WriteOnly) && file.write(data) == data.size() && file.commit())
        return true;
    *error = QStringLiteral("%1: %2").arg(name, file.errorString());
    return false;
}

// A long transfer's progress on standard error while it lasts, when that is a terminal: a
// script's log gets none, and a transfer over within half a second shows none.
class TerminalProgress
{
public:
    static constexpr int kQuietMs = 500;

    TerminalProgress(CanLink& link, QTextStream& err) : m_err(err)
    {
        if (!isatty(STDERR_FILENO))
            return;
        m_clock.start();
        m_connection = QObject::connect(&link, &CanLink::progressChanged, [this](float percent) {
            // Written when the whole percent changes: a terminal need not take thousands.
            if (m_clock.elapsed() < kQuietMs || percent <= 0.0f || int(percent) == m_shown)
                return;
            m_shown = int(percent);
            m_err << QStringLiteral("\r%1 %").arg(m_shown, 3);
            m_err.flush();
        });
    }
    ~TerminalProgress() { end(false); }
    // The transfer is over; a complete one shows 100 % even when its last report was less.
    void end(bool complete)
    {
        QObject::disconnect(m_connection);
        if (m_shown < 0)
            return;
        if (complete && m_shown < 100)
            m_err << "\r100 %";
        m_err << "\n";
        m_err.flush();
        m_shown = -1;
    }

private:
    QTextStream& m_err;
    QElapsedTimer m_clock;
    QMetaObject::Connection m_connection;
    int m_shown = -1; // the percent shown last
};
} // namespace

TesselCli::TesselCli(QTextStream& out, QTextStream& err) : m_out(out), m_err(err) {}

int TesselCli::bad(const QString& message)
{
    return fail(kBadArguments, message);
}

int TesselCli::fail(int code, const QString& message)
{
    m_err << "tessel-cli: " << message << "\n";
    m_err.flush();
    // With --json every outcome is one object on standard output, a failure too: what the
    // command had found (m_context), the error and the exit status.
    if (m_json) {
        QJsonObject json = m_context;
        json.insert(QStringLiteral("error"), message);
        json.insert(QStringLiteral("exit"), code);
        print(json, {});
    }
    return code;
}

int TesselCli::linkFailure(const QString& error)
{
    return linkFailure(error, m_link.lastErrorKind());
}

int TesselCli::linkFailure(const QString& error, qorcalib::ErrorKind kind)
{
    return fail(exitStatusOf(kind), error);
}

bool TesselCli::wantsHelp(const QStringList& args, const QString& help)
{
    if (!args.contains(QStringLiteral("--help")) && !args.contains(QStringLiteral("-h")))
        return false;
    m_out << help;
    m_out.flush();
    return true;
}

QString TesselCli::takeOption(QStringList* args, const QString& name, const QString& fallback)
{
    const qsizetype at = args->indexOf(name);
    if (at < 0 || at + 1 >= args->size())
        return fallback;
    const QString value = args->at(at + 1);
    args->remove(at, 2);
    return value;
}

void TesselCli::print(const QJsonObject& json, const QString& text)
{
    if (m_json)
        m_out << QJsonDocument(json).toJson(QJsonDocument::Compact) << "\n";
    else
        m_out << text << "\n";
    m_out.flush();
    outputWritten();
}

int TesselCli::run(const QStringList& args)
{
    const int code = runCommand(args);
    if (m_outputFailed.isEmpty() || code != kOk)
        return code;
    // The result did not reach standard output: the script must not take it for done.
    return fail(kFailed, QStringLiteral("cannot write the result: %1").arg(m_outputFailed));
}

bool TesselCli::outputWritten()
{
    if (m_out.status() == QTextStream::Ok && !std::ferror(stdout))
        return true;
    const int error = errno;
    // A reader that went away (dump | head) ends the program as it ends any other: quietly,
    // by the signal, which the network library has turned off for its sockets.
    struct stat st;
    if (error == EPIPE || (::fstat(STDOUT_FILENO, &st) == 0 && S_ISFIFO(st.st_mode))) {
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    }
    if (m_outputFailed.isEmpty())
        m_outputFailed = QString::fromLocal8Bit(std::strerror(error ? error : EIO));
    return false;
}

int TesselCli::runCommand(QStringList args)
{
    m_json = args.removeAll(QStringLiteral("--json")) > 0;
    m_server = takeOption(&args, QStringLiteral("--server"),
                          readRemoteServer(QStringLiteral("localhost")));
    const QString socket = takeOption(&args, QStringLiteral("--socket"));
    // A socket named on purpose is that server's: none of our own is started there.
    if (!socket.isEmpty()) {
        m_link.setLocalSocketPath(socket);
        m_link.setStartsServer(false);
    }
    bool ok = true;
    m_controller =
        takeOption(&args, QStringLiteral("--controller"), QStringLiteral("0")).toInt(&ok);
    if (!ok || m_controller < 0)
        return bad(QStringLiteral("--controller takes a controller number (0, 1, ...)"));
    // 0: the server's own; the server takes 1 to 65535.
    m_timeoutMs = takeOption(&args, QStringLiteral("--timeout"), QStringLiteral("0")).toInt(&ok);
    if (!ok || m_timeoutMs < 0 || m_timeoutMs > 65535)
        return bad(QStringLiteral("--timeout takes milliseconds, 1 to 65535"));
    if (!args.isEmpty() && args.first() == QLatin1String("--version")) {
        m_out << "tessel-cli " << PROJECT_VERSION << "\n";
        return kOk;
    }
    if (args.isEmpty() || args.first() == QLatin1String("--help") ||
        args.first() == QLatin1String("-h")) {
        (args.isEmpty() ? m_err : m_out) << kUsage;
        return args.isEmpty() ? kBadArguments : kOk;
    }
    const QString command = args.takeFirst();
    m_context = {{QStringLiteral("command"), command}};
    if (command == QLatin1String("sdo"))
        return sdo(args);
    if (command == QLatin1String("nmt"))
        return nmt(args);
    if (command == QLatin1String("send"))
        return send(args);
    if (command == QLatin1String("dump"))
        return dump(args);
    if (command == QLatin1String("lss"))
        return lss(args);
    if (command == QLatin1String("upgrade"))
        return upgrade(args);
    if (command == QLatin1String("replay"))
        return replay(args);
    if (command == QLatin1String("bitrate"))
        return bitrate(args);
    if (command == QLatin1String("sync"))
        return sync(args);
    if (command == QLatin1String("sample"))
        return sample(args);
    if (command == QLatin1String("decode"))
        return decode(args);
    if (command == QLatin1String("monitor"))
        return monitor(args);
    if (command == QLatin1String("scan"))
        return scan(args);
    if (command == QLatin1String("watch"))
        return watch(args);
    return bad(QStringLiteral("unknown command '%1' (see --help)").arg(command));
}

int TesselCli::connectAndStart()
{
    QString secretProblem;
    const QByteArray secret = readServerSecret(&secretProblem);
    m_link.setServerSecret(secret, secretProblem);
    QString error;
    if (!m_link.connectToServer(m_server, &error))
        return linkFailure(error);
    if (m_controller >= CanLink::kControllerRows)
        return bad(QStringLiteral("controller %1 does not exist").arg(m_controller));
    const auto count = m_link.controllerCount(&error);
    if (!count)
        return linkFailure(error);
    if (m_controller >= *count)
        return bad(QStringLiteral("controller %1 does not exist: the server has %2")
                       .arg(m_controller)
                       .arg(*count));
    if (const QString e = m_link.startController(m_controller); !e.isEmpty())
        return linkFailure(e);
    if (const QString e = m_link.startService(); !e.isEmpty())
        return linkFailure(e);
    if (m_timeoutMs > 0)
        if (const QString e = m_link.setSdoTimeout(m_timeoutMs); !e.isEmpty())
            return linkFailure(e);
    if (!m_link.sdoTimeout(&error))
        return linkFailure(error);
    return -1;
}

int TesselCli::sendFrame(quint16 id, const QByteArray& data, bool remote, int length)
{
    if (const QString e = m_link.send(m_controller, id, length, data, remote); !e.isEmpty())
        return linkFailure(e);
    QString error;
    if (waitUntilSent(kSendWaitMs, &error))
        return -1;
    if (!error.isEmpty())
        return linkFailure(error);
    // The controller's counters say whether nobody acknowledged it or the bus is in trouble.
    const qorcalib::ErrorCounters counters = m_link.errorCounters(m_controller, &error);
    return fail(kFailed,
                QStringLiteral("the frame did not go out on controller %1 (no other node on the "
                               "bus?%2)")
                    .arg(m_controller)
                    .arg(counters.known() ? QStringLiteral(" transmit error counter %1, receive "
                                                           "error counter %2")
                                                .arg(counters.transmit)
                                                .arg(counters.receive)
                                          : QString()));
}

bool TesselCli::waitUntilSent(int timeoutMs, QString* error)
{
    // A sent frame waits in the session's queue until the bus takes it, and a session that
    // ends drops what it has waiting: the program ends only once its frames are out.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        const auto status = m_link.status(m_controller, error);
        if (!status)
            return false;
        if (!(*status & qorcalib::StatusTransmitPending))
            return true;
        QThread::msleep(2);
    }
    return false;
}

int TesselCli::sdo(QStringList args)
{
    if (wantsHelp(args, QStringLiteral(
                            "Usage: tessel-cli sdo read NODE,INDEX[,SUB] [--type T | --file FILE]\n"
                            "       tessel-cli sdo write NODE,INDEX[,SUB] VALUE [--type T]\n"
                            "       tessel-cli sdo write NODE,INDEX[,SUB] --file FILE\n"
                            "NODE, INDEX, SUB hexadecimal; with NODE,INDEX the sub-index is "
                            "INDEX's low byte.\nT: hex (default: bytes as hexadecimal pairs), "
                            "u8, u16, u32, i8, i16, i32 (little-endian), str.\nWith --file "
                            "the entry's bytes come from FILE, or go to it, as they are "
                            "(15 MiB at most, what one transfer carries).\n"
                            "       tessel-cli sdo read|write --eds FILE [--node N] NAME ...\n"
                            "NAME: the entry as FILE names it, \"Object/Sub-entry\" for a "
                            "sub-entry (\"Identity Object/Vendor-ID\"); its type is FILE's "
                            "unless --type says; N hexadecimal, 1 by default.\n"
                            "A read prints the value; an abort prints its code (8 hexadecimal "
                            "digits) and exits 1.\nA transfer that takes longer than half a "
                            "second shows its progress when standard error is a terminal.\n")))
        return kOk;
    // By name from an EDS: the entry's address, and its type unless one is given.
    const QString edsFile = takeOption(&args, QStringLiteral("--eds"));
    bool nodeOk = true;
    const int edsNode =
        takeOption(&args, QStringLiteral("--node"), QStringLiteral("1")).toInt(&nodeOk, 16);
    QString edsType;
    if (!edsFile.isEmpty()) {
        if (!nodeOk || edsNode < 1 || edsNode > 0x7F)
            return bad(QStringLiteral("--node takes a node-ID, 1 to 7F"));
        if (args.size() < 2)
            return bad(QStringLiteral("sdo --eds takes an entry's name (see sdo --help)"));
        QString note;
        const QList<EdsEntry> entries = readEds(edsFile, &note);
        if (entries.isEmpty())
            return fail(kFailed,
                        QStringLiteral("%1: %2").arg(
                            edsFile, note.isEmpty() ? QStringLiteral("no entries") : note));
        const QString wanted = QString(args[1]).replace(QLatin1Char('\\'), QLatin1Char('/'));
        const auto found = std::find_if(entries.begin(), entries.end(), [&](const EdsEntry& e) {
            return QString(e.name)
                       .replace(QLatin1Char('\\'), QLatin1Char('/'))
                       .compare(wanted, Qt::CaseInsensitive) == 0;
        });
        if (found == entries.end())
            return bad(QStringLiteral("'%1' is no entry of %2 (names as the EDS gives them, "
                                      "\"Object/Sub-entry\" for a sub-entry)")
                           .arg(args[1], edsFile));
        args[1] = QStringLiteral("%1,%2,%3")
                      .arg(edsNode, 0, 16)
                      .arg(found->index, 4, 16, QLatin1Char('0'))
                      .arg(found->subIndex, 0, 16);
        const IniFile ini(edsFile);
        const QString section = QStringLiteral("%1").arg(found->index, 4, 16, QLatin1Char('0')) +
                                (found->name.contains(QLatin1Char('\\'))
                                     ? QStringLiteral("sub%1").arg(found->subIndex, 0, 16)
                                     : QString());
        static const QHash<int, QString> types{
            {0x0002, QStringLiteral("i8")},  {0x0003, QStringLiteral("i16")},
            {0x0004, QStringLiteral("i32")}, {0x0005, QStringLiteral("u8")},
            {0x0006, QStringLiteral("u16")}, {0x0007, QStringLiteral("u32")},
            {0x0009, QStringLiteral("str")}};
        edsType = types.value(edsNumber(ini.value(section, QStringLiteral("DataType"))),
                              QStringLiteral("hex"));
    }
    const bool typed = args.contains(QLatin1String("--type")) || !edsType.isEmpty();
    const QString type = takeOption(&args, QStringLiteral("--type"),
                                    edsType.isEmpty() ? QStringLiteral("hex") : edsType);
    if (!knownType(type))
        return bad(
            QStringLiteral("type '%1' is not hex, u8, u16, u32, i8, i16, i32 or str").arg(type));
    const QString fileName = takeOption(&args, QStringLiteral("--file"));
    if (typed && !fileName.isEmpty())
        return bad(
            QStringLiteral("--file takes the bytes as they are: --type does not go with it"));
    const bool write = args.value(0) == QLatin1String("write");
    const int wanted = write && fileName.isEmpty() ? 3 : 2;
    if ((args.value(0) != QLatin1String("read") && !write) || args.size() != wanted)
        return bad(QStringLiteral("sdo takes 'read ADDRESS', 'write ADDRESS VALUE' or 'write "
                                  "ADDRESS --file FILE' (see sdo --help)"));
    QString error;
    const auto address = parseAddress(args[1], &error);
    if (!address)
        return bad(error);
    QByteArray data;
    if (write && !fileName.isEmpty()) {
        const auto bytes = readDataFile(fileName, &error);
        if (!bytes)
            return fail(kFailed, error);
        data = *bytes;
    } else if (write) {
        const auto value = encodeValue(type, args[2], &error);
        if (!value)
            return bad(error);
        data = *value;
    }
    if (const int code = connectAndStart(); code >= 0)
        return code;
    TerminalProgress progress(m_link, m_err);
    const CanLink::SdoResult r = m_link.sdoTransfer(m_controller, !write, address->node,
                                                    address->index, address->subIndex, data);
    progress.end(r.error.isEmpty() && r.abortCode == 0);
    // Numbers as numbers, with the hexadecimal form beside those people read in hexadecimal.
    QJsonObject json{{QStringLiteral("command"),
                      write ? QStringLiteral("sdo write") : QStringLiteral("sdo read")},
                     {QStringLiteral("node"), address->node},
                     {QStringLiteral("index"), address->index},
                     {QStringLiteral("indexHex"), hexField(quint32(address->index), 4)},
                     {QStringLiteral("sub"), address->subIndex}};
    m_context = json;
    if (!r.error.isEmpty())
        return linkFailure(r.error, r.kind);
    if (r.abortCode != 0) {
        const QString code = hexField(r.abortCode, 8);
        const QString meaning = qorcalib::sdoAbortText(r.abortCode);
        m_context.insert(QStringLiteral("abort"), qint64(r.abortCode));
        m_context.insert(QStringLiteral("abortHex"), code);
        m_context.insert(QStringLiteral("abortText"), meaning);
        return fail(kSdoAbort, qorcalib::sdoAbortDescription(r.abortCode));
    }
    if (!fileName.isEmpty()) {
        if (!write && !writeDataFile(fileName, r.data, &error))
            return fail(kFailed, error);
        json.insert(QStringLiteral("file"), fileName);
        json.insert(QStringLiteral("bytes"), write ? data.size() : r.data.size());
        print(json, QStringLiteral("%1 bytes %2 %3")
                        .arg(write ? data.size() : r.data.size())
                        .arg(write ? QStringLiteral("from") : QStringLiteral("to"), fileName));
        return kOk;
    }
    if (write) {
        json.insert(QStringLiteral("written"), QString::fromLatin1(data.toHex().toUpper()));
        print(json, QStringLiteral("ok"));
        return kOk;
    }
    // A type narrower or wider than the entry would show another number than it holds.
    if (const int bytes = typeBytes(type); bytes > 0 && r.data.size() != bytes)
        return bad(QStringLiteral("%1 holds %2 bytes (%3); --type %4 takes %5")
                       .arg(args[1])
                       .arg(r.data.size())
                       .arg(QString::fromLatin1(r.data.toHex().toUpper()), type)
                       .arg(bytes));
    json.insert(QStringLiteral("data"), QString::fromLatin1(r.data.toHex().toUpper()));
    const QString value = decodeValue(type, r.data);
    if (typeBytes(type) > 0)
        json.insert(QStringLiteral("value"), value.toLongLong());
    else
        json.insert(QStringLiteral("value"), value);
    print(json, value);
    return kOk;
}

int TesselCli::nmt(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli nmt start|stop|preop|reset|resetcomm "
                                       "[NODE] [--wait] [--wait-ms MS]\nNODE hexadecimal, 0 (the "
                                       "default) for every node.\n--wait: done only once the "
                                       "node confirms, by its heartbeat in the new state or, "
                                       "after a reset, its boot-up, within MS milliseconds "
                                       "(default 5000); otherwise a failure (exit 4).\n")))
        return kOk;
    const bool confirm = args.removeAll(QStringLiteral("--wait")) > 0;
    bool waitOk = true;
    const int waitMs =
        takeOption(&args, QStringLiteral("--wait-ms"), QStringLiteral("5000")).toInt(&waitOk);
    if (!waitOk || waitMs < 1)
        return bad(QStringLiteral("--wait-ms takes milliseconds"));
    static const QMap<QString, int> commands{{QStringLiteral("start"), 0x01},
                                             {QStringLiteral("stop"), 0x02},
                                             {QStringLiteral("preop"), 0x80},
                                             {QStringLiteral("reset"), 0x81},
                                             {QStringLiteral("resetcomm"), 0x82}};
    if (args.isEmpty() || args.size() > 2 || !commands.contains(args[0]))
        return bad(QStringLiteral("nmt takes start, stop, preop, reset or resetcomm and a node"));
    bool ok = true;
    const int node = args.size() == 2 ? args[1].toInt(&ok, 16) : 0;
    if (!ok || node < 0 || node > 0x7F)
        return bad(QStringLiteral("node '%1' is not 0 to 7F").arg(args.value(1)));
    if (confirm && node == 0)
        return bad(QStringLiteral("--wait needs the node that is to confirm"));
    if (const int code = connectAndStart(); code >= 0)
        return code;
    const int command = commands[args[0]];
    // What the node says once it has done it: its heartbeat in the new state, or its boot-up.
    const quint8 expected = command == 0x01   ? 0x05
                            : command == 0x02 ? 0x04
                            : command == 0x80 ? 0x7F
                                              : 0x00;
    if (confirm)
        if (const QString e = m_link.advise(); !e.isEmpty())
            return linkFailure(e);
    QEventLoop loop;
    QObject::connect(&m_link, &CanLink::framesReceived, &loop,
                     [&](int controller, const QByteArray& records, int n) {
                         for (int i = 0; i < n && controller == m_controller; ++i) {
                             const CanFrame f = recordAt(records, i);
                             if (f.id == 0x700 + node && !f.remote && f.len == 1 &&
                                 f.data[0] == expected)
                                 loop.exit(0);
                         }
                     });
    QObject::connect(&m_link, &CanLink::connectionLost, &loop, [&] { loop.exit(2); });
    QByteArray data(2, '\0');
    data[0] = char(command);
    data[1] = char(node);
    if (const int code = sendFrame(0x000, data, false, 2); code >= 0)
        return code;
    if (confirm) {
        QTimer::singleShot(waitMs, &loop, [&] { loop.exit(1); });
        const int outcome = loop.exec();
        if (outcome == 2)
            return fail(kUnreachable, ServerConnection::kNotReachable);
        if (outcome == 1)
            return fail(kFailed, QStringLiteral("node %1 did not confirm within %2 ms (no %3 %4)")
                                     .arg(hexField(quint32(node), 2))
                                     .arg(waitMs)
                                     .arg(expected == 0x00 ? QStringLiteral("boot-up")
                                                           : QStringLiteral("heartbeat"))
                                     .arg(hexField(expected, 2)));
    }
    print({{QStringLiteral("command"), QStringLiteral("nmt")},
           {QStringLiteral("service"), args[0]},
           {QStringLiteral("node"), node},
           {QStringLiteral("confirmed"), confirm}},
          confirm ? QStringLiteral("ok, confirmed") : QStringLiteral("ok"));
    return kOk;
}

int TesselCli::send(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli send ID#DATA\nID: 3 hexadecimal "
                                       "digits (11-bit); DATA: up to 8 bytes as hexadecimal "
                                       "pairs, '.' between them allowed; ID#R or ID#Rn sends a "
                                       "remote frame of length n.\n")))
        return kOk;
    if (args.size() != 1)
        return bad(QStringLiteral("send takes one frame, ID#DATA"));
    QString error;
    const auto frame = parseFrame(args[0], &error);
    if (!frame)
        return bad(error);
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (const int code = sendFrame(frame->id, frame->data, frame->remote, frame->length); code >= 0)
        return code;
    print({{QStringLiteral("command"), QStringLiteral("send")},
           {QStringLiteral("frame"),
            frameText(frame->id, frame->data, frame->remote, frame->length)}},
          QStringLiteral("ok"));
    return kOk;
}

int TesselCli::dump(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli dump [--count N] [--seconds S] "
                                       "[--filter ID:MASK[,...]]\n"
                                       "Writes the frames the controller receives, one line "
                                       "each as a candump log:\n  (SECONDS.MICRO) canN "
                                       "ID#DATA\nuntil N frames, S seconds, or an interrupt.\n"
                                       "--filter as candump: ID:MASK passes a frame whose "
                                       "identifier agrees with ID in every bit of MASK, ID~MASK "
                                       "one that does not; a frame passes when any filter lets "
                                       "it (hexadecimal, e.g. 700:780 for heartbeats).\n")))
        return kOk;
    QString filterError;
    const auto filters = parseIdFilters(
        takeOption(&args, QStringLiteral("--filter"), QStringLiteral("000:000")), &filterError);
    if (!filters)
        return bad(filterError);
    StreamLimits limits;
    if (const int code = takeLimits(&args, &limits); code >= 0)
        return code;
    if (!args.isEmpty())
        return bad(QStringLiteral("dump does not take '%1'").arg(args.first()));
    return streamFrames(limits, [&](const CanFrame& f) {
        return passes(*filters, f.id) ? QString() : QStringLiteral("-");
    });
}

int TesselCli::monitor(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli monitor [--decode] [--eds FILE] "
                                       "[--node N] [--service S] [--count N] [--seconds S]\n"
                                       "Writes the frames the controller receives as dump does; "
                                       "with --decode each with its CANopen meaning:\n"
                                       "  (SECONDS.MICRO) canN ID#DATA  SERVICE node N: MEANING\n"
                                       "--node N (1 to 127) keeps the frames of that node, "
                                       "--service S those of a service (NMT, SYNC, EMCY, TIME, "
                                       "PDO, TPDO1, SDO, heartbeat, LSS, ...; a prefix: PDO is "
                                       "every TPDO and RPDO). With --eds, SDO transfers name "
                                       "their entry and PDOs show their values by the EDS's "
                                       "mappings.\n")))
        return kOk;
    const bool decoded = args.removeAll(QStringLiteral("--decode")) > 0;
    bool ok = true;
    const int node = takeOption(&args, QStringLiteral("--node"), QStringLiteral("0")).toInt(&ok);
    if (!ok || node < 0 || node > 127)
        return bad(QStringLiteral("--node takes a node-ID, 1 to 127"));
    const QString service = takeOption(&args, QStringLiteral("--service"), {});
    StreamLimits limits;
    if (const int code = takeLimits(&args, &limits); code >= 0)
        return code;
    CanopenDecoder decoder;
    if (const int code = takeDictionary(&args, &decoder); code >= 0)
        return code;
    if (!args.isEmpty())
        return bad(QStringLiteral("monitor does not take '%1'").arg(args.first()));
    // Every frame goes through the decoder, shown or not: a transfer's segments need its start.
    return streamFrames(limits, [&, decoded](const CanFrame& f) {
        const DecodedFrame d = decoder.decode(
            f.id, f.remote, QByteArray(reinterpret_cast<const char*>(f.data.data()), f.len));
        const bool shown =
            (node == 0 || d.node == node) &&
            (service.isEmpty() || d.service.startsWith(service, Qt::CaseInsensitive) ||
             (service.compare(QLatin1String("PDO"), Qt::CaseInsensitive) == 0 &&
              d.service.contains(QLatin1String("PDO"))));
        if (!shown)
            return QStringLiteral("-");
        return decoded ? CanopenDecoder::text(d) : QString();
    });
}

int TesselCli::takeDictionary(QStringList* args, CanopenDecoder* decoder)
{
    const QString eds = takeOption(args, QStringLiteral("--eds"));
    if (eds.isEmpty())
        return -1;
    if (!QFileInfo(eds).isFile())
        return fail(kFailed, QStringLiteral("%1: no such file").arg(eds));
    QString note;
    auto dictionary = std::make_shared<DeviceDictionary>(readDeviceDictionary(eds, &note));
    if (dictionary->names.isEmpty())
        return fail(kFailed, QStringLiteral("%1: %2").arg(
                                 eds, note.isEmpty() ? QStringLiteral("no entries in it") : note));
    decoder->setDictionary(std::move(dictionary));
    return -1;
}

int TesselCli::takeLimits(QStringList* args, StreamLimits* limits)
{
    bool ok = true;
    limits->count =
        takeOption(args, QStringLiteral("--count"), QStringLiteral("0")).toLongLong(&ok);
    if (!ok || limits->count < 0)
        return bad(QStringLiteral("--count takes a number of frames"));
    return takeSeconds(args, &limits->seconds);
}

int TesselCli::takeSeconds(QStringList* args, double* seconds)
{
    bool ok = true;
    *seconds = takeOption(args, QStringLiteral("--seconds"), QStringLiteral("0")).toDouble(&ok);
    if (!ok || *seconds < 0)
        return bad(QStringLiteral("--seconds takes a number of seconds"));
    return -1;
}

int TesselCli::runUntilEnd(QEventLoop* loop, double seconds)
{
    QObject::connect(&m_link, &CanLink::connectionLost, loop, [loop] { loop->exit(1); });
    InterruptWatch interrupt(loop, [loop] { loop->quit(); });
    if (seconds > 0)
        QTimer::singleShot(int(seconds * 1000), loop, &QEventLoop::quit);
    if (loop->exec() != 0)
        return fail(kUnreachable, ServerConnection::kNotReachable);
    return -1;
}

int TesselCli::streamFrames(const StreamLimits& limits,
                            const std::function<QString(const CanFrame&)>& annotate)
{
    const qint64 count = limits.count;
    const double seconds = limits.seconds;
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (const QString e = m_link.advise(); !e.isEmpty())
        return linkFailure(e);
    // What the server heard and could not pass on is said at the end, not left out silently.
    QString uncarriedError;
    const quint32 uncarriedBefore = m_link.uncarried(m_controller, &uncarriedError).value_or(0);
    qint64 written = 0;
    // Times are the server's receive stamps, on the wall clock of the first frame.
    qint64 epochUs = -1;
    quint32 firstStamp = 0;
    QEventLoop loop;
    QObject::connect(&m_link, &CanLink::framesReceived, &loop,
                     [&](int controller, const QByteArray& records, int n) {
                         if (controller != m_controller)
                             return;
                         for (int i = 0; i < n && (count == 0 || written < count); ++i) {
                             const CanFrame f = recordAt(records, i);
                             const QString note = annotate(f);
                             if (note == QLatin1String("-"))
                                 continue;
                             if (epochUs < 0) {
                                 epochUs = QDateTime::currentMSecsSinceEpoch() * 1000;
                                 firstStamp = f.timeUs;
                             }
                             const qint64 us = epochUs + qint64(quint32(f.timeUs - firstStamp));
                             const QByteArray data(reinterpret_cast<const char*>(f.data.data()),
                                                   f.len);
                             if (m_json) {
                                 QJsonObject frame{
                                     {QStringLiteral("time"), double(us) / 1e6},
                                     {QStringLiteral("controller"), m_controller},
                                     {QStringLiteral("id"), f.id},
                                     {QStringLiteral("idHex"), hexField(f.id, 3)},
                                     {QStringLiteral("remote"), f.remote},
                                     {QStringLiteral("length"), f.len},
                                     {QStringLiteral("data"),
                                      QString::fromLatin1(f.remote ? QByteArray()
                                                                   : data.toHex().toUpper())}};
                                 if (!note.isEmpty())
                                     frame.insert(QStringLiteral("decoded"), note);
                                 m_out << QJsonDocument(frame).toJson(QJsonDocument::Compact)
                                       << "\n";
                             } else {
                                 m_out << QStringLiteral("(%1.%2) can%3 ")
                                              .arg(us / 1000000)
                                              .arg(us % 1000000, 6, 10, QLatin1Char('0'))
                                              .arg(m_controller)
                                       << frameText(f.id, data, f.remote, f.len)
                                       << (note.isEmpty() ? QString() : QStringLiteral("  ") + note)
                                       << "\n";
                             }
                             ++written;
                         }
                         m_out.flush();
                         if (!outputWritten() || (count > 0 && written >= count))
                             loop.quit();
                     });
    if (const int code = runUntilEnd(&loop, seconds); code >= 0)
        return code;
    if (const quint32 uncarried =
            m_link.uncarried(m_controller, &uncarriedError).value_or(uncarriedBefore) -
            uncarriedBefore;
        uncarried > 0) {
        m_err << QStringLiteral("tessel-cli: %1 frames on the bus are not in the dump: the server "
                                "does not carry 29-bit identifiers or CAN FD\n")
                     .arg(uncarried);
        m_err.flush();
    }
    return kOk;
}

int TesselCli::watch(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli watch heartbeat|emcy [--seconds S]\n"
                                       "heartbeat: each node's state changes, boot-ups, a "
                                       "heartbeat missed (none for 1.5 periods) and back;\n"
                                       "emcy: the emergencies with their meaning; one line each, "
                                       "until S seconds or an interrupt:\n"
                                       "  (SECONDS.MICRO) node N: WHAT\n")))
        return kOk;
    double seconds = 0;
    if (const int code = takeSeconds(&args, &seconds); code >= 0)
        return code;
    if (args.size() != 1 ||
        (args[0] != QLatin1String("heartbeat") && args[0] != QLatin1String("emcy")))
        return bad(QStringLiteral("watch takes heartbeat or emcy"));
    const bool emergencies = args[0] == QLatin1String("emcy");
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (const QString e = m_link.advise(); !e.isEmpty())
        return linkFailure(e);
    NetworkWatch network;
    // Events are timed by this program's clock, on the wall clock of the start: a missed
    // heartbeat has no frame to take a time from.
    const qint64 epochUs = QDateTime::currentMSecsSinceEpoch() * 1000;
    QElapsedTimer clock;
    clock.start();
    const auto show = [&](const QList<NetworkWatch::Event>& events) {
        for (const NetworkWatch::Event& e : events) {
            if ((e.kind == NetworkWatch::Event::Emergency) != emergencies)
                continue;
            const qint64 us = epochUs + e.timeUs;
            print({{QStringLiteral("time"), double(us) / 1e6},
                   {QStringLiteral("node"), e.node},
                   {QStringLiteral("event"), e.text}},
                  QStringLiteral("(%1.%2) node %3: %4")
                      .arg(us / 1000000)
                      .arg(us % 1000000, 6, 10, QLatin1Char('0'))
                      .arg(e.node)
                      .arg(e.text));
        }
    };
    QEventLoop loop;
    QObject::connect(&m_link, &CanLink::framesReceived, &loop,
                     [&](int controller, const QByteArray& records, int n) {
                         if (controller != m_controller)
                             return;
                         for (int i = 0; i < n; ++i) {
                             const CanFrame f = recordAt(records, i);
                             show(network.onFrame(
                                 f.id, f.remote,
                                 QByteArray(reinterpret_cast<const char*>(f.data.data()), f.len),
                                 clock.nsecsElapsed() / 1000));
                         }
                     });
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop,
                     [&] { show(network.check(clock.nsecsElapsed() / 1000)); });
    check.start(100);
    if (const int code = runUntilEnd(&loop, seconds); code >= 0)
        return code;
    return kOk;
}

int TesselCli::scan(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli scan [--wait MS]\n"
                                       "Reads the device type (1000) of nodes 1 to 127, waiting "
                                       "MS milliseconds for each (default 50), and of each that "
                                       "answers its identity (1018 sub 1 to 4); one line a node "
                                       "found. Progress on standard error when it is a "
                                       "terminal.\n")))
        return kOk;
    bool ok = true;
    const int waitMs = takeOption(&args, QStringLiteral("--wait"), QStringLiteral("50")).toInt(&ok);
    if (!ok || waitMs < 1 || waitMs > 65535)
        return bad(QStringLiteral("--wait takes milliseconds, 1 to 65535"));
    if (!args.isEmpty())
        return bad(QStringLiteral("scan does not take '%1'").arg(args.first()));
    if (const int code = connectAndStart(); code >= 0)
        return code;
    QString holdError;
    const SdoTimeoutHold shortWait(&m_link, waitMs, &holdError);
    if (!holdError.isEmpty())
        return linkFailure(holdError);
    const bool terminal = isatty(STDERR_FILENO);
    NodeScan scan(&m_link, m_controller);
    int found = 0;
    for (int node = 1; node <= 127; ++node) {
        if (terminal) {
            m_err << QStringLiteral("\r%1 %").arg(node * 100 / 127, 3);
            m_err.flush();
        }
        QString error;
        qorcalib::ErrorKind kind = qorcalib::ErrorKind::None;
        const std::optional<NodeIdentity> id = scan.read(node, &error, &kind);
        if (!error.isEmpty())
            return linkFailure(error, kind);
        if (!id)
            continue;
        ++found;
        if (terminal) {
            m_err << "\r      \r";
            m_err.flush();
        }
        print({{QStringLiteral("node"), node},
               {QStringLiteral("deviceType"), double(id->deviceType)},
               {QStringLiteral("vendorId"), double(id->vendorId)},
               {QStringLiteral("productCode"), double(id->productCode)},
               {QStringLiteral("revision"), double(id->revision)},
               {QStringLiteral("serial"), double(id->serial)}},
              QStringLiteral("node %1: device type %2, vendor %3, product %4, revision %5, "
                             "serial %6")
                  .arg(node)
                  .arg(hexField(id->deviceType, 8), hexField(id->vendorId, 8),
                       hexField(id->productCode, 8), hexField(id->revision, 8),
                       hexField(id->serial, 8)));
    }
    if (terminal) {
        m_err << "\r      \r";
        m_err.flush();
    }
    if (found == 0)
        return fail(kFailed, QStringLiteral("no node answered on controller %1").arg(m_controller));
    return kOk;
}

int TesselCli::decode(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli decode [--eds FILE] TRACE\n"
                                       "Writes a candump log's (.log), ASC file's (.asc) or "
                                       "PCAN-View trace's (.trc) frames "
                                       "one a line, each with its CANopen meaning:\n"
                                       "  (SECONDS.MICRO) canN ID#DATA  SERVICE node N: MEANING\n"
                                       "SDO transfers are followed across their frames. A frame "
                                       "that fits no service says so (malformed, unknown). With "
                                       "--eds, SDO transfers name their entry and PDOs show their "
                                       "values by the EDS's mappings.\n")))
        return kOk;
    CanopenDecoder decoder;
    if (const int code = takeDictionary(&args, &decoder); code >= 0)
        return code;
    if (args.size() != 1)
        return bad(QStringLiteral("decode takes one trace file (see decode --help)"));
    QFile file(args[0]);
    if (!file.open(QIODevice::ReadOnly))
        return fail(kFailed, QStringLiteral("%1: %2").arg(args[0], file.errorString()));
    TraceFormat format{};
    if (!traceFormatOfContent(&file, &format) && !traceFormatOf(args[0], &format))
        return bad(QStringLiteral("%1: a trace file is a candump log (.log), an ASC file (.asc) "
                                  "or a PCAN-View trace (.trc)")
                       .arg(args[0]));
    const auto reader = TraceReader::create(&file, format);
    TraceRecord r;
    QString error;
    TraceReader::Result result;
    while ((result = reader->next(&r, &error)) == TraceReader::Frame) {
        const DecodedFrame d = decoder.decode(r.id, r.remote, r.data.left(r.length));
        if (m_json) {
            m_out << QJsonDocument(QJsonObject{{QStringLiteral("time"), double(r.timeUs) / 1e6},
                                               {QStringLiteral("channel"), r.channel},
                                               {QStringLiteral("id"), r.id},
                                               {QStringLiteral("idHex"), hexField(r.id, 3)},
                                               {QStringLiteral("remote"), r.remote},
                                               {QStringLiteral("data"),
                                                QString::fromLatin1(r.data.toHex().toUpper())},
                                               {QStringLiteral("service"), d.service},
                                               {QStringLiteral("node"), d.node},
                                               {QStringLiteral("meaning"), d.meaning},
                                               {QStringLiteral("malformed"), d.malformed}})
                         .toJson(QJsonDocument::Compact)
                  << "\n";
        } else {
            // Written without formatting: decoding a large log is mostly writing it out.
            char head[64];
            const int n = std::snprintf(head, sizeof head, "(%lld.%06lld) can%d ",
                                        static_cast<long long>(r.timeUs / 1000000),
                                        static_cast<long long>(r.timeUs % 1000000), r.channel);
            m_out << QLatin1StringView(head, n) << frameText(r.id, r.data, r.remote, r.length)
                  << "  " << CanopenDecoder::text(d) << '\n';
        }
        if (!outputWritten())
            return kFailed;
    }
    m_out.flush();
    if (result == TraceReader::Error)
        return fail(kFailed, QStringLiteral("%1: %2").arg(args[0], error));
    return kOk;
}

int TesselCli::sync(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli sync PERIOD_MS [--seconds S]\n"
                                       "Sends SYNC (COB-ID 080) on the controller every PERIOD_MS "
                                       "milliseconds (0.5 to 10000, e.g. 2 or 0.5) until S "
                                       "seconds have passed or an interrupt; then says how many "
                                       "went out.\n")))
        return kOk;
    double seconds = 0;
    if (const int code = takeSeconds(&args, &seconds); code >= 0)
        return code;
    bool ok = true;
    if (args.size() != 1)
        return bad(QStringLiteral("sync takes a period in milliseconds (see sync --help)"));
    const double periodMs = args[0].toDouble(&ok);
    if (!ok || periodMs < 0.5 || periodMs > 10000)
        return bad(
            QStringLiteral("SYNC period '%1' is not 0.5 to 10000 milliseconds").arg(args[0]));
    const int periodUs = int(std::lround(periodMs * 1000));
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (const QString e = m_link.setSyncPeriod(m_controller, periodUs); !e.isEmpty())
        return linkFailure(e);
    QElapsedTimer clock;
    clock.start();
    QEventLoop loop;
    if (const int code = runUntilEnd(&loop, seconds); code >= 0)
        return code;
    if (const QString e = m_link.setSyncPeriod(m_controller, 0); !e.isEmpty())
        return linkFailure(e);
    const qint64 sent = clock.elapsed() * 1000 / periodUs;
    print({{QStringLiteral("command"), QStringLiteral("sync")},
           {QStringLiteral("controller"), m_controller},
           {QStringLiteral("periodUs"), periodUs},
           {QStringLiteral("seconds"), double(clock.elapsed()) / 1000.0}},
          QStringLiteral("SYNC every %1 ms on controller %2 for %3 s (about %4)")
              .arg(periodMs)
              .arg(m_controller)
              .arg(double(clock.elapsed()) / 1000.0, 0, 'f', 1)
              .arg(sent));
    return kOk;
}

int TesselCli::sample(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli sample NODE,INDEX[,SUB] --period MS "
                                       "[--count N | --seconds S] [--type T]\n"
                                       "Reads the entry by SDO every MS milliseconds and writes "
                                       "one CSV line a read, after a header: the seconds since "
                                       "the first read, the value (T: u8, u16, u32, i8, i16, "
                                       "i32; by default unsigned, of the entry's size), and why "
                                       "there is none when a read failed (a gap, not a zero). "
                                       "Until N reads, S seconds or an interrupt. A period "
                                       "shorter than the bus carries (at most half the bus for "
                                       "the reads) is said and the shortest that fits is "
                                       "used.\n")))
        return kOk;
    double seconds = 0;
    if (const int code = takeSeconds(&args, &seconds); code >= 0)
        return code;
    bool ok = true;
    const qint64 count =
        takeOption(&args, QStringLiteral("--count"), QStringLiteral("0")).toLongLong(&ok);
    if (!ok || count < 0)
        return bad(QStringLiteral("--count takes a number of reads"));
    const QString periodText = takeOption(&args, QStringLiteral("--period"));
    int periodMs = periodText.toInt(&ok);
    if (periodText.isEmpty() || !ok || periodMs < 1 || periodMs > 3600000)
        return bad(QStringLiteral("sample takes --period MS, 1 to 3600000 milliseconds"));
    const QString type = takeOption(&args, QStringLiteral("--type"));
    if (!type.isEmpty() && typeBytes(type) == 0)
        return bad(QStringLiteral("type '%1': sample writes numbers (u8, u16, u32, i8, i16, i32)")
                       .arg(type));
    if (args.size() != 1)
        return bad(QStringLiteral("sample takes one NODE,INDEX[,SUB] (see sample --help)"));
    QString error;
    const auto address = parseAddress(args[0], &error);
    if (!address)
        return bad(error);
    if (const int code = connectAndStart(); code >= 0)
        return code;
    const int rateIndex = m_link.bitRate(m_controller, &error).value_or(0);
    const int smallest = smallestSamplePeriodMs(qorcalib::bitRateOfIndex(rateIndex));
    if (periodMs < smallest) {
        m_err << QStringLiteral("tessel-cli: %1 ms is below the shortest period at %2: every %3 "
                                "ms\n")
                     .arg(periodMs)
                     .arg(qorcalib::bitRateText(rateIndex))
                     .arg(smallest);
        m_err.flush();
        periodMs = smallest;
    }
    m_out << "time_s,value,error\n";
    SampleSchedule schedule(periodMs);
    QElapsedTimer clock;
    clock.start();
    bool stop = false;
    InterruptWatch interrupt(&m_link, [&stop] { stop = true; });
    for (qint64 taken = 0; !stop && (count == 0 || taken < count); ++taken) {
        // Waits for the next read's time, in slices short enough for an interrupt to end it.
        while (!stop && clock.elapsed() < schedule.dueMs()) {
            QEventLoop wait;
            QTimer::singleShot(int(qMin<qint64>(50, schedule.dueMs() - clock.elapsed())),
                               Qt::PreciseTimer, &wait, &QEventLoop::quit);
            wait.exec();
        }
        if (stop || (seconds > 0 && clock.elapsed() >= qint64(seconds * 1000)))
            break;
        const double at = double(clock.nsecsElapsed()) / 1e9;
        const CanLink::SdoResult r = m_link.sdoTransfer(m_controller, true, address->node,
                                                        address->index, address->subIndex);
        schedule.taken(clock.elapsed());
        QString value, why;
        if (!r.error.isEmpty()) {
            if (r.kind != qorcalib::ErrorKind::TimeOut)
                return linkFailure(r.error, r.kind);
            why = r.error;
        } else if (r.abortCode != 0) {
            why = qorcalib::sdoAbortDescription(r.abortCode);
        } else if (const auto v = sampleValue(r.data, type, &why)) {
            value = QString::number(qint64(*v));
        }
        // A reason is quoted as CSV quotes a field with commas.
        if (why.contains(QLatin1Char(',')) || why.contains(QLatin1Char('"')))
            why = QLatin1Char('"') + why.replace(QLatin1Char('"'), QLatin1String("\"\"")) +
                  QLatin1Char('"');
        m_out << QString::number(at, 'f', 6) << ',' << value << ',' << why << '\n';
        m_out.flush();
        if (!outputWritten())
            return kFailed;
    }
    if (schedule.skipped() > 0) {
        m_err << QStringLiteral("tessel-cli: %1 reads skipped: a read took longer than the "
                                "period\n")
                     .arg(schedule.skipped());
        m_err.flush();
    }
    return kOk;
}

int TesselCli::replay(QStringList args)
{
    if (wantsHelp(args,
                  QStringLiteral(
                      "Usage: tessel-cli replay FILE [canN=CONTROLLER ...] [--speed X] "
                      "[--loop N] [--ignore-times]\n"
                      "Sends the frames of a candump log (.log), an ASC file (.asc) or a PCAN-View "
                      "trace (.trc, read by its content) with their "
                      "recorded spacing,\ndivided by X (0.01 to 100, default 1); then prints how "
                      "many went out.\n"
                      "  canN=CONTROLLER  frames recorded on canN (ASC: channel N+1) go out on "
                      "the controller;\n"
                      "                   with a map, frames of channels it does not name are "
                      "passed over.\n"
                      "                   Without one, every frame goes out on --controller.\n"
                      "  --loop N         the file N times, each pass right after the last "
                      "(1 to 1000000)\n"
                      "  --ignore-times   frames back to back, at the pace of the controller's "
                      "bus\n"
                      "Error frames and comment lines are passed over and counted. An interrupt "
                      "stops the replay:\nthe frames not yet on the bus are taken back.\n")))
        return kOk;
    ReplayOptions options;
    bool ok = true;
    options.speed = takeOption(&args, QStringLiteral("--speed"), QStringLiteral("1")).toDouble(&ok);
    if (!ok || options.speed < 0.01 || options.speed > 100.0)
        return bad(QStringLiteral("--speed takes a factor from 0.01 to 100"));
    options.loops = takeOption(&args, QStringLiteral("--loop"), QStringLiteral("1")).toInt(&ok);
    if (!ok || options.loops < 1 || options.loops > 1000000)
        return bad(QStringLiteral("--loop takes a count from 1 to 1000000"));
    const bool ignoreTimes = args.removeAll(QStringLiteral("--ignore-times")) > 0;
    if (ignoreTimes && options.speed != 1.0)
        return bad(QStringLiteral("--ignore-times sends at the bus's pace: --speed does not "
                                  "go with it"));
    // canN=CONTROLLER, as a player maps a recording's interfaces.
    static const QRegularExpression mapping(QStringLiteral("^(?:can)?(\\d{1,3})=(\\d{1,3})$"));
    for (qsizetype i = args.size() - 1; i >= 0; --i) {
        const auto m = mapping.match(args[i]);
        if (!m.hasMatch())
            continue;
        const int channel = m.captured(1).toInt();
        if (options.channels.contains(channel))
            return bad(QStringLiteral("can%1 is mapped twice").arg(channel));
        options.channels.insert(channel, m.captured(2).toInt());
        args.removeAt(i);
    }
    if (args.size() != 1)
        return bad(args.isEmpty()
                       ? QStringLiteral("replay takes one trace file")
                       : QStringLiteral("replay takes one trace file and canN=CONTROLLER "
                                        "maps; '%1' is neither")
                             .arg(args.value(1, args[0])));
    options.controller = m_controller;
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (ignoreTimes) {
        QString rateError;
        const auto index = m_link.bitRate(m_controller, &rateError);
        if (!index)
            return linkFailure(rateError);
        options.paceBitsPerSecond = qorcalib::bitRateOfIndex(*index);
    }
    TraceReplay replay;
    replay.serverTime = [this](quint32* us) {
        QString error;
        *us = m_link.serverTime(&error).value_or(0);
        return error;
    };
    replay.sendTimed = [this](int controller, const QVector<CanFrame>& frames, QString* error) {
        return m_link.sendTimed(controller, frames, error);
    };
    replay.dropQueued = [this](int controller) {
        QString error;
        return m_link.dropQueued(controller, &error).value_or(-1);
    };
    QString error;
    if (!replay.start(args[0], options, &error))
        return fail(kFailed, error);
    QEventLoop loop;
    QObject::connect(&replay, &TraceReplay::finished, &loop,
                     [&](const QString& e) { error = e, loop.quit(); });
    QObject::connect(&m_link, &CanLink::connectionLost, &loop, [&] {
        replay.stop();
        loop.exit(1);
    });
    InterruptWatch watch(&loop, [&] { replay.stop(); });
    if (loop.exec() != 0)
        return fail(kUnreachable, ServerConnection::kNotReachable);
    // What the server took goes out before the session ends, which would drop it.
    QString waitError;
    if (!waitUntilSent(kReplayDrainMs, &waitError))
        return fail(waitError.isEmpty() ? kFailed : kUnreachable,
                    QStringLiteral("%1: %2 frames handed to the server, but the bus had not "
                                   "taken them all %3 s later")
                        .arg(args[0])
                        .arg(replay.sent())
                        .arg(kReplayDrainMs / 1000));
    if (!error.isEmpty())
        return fail(
            kFailed,
            QStringLiteral("%1: %2 (after %3 frames)").arg(args[0], error).arg(replay.sent()));
    // As a player does, lines that are no frame to send are passed over and counted.
    QString skipped;
    if (replay.skippedErrorFrames() > 0 || replay.skippedComments() > 0)
        skipped = QStringLiteral(" (skipped: %1 error frames, %2 comment lines)")
                      .arg(replay.skippedErrorFrames())
                      .arg(replay.skippedComments());
    if (replay.skippedUnmapped() > 0)
        skipped +=
            QStringLiteral(" (%1 frames of channels not mapped)").arg(replay.skippedUnmapped());
    print({{QStringLiteral("command"), QStringLiteral("replay")},
           {QStringLiteral("file"), args[0]},
           {QStringLiteral("frames"), replay.sent()},
           {QStringLiteral("errorFramesSkipped"), replay.skippedErrorFrames()},
           {QStringLiteral("commentsSkipped"), replay.skippedComments()},
           {QStringLiteral("unmappedSkipped"), replay.skippedUnmapped()}},
          QStringLiteral("%1 frames").arg(replay.sent()) + skipped);
    return kOk;
}

int TesselCli::bitrate(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli bitrate CONTROLLER RATE\nSwitches "
                                       "the server's controller to RATE (1000K, 800K, 500K, "
                                       "250K, 125K, 100K, 50K, 25K, 10K) and restarts it, as "
                                       "the controller's list in Tessel does: after lss set, the "
                                       "rate the drive now uses.\n")))
        return kOk;
    if (args.size() != 2)
        return bad(QStringLiteral("bitrate takes a controller and a rate"));
    bool ok = false;
    const int controller = args[0].toInt(&ok);
    if (!ok || controller < 0)
        return bad(QStringLiteral("controller '%1' is not a controller number").arg(args[0]));
    const int rate = bitRateIndexOfText(args[1]);
    if (rate < 0)
        return bad(QStringLiteral("bit rate '%1' is not one of 1000K ... 10K").arg(args[1]));
    m_controller = controller;
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (const QString e = m_link.setBitRate(controller, rate); !e.isEmpty())
        return linkFailure(e);
    if (const QString e = m_link.restartController(controller); !e.isEmpty())
        return linkFailure(e);
    print({{QStringLiteral("command"), QStringLiteral("bitrate")},
           {QStringLiteral("controller"), controller},
           {QStringLiteral("bitrate"), bitRateText(rate)}},
          QStringLiteral("controller %1 at %2").arg(controller).arg(bitRateText(rate)));
    return kOk;
}

int TesselCli::lss(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli lss get [--lss-timeout MS]\n       "
                                       "tessel-cli lss set NODE RATE [--lss-timeout MS]\nget "
                                       "finds the node: one waiting for a node-ID (FF) first, "
                                       "else the configured one, and the bit rate it answered "
                                       "at.\nset gives a node that waits for a node-ID NODE "
                                       "(hexadecimal) and RATE (1000K, 800K, 500K, 250K, 125K, "
                                       "100K, 50K, 25K, 10K); several waiting nodes are "
                                       "configured one per call. Configured nodes are never "
                                       "changed.\n--lss-timeout: how long each LSS service "
                                       "waits for answers, 1 to 5000 ms (default: the "
                                       "server's, 25 ms unless it was started with another).\n")))
        return kOk;
    bool timeoutOk = true;
    const int lssTimeout =
        takeOption(&args, QStringLiteral("--lss-timeout"), QStringLiteral("0")).toInt(&timeoutOk);
    if (!timeoutOk || lssTimeout < 0 || lssTimeout > 5000)
        return bad(QStringLiteral("--lss-timeout takes milliseconds, 1 to 5000"));
    const bool set = args.value(0) == QLatin1String("set");
    if ((args.value(0) != QLatin1String("get") && !set) || args.size() != (set ? 3 : 1))
        return bad(QStringLiteral("lss takes 'get' or 'set NODE RATE'"));
    int node = 0;
    int rate = 0;
    if (set) {
        bool ok = false;
        node = args[1].toInt(&ok, 16);
        if (!ok || node < 1 || node > 0x7F)
            return bad(QStringLiteral("node '%1' is not 1 to 7F").arg(args[1]));
        rate = bitRateIndexOfText(args[2]);
        if (rate < 0)
            return bad(QStringLiteral("bit rate '%1' is not one of 1000K ... 10K").arg(args[2]));
    }
    if (const int code = connectAndStart(); code >= 0)
        return code;
    if (lssTimeout > 0)
        if (const QString e = m_link.setLssTimeout(lssTimeout); !e.isEmpty())
            return linkFailure(e);
    const CanLink::LssResult r =
        set ? m_link.lssConfigure(m_controller, node, rate) : m_link.lssInquire(m_controller);
    if (!r.error.isEmpty())
        return linkFailure(r.error, r.kind);
    if (set) {
        print({{QStringLiteral("command"), QStringLiteral("lss set")},
               {QStringLiteral("node"), node},
               {QStringLiteral("bitrate"), bitRateText(rate)}},
              QStringLiteral("ok"));
        return kOk;
    }
    print({{QStringLiteral("command"), QStringLiteral("lss get")},
           {QStringLiteral("node"), r.nodeId},
           {QStringLiteral("bitrate"), bitRateText(r.bitRateIndex)}},
          QStringLiteral("node %1 at %2")
              .arg(hexField(quint32(r.nodeId), 2), bitRateText(r.bitRateIndex)));
    return kOk;
}

int TesselCli::upgrade(QStringList args)
{
    if (wantsHelp(args, QStringLiteral("Usage: tessel-cli upgrade FILE [--node N]\nCatches "
                                       "node N (hexadecimal, 1 by default) in its boot loader, "
                                       "loads FILE (an image the boot loader takes: hybrid .sx "
                                       "or S-records with an identification) into 0x1F50 sub 1 "
                                       "and starts the new application.\n")))
        return kOk;
    bool ok = true;
    const int node =
        takeOption(&args, QStringLiteral("--node"), QStringLiteral("1")).toInt(&ok, 16);
    if (!ok || node < 1 || node > 0x7F)
        return bad(QStringLiteral("--node takes a node-ID, 1 to 7F"));
    if (args.size() != 1)
        return bad(QStringLiteral("upgrade takes one firmware file"));
    // The image is looked at before anything goes on the bus: a file the boot loader would
    // refuse after a long transfer is refused here, with the reason.
    int fileError = 0;
    const auto identity = classifyImage(args[0], &fileError);
    if (!identity) {
        QString why = QStringLiteral("cannot be read");
        if (fileError == FileNotFound)
            why = QStringLiteral("No such file or directory");
        else if (fileError == FileTooLarge)
            why = QStringLiteral("larger than any firmware image (%1 MiB at most)")
                      .arg(kMaxImageFileBytes / (1024 * 1024));
        return fail(kFailed, QStringLiteral("%1: %2").arg(args[0], why));
    }
    if (identity->kind == ImageKind::Raw)
        return fail(kFailed, QStringLiteral("%1: a raw image; post-process it first (the "
                                            "post-processor makes the .sx the boot loader takes)")
                                 .arg(args[0]));
    if (identity->kind == ImageKind::Unknown)
        return fail(kFailed, QStringLiteral("%1: no identification and no version word: not a "
                                            "firmware image the boot loader takes")
                                 .arg(args[0]));
    QFile file(args[0]);
    if (!file.open(QIODevice::ReadOnly))
        return fail(kFailed, QStringLiteral("%1: %2").arg(args[0], file.errorString()));
    const QByteArray image = file.readAll();
    if (const int code = connectAndStart(); code >= 0)
        return code;
    QString error;
    const auto rate = m_link.bitRate(m_controller, &error);
    if (!rate)
        return linkFailure(error);
    // The bench cycles the unit's supply so that it boots into the catch (a local server's
    // bench only, as Tessel does).
    FirmwareUpgrade upgrade(&m_link);
    std::optional<TerminalProgress> progress;
    // The progress line starts with the image's transfer, once the drive is caught.
    QObject::connect(&m_link, &CanLink::progressNotified, &upgrade, [&] {
        if (!progress)
            progress.emplace(m_link, m_err);
    });
    const FirmwareUpgrade::Outcome outcome = upgrade.run(m_controller, node, *rate, image);
    if (progress)
        progress->end(outcome.error.isEmpty() && outcome.abortCode == 0);
    if (!outcome.error.isEmpty())
        return linkFailure(outcome.error, outcome.kind);
    if (outcome.bootVersion == 0)
        return fail(
            kFailed,
            QStringLiteral("no boot loader of node %1 answered").arg(hexField(quint32(node), 2)));
    if (outcome.releaseFailed)
        return fail(kSdoAbort,
                    QStringLiteral("SDO abort %1 (release)").arg(hexField(outcome.abortCode, 8)));
    if (outcome.abortCode != 0)
        return fail(kSdoAbort,
                    QStringLiteral("SDO abort %1 (the boot loader refused the image; "
                                   "node %2 was released to its application)")
                        .arg(hexField(outcome.abortCode, 8), hexField(quint32(node), 2)));
    const quint32 v = outcome.bootVersion;
    print({{QStringLiteral("command"), QStringLiteral("upgrade")},
           {QStringLiteral("node"), node},
           {QStringLiteral("bytes"), image.size()},
           {QStringLiteral("bootloader"),
            QStringLiteral("%1.%2.%3").arg(v >> 16 & 0xFF).arg(v >> 8 & 0xFF).arg(v & 0xFF)}},
          QStringLiteral("upgraded node %1: %2 bytes through boot loader V%3.%4.%5")
              .arg(hexField(quint32(node), 2))
              .arg(image.size())
              .arg(v >> 16 & 0xFF)
              .arg(v >> 8 & 0xFF)
              .arg(v & 0xFF));
    return kOk;
}

} // namespace tessel::cli

#include "canmsg.h"
#include "datadir.h"
#include "display.h"
#include "handshake.h"
#include "servercore.h"
#include "serverhost.h"
#include "statuswindow.h"
#include "tlsidentity.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

using namespace qorcalib;

namespace {

// The longest the server waits for its simulated drives to boot before it lets clients in.
constexpr int kWorldReadyMs = 2000;

int g_signalPipe[2] = {-1, -1};

void onTerminate(int)
{
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_signalPipe[1], &byte, 1);
}

// SIGTERM and SIGINT end the event loop, so that the socket file is removed on the way out.
void quitOnSignals()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, g_signalPipe) != 0)
        return;
    // The application object is a QCoreApplication without a display: never qApp here.
    QCoreApplication* app = QCoreApplication::instance();
    auto* notifier = new QSocketNotifier(g_signalPipe[0], QSocketNotifier::Read, app);
    QObject::connect(notifier, &QSocketNotifier::activated, app, [] { QCoreApplication::quit(); });
    std::signal(SIGTERM, onTerminate);
    std::signal(SIGINT, onTerminate);
}

int fail(const QString& message)
{
    std::fprintf(stderr, "qorcalib-server: %s\n", qPrintable(message));
    return 1;
}

// A number option within its range: its value (the fallback when it is not given), or nullopt
// with *error saying what the option takes.
std::optional<qint64> boundedOption(const QCommandLineParser& parser,
                                    const QCommandLineOption& option, qint64 fallback, qint64 low,
                                    qint64 high, const QString& unit, QString* error)
{
    if (!parser.isSet(option))
        return fallback;
    bool ok = false;
    const qint64 value = parser.value(option).toLongLong(&ok);
    if (ok && value >= low && value <= high)
        return value;
    *error = QStringLiteral("--%1 takes a number of %2 from %3 to %4")
                 .arg(option.names().first(), unit)
                 .arg(low)
                 .arg(high);
    return std::nullopt;
}

} // namespace

int main(int argc, char** argv)
{
    // The status window needs a display; without one the server runs as a plain service.
    std::unique_ptr<QCoreApplication> app(hasDisplay() ? new QApplication(argc, argv)
                                                       : new QCoreApplication(argc, argv));
    QCoreApplication::setApplicationName(QStringLiteral("qorcalib-server"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "The CAN server of Tessel: owns the CAN controllers and the test bench, performs the\n"
        "CANopen services and calls its clients back with events.\n"
        "\n"
        "Started with no options it runs the simulated world: controller 0 at 1000K with a\n"
        "simulated drive (node-ID 1), controller 1 at 250K with a drive whose node-ID is not\n"
        "configured yet, and a simulated assembly bench of type 3 whose main supply powers\n"
        "both drives. Clients reach it on its local socket."));
    parser.addHelpOption();
    parser.addVersionOption();
    QString socketFolderError;
    const QString defaultSocket = defaultLocalSocketPath(&socketFolderError);
    const QCommandLineOption socketOption(
        QStringLiteral("socket"),
        QStringLiteral("Local socket to listen on, readable by this user only (default: "
                       "qorcalib in $XDG_RUNTIME_DIR, else in a private folder under the "
                       "temporary folder; the server tells which when it starts)."),
        QStringLiteral("path"));
    const QCommandLineOption listenOption(
        QStringLiteral("listen"),
        QStringLiteral("Also listen on TCP, for clients on other machines, e.g. "
                       "tcp://127.0.0.1:%1. May be given more than once. The connection is TLS "
                       "with a certificate the server makes on first use (beside the secret); "
                       "clients must prove that they hold the secret in %2, which the server "
                       "creates on first use: copy that file, readable by its user only, to the "
                       "same place on the other machines.")
            .arg(kDefaultTcpPort)
            .arg(handshake::secretPath()),
        QStringLiteral("tcp://addr:port"));
    const QCommandLineOption backlogOption(
        QStringLiteral("client-backlog"),
        QStringLiteral("KiB of events a client may leave unread: past it the client's frame "
                       "events are dropped (it sees a receive overrun); a client that keeps half "
                       "of it unread for 5 s, or leaves twice as much, is disconnected "
                       "(default: 16384)."),
        QStringLiteral("KiB"));
    const QCommandLineOption channelOption(
        QStringLiteral("channel"),
        QStringLiteral("A controller, in order from controller 0: \"sim\" for a simulated bus "
                       "segment (the first two carry the simulated drives), or a QCanBus "
                       "plugin and interface such as socketcan:can0 or virtualcan:can0. May be "
                       "given up to four times; replaces the two simulated controllers."),
        QStringLiteral("channel"));
    const QCommandLineOption benchOption(
        QStringLiteral("bench"),
        QStringLiteral("Simulated test bench KIND:TYPE: asm:3 (assembly bench, the default), "
                       "pcb:33, pcb:34, or numbers (kind 1 is an assembly bench)."),
        QStringLiteral("kind:type"), QStringLiteral("asm:3"));
    const QCommandLineOption unpacedOption(
        QStringLiteral("unpaced"),
        QStringLiteral("Deliver frames on the simulated segments as fast as possible instead of "
                       "at the time they take on a real bus at their bit rate."));
    const QCommandLineOption edsOption(
        QStringLiteral("eds"),
        QStringLiteral("EDS from which the simulated drives take their object dictionary "
                       "(default: %1).")
            .arg(dataFile(QStringLiteral("drive.eds"))),
        QStringLiteral("file"), dataFile(QStringLiteral("drive.eds")));
    const QCommandLineOption showOption(
        QStringLiteral("show"),
        QStringLiteral("Show the status window (controllers and client sessions) at start; "
                       "clients can raise it at any time. Needs a display."));
    const QCommandLineOption idleExitOption(
        QStringLiteral("idle-exit"),
        QStringLiteral("End the server this many seconds after its last client left (or after "
                       "the start, when no client comes). Tessel starts its own local server "
                       "this way; by default the server runs until it is stopped."),
        QStringLiteral("seconds"));
    const QCommandLineOption segmentedOption(
        QStringLiteral("sdo-segmented"),
        QStringLiteral("Transfer SDO data above 4 bytes segmented, never in blocks, even to "
                       "nodes that offer block transfer."));
    const QCommandLineOption bootCatchOption(
        QStringLiteral("boot-catch-ms"),
        QStringLiteral("How long a boot catch (Stop on Boot) waits for a boot loader to answer, "
                       "in milliseconds (default: 5000)."),
        QStringLiteral("ms"));
    const QCommandLineOption lssTimeoutOption(
        QStringLiteral("lss-timeout"),
        QStringLiteral("How long LSS services wait for a drive's answers, in milliseconds, 1 to "
                       "5000 (default: 25); a client may set its own."),
        QStringLiteral("ms"));
    const QCommandLineOption doorsOption(
        QStringLiteral("doors-open"),
        QStringLiteral("Start the simulated fixture with its door switches (inputs 0 and 10) "
                       "open; the status window opens and closes them."));
    parser.addOptions({socketOption, listenOption, channelOption, benchOption, unpacedOption,
                       edsOption, showOption, idleExitOption, segmentedOption, backlogOption,
                       bootCatchOption, doorsOption, lssTimeoutOption});
    parser.process(*app);
    if (!parser.positionalArguments().isEmpty())
        return fail(QStringLiteral("unexpected argument '%1' (see --help)")
                        .arg(parser.positionalArguments().first()));

    ServerCore::Config config;
    if (parser.isSet(channelOption))
        config.channels = parser.values(channelOption);
    if (config.channels.size() > 4)
        return fail(
            QStringLiteral("at most four controllers, %1 given").arg(config.channels.size()));
    const auto bench = SimBench::parseIdentity(parser.value(benchOption));
    if (!bench)
        return fail(QStringLiteral("bench '%1' is not of the form KIND:TYPE (see --help)")
                        .arg(parser.value(benchOption)));
    config.bench = *bench;
    config.doorsOpen = parser.isSet(doorsOption);
    config.paced = !parser.isSet(unpacedOption);
    config.edsPath = parser.value(edsOption);
    config.sdoBlockTransfer = !parser.isSet(segmentedOption);
    QString error;
    const auto bootCatchMs = boundedOption(parser, bootCatchOption, config.bootCatchMs, 10, 600000,
                                           QStringLiteral("milliseconds"), &error);
    const auto lssTimeoutMs = boundedOption(parser, lssTimeoutOption, config.lssTimeoutMs, 1, 5000,
                                            QStringLiteral("milliseconds"), &error);
    if (!bootCatchMs || !lssTimeoutMs)
        return fail(error);
    config.bootCatchMs = int(*bootCatchMs);
    config.lssTimeoutMs = int(*lssTimeoutMs);

    const auto core = ServerCore::create(config, &error);
    if (!core)
        return fail(error);
    ServerHost host(core.get());
    PacketGate::Limits limits = host.gateLimits();
    const auto backlogKib = boundedOption(parser, backlogOption, limits.backlog / 1024, 16,
                                          1024 * 1024, QStringLiteral("KiB"), &error);
    if (!backlogKib)
        return fail(error);
    limits.backlog = *backlogKib * 1024;
    host.setGateLimits(limits);
    // Clients are let in once the simulated drives have booted: a line script's first call, made
    // the moment the server listens, would otherwise go to a drive still in its boot loader.
    // A drive that never boots (a bench fault) holds nobody up for long.
    {
        QEventLoop loop;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
            if (core->worldReady())
                loop.quit();
        });
        poll.start(5);
        QTimer::singleShot(kWorldReadyMs, &loop, &QEventLoop::quit);
        if (!core->worldReady())
            loop.exec();
    }
    const QString socketPath =
        parser.isSet(socketOption) ? parser.value(socketOption) : defaultSocket;
    if (socketPath.isEmpty())
        return fail(socketFolderError);
    if (!host.listenLocal(socketPath, &error))
        return fail(error);
    if (parser.isSet(listenOption)) {
        const QByteArray secret = handshake::loadOrCreateSecret(&error);
        if (secret.isEmpty())
            return fail(error);
        const auto identity =
            loadOrCreateTlsIdentity(QFileInfo(handshake::secretPath()).absolutePath(), &error);
        if (!identity)
            return fail(error);
        for (const QString& url : parser.values(listenOption))
            if (!host.listenTcp(QUrl(url), secret, *identity, &error))
                return fail(error);
    }

    std::unique_ptr<StatusWindow> window;
    if (qobject_cast<QApplication*>(app.get())) {
        window = std::make_unique<StatusWindow>(core.get(), &host);
        QObject::connect(core.get(), &ServerCore::showWindowRequested, window.get(), [&window] {
            window->show();
            window->raise();
            window->activateWindow();
        });
        if (parser.isSet(showOption))
            emit core->showWindowRequested();
    } else if (parser.isSet(showOption)) {
        return fail(QStringLiteral("--show needs a display"));
    }
    quitOnSignals();

    QTimer idleExit;
    if (parser.isSet(idleExitOption)) {
        bool ok = false;
        const int seconds = parser.value(idleExitOption).toInt(&ok);
        if (!ok || seconds < 1)
            return fail(QStringLiteral("--idle-exit takes a number of seconds, 1 or more"));
        idleExit.setSingleShot(true);
        idleExit.setInterval(seconds * 1000);
        QObject::connect(&idleExit, &QTimer::timeout, app.get(), &QCoreApplication::quit);
        QObject::connect(&host, &ServerHost::sessionsChanged, &idleExit, [&] {
            if (host.sessionCount() == 0)
                idleExit.start();
            else
                idleExit.stop();
        });
        idleExit.start();
    }

    QStringList controllers;
    for (int c = 0; c < core->controllerCount(); ++c)
        controllers << QStringLiteral("%1=%2@%3")
                           .arg(c)
                           .arg(core->channel(c)->name(),
                                bitRateText(core->channel(c)->bitRateIndex()));
    std::fprintf(stderr, "qorcalib-server: controllers %s%s; listening on %s%s\n",
                 qPrintable(controllers.join(QLatin1Char(' '))), config.paced ? "" : " (unpaced)",
                 qPrintable(host.localPath()),
                 host.tcpPort() ? qPrintable(QStringLiteral(" and TCP port %1 (clients need the "
                                                            "secret in %2)")
                                                 .arg(host.tcpPort())
                                                 .arg(handshake::secretPath()))
                                : "");
    std::fflush(stderr);
    return app->exec();
}

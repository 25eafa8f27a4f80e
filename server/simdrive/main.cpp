// tessel-simdrive: the simulated servo drive of the CAN server, on any QCanBus channel.

#include "canmsg.h"
#include "channelbridge.h"
#include "datadir.h"
#include "nmtslave.h"
#include "objectdictionary.h"
#include "qcanbuschannel.h"
#include "simdrive.h"
#include "simulatedsegment.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <memory>
#include <vector>

using namespace qorcalib;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "tessel-simdrive: %s\n", qPrintable(message));
    return 1;
}

// "1", "5,7" or "unconfigured" (a drive that waits for LSS to give it a node-ID), in order.
std::optional<std::vector<quint8>> parseNodes(const QStringList& values, QString* error)
{
    std::vector<quint8> nodes;
    for (const QString& value : values) {
        for (const QString& part : value.split(QLatin1Char(','))) {
            quint8 node = NmtSlave::kUnconfigured;
            if (part.trimmed() != QLatin1String("unconfigured")) {
                bool ok = false;
                const int id = part.trimmed().toInt(&ok);
                if (!ok || id < 1 || id > 127) {
                    *error = QStringLiteral("node-ID '%1' is not a number from 1 to 127, nor "
                                            "\"unconfigured\"")
                                 .arg(part);
                    return std::nullopt;
                }
                node = quint8(id);
            }
            if (node != NmtSlave::kUnconfigured &&
                std::find(nodes.begin(), nodes.end(), node) != nodes.end()) {
                *error = QStringLiteral("node-ID %1 is given twice").arg(node);
                return std::nullopt;
            }
            nodes.push_back(node);
        }
    }
    return nodes;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // The virtual bus's plugin tells of every connection; what matters is said here.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.canbus.plugins.virtualcan.info=false"));
    QCoreApplication::setApplicationName(QStringLiteral("tessel-simdrive"));
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "The simulated servo drive of Tessel's CAN server, on any QCanBus channel: one or more\n"
        "drives that answer NMT, send their heartbeat, serve SDO (expedited, segmented and\n"
        "block transfers), run four receive and four transmit PDOs on SYNC and on events,\n"
        "send emergencies, take a node-ID and bit rate by LSS and load firmware through their\n"
        "boot loader, exactly as on the server's simulated bus. Any CANopen master on the same\n"
        "bus talks to them, qorcalib-server included.\n"
        "\n"
        "Examples:\n"
        "  tessel-simdrive --channel socketcan:vcan0 --node 1,2\n"
        "        Two drives on the virtual SocketCAN interface vcan0.\n"
        "  tessel-simdrive --channel virtualcan:can0 --bit-rate 250K\n"
        "        A drive at 250K on Qt's virtual CAN bus. \"qorcalib-server --channel\n"
        "        virtualcan:can0\" puts a CAN server's controller 0 on the same bus."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption channelOption(
        QStringLiteral("channel"),
        QStringLiteral("The QCanBus plugin and interface, e.g. socketcan:vcan0, socketcan:can0, "
                       "virtualcan:can0 or virtualcan:tcp://127.0.0.1:PORT/can0 (a virtual bus of "
                       "its own on PORT)."),
        QStringLiteral("plugin:interface"));
    const QCommandLineOption nodeOption(
        QStringLiteral("node"),
        QStringLiteral("Node-ID of a drive, 1 to 127, or \"unconfigured\" for a drive that waits "
                       "for LSS; several as 1,2,3 or by giving the option again (default: 1)."),
        QStringLiteral("id"), QStringLiteral("1"));
    const QCommandLineOption rateOption(
        QStringLiteral("bit-rate"),
        QStringLiteral("Bit rate of the drives and the channel: 1000K, 800K, 500K, 250K, 125K, "
                       "100K, 50K, 25K or 10K (default: 1000K)."),
        QStringLiteral("rate"), QStringLiteral("1000K"));
    const QCommandLineOption edsOption(
        QStringLiteral("eds"),
        QStringLiteral("EDS from which the drives take their object dictionary (default: %1).")
            .arg(dataFile(QStringLiteral("drive.eds"))),
        QStringLiteral("file"), dataFile(QStringLiteral("drive.eds")));
    parser.addOptions({channelOption, nodeOption, rateOption, edsOption});
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        return fail(QStringLiteral("unexpected argument '%1' (see --help)")
                        .arg(parser.positionalArguments().first()));
    if (!parser.isSet(channelOption))
        return fail(QStringLiteral("--channel is missing: name the bus, e.g. --channel "
                                   "socketcan:vcan0 (see --help)"));

    QString error;
    const auto nodes = parseNodes(parser.values(nodeOption), &error);
    if (!nodes)
        return fail(error);
    const int rate = bitRateIndexOfText(parser.value(rateOption));
    if (rate < 0)
        return fail(QStringLiteral("bit rate '%1' is not one of 1000K, 800K, 500K, 250K, 125K, "
                                   "100K, 50K, 25K, 10K")
                        .arg(parser.value(rateOption)));

    // The dictionaries first: a bad EDS is told before anything appears on the bus.
    const QString eds = parser.value(edsOption);
    std::vector<ObjectDictionary> dictionaries;
    for (const quint8 node : *nodes) {
        QStringList warnings;
        auto dictionary = ObjectDictionary::fromEds(eds, node == NmtSlave::kUnconfigured ? 0 : node,
                                                    &error, &warnings);
        if (!dictionary)
            return fail(error);
        giveOwnSerial(&*dictionary, int(dictionaries.size()));
        if (dictionaries.empty())
            for (const QString& warning : warnings)
                std::fprintf(stderr, "tessel-simdrive: %s\n", qPrintable(warning));
        dictionaries.push_back(std::move(*dictionary));
    }

    auto channel = QCanBusChannel::open(parser.value(channelOption), &error);
    if (!channel)
        return fail(error);
    if (!channel->setBitRateIndex(rate, &error) || !channel->start(&error))
        return fail(QStringLiteral("channel %1: %2").arg(channel->name(), error));

    // The drives live on a segment of their own that the bridge joins to the channel; the
    // channel's bus, not the segment, sets the pace.
    SimulatedSegment segment;
    segment.setPaced(false);
    ChannelBridge bridge(&segment, channel.get());
    std::vector<std::unique_ptr<SimDrive>> drives;
    QStringList names;
    for (std::size_t i = 0; i < nodes->size(); ++i) {
        const quint8 node = (*nodes)[i];
        drives.push_back(
            std::make_unique<SimDrive>(&segment, std::move(dictionaries[i]), node, rate));
        names << (node == NmtSlave::kUnconfigured ? QStringLiteral("unconfigured")
                                                  : QString::number(node));
    }
    for (const auto& drive : drives)
        drive->setPowered(true);

    std::fprintf(stderr, "tessel-simdrive: %s %s at %s on %s (EDS %s)\n",
                 drives.size() == 1 ? "drive" : "drives",
                 qPrintable(names.join(QStringLiteral(", "))), qPrintable(bitRateText(rate)),
                 qPrintable(channel->name()), qPrintable(eds));
    std::fflush(stderr);
    return app.exec();
}

#include "servercore.h"

#include "bootrunner.h"

#include "lssrunner.h"
#include "objectdictionary.h"
#include "qcanbuschannel.h"
#include "sdorunner.h"
#include "simdrive.h"
#include "simulatedchannel.h"
#include "simulatedsegment.h"
#include "syncproducer.h"

#include <algorithm>

namespace qorcalib {

namespace {
// The simulated world: the first simulated segment has the drive with node-ID 1 at 1000K, the
// second a drive whose node-ID is not configured yet, at 250K (waiting for LSS).
struct SimulatedNode
{
    quint8 nodeId;
    int bitRateIndex;
};
constexpr SimulatedNode kSimulatedNodes[] = {{1, 0}, {NmtSlave::kUnconfigured, 3}};
} // namespace

std::unique_ptr<ServerCore> ServerCore::create(const Config& config, QString* error)
{
    std::unique_ptr<ServerCore> core(new ServerCore);
    core->m_bench = std::make_unique<SimBench>(config.bench);
    core->m_lssTimeoutMs = config.lssTimeoutMs;
    int simulated = 0;
    for (const QString& channelName : config.channels) {
        const int index = int(core->m_channels.size());
        if (channelName == QLatin1String("sim")) {
            auto* segment =
                core->m_segments.emplace_back(std::make_unique<SimulatedSegment>()).get();
            segment->setPaced(config.paced);
            const bool withNode = simulated < int(std::size(kSimulatedNodes));
            const int rate = withNode ? kSimulatedNodes[simulated].bitRateIndex : 0;
            core->m_channels.push_back(std::make_unique<SimulatedChannel>(segment, index, rate));
            if (withNode) {
                const quint8 nodeId = kSimulatedNodes[simulated].nodeId;
                auto dictionary = ObjectDictionary::fromEds(
                    config.edsPath, nodeId == NmtSlave::kUnconfigured ? 0 : nodeId, error);
                if (!dictionary)
                    return nullptr;
                giveOwnSerial(&*dictionary, int(core->m_drives.size()));
                core->m_drives.push_back(
                    std::make_unique<SimDrive>(segment, std::move(*dictionary), nodeId, rate));
            }
            ++simulated;
        } else {
            auto channel = QCanBusChannel::open(channelName, error);
            if (!channel)
                return nullptr;
            core->m_channels.push_back(std::move(channel));
            core->m_segments.push_back(nullptr);
        }
    }
    if (core->m_channels.empty()) {
        *error = QStringLiteral("no CAN controller configured");
        return nullptr;
    }
    // Every session hears when a controller loses its device or gets it back (its status then
    // reads bus off until the device is there again).
    for (int c = 0; c < int(core->m_channels.size()); ++c)
        connect(core->m_channels[c].get(), &CanChannel::availabilityChanged, core.get(),
                [raw = core.get(), c] { raw->announce(c); });
    // Created before any session, so a runner sees each batch of frames first.
    for (const auto& channel : core->m_channels) {
        core->m_sdoRunners.push_back(std::make_unique<SdoRunner>(channel.get()));
        core->m_sdoRunners.back()->setBlockTransfer(config.sdoBlockTransfer);
    }
    for (int c = 0; c < int(core->m_channels.size()); ++c) {
        core->m_lssRunners.push_back(std::make_unique<LssRunner>(core.get(), c));
        core->m_bootRunners.push_back(
            std::make_unique<BootRunner>(core.get(), c, config.bootCatchMs));
        core->m_syncProducers.push_back(std::make_unique<SyncProducer>(core->m_channels[c].get()));
    }
    ServerCore* raw = core.get();
    connect(core->m_bench.get(), &SimBench::drivePowerChanged, raw, [raw](bool powered) {
        for (const auto& drive : raw->m_drives)
            drive->setPowered(powered);
    });
    connect(core->m_bench.get(), &SimBench::overvoltage, raw, [raw](double volts) {
        for (const auto& drive : raw->m_drives)
            drive->raiseAlarm(SimDrive::kOvervoltageAlarm, quint32(volts * 10.0 + 0.5));
    });
    for (const int door : SimBench::kDoorInputs)
        core->m_bench->setInput(door, !config.doorsOpen);
    for (const auto& drive : core->m_drives)
        drive->setPowered(core->m_bench->drivesPowered());
    return core;
}

int ServerCore::raiseAlarm(quint32 alarmNumber)
{
    const quint32 busDeciVolts = quint32(m_bench->mainVoltage() * 10.0 + 0.5);
    int raised = 0;
    for (const auto& drive : m_drives)
        raised += drive->raiseAlarm(alarmNumber, busDeciVolts) ? 1 : 0;
    return raised;
}

ServerCore::~ServerCore() = default;

CanChannel* ServerCore::channel(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_channels[controller].get()
                                                             : nullptr;
}

SimulatedSegment* ServerCore::segment(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_segments[controller].get()
                                                             : nullptr;
}

bool ServerCore::worldReady() const
{
    return std::all_of(m_drives.begin(), m_drives.end(), [](const auto& drive) {
        return !drive->isPowered() || drive->mode() == SimDrive::Mode::Application;
    });
}

SdoRunner* ServerCore::sdoRunner(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_sdoRunners[controller].get()
                                                             : nullptr;
}

LssRunner* ServerCore::lssRunner(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_lssRunners[controller].get()
                                                             : nullptr;
}

SyncProducer* ServerCore::syncProducer(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_syncProducers[controller].get()
                                                             : nullptr;
}

BootRunner* ServerCore::bootRunner(int controller) const
{
    return controller >= 0 && controller < controllerCount() ? m_bootRunners[controller].get()
                                                             : nullptr;
}

QString ServerCore::checkController(int controller) const
{
    if (channel(controller))
        return {};
    return QStringLiteral("controller index %1 out of range (0..%2)")
        .arg(controller)
        .arg(controllerCount() - 1);
}

bool ServerCore::startController(int controller, QString* error)
{
    if (!(*error = checkController(controller)).isEmpty())
        return false;
    CanChannel* c = channel(controller);
    if (!c->isRunning() && !c->start(error))
        return false;
    announce(controller);
    return true;
}

bool ServerCore::restartController(int controller, QString* error)
{
    if (!(*error = checkController(controller)).isEmpty())
        return false;
    CanChannel* c = channel(controller);
    c->stop();
    const bool ok = c->start(error);
    announce(controller);
    return ok;
}

bool ServerCore::stopController(int controller, QString* error)
{
    if (!(*error = checkController(controller)).isEmpty())
        return false;
    channel(controller)->stop();
    announce(controller);
    return true;
}

bool ServerCore::setBitRate(int controller, int bitRateIndex, QString* error)
{
    if (!(*error = checkController(controller)).isEmpty())
        return false;
    if (!channel(controller)->setBitRateIndex(bitRateIndex, error))
        return false;
    announce(controller);
    return true;
}

void ServerCore::announce(int controller)
{
    CanChannel* c = channel(controller);
    emit configChanged(controller, c->isRunning(), c->bitRateIndex());
}

} // namespace qorcalib

#pragma once

#include "canchannel.h"
#include "simbench.h"

#include <QObject>
#include <QStringList>

#include <memory>
#include <vector>

namespace qorcalib {

class BootRunner;
class LssRunner;
class SdoRunner;
class SimulatedSegment;
class SimDrive;
class SyncProducer;

// Everything the server owns that outlives a client: the controllers, the simulated segments
// with their drives, and the bench. Controller configuration changes go through here so that
// every session hears of them.
class ServerCore : public QObject
{
    Q_OBJECT
public:
    struct Config
    {
        // One entry per controller: "sim" for a simulated segment, or "PLUGIN:INTERFACE".
        QStringList channels{QStringLiteral("sim"), QStringLiteral("sim")};
        SimBench::Identity bench;
        bool paced = true;
        QString edsPath;              // the simulated drive's EDS
        bool sdoBlockTransfer = true; // false: segmented only, even where a node offers block
        int bootCatchMs = 5000;       // how long a boot catch waits for a boot loader
        bool doorsOpen = false;       // the fixture's door switches start open
        int lssTimeoutMs = 25;        // a session's LSS answer window until it sets its own
    };

    static std::unique_ptr<ServerCore> create(const Config& config, QString* error);
    ~ServerCore() override;

    int controllerCount() const { return int(m_channels.size()); }
    CanChannel* channel(int controller) const;
    // Empty when the index is valid, else the error description.
    QString checkController(int controller) const;
    SimBench* bench() const { return m_bench.get(); }
    SimulatedSegment* segment(int controller) const;
    SdoRunner* sdoRunner(int controller) const;
    LssRunner* lssRunner(int controller) const;
    BootRunner* bootRunner(int controller) const;
    SyncProducer* syncProducer(int controller) const;
    SimDrive* drive(int i) const
    {
        return i >= 0 && i < int(m_drives.size()) ? m_drives[i].get() : nullptr;
    }

    // Every simulated drive that has power runs its application (has left its boot loader's
    // window), so that a client's first request is answered.
    bool worldReady() const;

    bool startController(int controller, QString* error);
    bool restartController(int controller, QString* error);
    bool stopController(int controller, QString* error);
    bool setBitRate(int controller, int bitRateIndex, QString* error);

    // Every powered simulated drive raises the alarm; how many did.
    int raiseAlarm(quint32 alarmNumber);

    int lssTimeoutMs() const { return m_lssTimeoutMs; }
    bool shutdownRequested() const { return m_shutdownRequested; }
    void requestShutdown() { m_shutdownRequested = true; }

signals:
    void configChanged(int controller, bool enabled, int bitRateIndex);
    void showWindowRequested();

private:
    ServerCore() = default;
    void announce(int controller);

    // Torn down in reverse: drives and controllers detach from their segments before the
    // segments go.
    std::unique_ptr<SimBench> m_bench;
    std::vector<std::unique_ptr<SimulatedSegment>> m_segments; // per controller; null if real
    std::vector<std::unique_ptr<CanChannel>> m_channels;
    std::vector<std::unique_ptr<SimDrive>> m_drives;
    std::vector<std::unique_ptr<SdoRunner>> m_sdoRunners;
    std::vector<std::unique_ptr<LssRunner>> m_lssRunners;
    std::vector<std::unique_ptr<BootRunner>> m_bootRunners;
    std::vector<std::unique_ptr<SyncProducer>> m_syncProducers;
    bool m_shutdownRequested = false;
    int m_lssTimeoutMs = 25;
};

} // namespace qorcalib

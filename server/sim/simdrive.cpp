#include "simdrive.h"

#include "serverclock.h"

#include <algorithm>

namespace qorcalib {

void giveOwnSerial(ObjectDictionary* dictionary, int i)
{
    const quint64 serial = dictionary->unsignedValue(0x1018, 4, 0);
    dictionary->setUnsigned(0x1018, 4, quint32(serial + quint64(i)));
}

SimDrive::SimDrive(SimulatedSegment* segment, ObjectDictionary dictionary, quint8 nodeId,
                   int bitRateIndex, QObject* parent)
    : QObject(parent), m_segment(segment), m_dictionary(std::move(dictionary)),
      m_access(&m_dictionary), m_engineObjects(&m_dictionary),
      m_pdo(&m_engineObjects,
            PdoEngine::Hooks{[this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); },
                             [this](quint16 code) {
                                 m_emcy.raise(code, EmcyProducer::kCommunication, serverTimeUs());
                             }}),
      m_emcy(&m_engineObjects,
             [this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); }),
      m_profile(&m_engineObjects,
                DriveProfile::Hooks{
                    [this](quint16 index) { m_pdo.objectChanged(index, 0, serverTimeUs()); },
                    [this](quint16 code) {
                        m_emcy.raise(code,
                                     code == kOvervoltageEmcy ? EmcyProducer::kVoltage
                                                              : EmcyProducer::kProfile,
                                     serverTimeUs());
                    },
                    [this](quint16 code) { m_emcy.clear(code, serverTimeUs()); }}),
      m_errorControl(&m_engineObjects,
                     [this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); }),
      m_applicationAccess(&m_access, &m_alarms, &m_pdo, &m_emcy), m_bootLoader(&m_dictionary),
      m_nmt(NmtSlave::Hooks{[this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); },
                            [this] {
                                // A reset node restarts the processor: boot loader first, values
                                // back to default.
                                m_lss.applyPendingNodeId();
                                takeNodeId(m_lss.activeNodeId());
                                m_sdo.reset();
                                m_emcy.reset();
                                m_dictionary.restoreDefaults(0x0000, 0xFFFF);
                                startBootLoader();
                            },
                            [this] {
                                m_lss.applyPendingNodeId();
                                takeNodeId(m_lss.activeNodeId());
                                m_sdo.reset();
                                m_emcy.reset();
                                m_errorControl.reset();
                                m_dictionary.restoreDefaults(0x1000, 0x1FFF);
                                m_pdo.parametersChanged(serverTimeUs());
                                applyHeartbeatPeriod();
                            }}),
      m_sdo(&m_applicationAccess,
            [this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); }),
      m_bootSdo(&m_bootLoader,
                [this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); }),
      m_lss({quint32(m_dictionary.unsignedValue(0x1018, 1, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 2, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 3, 0)),
             quint32(m_dictionary.unsignedValue(0x1018, 4, 0))},
            nodeId, bitRateIndex,
            LssSlave::Hooks{[this](const CanFrame& frame) { m_segment->transmit(this, frame, 0); },
                            [this](int rate) { m_bitRateIndex = rate; },
                            [this](quint8 node, int rate) {
                                m_startNodeId = node;
                                m_startBitRate = rate;
                                return true;
                            },
                            [this](quint8 node) {
                                takeNodeId(node);
                                m_nmt.bootUp(serverTimeUs());
                                rearm();
                            }}),
      m_bitRateIndex(bitRateIndex), m_startNodeId(nodeId), m_startBitRate(bitRateIndex)
{
    takeNodeId(nodeId);
    for (auto it = m_dictionary.entries().cbegin(); it != m_dictionary.entries().cend(); ++it)
        m_factory.insert(it.key(), it.value().defaultValue);
    m_access.written = [this](quint16 index, quint8 subIndex) { onWritten(index, subIndex); };
    m_engineObjects.written = [this](quint16 index) { onProfileInput(index); };
    m_errorControl.changed = [this] {
        constexpr quint16 code = ErrorControl::kLifeGuardOrHeartbeatError;
        if (m_errorControl.anyLost())
            m_emcy.raise(code, EmcyProducer::kCommunication, serverTimeUs());
        else
            m_emcy.clear(code, serverTimeUs());
    };
    m_bootLoader.flashed = [this](const FirmwareIdentity& identity) { takeFirmware(identity); };
    // The answer to the release goes out before the application starts.
    m_bootLoader.release = [this] {
        QMetaObject::invokeMethod(this, &SimDrive::boot, Qt::QueuedConnection);
    };
    m_bootTimer.setSingleShot(true);
    connect(&m_bootTimer, &QTimer::timeout, this, &SimDrive::boot);
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, [this] {
        const qint64 now = serverTimeUs();
        m_nmt.onTimer(now);
        m_pdo.onTimer(now);
        m_emcy.onTimer(now);
        m_profile.step(now);
        m_errorControl.onTimer(now);
        m_sdo.onTimer(now);
        m_bootSdo.onTimer(now);
        m_lss.onTimer(now);
        rearm();
    });
    m_segment->attach(this);
}

SimDrive::~SimDrive()
{
    m_segment->detach(this);
}

void SimDrive::setPowered(bool powered)
{
    if (powered == m_powered)
        return;
    m_powered = powered;
    m_timer.stop();
    m_bootTimer.stop();
    m_nmt.powerOff();
    followNmtState(serverTimeUs());
    m_emcy.reset();
    m_errorControl.reset();
    m_sdo.reset();
    m_bootSdo.reset();
    m_mode = Mode::Off;
    // Downloaded values live in RAM: losing power brings back the defaults.
    m_dictionary.restoreDefaults(0x0000, 0xFFFF);
    if (powered) {
        m_bitRateIndex = m_startBitRate;
        m_lss.restart(m_startNodeId, m_startBitRate);
        takeNodeId(m_startNodeId);
        startBootLoader();
    }
}

bool SimDrive::raiseAlarm(quint32 alarmNumber, quint32 busDeciVolts)
{
    if (!m_powered)
        return false;
    m_alarms.raise(alarmNumber, busDeciVolts,
                   AlarmLog::kOperatingSecondsAtStart + quint32(serverTimeUs() / 1000000));
    if (alarmNumber == kOvervoltageAlarm && m_mode == Mode::Application)
        m_profile.raiseFault(kOvervoltageEmcy, serverTimeUs());
    rearm();
    return true;
}

void SimDrive::startBootLoader()
{
    m_mode = Mode::BootWindow;
    m_bootSdo.reset();
    m_bootTimer.start(kBootLoaderWindowMs);
}

void SimDrive::receiveInBootLoader(const CanFrame& frame, qint64 nowUs)
{
    const quint8 node = m_nmt.nodeId();
    if (boot::isRequestFor(frame, node)) {
        m_bootTimer.stop();
        m_mode = Mode::BootHeld;
        m_segment->transmit(this, boot::answer(node, BootLoader::kVersion), 0);
        return;
    }
    if (m_mode != Mode::BootHeld)
        return;
    // A held boot loader knows only resets: the drive starts over in its boot loader.
    if (frame.id == 0x000 && !frame.remote && frame.len == 2 &&
        (frame.data[1] == 0 || frame.data[1] == node) &&
        (frame.data[0] == 0x81 || frame.data[0] == 0x82)) {
        startBootLoader();
        return;
    }
    m_bootSdo.onFrame(frame, nowUs);
}

void SimDrive::takeFirmware(const FirmwareIdentity& identity)
{
    // Flashed: what the application reports from now on, through resets and power cycles.
    const auto set = [this](quint16 index, quint8 subIndex, const QByteArray& value) {
        if (OdEntry* entry = m_dictionary.find(index, subIndex)) {
            entry->defaultValue = value;
            entry->value = value;
        }
    };
    set(0x100A, 0, QStringLiteral("FW %1").arg(identity.versionText()).toLatin1());
    QByteArray revision(4, '\0');
    for (int i = 0; i < 4; ++i)
        revision[i] = char(identity.version >> (8 * i));
    set(0x1018, 3, revision);
}

void SimDrive::takeNodeId(quint8 nodeId)
{
    m_dictionary.setNodeId(nodeId == NmtSlave::kUnconfigured ? 0 : nodeId);
    m_nmt.setNodeId(nodeId);
    m_sdo.setNodeId(nodeId == NmtSlave::kUnconfigured ? 0 : nodeId);
    m_bootSdo.setNodeId(nodeId == NmtSlave::kUnconfigured ? 0 : nodeId);
}

void SimDrive::boot()
{
    if (!m_powered || m_mode == Mode::Application || m_mode == Mode::Off)
        return;
    m_mode = Mode::Application;
    m_bootSdo.reset();
    m_profile.start(serverTimeUs());
    m_errorControl.reset();
    applyHeartbeatPeriod();
    m_nmt.bootUp(serverTimeUs());
    rearm();
}

void SimDrive::followNmtState(qint64 nowUs)
{
    m_pdo.setOperational(m_nmt.state() == NmtSlave::State::Operational, nowUs);
}

void SimDrive::onWritten(quint16 index, quint8 subIndex)
{
    const qint64 now = serverTimeUs();
    if (index == 0x1017)
        applyHeartbeatPeriod();
    else if ((index == 0x1010 || index == 0x1011) && subIndex == 1)
        storeOrRestore(index == 0x1010);
    else if (PdoEngine::isParameter(index))
        m_pdo.parametersChanged(now);
    else if (EmcyProducer::isParameter(index))
        m_emcy.written(index, subIndex);
    else {
        onProfileInput(index);
        m_pdo.objectChanged(index, subIndex, now);
    }
    rearm();
}

void SimDrive::storeOrRestore(bool store)
{
    // Parameters are the entries a master may write; what they hold survives resets and power
    // loss once stored. Restoring brings back the EDS's values from the next reset on.
    for (auto it = m_dictionary.entries().cbegin(); it != m_dictionary.entries().cend(); ++it) {
        const OdEntry& e = it.value();
        if (!e.writable() || e.index == 0x1010 || e.index == 0x1011)
            continue;
        OdEntry* entry = m_dictionary.find(e.index, e.subIndex);
        if (store)
            entry->defaultValue = entry->value;
        else if (m_factory.contains(it.key()))
            entry->defaultValue = m_factory.value(it.key());
    }
    // The entry reads as before: the drive saves (restores) on command.
    for (const quint16 index : {quint16(0x1010), quint16(0x1011)})
        if (OdEntry* entry = m_dictionary.find(index, 1))
            entry->value = entry->defaultValue;
}

void SimDrive::onProfileInput(quint16 index)
{
    if (index == 0x6040)
        m_profile.controlwordWritten(serverTimeUs());
    else if (index == 0x6060)
        m_profile.modeWritten();
}

void SimDrive::applyHeartbeatPeriod()
{
    m_nmt.setHeartbeatPeriodMs(quint16(m_dictionary.unsignedValue(0x1017, 0, 0)), serverTimeUs());
}

void SimDrive::receive(const BusFrame& frame)
{
    const qint64 now = serverTimeUs();
    if (m_mode == Mode::BootWindow || m_mode == Mode::BootHeld) {
        receiveInBootLoader(frame.frame, now);
        rearm();
        return;
    }
    if (m_lss.onFrame(frame.frame, now)) {
        rearm();
        return;
    }
    // Guarding requests and the heartbeats it monitors are for error control alone.
    if (m_nmt.acceptsSdo() || m_nmt.state() == NmtSlave::State::Stopped) {
        if (m_errorControl.onFrame(frame.frame, m_nmt.nodeId(), quint8(m_nmt.state()), now)) {
            rearm();
            return;
        }
    }
    m_nmt.onFrame(frame.frame, now);
    followNmtState(now);
    const CanFrame& f = frame.frame;
    const quint32 syncId = quint32(m_dictionary.unsignedValue(0x1005, 0, 0x80));
    if (!f.remote && f.id == (syncId & 0x7FF)) {
        // This drive counts no SYNC (it has no 1019): a SYNC with data is not one it takes.
        if (f.len == 0)
            m_pdo.onSync(0, now);
        else if (m_nmt.acceptsSdo())
            m_emcy.raise(kSyncLengthEmcy, EmcyProducer::kCommunication, now);
    } else if (!m_pdo.onFrame(f, now) && m_nmt.acceptsSdo())
        m_sdo.onFrame(f, now); // a stopped node, or one still booting, has no SDO service
    rearm();
}

void SimDrive::rearm()
{
    qint64 deadline = -1;
    for (const qint64 d :
         {m_nmt.nextDeadlineUs(), m_pdo.nextDeadlineUs(), m_emcy.nextDeadlineUs(),
          m_profile.nextDeadlineUs(), m_errorControl.nextDeadlineUs(), m_sdo.nextDeadlineUs(),
          m_bootSdo.nextDeadlineUs(), m_lss.nextDeadlineUs()})
        if (d >= 0 && (deadline < 0 || d < deadline))
            deadline = d;
    if (deadline < 0) {
        m_timer.stop();
        return;
    }
    const qint64 delayUs = std::max<qint64>(0, deadline - serverTimeUs());
    m_timer.start(int((delayUs + 999) / 1000));
}

} // namespace qorcalib

namespace qorcalib {

namespace {
// Program download and release belong to the boot loader.
constexpr quint32 kNotInThisState = 0x08000022;
bool bootLoaderObject(quint16 index)
{
    return index == 0x1F50 || index == 0x5EF0;
}
} // namespace

quint32 SimDrive::ApplicationAccess::upload(quint16 index, quint8 subIndex, QByteArray* data)
{
    if (AlarmLog::handles(index))
        return m_alarms->upload(index, subIndex, data);
    return bootLoaderObject(index) ? kNotInThisState : m_dictionary->upload(index, subIndex, data);
}

quint32 SimDrive::ApplicationAccess::checkDownload(quint16 index, quint8 subIndex, qint64 size)
{
    if (AlarmLog::handles(index))
        return m_alarms->checkDownload(index, subIndex, size);
    return bootLoaderObject(index) ? kNotInThisState
                                   : m_dictionary->checkDownload(index, subIndex, size);
}

quint32 SimDrive::ApplicationAccess::download(quint16 index, quint8 subIndex,
                                              const QByteArray& data)
{
    if (AlarmLog::handles(index))
        return m_alarms->download(index, subIndex, data);
    if (bootLoaderObject(index))
        return kNotInThisState;
    // Store and restore take their signature only: "save", "load".
    if ((index == 0x1010 || index == 0x1011) && subIndex == 1 &&
        data != QByteArray(index == 0x1010 ? "save" : "load"))
        return quint32(SdoAbort::DataTransfer);
    // The engines' parameters: the entry's own checks first, then the engine's rules.
    if (PdoEngine::isParameter(index) || EmcyProducer::isParameter(index)) {
        if (const quint32 code = m_dictionary->checkDownload(index, subIndex, data.size()))
            return code;
        const quint32 code = PdoEngine::isParameter(index)
                                 ? m_pdo->checkWrite(index, subIndex, data)
                                 : m_emcy->checkWrite(index, subIndex, data);
        if (code)
            return code;
    }
    return m_dictionary->download(index, subIndex, data);
}

QByteArray SimDrive::EngineObjects::value(quint16 index, quint8 subIndex) const
{
    const OdEntry* entry = m_dictionary->find(index, subIndex);
    return entry ? entry->value : QByteArray();
}

void SimDrive::EngineObjects::write(quint16 index, quint8 subIndex, const QByteArray& value)
{
    if (OdEntry* entry = m_dictionary->find(index, subIndex)) {
        entry->value = value;
        if (written)
            written(index);
    }
}

int SimDrive::EngineObjects::mappableBits(quint16 index, quint8 subIndex, bool receive) const
{
    const OdEntry* entry = m_dictionary->find(index, subIndex);
    if (!entry)
        return -1;
    const bool allowed = entry->pdoMapping && (receive ? entry->writable() : entry->readable());
    return allowed ? odTypeSize(entry->dataType) * 8 : 0;
}

} // namespace qorcalib

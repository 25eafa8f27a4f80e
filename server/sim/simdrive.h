#pragma once

#include "alarmlog.h"
#include "bootcatch.h"
#include "bootloader.h"
#include "dictionaryaccess.h"
#include "driveprofile.h"
#include "emcy.h"
#include "errorcontrol.h"
#include "lssslave.h"
#include "nmtslave.h"
#include "objectdictionary.h"
#include "pdo.h"
#include "sdoserver.h"
#include "simulatedsegment.h"

#include <QObject>
#include <QTimer>

namespace qorcalib {

// A simulated servo drive on a simulated segment: its object dictionary, its NMT slave and
// heartbeat, its SDO server (answering while pre-operational or operational) and its LSS slave
// (its LSS address is 0x1018 sub 1..4). A node-ID given by LSS is taken at the next reset; one
// stored by LSS also at every power-up, as long as the server runs.
//
// When it gets power (or is reset) it starts in its boot loader, which listens for a boot catch
// (bootcatch.h) for boot::kWindowMs before the application sends its boot-up message. A caught
// boot loader stays, answers SDO with its own few objects (bootloader.h): it takes a firmware
// image into 0x1F50 sub 1 and starts the application when "QorS" is written to 0x5EF0. The
// application then reports the flashed firmware: "FW major.minor.build" in 0x100A and the
// version in 0x1018 sub 3. The application itself refuses both objects with 08000022. The
// application also offers the drive's alarm log (alarmlog.h), and while operational its PDOs
// (pdo.h) on the SYNC of 1005, and the drive profile (driveprofile.h): its state machine, and
// motion in profile position, profile velocity and homing. Its emergencies (emcy.h): an RPDO of
// the wrong length, the bus's over-voltage and a following error (both faults of the profile,
// cleared by its fault reset), a lost master (life guarding) or a lost heartbeat it consumes
// (errorcontrol.h).
// The i-th simulated drive of a world gets the data sheet's serial number plus i, so that no two
// drives share an LSS address (LSS tells waiting drives apart by it).
void giveOwnSerial(ObjectDictionary* dictionary, int i);

class SimDrive : public QObject, public SimPort
{
    Q_OBJECT
public:
    static constexpr int kBootLoaderWindowMs = boot::kWindowMs;
    // The bench's over-voltage: alarm 2 in the log, and the drive profile's EMCY 3210 (DC link
    // over-voltage) while the application runs.
    static constexpr quint32 kOvervoltageAlarm = 2;
    static constexpr quint16 kOvervoltageEmcy = 0x3210;
    // A SYNC with a counter, which this drive does not take (it has no 1019).
    static constexpr quint16 kSyncLengthEmcy = 0x8240;
    enum class Mode
    {
        Off,
        BootWindow, // the boot loader listens for a catch
        BootHeld,   // caught: the boot loader waits for an image and the release
        Application,
    };

    SimDrive(SimulatedSegment* segment, ObjectDictionary dictionary, quint8 nodeId,
             int bitRateIndex, QObject* parent = nullptr);
    ~SimDrive() override;

    void setPowered(bool powered);
    void setBitRateIndex(int index) { m_bitRateIndex = index; }
    bool isPowered() const { return m_powered; }
    quint8 nodeId() const { return m_nmt.nodeId(); }
    const LssSlave& lss() const { return m_lss; }
    NmtSlave::State nmtState() const { return m_nmt.state(); }
    Mode mode() const { return m_mode; }
    const ObjectDictionary& dictionary() const { return m_dictionary; }
    const AlarmLog& alarmLog() const { return m_alarms; }
    const EmcyProducer& emergencies() const { return m_emcy; }
    const DriveProfile& profile() const { return m_profile; }
    // The running drive raises an alarm (AlarmLog); false when it has no power to do so.
    bool raiseAlarm(quint32 alarmNumber, quint32 busDeciVolts);
    ObjectDictionary& dictionary() { return m_dictionary; }

    int bitRateIndex() const override { return m_bitRateIndex; }
    bool isActive() const override { return m_powered; }
    void receive(const BusFrame& frame) override;
    void transmitted(const BusFrame&, bool) override {}

private:
    // The application's SDO objects: the dictionary, less those only the boot loader has.
    class ApplicationAccess : public SdoObjectAccess
    {
    public:
        ApplicationAccess(DictionaryAccess* dictionary, AlarmLog* alarms, PdoEngine* pdo,
                          EmcyProducer* emcy)
            : m_dictionary(dictionary), m_alarms(alarms), m_pdo(pdo), m_emcy(emcy)
        {
        }
        quint32 upload(quint16 index, quint8 subIndex, QByteArray* data) override;
        quint32 checkDownload(quint16 index, quint8 subIndex, qint64 size) override;
        quint32 download(quint16 index, quint8 subIndex, const QByteArray& data) override;

    private:
        DictionaryAccess* m_dictionary;
        AlarmLog* m_alarms;
        PdoEngine* m_pdo;
        EmcyProducer* m_emcy;
    };
    // The dictionary as the PDO and EMCY engines see it: a PDO maps entries the EDS marks, of a
    // fixed size, that it may read (TPDO) or write (RPDO).
    class EngineObjects : public PdoDictionary
    {
    public:
        explicit EngineObjects(ObjectDictionary* dictionary) : m_dictionary(dictionary) {}
        // An entry written by a received PDO.
        std::function<void(quint16 index)> written;
        QByteArray value(quint16 index, quint8 subIndex) const override;
        void write(quint16 index, quint8 subIndex, const QByteArray& value) override;
        int mappableBits(quint16 index, quint8 subIndex, bool receive) const override;

    private:
        ObjectDictionary* m_dictionary;
    };

    void startBootLoader();
    void receiveInBootLoader(const CanFrame& frame, qint64 nowUs);
    void takeFirmware(const FirmwareIdentity& identity);
    void boot();
    void applyHeartbeatPeriod();
    void takeNodeId(quint8 nodeId);
    void rearm();
    // What follows a change of the NMT state: PDOs run while operational.
    void followNmtState(qint64 nowUs);
    void onWritten(quint16 index, quint8 subIndex);
    // The controlword or the mode of operation changed (by SDO or by a PDO).
    void onProfileInput(quint16 index);
    // 1010 sub 1 "save": the parameters as they are become the drive's own; 1011 sub 1 "load":
    // the EDS's values again, from the next reset on.
    void storeOrRestore(bool store);

    SimulatedSegment* m_segment;
    ObjectDictionary m_dictionary;
    DictionaryAccess m_access;
    AlarmLog m_alarms;
    EngineObjects m_engineObjects;
    PdoEngine m_pdo;
    EmcyProducer m_emcy;
    DriveProfile m_profile;
    ErrorControl m_errorControl;
    QMap<quint32, QByteArray> m_factory; // the EDS's defaults, by the dictionary's keys
    ApplicationAccess m_applicationAccess;
    BootLoader m_bootLoader;
    NmtSlave m_nmt;
    SdoServer m_sdo;
    SdoServer m_bootSdo;
    LssSlave m_lss;
    int m_bitRateIndex;
    // As switched on: the node-ID and bit rate of the data sheet, or those LSS stored.
    quint8 m_startNodeId;
    int m_startBitRate;
    bool m_powered = false;
    Mode m_mode = Mode::Off;
    QTimer m_bootTimer;
    QTimer m_timer;
};

} // namespace qorcalib

#pragma once

#include "sdoserver.h"

#include <QVector>

#include <array>

namespace qorcalib {

// The drive's alarm log, kept in its flash (it survives resets and power cycles). The drive
// writes a record for every alarm it raises into a ring of kCapacity slots and offers them by
// SDO:
//
//   0x5810 sub 0  read-only, 32 bits: the upper 16 bits are the number of the last record
//                 (records 0 to that number exist; 0 also for an empty log), the lower 16 bits
//                 count the alarms raised over the drive's life
//   0x520B sub 0  read-write, 16 bits: the record that 0x520C shows; a record that does not
//                 exist is refused with 06090030
//   0x520C sub 0  read-only, 8 bits: the selected record's number of entries (kEntries, or 0
//                 while the log is empty)
//   0x520C sub k  read-only, 32 bits: entry k of the selected record (see Entry)
//
// A record's entries describe the drive when the alarm came; entry 12 is the time stamp, the
// drive's operating time in seconds. That clock is saved to flash only now and then, so after a
// power loss it resumes a little in the past: time stamps are not in the order of the records,
// and alarms raised in the same scan share one.
class AlarmLog : public SdoObjectAccess
{
public:
    static constexpr int kCapacity = 16;
    static constexpr int kEntries = 12;
    enum Entry
    {
        AlarmNumber = 1,
        BusVoltage,       // 0.1 V
        PhaseCurrent,     // mA
        DriveTemperature, // 0.1 degC
        MotorTemperature, // 0.1 degC
        Speed,            // rpm
        StatusWord,
        ControlWord,
        ErrorRegister,
        PowerOnCount,
        FirmwareVersion,
        TimeStamp, // operating seconds
    };
    using Record = std::array<quint32, kEntries>;

    // The log of a drive back from service: a few records already there.
    AlarmLog();

    static bool handles(quint16 index)
    {
        return index == 0x5810 || index == 0x520B || index == 0x520C;
    }

    // The drive raises an alarm: a new record in the next slot (over the oldest when the ring is
    // full), time-stamped operatingSeconds.
    void raise(quint32 alarmNumber, quint32 busDeciVolts, quint32 operatingSeconds);
    // The drive's operating time when the server started, later than every record already there.
    static constexpr quint32 kOperatingSecondsAtStart = 1320000;

    int size() const { return int(m_records.size()); }
    const Record& record(int number) const { return m_records[number]; }
    quint32 countWord() const;
    int selected() const { return m_selected; }

    quint32 upload(quint16 index, quint8 subIndex, QByteArray* data) override;
    quint32 checkDownload(quint16 index, quint8 subIndex, qint64 size) override;
    quint32 download(quint16 index, quint8 subIndex, const QByteArray& data) override;

private:
    QVector<Record> m_records; // in slot order
    int m_next = 0;            // the slot the next alarm is written to
    quint16 m_raised = 0;
    int m_selected = 0;
};

} // namespace qorcalib

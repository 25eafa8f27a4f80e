#include "alarmlog.h"

#include "sdo.h"

namespace qorcalib {

namespace {
constexpr quint32 code(SdoAbort abort)
{
    return quint32(abort);
}

QByteArray littleEndian(quint32 value, int bytes)
{
    QByteArray data(bytes, '\0');
    for (int i = 0; i < bytes; ++i)
        data[i] = char(value >> (8 * i));
    return data;
}

constexpr quint32 kFirmware = 0x00020107;
constexpr quint32 kStatusFault = 0x0008;
} // namespace

AlarmLog::AlarmLog()
{
    // Two alarms in one scan share a time stamp; the motor temperature came after a power loss,
    // when the clock had resumed from its last save.
    struct Seed
    {
        quint32 alarm, busDeciVolts, current, driveTemp, motorTemp, speed, seconds;
    };
    static constexpr Seed kSeeds[] = {
        {7, 482, 310, 384, 512, 1450, 1204210},   {2, 618, 1220, 415, 566, 2980, 1250460},
        {12, 655, 1240, 415, 566, 2980, 1250460}, {13, 480, 2870, 602, 1283, 1200, 1250100},
        {22, 481, 0, 351, 402, 0, 1311005},       {15, 476, 9950, 577, 711, 340, 1312870},
    };
    quint32 powerOns = 212;
    for (const Seed& s : kSeeds) {
        m_records.append(Record{s.alarm, s.busDeciVolts, s.current, s.driveTemp, s.motorTemp,
                                s.speed, 0x0637 | kStatusFault, 0x000F, 0x01, powerOns++, kFirmware,
                                s.seconds});
        ++m_raised;
    }
    m_next = int(m_records.size());
}

void AlarmLog::raise(quint32 alarmNumber, quint32 busDeciVolts, quint32 operatingSeconds)
{
    const Record record{alarmNumber, busDeciVolts,          0,      400,  420,
                        0,           0x0600 | kStatusFault, 0x0006, 0x01, 230,
                        kFirmware,   operatingSeconds};
    if (m_records.size() < kCapacity)
        m_records.append(record);
    else
        m_records[m_next] = record;
    m_next = (m_next + 1) % kCapacity;
    ++m_raised;
}

quint32 AlarmLog::countWord() const
{
    const quint32 last = m_records.isEmpty() ? 0 : quint32(m_records.size() - 1);
    return (last << 16) | m_raised;
}

quint32 AlarmLog::upload(quint16 index, quint8 subIndex, QByteArray* data)
{
    if (index == 0x5810 || index == 0x520B) {
        if (subIndex != 0)
            return code(SdoAbort::NoSubIndex);
        *data = index == 0x5810 ? littleEndian(countWord(), 4) : littleEndian(m_selected, 2);
        return 0;
    }
    const bool present = m_selected < m_records.size();
    if (subIndex == 0) {
        *data = littleEndian(present ? kEntries : 0, 1);
        return 0;
    }
    if (!present || subIndex > kEntries)
        return code(SdoAbort::NoSubIndex);
    *data = littleEndian(m_records[m_selected][subIndex - 1], 4);
    return 0;
}

quint32 AlarmLog::checkDownload(quint16 index, quint8 subIndex, qint64 size)
{
    if (index != 0x520B)
        return code(SdoAbort::ReadOnly);
    if (subIndex != 0)
        return code(SdoAbort::NoSubIndex);
    if (size > 2)
        return code(SdoAbort::TooLong);
    return 0;
}

quint32 AlarmLog::download(quint16 index, quint8 subIndex, const QByteArray& data)
{
    if (const quint32 refused = checkDownload(index, subIndex, data.size()))
        return refused;
    if (data.isEmpty())
        return code(SdoAbort::TooShort);
    int record = 0;
    for (int i = data.size() - 1; i >= 0; --i)
        record = record * 256 + quint8(data[i]);
    if (record >= qMax<int>(1, int(m_records.size())))
        return code(SdoAbort::InvalidValue);
    m_selected = record;
    return 0;
}

} // namespace qorcalib

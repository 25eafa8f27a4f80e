#include "alarmrecords.h"

#include "numbers.h"

#include <algorithm>
#include <array>

namespace tessel {

namespace {
const QString kLineEnd = QStringLiteral("\r\n");

quint32 littleEndian(const QByteArray& data)
{
    quint32 value = 0;
    for (int i = std::min<int>(int(data.size()), 4) - 1; i >= 0; --i)
        value = (value << 8) | quint8(data[i]);
    return value;
}
} // namespace

QString alarmText(int number)
{
    static const std::array<QString, alarmlog::kTextCount> kTexts = [] {
        std::array<QString, alarmlog::kTextCount> t;
        t[1] = QStringLiteral("Desaturazione IGBT");
        t[2] = QStringLiteral("Overvoltage");
        t[3] = QStringLiteral("Limite temperatura azionamento");
        t[4] = QStringLiteral("Limite temperatura modulo");
        t[5] = QStringLiteral("Software");
        t[6] = QStringLiteral("Motore bloccato");
        t[7] = QStringLiteral("Encoder");
        t[8] = QStringLiteral("Sync manager");
        t[11] = QStringLiteral("Enable +24V");
        t[12] = QStringLiteral("Fast overvoltage");
        t[13] = QStringLiteral("Limite temperatura motore");
        t[14] = QStringLiteral("Sync PDO overtime");
        t[15] = QStringLiteral("Limite di corrente");
        t[17] = QStringLiteral("Abort connection");
        t[18] = QStringLiteral("Parametri Flash non validi");
        t[19] = QStringLiteral("Limite di velocita'");
        t[20] = QStringLiteral("Errore Programmazione FPGA");
        t[21] = QStringLiteral("Limite di attrito in burn'in");
        t[22] = QStringLiteral("Software WDT/trap");
        return t;
    }();
    return number >= 0 && number < alarmlog::kTextCount ? kTexts[number] : QString();
}

QString alarmNumberText(quint32 value)
{
    const QString text = value < quint32(alarmlog::kTextCount) ? alarmText(int(value)) : QString();
    return text.isEmpty() ? QString::number(value)
                          : QString::number(value) + QLatin1Char(' ') + text;
}

int alarmRecordBound(quint32 status)
{
    return int(status >> 16);
}

QString alarmRecordText(const QVector<quint32>& entries)
{
    QString text;
    for (int k = 1; k <= entries.size(); ++k) {
        const quint32 v = entries[k - 1];
        text += hexField(v, 8) + QLatin1Char(' ') +
                (k == 1 ? alarmNumberText(v) : QString::number(v)) + kLineEnd;
    }
    return text;
}

qint32 alarmRecordKey(const QVector<quint32>& entries)
{
    return entries.size() >= alarmlog::kKeyEntry ? qint32(entries[alarmlog::kKeyEntry - 1]) : 0;
}

void sortAlarmRecords(QList<AlarmRecord>* records)
{
    std::stable_sort(records->begin(), records->end(),
                     [](const AlarmRecord& a, const AlarmRecord& b) { return a.key < b.key; });
}

QString joinAlarmRecords(const QList<AlarmRecord>& records)
{
    QString text;
    for (const AlarmRecord& r : records)
        text += r.text;
    return text;
}

AlarmLogText readAlarmLog(const AlarmSdo& sdo)
{
    AlarmLogText result;
    QByteArray data;
    const auto read = [&](quint16 index, quint8 sub, quint32* value) {
        if (!sdo(true, index, sub, {}, &data, &result.error))
            return false;
        *value = littleEndian(data);
        return true;
    };
    quint32 status = 0;
    if (!read(alarmlog::kStatusIndex, 0, &status))
        return result;
    QList<AlarmRecord> records;
    const int bound = alarmRecordBound(status);
    for (int record = 0; record <= bound; ++record) {
        QByteArray select(2, '\0');
        select[0] = char(record & 0xFF);
        select[1] = char(record >> 8);
        quint32 count = 0;
        if (!sdo(false, alarmlog::kSelectIndex, 0, select, &data, &result.error) ||
            !read(alarmlog::kRecordIndex, 0, &count))
            return result;
        QVector<quint32> entries;
        for (quint32 k = 1; k <= std::min<quint32>(count, 255); ++k) {
            quint32 v = 0;
            if (!read(alarmlog::kRecordIndex, quint8(k), &v))
                return result;
            entries.append(v);
        }
        records.append({alarmRecordText(entries), alarmRecordKey(entries), entries});
    }
    sortAlarmRecords(&records);
    result.ok = true;
    result.records = int(records.size());
    result.text = joinAlarmRecords(records);
    result.sorted = records;
    return result;
}

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QVector>

#include <functional>

namespace tessel {

// The drive's alarm log as the "Alarms" button reads it: the objects, the text of each
// record, the order.
//
// 0x5810 sub 0: the upper 16 bits are the number of the last record, so records 0 to that
// number are read (record 0 also when it is 0). Each record is selected by writing its number
// to 0x520B sub 0 (16 bits); 0x520C sub 0 gives its entry count n, sub 1..n its entries.
// Entry 1 is the alarm number, shown with its text from the alarm text table; entry 12 is the
// drive's time stamp, the sort key (0 for a record with fewer entries).
namespace alarmlog {
constexpr quint16 kStatusIndex = 0x5810;
constexpr quint16 kSelectIndex = 0x520B;
constexpr quint16 kRecordIndex = 0x520C;
constexpr int kKeyEntry = 12;
constexpr int kTextCount = 33;
} // namespace alarmlog

// The alarm text table, 0 to 32; "" for numbers without a text (and beyond the table).
QString alarmText(int number);
// The conversion of a record's first entry: the alarm number in decimal, then a blank and its
// text when the table has one ("2 Overvoltage", "9", "40").
QString alarmNumberText(quint32 value);
int alarmRecordBound(quint32 status);
// One line per entry: eight upper-case hexadecimal digits, a blank, then the converted first
// entry or the decimal value; each line ends in CR LF.
QString alarmRecordText(const QVector<quint32>& entries);
qint32 alarmRecordKey(const QVector<quint32>& entries);

struct AlarmRecord
{
    QString text;
    qint32 key = 0;
    QVector<quint32> entries;
};
// Ascending by key; equal keys keep the order in which the records were read.
void sortAlarmRecords(QList<AlarmRecord>* records);
QString joinAlarmRecords(const QList<AlarmRecord>& records);

// An SDO transfer for the reader: the uploaded bytes, or false with the reason (the abort code
// as eight hexadecimal digits, or the link's error).
using AlarmSdo = std::function<bool(bool upload, quint16 index, quint8 subIndex,
                                    const QByteArray& data, QByteArray* uploaded, QString* error)>;
struct AlarmLogText
{
    bool ok = false;
    QString text;  // the sorted records, when ok
    QString error; // the failed transfer, when not
    int records = 0;
    QList<AlarmRecord> sorted; // the records in the text's order
};
// Reads the whole log; the first failed transfer ends it with nothing to show.
AlarmLogText readAlarmLog(const AlarmSdo& sdo);

} // namespace tessel

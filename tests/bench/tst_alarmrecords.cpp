// The alarm log's reading rules: the text table, the record text, the sort, and the record
// loop against a scripted drive, including a drive that fails half-way.
#include "alarmrecords.h"
#include "datatable.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

namespace {
// A drive's alarm objects, answering the reader's transfers and recording them.
struct ScriptedDrive
{
    quint32 status = 0;
    QList<QVector<quint32>> records;
    QString failAt; // "u 520C 3" fails the upload of 0x520C sub 3 (the first time it comes)
    QStringList calls;
    int selected = -1;

    AlarmSdo sdo()
    {
        return [this](bool upload, quint16 index, quint8 sub, const QByteArray& data,
                      QByteArray* uploaded, QString* error) {
            const QString call = QStringLiteral("%1 %2 %3")
                                     .arg(upload ? 'u' : 'd')
                                     .arg(QString::number(index, 16).toUpper())
                                     .arg(sub);
            calls << (upload ? call : call + ' ' + data.toHex());
            if (call == failAt) {
                *error = QStringLiteral("06020000");
                return false;
            }
            const auto le = [](quint32 v, int n) {
                QByteArray b;
                for (int i = 0; i < n; ++i)
                    b.append(char(v >> (8 * i)));
                return b;
            };
            if (!upload) {
                selected = quint8(data[0]) | (quint8(data[1]) << 8);
                return true;
            }
            if (index == 0x5810)
                *uploaded = le(status, 4);
            else if (sub == 0)
                *uploaded = le(quint32(records.value(selected).size()), 1);
            else
                *uploaded = le(records.value(selected).value(sub - 1), 4);
            return true;
        };
    }
};

QVector<quint32> record(quint32 alarm, qint32 key, int entries = 12)
{
    QVector<quint32> r(entries, 0);
    r[0] = alarm;
    if (entries >= 12)
        r[11] = quint32(key);
    return r;
}
} // namespace

class TstAlarmRecords : public QObject
{
    Q_OBJECT
private slots:
    void recordText()
    {
        QVector<quint32> entries{2, 0x1F, 0xFFFFFFFF, 9, 40, 0, 0, 0, 0, 0, 0, 1250460};
        QCOMPARE(alarmRecordText(entries).split("\r\n").mid(0, 4),
                 QStringList({"00000002 2 Overvoltage", "0000001F 31", "FFFFFFFF 4294967295",
                              "00000009 9"}));
        // The first entry gets the conversion, the others their decimal value, whatever they are.
        QCOMPARE(alarmRecordText({0x1F}), QString("0000001F 31\r\n"));
        QCOMPARE(alarmRecordText({9, 2}), QString("00000009 9\r\n00000002 2\r\n"));
        QCOMPARE(alarmRecordText({19}), QString("00000013 19 Limite di velocita'\r\n"));
        QCOMPARE(alarmRecordText({}), QString());
        QCOMPARE(alarmRecordText(entries).count("\r\n"), 12);
        QVERIFY(alarmRecordText(entries).endsWith("0013149C 1250460\r\n"));
    }

    void key_data()
    {
        columns<QVector<quint32>, int>({"entries", "key"});
        row("entry 12", record(2, 1250460), 1250460);
        row("signed", record(2, -5), -5);
        row("more entries", (record(2, 77) << 99 << 98), 77);
        row("fewer than 12", record(2, 0, 11), 0);
        row("none", QVector<quint32>(), 0);
    }

    void key()
    {
        QFETCH(QVector<quint32>, entries);
        QTEST(int(alarmRecordKey(entries)), "key");
    }

    void sortKeepsEqualKeysInReadOrder_data()
    {
        // order: the records' read positions, sorted
        columns<QList<int>, QString>({"keys", "order"});
        row("sorted", QList<int>{1, 2, 3}, "012");
        row("reversed", QList<int>{3, 2, 1}, "210");
        row("two equal", QList<int>{5, 5}, "01");
        // An exchange sort would put record 2 before record 1 here.
        row("equal behind a greater", QList<int>{9, 4, 4, 1}, "3120");
        row("three equal apart", QList<int>{7, 2, 7, 2, 7}, "13024");
        row("negative first", QList<int>{0, -1, 0}, "102");
        row("none", QList<int>{}, "");
    }

    void sortKeepsEqualKeysInReadOrder()
    {
        QFETCH(QList<int>, keys);
        QList<AlarmRecord> records;
        for (int i = 0; i < keys.size(); ++i)
            records.append({QString::number(i), keys[i], {}});
        sortAlarmRecords(&records);
        QTEST(joinAlarmRecords(records), "order");
    }

    void readsEveryRecordAndSorts()
    {
        ScriptedDrive drive;
        drive.status = (2u << 16) | 0x0009; // records 0..2; the low half is not a bound
        drive.records = {record(7, 300), record(2, 100), record(12, 100)};
        const AlarmLogText log = readAlarmLog(drive.sdo());
        QVERIFY(log.ok);
        QCOMPARE(log.records, 3);
        QCOMPARE(log.text.count("\r\n"), 36);
        const QStringList firsts =
            log.text.split("\r\n").filter(QRegularExpression("^0000000[27C] "));
        QCOMPARE(firsts, QStringList({"00000002 2 Overvoltage", "0000000C 12 Fast overvoltage",
                                      "00000007 7 Encoder"}));
        // The selector is written before each record, as two bytes, little-endian.
        QCOMPARE(drive.calls.filter(QRegularExpression("^d ")),
                 QStringList({"d 520B 0 0000", "d 520B 0 0100", "d 520B 0 0200"}));
        QCOMPARE(drive.calls.first(), QString("u 5810 0"));
        QCOMPARE(drive.calls.size(), 1 + 3 * (2 + 12));
    }

    void boundZeroStillReadsRecordZero()
    {
        ScriptedDrive drive;
        drive.status = 0x0000FFFF;
        drive.records = {record(15, 1)};
        const AlarmLogText log = readAlarmLog(drive.sdo());
        QVERIFY(log.ok);
        QCOMPARE(log.records, 1);
        QVERIFY(log.text.startsWith("0000000F 15 Limite di corrente\r\n"));
        // An empty log: record 0 has no entries, and the text is empty.
        ScriptedDrive empty;
        const AlarmLogText none = readAlarmLog(empty.sdo());
        QVERIFY(none.ok);
        QCOMPARE(none.records, 1);
        QCOMPARE(none.text, QString());
    }
};

QTEST_APPLESS_MAIN(TstAlarmRecords)
#include "tst_alarmrecords.moc"

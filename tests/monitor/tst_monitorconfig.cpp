#include "datatable.h"
#include "monitorconfig.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

Q_DECLARE_METATYPE(tessel::MonitorSetup)

namespace {
MonitorSetup sample()
{
    MonitorSetup s;
    for (int i = 0; i < MonitorSetup::kSlots; ++i) {
        s.transmitSlots[i].id = QString::number(0x181 + i, 16);
        for (int j = 0; j < 8; ++j)
            s.transmitSlots[i].data[j] = QString::number(i * 8 + j, 16).toUpper();
        s.transmitSlots[i].length = QString::number(i);
        s.transmitSlots[i].remote = i % 3 == 0;
    }
    for (int i = 0; i < MonitorSetup::kFilters; ++i)
        s.filters[i] = QStringLiteral("70%1").arg(i);
    for (int i = 0; i < MonitorSetup::kSequences; ++i)
        s.sequences[i] = QStringLiteral("M%1 T0.%1").arg(i + 1);
    return s;
}

MonitorSetup other()
{
    MonitorSetup s;
    for (auto& slot : s.transmitSlots) {
        slot.id = QStringLiteral("old");
        slot.length = QStringLiteral("old");
    }
    s.filters.fill(QStringLiteral("old filter"));
    s.sequences.fill(QStringLiteral("old sequence"));
    return s;
}

bool same(const MonitorSetup& a, const MonitorSetup& b)
{
    for (int i = 0; i < MonitorSetup::kSlots; ++i) {
        const SlotTexts &x = a.transmitSlots[i], &y = b.transmitSlots[i];
        if (x.id != y.id || x.data != y.data || x.length != y.length || x.remote != y.remote)
            return false;
    }
    return a.filters == b.filters && a.sequences == b.sequences;
}

// The slot part of a file: eight slot lines of sample().
QByteArray slotLines()
{
    const QByteArray whole = writeMonitorConfig(sample());
    const qsizetype start = whole.indexOf("\r\n") + 2;
    qsizetype end = start;
    for (int i = 0; i < 8; ++i)
        end = whole.indexOf("\r\n", end) + 2;
    return whole.mid(start, end - start);
}
} // namespace

class TstMonitorConfig : public QObject
{
    Q_OBJECT
private slots:
    void writesTheFileFormat()
    {
        MonitorSetup s;
        s.transmitSlots[0].id = QStringLiteral("181");
        s.transmitSlots[0].data[0] = QStringLiteral("12");
        s.transmitSlots[0].data[1] = QStringLiteral("34");
        s.transmitSlots[0].length = QStringLiteral("2");
        s.transmitSlots[1].remote = true;
        s.filters[5] = QStringLiteral("701");
        s.sequences[0] = QStringLiteral("M1 T1");
        const QByteArray file = writeMonitorConfig(s);
        const QList<QByteArray> lines = file.split('\n');
        QCOMPARE(lines.size(), 10);
        QCOMPARE(lines[0], QByteArray("\";COPDIB config file\"\r"));
        QCOMPARE(lines[1],
                 QByteArray("\"181\",\"12\",\"34\",\"\",\"\",\"\",\"\",\"\",\"\",\"2\",0\r"));
        QCOMPARE(lines[2], QByteArray("\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\",1\r"));
        QCOMPARE(lines[9],
                 QByteArray("\"\",\"\",\"\",\"\",\"\",\"701\",\"M1 T1\",\"\",\"\",\"\",\"\","
                            "\"\""));
    }

    void versions_data()
    {
        columns<QByteArray, bool, bool>({"file", "filters", "sequences"});
        const QByteArray tail = "\"701\",\"702\",\"703\",\"704\",\"705\",\"706\"";
        row("CANDIA", "\";CANDIA\"\r\n" + slotLines(), false, false);
        row("COPDIA", "\";COPDIA config file\"\r\n" + slotLines() + tail, true, false);
        row("COPDIBxyz",
            "\";COPDIBxyz\"\r\n" + slotLines() + tail +
                ",\"M1\",\"M2\",\"M3\",\"M4\",\"M5\",\"M6\"",
            true, true);
        // Fields are read one by one, whatever the line breaks: all on one line, LF only.
        QByteArray oneLine = slotLines();
        oneLine.replace("\r\n", ",");
        row("one line", "\";CANDIA\"," + oneLine, false, false);
        QByteArray unix = "\";CANDIA\"\n" + slotLines();
        unix.replace("\r\n", "\n");
        row("LF line ends", unix, false, false);
        row("bare header, blanks", ";CANDIA ,  " + slotLines(), false, false);
    }

    void versions()
    {
        auto [file, filters, sequences] =
            fetch<QByteArray, bool, bool>("file", "filters", "sequences");
        const MonitorConfigLoad load = readMonitorConfig(file, other());
        QCOMPARE(load.result, MonitorConfigLoad::Loaded);
        for (int i = 0; i < MonitorSetup::kSlots; ++i) {
            QCOMPARE(load.setup.transmitSlots[i].id, sample().transmitSlots[i].id);
            QCOMPARE(load.setup.transmitSlots[i].data, sample().transmitSlots[i].data);
            QCOMPARE(load.setup.transmitSlots[i].remote, sample().transmitSlots[i].remote);
        }
        QCOMPARE(load.setup.filters[5],
                 filters ? QStringLiteral("706") : QStringLiteral("old filter"));
        QCOMPARE(load.setup.sequences[5],
                 sequences ? QStringLiteral("M6") : QStringLiteral("old sequence"));
    }

    void badFiles_data()
    {
        columns<QByteArray, int>({"file", "result"});
        // How many slots' identifiers the failed load had set before it stopped.
        QTest::addColumn<int>("slotsRead");
        const int unknown = MonitorConfigLoad::UnknownHeader, failed = MonitorConfigLoad::Failed;
        row("empty file", QByteArray(), unknown, 0);
        row("unknown header", QByteArray("\";COPDIC\"\r\n") + slotLines(), unknown, 0);
        row("header of six characters", QByteArray("\";COPDI\"\r\n") + slotLines(), unknown, 0);
        QByteArray garbage(4096, '\0');
        for (int i = 0; i < garbage.size(); ++i)
            garbage[i] = char((i * 7919 + 13) % 256);
        row("binary garbage", garbage, unknown, 0);
        row("header only", QByteArray("\";COPDIB\"\r\n"), failed, 0);
        row("cut in slot 3", QByteArray("\";CANDIA\"\r\n") + slotLines().left(130), failed, 3);
        QByteArray badBox = slotLines();
        badBox.replace(",1\r\n\"185\"", ",2\r\n\"185\"");
        row("remote box 2", "\";CANDIA\"\r\n" + badBox, failed, 4);
        QByteArray wordBox = slotLines();
        wordBox.replace(",0\r\n\"183\"", ",yes\r\n\"183\"");
        row("remote box yes", "\";CANDIA\"\r\n" + wordBox, failed, 2);
        QByteArray strayQuote = slotLines();
        strayQuote.replace("\"183\"", "\"1\"83\"");
        row("embedded quote", "\";CANDIA\"\r\n" + strayQuote, failed, 2);
        row("no closing quote", "\";CANDIA\"\r\n" + slotLines().left(40) + "\"abc", failed, 1);
        row("filters missing", "\";COPDIA\"\r\n" + slotLines() + "\"701\"", failed, 8);
    }

    void badFiles()
    {
        auto [file, result, slotsRead] = fetch<QByteArray, int, int>("file", "result", "slotsRead");
        const MonitorConfigLoad load = readMonitorConfig(file, other());
        QCOMPARE(int(load.result), result);
        QVERIFY(!load.reason.isEmpty());
        // Not atomic: what was read stays, the rest is as it was.
        for (int i = 0; i < MonitorSetup::kSlots; ++i)
            QCOMPARE(load.setup.transmitSlots[i].id,
                     i < slotsRead ? sample().transmitSlots[i].id : QStringLiteral("old"));
        if (result == MonitorConfigLoad::UnknownHeader)
            QVERIFY(same(load.setup, other()));
    }
};

QTEST_APPLESS_MAIN(TstMonitorConfig)
#include "tst_monitorconfig.moc"

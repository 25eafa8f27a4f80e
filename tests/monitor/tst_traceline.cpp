#include "datatable.h"
#include "receivefilter.h"
#include "traceline.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

class TstTraceLine : public QObject
{
    Q_OBJECT
private slots:
    void line_data()
    {
        columns<int, int, quint32, quint32, QByteArray, QString, QString>(
            {"channel", "kind", "id", "time", "data", "decimalPoint", "expected"});

        row("received", 0, 1, 0x181u, 5123456u, QByteArray::fromHex("1234"), ".",
            "R0 181 2 005s123.456 > 12 34 ");
        row("server's transmit report", 0, 2, 0x601u, 0u, QByteArray::fromHex("4000100000000000"),
            ".", "T0 601 8 000s000.000 > 40 00 10 00 00 00 00 00 ");
        row("NMT reset node", 0, 2, 0u, 0u, QByteArray::fromHex("8100"), ".",
            "T0 000 2 000s000.000 > 81 00 ");
        row("remote request has no data", 1, 3, 0x701u, 0u, QByteArray::fromHex("0102"), ".",
            "M1 701 0 000s000.000 > ");
        row("unknown kind has no letter", 2, 7, 0x10u, 0u, QByteArray(), ".",
            "2 010 0 000s000.000 > ");
        row("seconds wrap after 999", 0, 1, 0x701u, 1000000999u, QByteArray::fromHex("7f"), ".",
            "R0 701 1 000s000.999 > 7F ");
        row("half a millisecond", 3, 1, 0x80u, 5500u, QByteArray(), ".", "R3 080 0 000s005.500 > ");
        row("largest time", 0, 1, 0x7FFu, 4294967295u, QByteArray(), ".",
            "R0 7FF 0 294s967.295 > ");
        row("long id keeps its last digits", 0, 1, 0x1ABCu, 0u, QByteArray(), ".",
            "R0 ABC 0 000s000.000 > ");
        row("locale decimal comma", 0, 1, 0x181u, 5123456u, QByteArray(), ",",
            "R0 181 0 005s123,456 > ");
    }

    void line()
    {
        auto [channel, kind, id, time, data, decimalPoint, expected] =
            fetch<int, int, quint32, quint32, QByteArray, QString, QString>(
                "channel", "kind", "id", "time", "data", "decimalPoint", "expected");
        QCOMPARE(traceLine(channel, kind, id, time, int(data.size()),
                           reinterpret_cast<const quint8*>(data.constData()), decimalPoint.at(0)),
                 expected);
    }

    void trimBoundary_data()
    {
        // first: length of a first line
        // second: length of the line that follows it
        columns<int, int, bool>({"first", "second", "cut"});
        // The cut comes when text + line + 2 reaches 65000.
        row("one below the limit", 40000, 64999 - 40002 - 2, false);
        row("at the limit", 40000, 65000 - 40002 - 2, true);
        row("a short line after a long one", 64991, 5, true);
    }

    void trimBoundary()
    {
        auto [first, second, cut] = fetch<int, int, bool>("first", "second", "cut");
        TraceBuffer buffer;
        buffer.append(QString(first, QLatin1Char('a')));
        const QString before = buffer.text();
        const QString line(second, QLatin1Char('b'));
        buffer.append(line);
        // The last 16300 characters before the new line, even where the cut falls inside a line.
        const QString kept = cut ? before.right(TraceBuffer::kKeepLength) : before;
        QCOMPARE(buffer.text(), kept + line + "\r\n");
    }

    void trimKeepsTheTraceBounded()
    {
        TraceBuffer buffer;
        for (quint32 i = 0; i < 20000; ++i) {
            const quint8 data[2] = {quint8(i), quint8(i >> 8)};
            buffer.append(traceLine(0, 1, 0x181, i, 2, data));
            QVERIFY(buffer.text().size() < TraceBuffer::kMaxLength);
        }
        QVERIFY(buffer.text().endsWith("R0 181 2 000s019.999 > 1F 4E \r\n"));
    }

    void filter_data()
    {
        columns<QStringList, bool, quint32, bool>({"boxes", "invert", "id", "passes"});
        const QStringList none{"", "", "", "", "", ""};
        row("empty list passes all", none, false, 0x181u, true);
        row("empty list inverted passes none", none, true, 0x181u, false);
        row("empty boxes never match id 0", none, true, 0x000u, false);
        row("listed is hidden", QStringList{"181"}, false, 0x181u, false);
        row("unlisted shows", QStringList{"181"}, false, 0x182u, true);
        row("listed shows when inverted", QStringList{"", "", "701"}, true, 0x701u, true);
        row("blanks around", QStringList{" 181 "}, false, 0x181u, false);
        row("lower case", QStringList{"7e5"}, false, 0x7E5u, false);
        row("0x prefix reads as 0", QStringList{"0x181"}, false, 0x000u, false);
        row("0x prefix does not match the id", QStringList{"0x181"}, false, 0x181u, true);
        row("not hexadecimal reads as 0", QStringList{"zz"}, false, 0x000u, false);
        row("leading digits count", QStringList{"18g"}, false, 0x18u, false);
        row("sixth box", QStringList{"", "", "", "", "", "80"}, false, 0x80u, false);
    }

    void filter()
    {
        auto [boxes, invert, id, passes] =
            fetch<QStringList, bool, quint32, bool>("boxes", "invert", "id", "passes");
        ReceiveFilter f;
        for (int i = 0; i < boxes.size(); ++i)
            f.setText(i, boxes[i]);
        f.setInvert(invert);
        QCOMPARE(f.passes(id), passes);
    }
};

QTEST_APPLESS_MAIN(TstTraceLine)
#include "tst_traceline.moc"

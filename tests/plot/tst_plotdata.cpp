// What a plot keeps and draws: the ring's bound, the decimation's extremes and gaps, the exact
// CSV export, the sources as typed, and recordings read as traces.
#include "datatable.h"
#include "filesource.h"
#include "plotsource.h"
#include "sampletrace.h"

#include <QtTest>

#include <cmath>
#include <random>

using namespace tessel::test;

using namespace tessel;

class TstPlotData : public QObject
{
    Q_OBJECT
private slots:
    void ringKeepsTheNewest()
    {
        SampleRing r(5);
        for (int i = 0; i < 12; ++i)
            i == 8 ? r.appendGap(i, "no answer") : r.append(i, i * 10);
        QCOMPARE(r.size(), qsizetype(5));
        QCOMPARE(r.dropped(), qint64(7));
        QCOMPARE(r.at(0).t, 7.0);
        QCOMPARE(r.last().v, 110.0);
        QVERIFY(r.at(1).isGap());
        QCOMPARE(r.gapReason(8.5), QString("no answer"));
        QCOMPARE(r.valueAt(9.5)->v, 90.0);
        QCOMPARE(r.valueAt(6.0), nullptr);
        QCOMPARE(r.lowerBound(8.5), qsizetype(2));
        // A time that goes back is taken at the newest.
        r.append(3, 1);
        QCOMPARE(r.last().t, 11.0);
        // Smaller keeps the newest; larger grows from there.
        r.setCapacity(2);
        QCOMPARE(r.size(), qsizetype(2));
        QCOMPARE(r.at(0).v, 110.0);
        r.setCapacity(4);
        r.append(12, 5);
        r.append(13, 6);
        r.append(14, 7);
        QCOMPARE(r.size(), qsizetype(4));
        QCOMPARE(r.at(0).v, 1.0);
        QCOMPARE(r.last().v, 7.0);
    }

    void decimationKeepsExtremesAndGaps_data()
    {
        columns<int, int, int>({"samples", "columns", "gapEvery"});
        row("dense", 200000, 50, 0);
        row("sparse: every sample drawn", 10, 1000, 0);
        row("one column", 5000, 1, 0);
        row("gaps", 20000, 40, 997);
        row("a gap every other sample", 1000, 7, 2);
        row("a node gone for a while", 20000, 40, -3000);
    }

    void decimationKeepsExtremesAndGaps()
    {
        auto [samples, columns, gapEvery] = fetch<int, int, int>("samples", "columns", "gapEvery");
        std::mt19937 random(samples);
        SampleRing ring(samples);
        // The range starts and ends between samples, as a view's does. The samples just outside it
        // are the most extreme of all: they must not stand for the columns at the edges.
        const double t0 = samples * 0.0002 + 0.0004, t1 = samples * 0.0009 + 0.0004;
        for (int i = 0; i < samples; ++i) {
            const double t = i * 0.001;
            // gapEvery < 0: one run of that many gaps in the middle of the range.
            if ((gapEvery > 0 && i % gapEvery == gapEvery - 1) ||
                (gapEvery < 0 && i >= samples / 2 && i < samples / 2 - gapEvery))
                ring.appendGap(t, "gone");
            else if (t >= t1 && t < t1 + 0.001)
                ring.append(t, 1e6);
            else if (t < t0 && t >= t0 - 0.001)
                ring.append(t, -1e6);
            else
                ring.append(t, double(int(random() % 100000)) - 50000);
        }
        const QVector<QPointF> drawn = decimate(ring, t0, t1, columns);
        QVERIFY(!drawn.isEmpty());
        // Per column, the drawn extremes are the data's; nothing is drawn that the data has not.
        const double width = (t1 - t0) / columns;
        const auto columnOf = [&](double t) {
            return t < t0 ? -1 : qMin(columns, int((t - t0) / width));
        };
        QMap<int, QPair<double, double>> data, shown;
        const auto extend = [](QMap<int, QPair<double, double>>& m, int c, double v) {
            if (!m.contains(c))
                m[c] = {v, v};
            m[c] = {qMin(m[c].first, v), qMax(m[c].second, v)};
        };
        const qsizetype first = qMax<qsizetype>(0, ring.lowerBound(t0) - 1);
        const qsizetype end = qMin(ring.size(), ring.lowerBound(t1) + 1);
        for (qsizetype i = first; i < end; ++i)
            if (!ring.at(i).isGap())
                extend(data, columnOf(ring.at(i).t), ring.at(i).v);
        for (const QPointF& p : drawn)
            if (!std::isnan(p.y()))
                extend(shown, columnOf(p.x()), p.y());
        QCOMPARE(shown, data);
        // In time order, and a gap between any two samples is a break in the line.
        for (int k = 1; k < drawn.size(); ++k) {
            QVERIFY(drawn[k].x() >= drawn[k - 1].x());
            if (std::isnan(drawn[k].y()) || std::isnan(drawn[k - 1].y()))
                continue;
            const qsizetype a = ring.lowerBound(drawn[k - 1].x()),
                            b = ring.lowerBound(drawn[k].x());
            for (qsizetype i = a; i <= b; ++i)
                QVERIFY2(!ring.at(i).isGap(),
                         qPrintable(QString("line across the gap at %1").arg(ring.at(i).t)));
        }
        // A run of gaps is one break in the line, however long the node was gone.
        int breaks = 0, runs = 0;
        for (const QPointF& p : drawn)
            breaks += std::isnan(p.y());
        for (qsizetype i = first; i < end; ++i)
            runs += ring.at(i).isGap() && (i == first || !ring.at(i - 1).isGap());
        QCOMPARE(breaks, runs);
        if (samples > 100 * columns && gapEvery == 0)
            QVERIFY(drawn.size() <= 4 * (columns + 2));
    }

    void csvHoldsTheExactValuesOfTheRange()
    {
        SampleRing position(10), supply(10);
        position.append(0.5, -123456789);
        position.append(1.0, 0.1);
        position.appendGap(2.0, "SDO abort 06020000: object does not exist, \"here\"");
        position.append(4.0, 7);
        supply.append(1.5, 47.25);
        supply.append(3.9999999, 48);
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QVERIFY(writeSamplesCsv(&out, {{"Position", &position}, {"Vout, V", &supply}}, 0.75, 4.0));
        QCOMPARE(QString::fromUtf8(out.data()),
                 QString("time_s,trace,value,error\n"
                         "1.000000,Position,0.1,\n"
                         "1.500000,\"Vout, V\",47.25,\n"
                         "2.000000,Position,,\"SDO abort 06020000: object does not exist, "
                         "\"\"here\"\"\"\n"
                         "4.000000,\"Vout, V\",48,\n"
                         "4.000000,Position,7,\n"));
    }

    void sources_data()
    {
        // text: typed; expected: what the source writes back, or "!" and the start of the error
        columns<QString, QString>({"text", "expected"});
        row("entry", "sdo 1,6064,0 i32", "sdo 1,6064,00 i32");
        row("entry, two fields as the SDO panel", "sdo 7F,1018", "sdo 7F,1018,18");
        row("entry with every ending", "sdo a,6041,0 on 1 every 20 as \"Status word\"",
            "sdo A,6041,00 on 1 every 20 as \"Status word\"");
        row("frame field", "frame 381 16:32 signed *0.5 as Position",
            "frame 381 16:32 signed *0.5 as Position");
        row("analog", "analog 3 every 500", "analog 3 every 500");
        row("analog of a latching board", "analog 0 latched as \"pwr short\"",
            "analog 0 latched as \"pwr short\"");
        row("file column", "file \"/tmp/a b.csv\" column value",
            "file \"/tmp/a b.csv\" column value");
        row("file frame", "file x.log frame 181 0:16", "file x.log frame 181 0:16");
        row("nothing", "", "!a source is sdo");
        row("unknown kind", "pdo 181", "!'pdo' is no source");
        row("node 0", "sdo 0,6064,0", "!an entry is NODE,INDEX");
        row("node past 7F", "sdo 80,6064,0", "!an entry is NODE,INDEX");
        row("not hexadecimal", "sdo 1,60x4,0", "!an entry is NODE,INDEX");
        row("negative sub-index", "sdo 1,6064,-1", "!an entry is NODE,INDEX");
        row("four fields", "sdo 1,6064,0,0", "!an entry is NODE,INDEX");
        row("unknown type", "sdo 1,6064,0 f32", "!type 'f32'");
        row("identifier past 7FF", "frame 800 0:8", "!the identifier is 0 to 7FF");
        row("field past 64 bits", "frame 181 60:8", "!the field is FIRST-BIT:BITS");
        row("no bits", "frame 181 8", "!the field is FIRST-BIT:BITS");
        row("scale 0", "frame 181 0:8 *0", "!the scale '*0'");
        row("word after the field", "frame 181 0:8 unsigned", "!'unsigned': a field ends");
        row("controller 4", "sdo 1,6064,0 on 4", "!'on 4': the controller is 0 to 3");
        row("period 0", "analog 1 every 0", "!'every 0': the period is");
        row("period on a frame", "frame 181 0:8 every 10", "!only entries and analog");
        row("controller of a file", "file x.csv column v on 1", "!a file is not on a controller");
        row("file without column", "file x.csv column", "!which column of x.csv");
        row("file without what", "file x.csv", "!a file source is");
        row("analog channel not a number", "analog x", "!an analog channel is a number");
        row("more words", "analog 1 2", "!'2' is more than the source takes");
    }

    void sources()
    {
        auto [text, expected] = fetch<QString, QString>("text", "expected");
        QString error;
        const auto s = PlotSource::parse(text, &error);
        if (expected.startsWith('!')) {
            QVERIFY2(!s, qPrintable(s ? s->text() : QString()));
            QVERIFY2(error.startsWith(expected.mid(1)), qPrintable(error));
            return;
        }
        QVERIFY2(s, qPrintable(error));
        QCOMPARE(s->text(), expected);
        // What it writes reads back as the same source.
        const auto again = PlotSource::parse(s->text(), &error);
        QVERIFY2(again, qPrintable(error));
        QCOMPARE(again->text(), expected);
    }

    void fieldValues_data()
    {
        columns<QString, QByteArray, double>({"source", "data", "value"});
        row("u16 at a byte", "frame 1 8:16", QByteArray::fromHex("00 3412"), double(0x1234));
        row("i32 negative", "frame 1 16:32 signed", QByteArray::fromHex("0000 feffffff"), -2.0);
        row("i32 positive read unsigned", "frame 1 0:32", QByteArray::fromHex("feffffff"),
            4294967294.0);
        row("4 bits across a byte", "frame 1 6:4 signed", QByteArray::fromHex("c0 03"), -1.0);
        row("scaled", "frame 1 0:8 *0.5", QByteArray::fromHex("07"), 3.5);
        row("a byte short", "frame 1 8:16", QByteArray::fromHex("0011"), qQNaN());
        row("ending within a byte not there", "frame 1 4:8", QByteArray::fromHex("ff"), qQNaN());
    }

    void fieldValues()
    {
        auto [source, data, value] = fetch<QString, QByteArray, double>("source", "data", "value");
        QString error;
        const auto s = PlotSource::parse(source, &error);
        QVERIFY2(s, qPrintable(error));
        const auto v = s->fieldValue(data.constData(), int(data.size()));
        QCOMPARE(v.has_value(), !std::isnan(value));
        if (v)
            QCOMPARE(*v, value);
    }

    void recordings_data()
    {
        // what: what follows "file PATH" in the source; values: "t=v" or "t:gap reason"
        columns<QString, QByteArray, QString, QStringList, QString>(
            {"what", "content", "error", "values", "note"});
        row("a sampled CSV", "column value",
            QByteArray("time_s,value,error\n0.0,5,\n0.5,,no answer from the CAN "
                       "server\n1.0,x,\nbad\n1.5,-2,\n"),
            "",
            QStringList{"0=5", "0.5:no answer from the CAN server", "1:'x' is not a number",
                        "1.5=-2"},
            "1 lines passed over (line 5: the time 'bad' is not a number)");
        row("a quoted header", "column \"Vout, V\"", QByteArray("t,\"Vout, V\"\n1,48\n"), "",
            QStringList{"1=48"}, "");
        row("no such column", "column speed", QByteArray("time_s,value,error\n0,1,\n"),
            "x has no column 'speed'; its columns: value, error", QStringList{}, "");
        row("the time column", "column time_s", QByteArray("time_s,value\n"),
            "time_s is the time column of x: choose another", QStringList{}, "");
        row("a candump log", "frame 181 0:16 signed",
            QByteArray(
                "(100.000000) can0 181#FEFF\n(100.250000) can0 182#0102\n(100.500000) can0 181#01\n"
                "(100.750000) can0 18G#00\n(101.000000) can0 181#0300\n"),
            "", QStringList{"0=-2", "0.5:1 bytes, the field needs 2", "1=3"},
            "1 lines passed over (line 4: ");
        row("an acquisition file whose time wraps", "frame 385 0:8",
            QByteArray("901;4294967000;1;7;\r\n901;4294967200;2;8;0;\r\n901;704;1;9;\r\n"), "",
            QStringList{"0=7", "0.0002=8", "0.001=9"}, "");
        row("not a recording", "frame 181 0:8", QByteArray("time_s,value\n1,2\n"),
            "x is no trace file (candump log, ASC, PCAN-View trace) and no acquisition file",
            QStringList{}, "");
    }

    void recordings()
    {
        auto [what, content, error] =
            fetch<QString, QByteArray, QString>("what", "content", "error");
        QTemporaryDir dir;
        QFile file(dir.filePath("x"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
        QString parseError;
        const auto s = PlotSource::parse("file " + file.fileName() + " " + what, &parseError);
        QVERIFY2(s, qPrintable(parseError));
        const FileTrace trace = readFileTrace(*s, 100);
        QCOMPARE(trace.error, error);
        QStringList values;
        for (qsizetype i = 0; i < trace.ring.size(); ++i) {
            const Sample& v = trace.ring.at(i);
            values << QString::number(v.t) + (v.isGap() ? ":" + trace.ring.gapReason(v.t)
                                                        : "=" + QString::number(v.v));
        }
        QTEST(values, "values");
        QFETCH(QString, note);
        QVERIFY2(note.isEmpty() ? trace.note.isEmpty() : trace.note.startsWith(note),
                 qPrintable(trace.note));
        // Missing altogether.
        file.remove();
        QVERIFY(readFileTrace(*s, 100).error.startsWith("Cannot read " + file.fileName()));
    }
};

QTEST_GUILESS_MAIN(TstPlotData)
#include "tst_plotdata.moc"

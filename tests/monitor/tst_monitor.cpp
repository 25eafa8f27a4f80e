#include "acquisition.h"
#include "canmsg.h"
#include "composer.h"
#include "datatable.h"
#include "frametransmitter.h"
#include "frmdiagno.h"
#include "frminviamesg.h"
#include "frmio.h"
#include "frmseq.h"
#include "monitorconfig.h"
#include "receivefilter.h"
#include "sequence.h"
#include "sliderbytes.h"
#include "traceline.h"
#include "traceview.h"
#include "transmitslot.h"

#include <QtTest>
#include <QtWidgets>

#include <memory>

using namespace tessel::test;
using namespace tessel;

Q_DECLARE_METATYPE(tessel::SlotTexts)
Q_DECLARE_METATYPE(tessel::MonitorSetup)

namespace {
SlotTexts slot(const QString& id, const QString& length, const QStringList& data = {},
               bool remote = false)
{
    SlotTexts s;
    s.id = id;
    s.length = length;
    s.remote = remote;
    for (int j = 0; j < data.size() && j < 8; ++j)
        s.data[j] = data[j];
    return s;
}


// A fake clock for one row: the timer is a due time; advancing fires it when due.
class FakeClock : public RowTimer
{
public:
    void start(int ms) override { due = now + ms; }
    void stop() override { due = -1; }
    qint64 nowMs() const override { return now; }
    // Runs the row until `until`; every expiry at its due time.
    void runUntil(SequenceRow& row, qint64 until)
    {
        for (int guard = 0; due >= 0 && due <= until && guard < 100000; ++guard) {
            now = due;
            row.onTimer();
        }
        now = until;
    }
    qint64 now = 0;
    qint64 due = -1;
};

struct RowRig
{
    explicit RowRig(const QString& text)
    {
        SequenceRow::Hooks hooks;
        hooks.sendSlot = [this](int slot) {
            sent.append({clock.now, slot});
            return slot == failingSlot;
        };
        hooks.stopped = [this](const QString& message) {
            ++stops;
            lastMessage = message;
        };
        row = std::make_unique<SequenceRow>(&clock, hooks);
        row->setText(text);
    }
    QString sends() const
    {
        QStringList parts;
        for (const auto& [time, slot] : sent)
            parts << QStringLiteral("%1@%2").arg(slot).arg(time);
        return parts.join(QLatin1Char(' '));
    }
    FakeClock clock;
    std::unique_ptr<SequenceRow> row;
    QList<std::pair<qint64, int>> sent;
    int failingSlot = -100;
    int stops = 0;
    QString lastMessage;
};


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


QByteArray record(quint16 id, qint16 len)
{
    QByteArray r(qorcalib::kRecordSize, '\0');
    qToLittleEndian<qint16>(qint16(id), r.data());
    qToLittleEndian<qint16>(len, r.data() + 2);
    for (int i = 0; i < 8; ++i)
        r[4 + i] = char(0x10 + i);
    return r;
}

// A monitor whose sends and messages are recorded: "181:1234" for a data frame, "R181:4" for
// a remote request.
struct Rig : FrameTransmitter
{
    Rig()
    {
        monitor.setTransmitter(this);
        QObject::connect(&monitor, &FrmDiagno::message,
                         [this](const QString& text) { messages << text; });
        // No file dialog opens in a test: each is cancelled.
        monitor.chooseOpenFile = [](const QString&, const QString&, const QString&) {
            return QString();
        };
        monitor.chooseSaveFile = monitor.chooseOpenFile;
    }
    void setSlot(int i, const QString& id, const QString& length, const QStringList& data = {})
    {
        monitor.slotGrid->edID0[i]->setText(id);
        monitor.slotGrid->edLen0[i]->setText(length);
        for (int j = 0; j < 8; ++j)
            monitor.slotGrid->edD0[i * 8 + j]->setText(data.value(j));
    }
    FrmDiagno monitor{nullptr, nullptr};
    bool send(quint16 id, int, const QByteArray& data) override
    {
        sent << QStringLiteral("%1:%2").arg(id, 0, 16).arg(QString::fromLatin1(data.toHex()));
        return failSends;
    }
    bool sendRemote(quint32 id, int length) override
    {
        sent << QStringLiteral("R%1:%2").arg(id, 0, 16).arg(length);
        return failSends;
    }
    QStringList sent;
    QStringList messages;
    bool failSends = false;
};

} // namespace

class TstMonitor : public QObject
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

    void frame_data()
    {
        columns<SlotTexts, int, QByteArray, bool, int>({"texts", "id", "data", "remote", "length"});
        row("start the drive", slot("000", "2", {"01", "00"}), 0, QByteArray("\x01\x00", 2), false,
            2);
        row("length 0 reads no box", slot("181", "0", {"zz"}), 0x181, QByteArray(), false, 0);
        row("length 8, empty boxes", slot("181", "8"), 0x181, QByteArray(8, '\0'), false, 8);
        row("boxes past the length unread", slot("181", "2", {"12", "34", "56"}), 0x181,
            QByteArray("\x12\x34", 2), false, 2);
        row("lower case id", slot("7e5", "0"), 0x7E5, QByteArray(), false, 0);
        row("id with blanks", slot(" 181 ", " 1 ", {"5"}), 0x181, QByteArray("\x05", 1), false, 1);
        row("remote reads no box", slot("181", "4", {"zz"}, true), 0x181, QByteArray(), true, 4);
        row("length 8.0", slot("181", "8.0"), 0x181, QByteArray(8, '\0'), false, 8);
    }

    void frame()
    {
        auto [texts, id, data, remote, length] =
            fetch<SlotTexts, int, QByteArray, bool, int>("texts", "id", "data", "remote", "length");
        QString error;
        const auto f = slotFrame(texts, 2, &error);
        QVERIFY2(f.has_value(), qPrintable(error));
        QCOMPARE(int(f->id), id);
        QCOMPARE(f->data, data);
        QCOMPARE(f->remote, remote);
        QCOMPARE(f->length, length);
    }

    void refused_data()
    {
        columns<SlotTexts, QString>({"texts", "message"});
        const QString invalid = QStringLiteral("Invalid message lenght");
        row("9", slot("181", "9"), invalid);
        row("-1", slot("181", "-1"), invalid);
        row("2.5", slot("181", "2.5"), invalid);
        row("1e3", slot("181", "1e3"), invalid);
        row("abc", slot("181", "abc"),
            QStringLiteral("The length of slot 3 is \"abc\", not a number: "
                           "nothing sent."));
        row("empty", slot("181", ""),
            QStringLiteral("The length of slot 3 is \"\", not a number: nothing "
                           "sent."));
        row("remote 9", slot("181", "9", {}, true), invalid);
        row("id 800", slot("800", "0"),
            QStringLiteral("The identifier 800 of slot 3 is not an 11-bit CAN "
                           "identifier (0 to 7FF): nothing sent."));
        // A typo is no value: not 0 (the NMT identifier), not the digits before it, not the low
        // byte of a longer number.
        row("id xyz", slot("xyz", "0"),
            QStringLiteral("The identifier \"xyz\" of slot 3 is not "
                           "hexadecimal: nothing sent."));
        row("1FF", slot("181", "2", {"01", "1FF"}),
            QStringLiteral("D1 of slot 3 holds \"1FF\", not a byte (00 to FF): "
                           "nothing sent."));
        row("1G", slot("181", "1", {"1G"}),
            QStringLiteral("D0 of slot 3 holds \"1G\", not a byte (00 to FF): "
                           "nothing sent."));
        row("id FFFFFFFF", slot("FFFFFFFF", "0"),
            QStringLiteral("The identifier FFFFFFFF of slot 3 is not an 11-bit CAN identifier (0 "
                           "to 7FF): nothing sent."));
    }

    void refused()
    {
        QFETCH(SlotTexts, texts);
        QString error;
        QVERIFY(!slotFrame(texts, 2, &error).has_value());
        QTEST(error, "message");
    }

    void tokens_data()
    {
        columns<QString, int, QString, int>({"text", "start", "token", "position"});
        row("first", "M1 T0.5", 1, "M1", 3);
        row("blanks skipped", "M1   T0.5", 3, "T0.5", 10);
        row("lower case", "m1 t1", 4, "T1", 6);
        row("comma ends a token", "M1,M2", 1, "M1", 3);
        row("comma: empty, stays", "M1,M2", 3, "", 3);
        row("past the end", "M1 ", 3, "", 4);
        row("empty text", "", 1, "", 1);
        row("tab is no blank", "\tM1", 1, "", 1);
        row("letters run on", "MT5 M2", 1, "MT5", 4);
    }

    void tokens()
    {
        auto [text, start] = fetch<QString, int>("text", "start");
        int at = start;
        QTEST(nextSequenceToken(text, at), "token");
        QTEST(at, "position");
    }

    void rows_data()
    {
        // stop: the message of a row that stopped by itself
        columns<QString, qint64, QString, QString>({"text", "until", "sends", "stop"});
        const QString running = QStringLiteral("(running)");
        const auto bad = [](const QString& at) {
            return QStringLiteral(
                       "Sequence stopped at \"%1\": a row holds Mn (send slot n, 1 to 8) "
                       "and Tx (wait x seconds), with blanks between them.")
                .arg(at);
        };
        // Ticking starts 1 ms later; the end of each pass gives the event loop one turn (0 ms).
        row("M1 T0.5 M2 T1", "M1 T0.5 M2 T1", qint64(3100), "0@1 1@501 0@1501 1@2001 0@3001",
            running);
        row("lower case", "m1 t1", qint64(2500), "0@1 0@1001 0@2001", running);
        row("comma stops after the first", "M1,M2", qint64(1000), "0@1", bad(",M2"));
        row("T0 hangs", "M1 T0 M2", qint64(5000), "0@1", running);
        row("M9: no such slot", "M3 M9 T1", qint64(1500), "2@1",
            "Sequence stopped at \"M9\": there is no slot 9 (M1 to M8).");
        row("M0: no such slot", "M0 M3", qint64(1500), "",
            "Sequence stopped at \"M0\": there is no slot 0 (M1 to M8).");
        row("digit first stops", "M1 5", qint64(1000), "0@1", bad("5"));
        row("blank text stops", "   ", qint64(1000), "", QString());
        row("empty text stops", "", qint64(1000), "", QString());
        row("rounding M1.5 is slot 0", "M1.5 T2", qint64(100), "0@1", running);
        row("T0.0004 rounds to 0, hangs", "M2 T0.0004", qint64(100), "1@1", running);
        row("longest wait", "M1 T65.535", qint64(70000), "0@1 0@65536", running);
        row("trailing blanks", "M1 T1 ", qint64(1500), "0@1 0@1001", running);
    }

    void rows()
    {
        auto [text, until, sends, stop] =
            fetch<QString, qint64, QString, QString>("text", "until", "sends", "stop");
        RowRig rig(text);
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, until);
        QCOMPARE(rig.sends(), sends);
        const bool running = stop == QStringLiteral("(running)");
        QCOMPARE(rig.row->isEnabled(), running);
        QCOMPARE(rig.stops, running ? 0 : 1);
        QCOMPARE(rig.lastMessage, running ? QString() : stop);
    }

    void tooLongWaitStopsWithMessage()
    {
        RowRig rig("M1 T65.536 M2");
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, 100000);
        QCOMPARE(rig.sends(), QStringLiteral("0@1"));
        QVERIFY(!rig.row->isEnabled());
        QCOMPARE(rig.stops, 1);
        QVERIFY2(rig.lastMessage.contains("T65.536"), qPrintable(rig.lastMessage));
    }

    void failedSendStopsTheRow()
    {
        RowRig rig("M1 M2 M3 T1");
        rig.failingSlot = 1;
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, 5000);
        QCOMPARE(rig.sends(), QStringLiteral("0@1 1@1"));
        QVERIFY(!rig.row->isEnabled());
        QCOMPARE(rig.stops, 1);
    }

    void parse_data()
    {
        QTest::addColumn<QString>("text");
        // The frames as "line:id:hex data", blank-separated.
        columns<QString, bool, QString>({"frames", "lastUnsent", "error"});
        row("one line", "T 181 xxxxx > 12 34\n", "1:181:1234", false, "");
        row("CR LF", "T 181 xxxxx > 12 34\r\nT 182 > 01\r\n", "1:181:1234 2:182:01", false, "");
        row("nothing after >", "T 701 >\n", "1:701:", false, "");
        row("trailing blanks after >", "T 701 >   \n", "1:701:", false, "");
        row("last line without line end", "T 181 > 01\nT 182 > 02", "1:181:01", true, "");
        row("only a line without end", "T 000 xxxxx > 81 00", "", true, "");
        // A typo stops the run with the line, rather than sending what it half reads.
        row("G1", "T 181 > 01\nT 182 > G1 1G\n", "1:181:01", false,
            "Line 2: data byte \"G1\" is not two hexadecimal digits. The lines "
            "before it were sent.");
        row("one digit", "T 181 > 1 2\n", "", false,
            "Line 1: data byte \"1\" is not two hexadecimal digits. The "
            "lines before it were sent.");
        row("identifier xxx", "T xxx > 01\n", "", false,
            "Line 1: the identifier \"xxx\" (columns 3-5) is not 000 "
            "to 7FF in hexadecimal. The lines before it were sent.");
        row("identifier 800", "T 800 > 01\n", "", false,
            "Line 1: the identifier \"800\" (columns 3-5) is not 000 "
            "to 7FF in hexadecimal. The lines before it were sent.");
        row("eight bytes", "T 181 > 01 02 03 04 05 06 07 08\n", "1:181:0102030405060708", false,
            "");
        row("ninth byte stops there",
            "T 181 > 01\nT 182 > 01 02 03 04 05 06 07 08 09\nT 183 > 03\n", "1:181:01", false,
            "Line 2 has more than 8 data bytes. The lines before it were sent.");
        row("blank lines passed over", "\nT 181 > 01\n   \n\nT 182 > 02\n", "2:181:01 5:182:02",
            false, "");
        row("no >", "T 181 > 01\nT 182 12\n", "1:181:01", false,
            "Line 2 has no \">\" before its data: \"T 182 12\". The lines before "
            "it were sent.");
        // A monitor trace line has the channel digit after the letter: its identifier's columns
        // hold " 18", which is refused rather than sent to identifier 000.
        row("trace line", "T0 181 2 000s000.000 > 12 34 \n", "", false,
            "Line 1: the identifier \" 18\" (columns 3-5) is not 000 to "
            "7FF in hexadecimal. The lines before it were sent.");
        // Only the first ">" separates; a later one is no byte.
        row("second >", "T 181 > 12 > 34\n", "", false,
            "Line 1: data byte \">\" is not two hexadecimal digits. The "
            "lines before it were sent.");
        row("short id", "T 7\n", "", false,
            "Line 1 has no \">\" before its data: \"T 7\". The lines before it "
            "were sent.");
    }

    void parse()
    {
        auto [text, frames, error] = fetch<QString, QString, QString>("text", "frames", "error");
        const ComposerScript script = parseComposerText(text);
        QStringList got;
        for (const ComposerFrame& f : script.frames)
            got << QStringLiteral("%1:%2:%3")
                       .arg(f.line)
                       .arg(f.id, 0, 16)
                       .arg(QString::fromLatin1(f.data.toHex()));
        QCOMPARE(got.join(QLatin1Char(' ')), frames);
        QTEST(script.lastLineUnsent, "lastUnsent");
        QCOMPARE(script.error, error);
    }

    void writes_data()
    {
        columns<qint64, int, int, int>({"value", "size", "slot", "position"});
        // "box=text" for each write, in order.
        QTest::addColumn<QString>("writes");
        row("258 in 2 bytes", qint64(258), 2, 0, 0, "0=2 1=1");
        row("one byte", qint64(0x1234), 1, 2, 3, "19=34");
        row("four bytes", qint64(0x12345678), 4, 1, 2, "10=78 11=56 12=34 13=12");
        row("-1 in 4", qint64(-1), 4, 0, 0, "0=FF 1=FF 2=FF 3=FF");
        row("-256 in 2", qint64(-256), 2, 0, 0, "0=0 1=FF");
        row("-258 in 2", qint64(-258), 2, 0, 0, "0=FE 1=FE");
        row("-67108864 in 4", qint64(-67108864), 4, 3, 0, "24=0 25=0 26=0 27=FC");
        row("-65536 in 4", qint64(-65536), 4, 0, 4, "4=0 5=0 6=FF 7=FF");
        row("never past box 63", qint64(-2), 4, 7, 6, "62=FE 63=FF");
        row("last box alone", qint64(0x0102), 2, 7, 7, "63=2");
        row("into the next slot", qint64(0x0102), 2, 0, 7, "7=2 8=1");
        row("zero", qint64(0), 2, 0, 0, "0=0 1=0");
    }

    void writes()
    {
        auto [value, size, slot, position] =
            fetch<qint64, int, int, int>("value", "size", "slot", "position");
        QStringList got;
        for (const BoxWrite& w : sliderBoxWrites(value, size, slot, position))
            got << QStringLiteral("%1=%2").arg(w.box).arg(w.text);
        QTEST(got.join(QLatin1Char(' ')), "writes");
    }

    void scaleMapsTheEndsOntoMinAndMax_data()
    {
        columns<double, double, qint64>({"min", "max", "middle"});
        row("default", -67108864.0, 67108864.0, qint64(0));
        row("0..254", 0.0, 254.0, qint64(127));
        row("reversed", 100.0, -100.0, qint64(0));
        row("equal", 7.0, 7.0, qint64(7));
    }

    void scaleMapsTheEndsOntoMinAndMax()
    {
        auto [min, max] = fetch<double, double>("min", "max");
        const SliderScale s = SliderScale::fromRange(min, max, 10000);
        QCOMPARE(s.valueAt(0), qint64(min));
        QCOMPARE(s.valueAt(10000), qint64(max));
        QTEST(s.valueAt(5000), "middle");
    }

    void lines_data()
    {
        columns<quint32, quint32, QByteArray, QByteArray>({"id", "time", "data", "line"});
        row("two bytes", 0x181u, 5123456u, QByteArray("\x12\x34", 2),
            QByteArray("385;5123456;2;18;52;\r\n"));
        row("no data", 0x701u, 0u, QByteArray(), QByteArray("1793;0;0;\r\n"));
        row("eight bytes", 0x7FFu, 1u, QByteArray("\x00\xFF\x01\x80\x7F\x10\x20\x30", 8),
            QByteArray("2047;1;8;0;255;1;128;127;16;32;48;\r\n"));
        // The time stamp is kept as 32 bits read signed: past 2^31 µs it reads negative.
        row("time past 2^31", 0x80u, 0x80000000u, QByteArray("\x05", 1),
            QByteArray("128;-2147483648;1;5;\r\n"));
        row("time 2^32-1", 0u, 0xFFFFFFFFu, QByteArray(), QByteArray("0;-1;0;\r\n"));
    }

    void lines()
    {
        auto [id, time, data] = fetch<quint32, quint32, QByteArray>("id", "time", "data");
        AcquisitionBuffer buffer;
        buffer.append(id, time, int(data.size()),
                      reinterpret_cast<const quint8*>(data.constData()));
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QVERIFY(buffer.writeTo(&out));
        QTEST(out.data(), "line");
        // Bytes past the length are 0 in the record, never stale.
        for (int i = int(data.size()); i < 8; ++i)
            QCOMPARE(buffer.at(0).data[i], quint8(0));
    }

    void fileFaultsKeepTheBuffer_data()
    {
        QTest::addColumn<QString>("where");
        row("missing folder", "missing/acq.csv");
        row("read-only folder", "readonly/acq.csv");
        row("a folder as file", "readonly");
        // Even root cannot create a file there.
        row("read-only file system", "/proc/acq.csv");
        row("no name", "");
    }

    void fileFaultsKeepTheBuffer()
    {
        QFETCH(QString, where);
        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkdir("readonly"));
        QFile::setPermissions(dir.filePath("readonly"), QFile::ReadOwner | QFile::ExeOwner);
        if (where.startsWith("readonly/") && QFileInfo(dir.filePath("readonly")).isWritable())
            QSKIP("running as a user who writes into read-only folders");
        AcquisitionBuffer buffer;
        const quint8 data[2] = {1, 2};
        for (int i = 0; i < 3; ++i)
            buffer.append(0x181, quint32(i), 2, data);
        const QString path = where.isEmpty() || where.startsWith('/') ? where : dir.filePath(where);
        QString error;
        QVERIFY(!buffer.writeFile(path, &error));
        QVERIFY2(where.isEmpty() || error.contains(path), qPrintable(error));
        QCOMPARE(buffer.count(), 3);
        // Written after the fault is mended.
        QVERIFY(buffer.writeFile(dir.filePath("acq.csv"), &error));
        QFile written(dir.filePath("acq.csv"));
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.readAll(), QByteArray("385;0;2;1;2;\r\n385;1;2;1;2;\r\n385;2;2;1;2;\r\n"));
    }

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

    void recordsOfNoFrameLengthAreDropped_data()
    {
        columns<int, bool>({"length", "traced"});
        row("0", 0, true);
        row("8", 8, true);
        row("9", 9, false);
        row("300", 300, false);
        row("-1", -1, false);
    }

    void recordsOfNoFrameLengthAreDropped()
    {
        auto [length, traced] = fetch<int, bool>("length", "traced");
        FrmDiagno monitor(nullptr, nullptr);
        monitor.receiveRecords(0, record(0x181, qint16(length)) + record(0x182, 1), 2);
        QCOMPARE(monitor.traceText().contains("R0 181"), traced);
        QVERIFY(monitor.traceText().contains("R0 182 1 000s000.000 > 10 "));
        if (traced)
            QVERIFY(monitor.traceText().contains(QStringLiteral("R0 181 %1 ").arg(length)));
    }

    void viewFollowsOnlyFromTheBottom()
    {
        FrmDiagno monitor(nullptr, nullptr);
        monitor.resize(600, 300);
        monitor.show();
        QVERIFY(QTest::qWaitForWindowExposed(&monitor));
        const quint8 data[8] = {};
        const auto heartbeat = [&] {
            monitor.traceFrame(0, 1, 0x701, 0, 1, data);
            monitor.refreshTrace();
        };
        for (int i = 0; i < 200; ++i)
            heartbeat();
        QScrollBar* bar = monitor.edTrace->verticalScrollBar();
        QCOMPARE(bar->value(), bar->maximum());
        bar->setValue(bar->maximum() / 2); // the user scrolls up to read
        const int reading = bar->value();
        heartbeat();
        heartbeat();
        QCOMPARE(bar->value(), reading);
        bar->setValue(bar->maximum()); // back at the bottom: following again
        heartbeat();
        QCOMPARE(bar->value(), bar->maximum());
        QVERIFY(monitor.screenText().endsWith("R0 701 1 000s000.000 > 00 \n"));
        // A view shown for the first time with lines wider than itself follows too.
        TraceView wide;
        wide.resize(200, 100);
        wide.show();
        TraceBuffer lines;
        for (int i = 0; i < 50; ++i)
            lines.append(QString(100, QLatin1Char('x')));
        wide.showChanges(lines);
        QTRY_VERIFY(wide.horizontalScrollBar()->isVisible());
        QVERIFY(wide.verticalScrollBar()->maximum() > 0);
        QCOMPARE(wide.verticalScrollBar()->value(), wide.verticalScrollBar()->maximum());

        // A reader a page up keeps the line in view, and what is selected, while the text is cut
        // from the front; a drag selects, Ctrl+C copies.
        for (quint32 i = 0; i < 2100; ++i) {
            monitor.traceFrame(0, 1, 0x181, i * 1000, 1, data);
            monitor.refreshTrace();
        }
        bar->setValue(bar->maximum() - 40);
        const auto topLine = [&] { return monitor.screenText().split('\n').value(bar->value()); };
        const QString kept = topLine();
        QTest::mouseClick(monitor.edTrace->viewport(), Qt::LeftButton, {}, QPoint(2, 2));
        QTest::mouseClick(monitor.edTrace->viewport(), Qt::LeftButton, Qt::ShiftModifier,
                          QPoint(2, 2 + monitor.edTrace->fontMetrics().lineSpacing()));
        QCOMPARE(monitor.edTrace->selectedText(), kept + "\n");
        for (int i = 0; i < 200; ++i)
            heartbeat();
        QVERIFY(monitor.screenText().size() < 16300 + 200 * 28); // cut meanwhile
        QCOMPARE(topLine(), kept);
        QCOMPARE(monitor.edTrace->selectedText(), kept + "\n");
        QTest::keyClick(monitor.edTrace, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), kept + "\n");
        bar->setValue(bar->maximum());

        // Paused, the view stands still while frames are collected; resumed, it shows them.
        const QString frozen = monitor.screenText();
        QTest::mouseClick(monitor.cmdPause, Qt::LeftButton);
        for (int i = 0; i < 3; ++i)
            heartbeat();
        QCOMPARE(monitor.screenText(), frozen);
        QCOMPARE(monitor.cmdPause->text(), QString("Resume"));
        QTest::mouseClick(monitor.cmdPause, Qt::LeftButton);
        QCOMPARE(monitor.screenText().count('\n'), frozen.count('\n') + 3);
        // Ctrl+Home and Ctrl+End move in the trace.
        monitor.edTrace->setFocus();
        QTest::keyClick(monitor.edTrace, Qt::Key_Home, Qt::ControlModifier);
        QCOMPARE(bar->value(), 0);
        QTest::keyClick(monitor.edTrace, Qt::Key_End, Qt::ControlModifier);
        QCOMPARE(bar->value(), bar->maximum());
    }

    void sendButtons()
    {
        Rig rig;
        rig.setSlot(0, "000", "2", {"01", "00"});
        rig.setSlot(1, "181", "9", {"12"});
        rig.setSlot(2, "7e5", "4", {"zz"});
        rig.monitor.slotGrid->chRem[2]->setChecked(true);
        rig.setSlot(7, "182", "abc");
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[0], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[1], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[2], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[7], Qt::LeftButton);
        QCOMPARE(rig.sent, QStringList({"0:0100", "R7e5:4"}));
        QCOMPARE(rig.messages.size(), 2);
        QCOMPARE(rig.messages[0], QStringLiteral("Invalid message lenght"));
        QVERIFY(rig.messages[1].contains("slot 8"));
        // Slots outside 0..7 send nothing and say nothing; a failed send is reported as such.
        QVERIFY(!rig.monitor.sendSlot(-1));
        QVERIFY(!rig.monitor.sendSlot(8));
        rig.failSends = true;
        QVERIFY(rig.monitor.sendSlot(0));
        QCOMPARE(rig.sent.size(), 3);
        // The fields are kept as typed.
        QCOMPARE(rig.monitor.slotGrid->edLen0[1]->text(), QStringLiteral("9"));
    }
};

QTEST_MAIN(TstMonitor)
#include "tst_monitor.moc"

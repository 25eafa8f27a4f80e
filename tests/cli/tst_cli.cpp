#include "cliparse.h"
#include "datatable.h"
#include "serverprocess.h"
#include "srecords.h"

#include <QtTest>

#include <csignal>

using namespace tessel::test;
using namespace tessel::cli;
using qorcalib::test::ServerProcess;
using Run = qorcalib::test::ProgramRun;

class TstCli : public QObject
{
    Q_OBJECT
private slots:
    // tessel-cli's parsing: addresses, frames in candump syntax, typed values.
    void address_data()
    {
        // node: 0: refused
        columns<QString, int, int, int>({"text", "node", "index", "sub"});
        row("full", "1,1018,1", 1, 0x1018, 1);
        row("two fields: sub is the index's low byte", "1,1018", 1, 0x1018, 0x18);
        row("blanks", " 7F , 2000 , FF ", 0x7F, 0x2000, 0xFF);
        row("lower case", "a,1f50,1", 10, 0x1F50, 1);
        row("node 0", "0,1018,1", 0, 0, 0);
        row("node 80", "80,1018,1", 0, 0, 0);
        row("not hex", "1,10G8,1", 0, 0, 0);
        row("one field", "1", 0, 0, 0);
        row("four fields", "1,1018,1,2", 0, 0, 0);
        row("empty sub", "1,1018,", 0, 0, 0);
        row("index too long", "1,10180,1", 0, 0, 0);
        row("sub too long", "1,1018,100", 0, 0, 0);
    }

    void address()
    {
        auto [text, node] = fetch<QString, int>("text", "node");
        QString error;
        const auto a = parseAddress(text, &error);
        QCOMPARE(bool(a), node != 0);
        if (!a) {
            QVERIFY2(error.contains(text.trimmed().isEmpty() ? "address" : "'"), qPrintable(error));
            return;
        }
        QCOMPARE(a->node, node);
        QTEST(a->index, "index");
        QTEST(a->subIndex, "sub");
    }

    void frame_data()
    {
        // back: "": refused
        columns<QString, QString, QString>({"text", "back", "says"});
        row("data", "601#4018100100000000", "601#4018100100000000", "");
        row("dots", "123#11.22.33", "123#112233", "");
        row("empty data", "7FF#", "7FF#", "");
        row("short id", "5#AA", "005#AA", "");
        row("remote", "701#R", "701#R", "");
        row("remote with length", "701#r4", "701#R4", "");
        row("nine bytes", "123#001122334455667788", "", "9 data bytes");
        row("odd digits", "123#123", "", "not whole bytes");
        row("not hex", "123#ZZ", "", "not hexadecimal");
        row("extended", "12345678#00", "", "extended (29-bit)");
        row("fd", "123##1AA", "", "CAN FD");
        row("id beyond 7FF", "800#00", "", "000 to 7FF");
        row("no hash", "12300", "", "not ID#DATA");
        row("remote length 9", "123#R9", "", "remote length");
    }

    void frame()
    {
        auto [text, back, says] = fetch<QString, QString, QString>("text", "back", "says");
        QString error;
        const auto f = parseFrame(text, &error);
        QCOMPARE(bool(f), !back.isEmpty());
        if (!f) {
            QVERIFY2(error.startsWith("frame '" + text + "': "), qPrintable(error));
            QVERIFY2(error.contains(says), qPrintable(error));
            return;
        }
        QCOMPARE(frameText(f->id, f->data, f->remote, f->length), back);
    }

    void values_data()
    {
        // bytes: empty: refused
        columns<QString, QString, QByteArray, QString>({"type", "text", "bytes", "shown"});
        row("u8", "u8", "255", QByteArray("\xFF"), "255");
        row("u16", "u16", "500", QByteArray("\xF4\x01"), "500");
        row("u32 hex", "u32", "0x12345678", QByteArray("\x78\x56\x34\x12"), "305419896");
        row("i8 negative", "i8", "-1", QByteArray("\xFF"), "-1");
        row("i16 negative", "i16", "-300", QByteArray("\xD4\xFE"), "-300");
        row("i32 min", "i32", "-2147483648", QByteArray("\x00\x00\x00\x80", 4), "-2147483648");
        row("str", "str", "QD-300", QByteArray("QD-300"), "QD-300");
        row("hex", "hex", "0a0B", QByteArray("\x0A\x0B"), "0A0B");
        row("u8 too big", "u8", "256", QByteArray(), "");
        row("u16 negative", "u16", "-1", QByteArray(), "");
        row("i8 too small", "i8", "-129", QByteArray(), "");
        row("u32 words", "u32", "many", QByteArray(), "");
        row("hex odd", "hex", "ABC", QByteArray(), "");
        row("hex empty", "hex", "", QByteArray(), "");
    }

    void values()
    {
        auto [type, text, bytes] = fetch<QString, QString, QByteArray>("type", "text", "bytes");
        QString error;
        const auto encoded = encodeValue(type, text, &error);
        QCOMPARE(bool(encoded), !bytes.isEmpty());
        if (!encoded) {
            QVERIFY(error.contains("'" + text + "'"));
            return;
        }
        QCOMPARE(*encoded, bytes);
        QTEST(decodeValue(type, *encoded), "shown");
        QVERIFY(knownType(type));
        QVERIFY(!knownType("float"));
    }

    // tessel-cli as a line script runs it: a process against the real server and its simulated
    // drive; what it prints, and its exit codes.
    void initTestCase()
    {
        QFile extended(m_files.filePath("extended.log"));
        QVERIFY(extended.open(QIODevice::WriteOnly));
        extended.write("(1.000000) can0 123#01\n(1.001000) can0 12345678#02\n");
        extended.close();
        // Sparse: 16 MiB that take no room.
        QFile big(m_files.filePath("16mib.bin"));
        QVERIFY(big.open(QIODevice::WriteOnly) && big.resize(16 * 1024 * 1024));
        big.close();
        // An error frame and a comment, which a player passes over.
        QFile player(m_files.filePath("player.log"));
        QVERIFY(player.open(QIODevice::WriteOnly));
        player.write("(1.000000) can0 123#01\n# from a bench\n"
                     "(1.000500) can0 20000080#0000000000000000\n(1.001000) can0 124#02\n");
        player.close();
        QVERIFY(m_server.start({"--unpaced"}));
        // The drive has booted once it answers.
        QVERIFY(QTest::qWaitFor([&] { return cli({"sdo", "read", "1,1000,0"}).exit == 0; }, 10000));
    }

    void readsAndWrites_data()
    {
        // write: empty: read only
        columns<QStringList, QStringList, QString>({"write", "read", "out"});
        row("identity u32", QStringList{}, QStringList{"1,1018,1", "--type", "u32"}, "929\n");
        row("device name str", QStringList{}, QStringList{"1,1008,0", "--type", "str"}, "QD-300\n");
        row("expedited u16", QStringList{"1,1017,0", "750", "--type", "u16"},
            QStringList{"1,1017,0", "--type", "u16"}, "750\n");
        row("u32 within its limits", QStringList{"1,2000,0", "5000", "--type", "u32"},
            QStringList{"1,2000,0", "--type", "u32"}, "5000\n");
        row("signed", QStringList{}, QStringList{"1,2011,0", "--type", "i16"}, "31\n");
        // By the EDS's names, typed as the EDS says.
        const QString eds = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
        row("sub-entry by name", QStringList{},
            QStringList{"--eds", eds, "Identity Object/Vendor-ID"}, "929\n");
        row("entry by name",
            QStringList{"--eds", eds, "--node", "1", "Producer Heartbeat Time", "600"},
            QStringList{"--eds", eds, "producer heartbeat time"}, "600\n");
        // More than four bytes: segmented, or block-sized data.
        row("segmented text", QStringList{"1,2030,0", "line station 7", "--type", "str"},
            QStringList{"1,2030,0", "--type", "str"}, "line station 7\n");
        row("block-sized hex", QStringList{"1,2040,0", QString(QByteArray(200, '\x5A').toHex())},
            QStringList{"1,2040,0"}, QString(QByteArray(200, '\x5A').toHex().toUpper()) + "\n");
    }

    void readsAndWrites()
    {
        auto [write, read] = fetch<QStringList, QStringList>("write", "read");
        if (!write.isEmpty()) {
            const Run w = cli(QStringList{"sdo", "write"} + write);
            QVERIFY2(w.exit == 0, qPrintable(w.err));
            QCOMPARE(w.out, QString("ok\n"));
        }
        const Run r = cli(QStringList{"sdo", "read"} + read);
        QVERIFY2(r.exit == 0, qPrintable(r.err));
        QTEST(r.out, "out");
        QCOMPARE(r.err, QString());
    }

    void abortsAndBadArguments_data()
    {
        columns<QStringList, int, QString>({"args", "exit", "err"});
        row("no such object", QStringList{"sdo", "read", "1,2222,0"}, 1,
            "tessel-cli: SDO abort 06020000 (Object does not exist in the object dictionary)\n");
        row("read-only", QStringList{"sdo", "write", "1,1000,0", "00000000"}, 1,
            "tessel-cli: SDO abort 06010002 (Attempt to write a read only "
            "object)\n");
        row("node that does not answer", QStringList{"sdo", "read", "5,1000,0"}, 4,
            "tessel-cli: SDO timeout\n");
        row("service the server does not offer",
            QStringList{"--server", "localhost#LSSonly", "sdo", "read", "1,1000,0"}, 5,
            "tessel-cli: unknown service 'LSSonly' (this server offers \"CANopen\")\n");
        row("SYNC faster than the server sends it", QStringList{"sync", "0.1"}, 2,
            "tessel-cli: SYNC period '0.1' is not 0.5 to 10000 milliseconds\n");
        row("NMT that no node confirms",
            QStringList{"nmt", "start", "5", "--wait", "--wait-ms", "300"}, 4,
            "tessel-cli: node 05 did not confirm within 300 ms (no heartbeat 05)\n");
        row("name the EDS does not have",
            QStringList{"sdo", "read", "--eds", QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"),
                        "Torque"},
            2,
            QStringLiteral("tessel-cli: 'Torque' is no entry of %1 (names as the EDS gives them, "
                           "\"Object/Sub-entry\" for a sub-entry)\n")
                .arg(QORCALIB_DATA_DIR "/drive.eds"));
        row("no loop", QStringList{"replay", "x.log", "--loop", "0"}, 2,
            "tessel-cli: --loop takes a count from 1 to 1000000\n");
        row("a channel mapped twice", QStringList{"replay", "x.log", "can1=0", "can1=2"}, 2,
            "tessel-cli: can1 is mapped twice\n");
        row("pace and speed", QStringList{"replay", "x.log", "--ignore-times", "--speed", "2"}, 2,
            "tessel-cli: --ignore-times sends at the bus's pace: --speed does not go with it\n");
        row("unknown command", QStringList{"frob"}, 2,
            "tessel-cli: unknown command 'frob' (see --help)\n");
        row("malformed address", QStringList{"sdo", "read", "1;1018"}, 2,
            "tessel-cli: address '1;1018' is not NODE,INDEX[,SUB] in hexadecimal (for example "
            "1,1018,1)\n");
        row("nine bytes", QStringList{"send", "123#001122334455667788"}, 2,
            "tessel-cli: frame '123#001122334455667788': 9 data bytes, a "
            "frame carries 8 at most\n");
        row("malformed frame", QStringList{"send", "xyz"}, 2,
            "tessel-cli: frame 'xyz': not ID#DATA (for example "
            "601#4018100100000000)\n");
        row("bad type", QStringList{"sdo", "read", "1,1000,0", "--type", "f64"}, 2,
            "tessel-cli: type 'f64' is not hex, u8, u16, u32, i8, i16, i32 "
            "or str\n");
        row("file that is not there",
            QStringList{"sdo", "write", "1,2040,0", "--file", "/nonexistent/block.bin"}, 4,
            "tessel-cli: /nonexistent/block.bin: No such file or directory\n");
        row("file and type",
            QStringList{"sdo", "read", "1,2040,0", "--file", "x.bin", "--type", "u8"}, 2,
            "tessel-cli: --file takes the bytes as they are: --type "
            "does not go with it\n");
        row("file and value", QStringList{"sdo", "write", "1,2040,0", "00", "--file", "x.bin"}, 2,
            "");
        row("replay of a file that is not there", QStringList{"replay", "/nonexistent/trace.log"},
            4, "tessel-cli: /nonexistent/trace.log: No such file or directory\n");
        row("replay of an extended frame", QStringList{"replay", m_files.filePath("extended.log")},
            4,
            QStringLiteral("tessel-cli: %1: line 2: identifier 12345678 is extended (29-bit): the "
                           "server "
                           "carries 11-bit identifiers (after 1 frames)\n")
                .arg(m_files.filePath("extended.log")));
        row("decode up to a line it cannot read",
            QStringList{"decode", m_files.filePath("extended.log")}, 4,
            QStringLiteral("tessel-cli: %1: line 2: identifier 12345678 is extended (29-bit): the "
                           "server carries 11-bit identifiers\n")
                .arg(m_files.filePath("extended.log")));
        row("file past what one transfer carries",
            QStringList{"sdo", "write", "1,2040,0", "--file", m_files.filePath("16mib.bin")}, 4,
            QStringLiteral("tessel-cli: %1: 16777216 bytes, more than one transfer carries (at "
                           "most 15728640)\n")
                .arg(m_files.filePath("16mib.bin")));
        row("upgrade with a file that is no image",
            QStringList{"upgrade", m_files.filePath("player.log")}, 4,
            QStringLiteral("tessel-cli: %1: no identification and no version word: not a "
                           "firmware image the boot loader takes\n")
                .arg(m_files.filePath("player.log")));
        row("upgrade with a raw image",
            QStringList{"upgrade", QStringLiteral(QORCALIB_DATA_DIR "/firmware/raw-2.2.0.S")}, 4,
            QStringLiteral("tessel-cli: %1: a raw image; post-process it first (the "
                           "post-processor makes the .sx the boot loader takes)\n")
                .arg(QORCALIB_DATA_DIR "/firmware/raw-2.2.0.S"));
        row("upgrade with a file that is not there",
            QStringList{"upgrade", "/nonexistent/drive.sx"}, 4,
            "tessel-cli: /nonexistent/drive.sx: No such file or directory\n");
        row("replay speed 0", QStringList{"replay", "x.log", "--speed", "0"}, 2,
            "tessel-cli: --speed takes a factor from 0.01 to 100\n");
        row("no command", QStringList{}, 2, "");
        row("type narrower than the entry", QStringList{"sdo", "read", "1,1018,1", "--type", "u8"},
            2, "tessel-cli: 1,1018,1 holds 4 bytes (A1030000); --type u8 takes 1\n");
        row("time-out past what SDO takes",
            QStringList{"--timeout", "70000", "sdo", "read", "1,1000,0"}, 2,
            "tessel-cli: --timeout takes milliseconds, 1 to 65535\n");
        row("LSS window past its range", QStringList{"lss", "get", "--lss-timeout", "6000"}, 2,
            "tessel-cli: --lss-timeout takes milliseconds, 1 to 5000\n");
    }

    void abortsAndBadArguments()
    {
        auto [args, err] = fetch<QStringList, QString>("args", "err");
        QElapsedTimer clock;
        clock.start();
        const Run r = cli(args);
        QTEST(r.exit, "exit");
        if (!err.isEmpty())
            QCOMPARE(r.err, err);
        // decode has written what it read before the line it stopped at; nothing else writes.
        QCOMPARE(r.out, args.value(0) == "decode"
                            ? QString("(1.000000) can0 123#01  unknown: no CANopen service uses "
                                      "identifier 123\n")
                            : QString());
        // Never past the SDO time-out (1 s) by much.
        QVERIFY2(clock.elapsed() < 4000, qPrintable(QString::number(clock.elapsed())));
    }

    void nmtStartSeenInTheDump()
    {
        QProcess dump;
        dump.start(QStringLiteral(TESSEL_CLI_PATH),
                   {"--socket", m_server.socketPath(), "dump", "--seconds", "3"});
        QVERIFY(dump.waitForStarted());
        QTest::qWait(700);
        QCOMPARE(cli({"nmt", "start", "1"}).exit, 0);
        // Remote requests are dumped as remote requests, with their length, and so is a frame
        // without data as one.
        for (const char* frame : {"123#R3", "124#R", "125#"})
            QCOMPARE(cli({"send", frame}).exit, 0);
        QVERIFY(dump.waitForFinished(10000));
        QCOMPARE(dump.exitCode(), 0);
        const QStringList lines =
            QString::fromLocal8Bit(dump.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        QRegularExpression line("^\\((\\d+)\\.(\\d{6})\\) can0 ([0-9A-F]{3})#(R\\d?|[0-9A-F]*)$");
        for (const QString& l : lines)
            QVERIFY2(line.match(l).hasMatch(), qPrintable(l));
        const qsizetype nmt = lines.indexOf(QRegularExpression(".* 000#0101$"));
        QVERIFY2(nmt >= 0, qPrintable(lines.join('\n')));
        // The heartbeat turns operational after the start.
        QVERIFY(lines.mid(nmt).contains(QRegularExpression(".* 701#05$")));
        for (const char* frame : {" 123#R3", " 124#R", " 125#"})
            QVERIFY2(lines.indexOf(QRegularExpression(QStringLiteral(".*%1$").arg(frame))) > nmt,
                     qPrintable(lines.join('\n')));
        // Confirmed by the node's heartbeat in its new state.
        QCOMPARE(cli({"nmt", "preop", "1", "--wait"}).out, QString("ok, confirmed\n"));
        // --count ends the dump.
        const Run three = cli({"dump", "--count", "3"});
        QCOMPARE(three.exit, 0);
        QCOMPARE(three.out.count('\n'), 3);
        // Filtered as candump filters: heartbeats only.
        const Run heartbeats = cli({"dump", "--count", "2", "--filter", "700:780"});
        QCOMPARE(heartbeats.exit, 0);
        QCOMPARE(heartbeats.out.count(" 701#"), 2);
        // The monitor keeps one service and says what its frames mean.
        const Run decoded = cli({"monitor", "--decode", "--service", "heartbeat", "--count", "1"});
        QCOMPARE(decoded.exit, 0);
        QVERIFY2(decoded.out.endsWith(" 701#7F  heartbeat node 1: pre-operational\n"),
                 qPrintable(decoded.out));
        // The watch says the state the drive's heartbeat shows.
        const Run watched = cli({"watch", "heartbeat", "--seconds", "1.2"});
        QCOMPARE(watched.exit, 0);
        QVERIFY2(watched.out.endsWith(" node 1: pre-operational\n"), qPrintable(watched.out));
        // The scan finds the drive, and only it.
        const Run found = cli({"scan", "--wait", "10"});
        QCOMPARE(found.exit, 0);
        QCOMPARE(found.out,
                 QString("node 1: device type 00020192, vendor 000003A1, product 00030001, "
                         "revision 00020003, serial 00012345\n"));
    }

    void recordedDriveDecoded()
    {
        // The simulated drive recorded as a candump log, its PDOs and an emergency among the
        // frames, then decoded by the drive's EDS.
        QProcess dump;
        dump.start(QStringLiteral(TESSEL_CLI_PATH),
                   {"--socket", m_server.socketPath(), "dump", "--seconds", "2.5"});
        QVERIFY(dump.waitForStarted());
        QTest::qWait(700);
        QCOMPARE(cli({"nmt", "start", "1"}).exit, 0);
        // The controlword "shut down" by RPDO1: the statusword changes, TPDO1 tells it.
        QCOMPARE(cli({"send", "201#0600"}).exit, 0);
        // An RPDO shorter than its mapping: not taken, EMCY 8210.
        QCOMPARE(cli({"send", "201#06"}).exit, 0);
        QVERIFY(dump.waitForFinished(10000));
        const QString log = m_files.filePath("drive.log");
        QFile file(log);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(dump.readAllStandardOutput());
        file.close();
        const Run decoded = cli({"decode", "--eds", QORCALIB_DATA_DIR "/drive.eds", log});
        QCOMPARE(decoded.exit, 0);
        for (const char* line :
             {" 000#0101  NMT node 1: start", " 201#0600  RPDO1 node 1: Controlword = 6",
              " 181#3102  TPDO1 node 1: Statusword = 561",
              " 201#06  RPDO1 node 1: malformed: 1 bytes, its mapping takes 2: 06",
              "  EMCY node 1: 8210 PDO not processed due to length error"})
            QVERIFY2(decoded.out.contains(line), qPrintable(line + ("\n" + decoded.out)));
        const Run missing = cli({"decode", "--eds", "/nonexistent.eds", log});
        QCOMPARE(missing.exit, 4);
        QVERIFY2(missing.err.startsWith("tessel-cli: /nonexistent.eds: no such file"),
                 qPrintable(missing.err));
    }

    void sampleWritesCsv()
    {
        const Run r = cli({"sample", "1,1018,1", "--period", "20", "--count", "5"});
        QCOMPARE(r.exit, 0);
        const QStringList lines = r.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 6);
        QCOMPARE(lines[0], QString("time_s,value,error"));
        for (int i = 1; i < lines.size(); ++i) {
            const QStringList f = lines[i].split(',');
            QCOMPARE(f.mid(1), QStringList({"929", ""}));
            // On the 20 ms grid: a read never comes before its time (a late one may).
            QVERIFY2(f[0].toDouble() >= 0.020 * (i - 1) - 0.0005, qPrintable(r.out));
        }
        // Too short for the bus: said, and the shortest used. A failed read is a gap with its
        // reason, quoted where it holds a comma.
        const Run quick =
            cli({"sample", "1,3000,0", "--period", "2", "--count", "2", "--type", "i16"});
        QCOMPARE(quick.exit, 0);
        QCOMPARE(quick.err,
                 QString("tessel-cli: 2 ms is below the shortest period at 1000K: every 10 "
                         "ms\n"));
        QVERIFY2(quick.out.endsWith(",,SDO abort 06020000 (Object does not exist in the object "
                                    "dictionary)\n"),
                 qPrintable(quick.out));
        for (const QStringList& args :
             {QStringList{"1,1018,1"}, QStringList{"1,1018,1", "--period", "x"},
              QStringList{"1,1018,1", "--period", "10", "--type", "str"},
              QStringList{"1,zz", "--period", "10"}})
            QCOMPARE(cli(QStringList{"sample"} + args).exit, 2);
    }

    void jsonLines()
    {
        const Run r = cli({"--json", "sdo", "read", "1,1018,1", "--type", "u32"});
        QCOMPARE(r.exit, 0);
        QCOMPARE(r.out.count('\n'), 1);
        const QJsonObject o = QJsonDocument::fromJson(r.out.toUtf8()).object();
        // Numbers as numbers, the hexadecimal form beside them.
        QCOMPARE(o["command"].toString(), QString("sdo read"));
        QCOMPARE(o["node"].toInt(), 1);
        QCOMPARE(o["index"].toInt(), 0x1018);
        QCOMPARE(o["indexHex"].toString(), QString("1018"));
        QCOMPARE(o["sub"].toInt(), 1);
        QCOMPARE(o["data"].toString(), QString("A1030000"));
        QCOMPARE(o["value"].toInteger(), 929);
        // Every outcome is one object: an abort with its meaning, a time-out, a bad argument.
        // The one object of a failed run, when it is one object and names the run's exit status.
        const auto outcome = [this](const QStringList& args) {
            const Run r = cli(QStringList{"--json"} + args);
            const QJsonObject o = QJsonDocument::fromJson(r.out.toUtf8()).object();
            return r.out.count('\n') == 1 && o["exit"].toInt() == r.exit ? o : QJsonObject();
        };
        const QJsonObject abort = outcome({"sdo", "read", "1,2222,0"});
        QCOMPARE(abort["exit"].toInt(), 1);
        QCOMPARE(abort["abort"].toInteger(), 0x06020000);
        QCOMPARE(abort["abortHex"].toString(), QString("06020000"));
        QCOMPARE(abort["abortText"].toString(),
                 QString("Object does not exist in the object dictionary"));
        const QJsonObject timeout = outcome({"--timeout", "200", "sdo", "read", "5,1000,0"});
        QCOMPARE(timeout["exit"].toInt(), 4);
        QCOMPARE(timeout["error"].toString(), QString("SDO timeout"));
        const QJsonObject badAddress = outcome({"sdo", "read", "1;1018"});
        QCOMPARE(badAddress["exit"].toInt(), 2);
        QCOMPARE(badAddress["command"].toString(), QString("sdo"));
        // dump: a frame an object.
        const Run frames = cli({"--json", "dump", "--count", "2", "--filter", "701:7FF"});
        QCOMPARE(frames.exit, 0);
        const QStringList lines = frames.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        const QJsonObject frame = QJsonDocument::fromJson(lines[0].toUtf8()).object();
        QCOMPARE(frame["id"].toInt(), 0x701);
        QCOMPARE(frame["idHex"].toString(), QString("701"));
        QCOMPARE(frame["length"].toInt(), 1);
    }

    void upgradeAndLss()
    {
        // An image the boot loader refuses (past its 2 MiB of flash): the abort, and the drive goes
        // back to the application it had instead of staying in its boot loader.
        QByteArray tooLarge = tessel::test::s3Record(
            0x8000000, tessel::test::identificationBlock(0x12, 0x00090000, 1, 2));
        tooLarge += '\x02';
        tooLarge += QByteArray(2 * 1024 * 1024 + 1024, '\x11');
        const QString big = m_files.filePath("big.sx");
        {
            QFile f(big);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(tooLarge);
        }
        const Run refused = cli({"upgrade", big}, 60000);
        QCOMPARE(refused.exit, 1);
        QVERIFY2(refused.err.contains("the boot loader refused the image; node 01 was released to "
                                      "its application"),
                 qPrintable(refused.err));
        QVERIFY(QTest::qWaitFor(
            [&] {
                return cli({"sdo", "read", "1,100A,0", "--type", "str"}).exit == 0;
            },
            5000));
        const Run up =
            cli({"upgrade", QStringLiteral(QORCALIB_DATA_DIR "/firmware/drive-2.1.7.sx")}, 60000);
        QVERIFY2(up.exit == 0, qPrintable(up.err));
        QVERIFY2(up.out.startsWith("upgraded node 01: "), qPrintable(up.out));
        QTest::qWait(500); // the new application boots
        QCOMPARE(cli({"sdo", "read", "1,100A,0", "--type", "str"}).out, QString("FW 2.1.7\n"));
        // The drive on controller 1 waits for LSS.
        const Run get = cli({"--controller", "1", "lss", "get"}, 60000);
        QVERIFY2(get.exit == 0, qPrintable(get.err));
        QCOMPARE(get.out, QString("node FF at 250K\n"));
        const Run bad = cli({"--controller", "1", "lss", "set", "0", "250K"});
        QCOMPARE(bad.exit, 2);
        // Configured to 500K, the drive is reached once the script switches the controller too.
        QCOMPARE(cli({"--controller", "1", "lss", "set", "22", "500K"}).exit, 0);
        QCOMPARE(cli({"--controller", "1", "--timeout", "300", "sdo", "read", "22,1000,0"}).exit,
                 4);
        const Run switched = cli({"bitrate", "1", "500K"});
        QCOMPARE(switched.out, QString("controller 1 at 500K\n"));
        QVERIFY(QTest::qWaitFor(
            [&] {
                return cli({"--controller", "1", "sdo", "read", "22,1000,0"}).exit == 0;
            },
            5000));
        QCOMPARE(cli({"bitrate", "1", "499K"}).exit, 2);
    }

    void readmeLineScriptWhereNoServerRuns()
    {
        // The line script exactly as the README shows it, on a machine of its own: no server runs,
        // no settings; its first line starts the server.
        QFile readme(QStringLiteral(QORCALIB_DATA_DIR "/../README.md"));
        QVERIFY(readme.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(readme.readAll());
        const qsizetype from = text.indexOf("```sh\n#!/bin/sh\n");
        QVERIFY(from >= 0);
        QString script = text.mid(from + 6, text.indexOf("```", from + 6) - from - 6);
        QVERIFY(script.contains("set -e"));
        script.replace("build/bin/tessel-cli", TESSEL_CLI_PATH);
        script.replace("data/", QORCALIB_DATA_DIR "/");
        QTemporaryDir machine;
        QVERIFY(QDir(machine.path()).mkpath("run"));
        QVERIFY(QFile::setPermissions(machine.filePath("run"),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QFile parameters(machine.filePath("parameters.bin"));
        QVERIFY(parameters.open(QIODevice::WriteOnly) &&
                parameters.write(QByteArray(300, '\x11')) == 300);
        parameters.close();
        QProcess sh;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_RUNTIME_DIR", machine.filePath("run"));
        env.insert("XDG_CONFIG_HOME", machine.filePath("config"));
        env.insert("HOME", machine.path());
        sh.setProcessEnvironment(env);
        sh.setWorkingDirectory(machine.path());
        sh.start("sh", {"-c", script});
        QVERIFY(sh.waitForFinished(120000));
        const QString err = QString::fromLocal8Bit(sh.readAllStandardError());
        // The server the script started ends on idle; here it ends now.
        const QByteArray mark = "XDG_RUNTIME_DIR=" + machine.filePath("run").toLocal8Bit();
        for (const QString& pid : QDir("/proc").entryList(QDir::Dirs)) {
            QFile environ(QStringLiteral("/proc/%1/environ").arg(pid));
            if (pid.toInt() > 0 && environ.open(QIODevice::ReadOnly) &&
                environ.readAll().split('\0').contains(mark))
                ::kill(pid.toInt(), SIGTERM);
        }
        QVERIFY2(sh.exitCode() == 0, qPrintable(err));
        QFile temperature(machine.filePath("temperature.txt"));
        QVERIFY(temperature.open(QIODevice::ReadOnly));
        QCOMPARE(temperature.readAll(), QByteArray("31\n"));
        // The server the first line started writes beside its socket, not into the script's pipe.
        QVERIFY(QFile(machine.filePath("run/qorcalib.log")).size() > 0);
        const QFileInfoList logs = QDir(machine.path()).entryInfoList({"unit-*.log"});
        QCOMPARE(logs.size(), 1);
        QVERIFY(logs[0].size() > 0);
    }

private:
    Run cli(const QStringList& args, int timeoutMs = 20000)
    {
        return qorcalib::test::runProgram(QStringLiteral(TESSEL_CLI_PATH),
                                          QStringList{"--socket", m_server.socketPath()} + args,
                                          timeoutMs);
    }
    ServerProcess m_server;
    QTemporaryDir m_files;
};

QTEST_GUILESS_MAIN(TstCli)
#include "tst_cli.moc"

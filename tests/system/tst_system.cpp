#include "datatable.h"
#include "machinesettings.h"
#include "numbers.h"
#include "processrunner.h"
#include "windowplacement.h"

#include <QtTest>
#include <QtWidgets>

#include <unistd.h>

using namespace tessel::test;
using namespace tessel;

class TstSystem : public QObject
{
    Q_OBJECT
private slots:
    // Settings go to scratch folders: the machine's and the user's are never touched.
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, m_dir->filePath("system"));
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_dir->filePath("user"));
    }

    void lenientValue_data()
    {
        columns<QString, double>({"text", "value"});
        row("empty", "", 0.0);
        row("blanks", "   ", 0.0);
        row("integer", "42", 42.0);
        row("leading blanks", "  42", 42.0);
        row("stops at a letter", "12abc", 12.0);
        row("stops at an inner blank", "1 2", 1.0);
        row("negative", "-7.5", -7.5);
        row("plus", "+3", 3.0);
        row("decimal point only once", "1.2.3", 1.2);
        row("leading point", ".5", 0.5);
        row("no exponent", "1.5E3", 1.5);
        row("no lower-case exponent", "1e3", 1.0);
        row("exponent without digits", "2E", 2.0);
        row("comma is not a decimal point", "3,5", 3.0);
        row("not a number", "abc", 0.0);
        row("sign alone", "-", 0.0);
        row("hex", "&H1F", 31.0);
        row("hex lower case", "&hff", 255.0);
        row("hex stops", "&H1Fz9", 31.0);
        row("hex 0x text is 0", "&H0x181", 0.0);
        row("hex without digits", "&H", 0.0);
        row("hex wraps at 32 bits", "&HFFFFFFFF", -1.0);
        row("octal", "&O17", 15.0);
        row("octal stops at 8", "&O178", 15.0);
        row("ampersand alone", "&", 0.0);
        row("unknown radix", "&X12", 0.0);
    }

    void lenientValue()
    {
        QFETCH(QString, text);
        QTEST(tessel::lenientValue(text), "value");
    }

    void rounding_data()
    {
        columns<double, int, qint64>({"value", "int16", "int32"});
        row("half to even, down", 2.5, 2, qint64(2));
        row("half to even, up", 3.5, 4, qint64(4));
        row("negative half", -2.5, -2, qint64(-2));
        row("just above half", 2.5000001, 3, qint64(3));
        row("16-bit top", 32767.4, 32767, qint64(32767));
        row("past 16 bits saturates", 40000.0, 32767, qint64(40000));
        row("below 16 bits saturates", -40000.0, -32768, qint64(-40000));
        row("past 32 bits saturates", 1e12, 32767, qint64(2147483647));
        row("nan", qQNaN(), 0, qint64(0));
    }

    void rounding()
    {
        QFETCH(double, value);
        QTEST(int(roundToInt16(value)), "int16");
        QTEST(qint64(roundToInt32(value)), "int32");
    }

    void hexField_data()
    {
        columns<quint32, int, QString>({"value", "width", "text"});
        row("zero", 0u, 3, "000");
        row("pads", 0x1Au, 3, "01A");
        row("exact", 0x181u, 3, "181");
        row("keeps the last digits", 0x12345u, 3, "345");
        row("upper case", 0xabcdu, 4, "ABCD");
    }

    void hexField()
    {
        auto [value, width] = fetch<quint32, int>("value", "width");
        QTEST(tessel::hexField(value, width), "text");
    }

    void exitCodes_data()
    {
        columns<QString, int>({"commandLine", "exitCode"});
        row("success", "true", 0);
        row("exit code 3", "sh -c \"exit 3\"", 3);
        row("missing program", "/nonexistent/postprocess", -1);
        row("empty line", "", -1);
        row("killed by a signal", "sh -c \"kill -9 $$\"", -1);
    }

    void exitCodes()
    {
        QFETCH(QString, commandLine);
        QTEST(runAndWait(commandLine, false), "exitCode");
    }

    void splitCommandLine_data()
    {
        columns<QString, QStringList>({"line", "words"});
        row("blanks", "  fflash  -p 1\tx ", QStringList{"fflash", "-p", "1", "x"});
        row("double quotes", "pp \"my file.S\"", QStringList{"pp", "my file.S"});
        row("single quotes", "pp 'a \"b\" c'", QStringList{"pp", "a \"b\" c"});
        row("joined parts", "pp -o\"x y\"'z'", QStringList{"pp", "-ox yz"});
        row("escapes in double quotes", "pp \"a\\\"b\\\\c\\n\"", QStringList{"pp", "a\"b\\c\\n"});
        row("backslash outside quotes", "pp a\\ b", QStringList{"pp", "a b"});
        row("empty quotes are a word", "pp \"\" ''", QStringList{"pp", "", ""});
        row("nothing is expanded", "pp $HOME *", QStringList{"pp", "$HOME", "*"});
        row("unclosed quote", "pp \"a b", QStringList{"pp", "a b"});
        row("empty", "   ", QStringList{});
    }

    void splitCommandLine()
    {
        QFETCH(QString, line);
        QTEST(tessel::splitCommandLine(line), "words");
    }

    void tempFiles()
    {
        qputenv("TEMP", m_dir->path().toLocal8Bit());
        const QString a = makeTempFileName("pp");
        const QString b = makeTempFileName("pp");
        QVERIFY(!a.isEmpty() && !b.isEmpty());
        QVERIFY(a != b);
        QCOMPARE(QFileInfo(a).absolutePath(), QFileInfo(m_dir->path()).absoluteFilePath());
        QVERIFY(QFileInfo(a).fileName().startsWith("pp"));
        QVERIFY(QFileInfo::exists(a)); // created, so nobody else takes the name
        QCOMPARE(QFileInfo(a).size(), 0);
        qunsetenv("TEMP");
    }

    void tempFolderUnusable_data()
    {
        QTest::addColumn<QString>("folder");
        row("missing", "/nonexistent/folder");
        row("read-only", "readonly");
        row("set but empty", "");
    }

    void tempFolderUnusable()
    {
        QFETCH(QString, folder);
        if (folder == "readonly") {
            if (::geteuid() == 0)
                QSKIP("root writes into read-only folders");
            folder = m_dir->filePath("readonly");
            QDir().mkpath(folder);
            QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
        }
        qputenv("TEMP", folder.toLocal8Bit());
        QCOMPARE(makeTempFileName("pp"), QString());
        qunsetenv("TEMP");
    }

    void remoteServer_data()
    {
        // stored: "-" for no value at all
        columns<QString, QString>({"stored", "read"});
        row("absent", "-", "localhost");
        row("empty", "", "localhost");
        row("one character counts as absent", "x", "localhost");
        row("two characters", "pc", "pc");
        row("name with selector", "bench7#CANopen", "bench7#CANopen");
    }

    void remoteServer()
    {
        auto [stored, read] = fetch<QString, QString>("stored", "read");
        if (stored != "-")
            writeRemoteServer(stored);
        QCOMPARE(readRemoteServer("localhost"), read);
    }

    void writeCreatesTheGroup()
    {
        QVERIFY(!QFile::exists(m_dir->filePath("system/Qor/Common.ini")));
        writeRemoteServer("bench7:17421");
        QVERIFY(QFile::exists(m_dir->filePath("system/Qor/Common.ini")));
        QSettings raw(m_dir->filePath("system/Qor/Common.ini"), QSettings::IniFormat);
        QCOMPARE(raw.value("Common/RemoteServer").toString(), QString("bench7:17421"));
    }

    void unwritableFolderIsIgnored()
    {
        QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, "/proc/no-such-folder");
        writeRemoteServer("bench7"); // no crash, no exception: the name is just not remembered
        QCOMPARE(readRemoteServer("localhost"), QString("localhost"));
    }

    void onScreen_data()
    {
        columns<QRect, QPoint>({"frame", "place"});
        const QRect screen(0, 0, 1920, 1080);
        row("inside stays", QRect(100, 100, 720, 420), QPoint(100, 100));
        row("past the right edge", QRect(1328, 40, 720, 420), QPoint(1200, 40));
        row("above the top", QRect(200, -20, 720, 420), QPoint(200, 0));
        row("below the bottom", QRect(200, 900, 720, 420), QPoint(200, 660));
        row("left of the screen", QRect(-3000, 10, 720, 420), QPoint(0, 10));
        row("larger than the screen", QRect(500, 500, 2500, 1500), QPoint(0, 0));
        row("exactly fitting at the corner", QRect(1200, 660, 720, 420), QPoint(1200, 660));
    }

    void onScreen()
    {
        auto [frame, place] = fetch<QRect, QPoint>("frame", "place");
        QCOMPARE(WindowPlacement::onScreen(frame, QRect(0, 0, 1920, 1080)), place);
        // A second screen to the right of the first.
        QCOMPARE(WindowPlacement::onScreen(frame.translated(1920, 0), QRect(1920, 0, 1920, 1080)),
                 place + QPoint(1920, 0));
    }

    void restoredPlaceIsTheSavedOne()
    {
        QWidget first;
        first.resize(321, 234);
        first.move(57, 91);
        first.show();
        QVERIFY(QTest::qWaitForWindowExposed(&first));
        const QPoint place = first.pos();
        WindowPlacement::saveGeometry(&first, "probe");
        // Three starts in a row: the place does not creep.
        for (int start = 0; start < 3; ++start) {
            QWidget again;
            WindowPlacement::restoreGeometry(&again, "probe");
            again.show();
            QVERIFY(QTest::qWaitForWindowExposed(&again));
            QCOMPARE(again.pos(), place);
            QCOMPARE(again.size(), QSize(321, 234));
            WindowPlacement::saveGeometry(&again, "probe");
        }
    }

    void firstShowGoesBesideTheMainWindow_data()
    {
        // mainAt: the main window's left, as a share of the screen
        // toolWidth: as a share of the screen, in percent
        columns<double, int, QString>({"mainAt", "toolWidth", "side"});
        row("room on the right", 0.0, 30, "right");
        row("room on the left", 0.6, 30, "left");
        // Too wide for either side: against the screen's edge, over the main window as little as
        // it can be.
        row("no room", 0.0, 80, "edge");
    }

    void firstShowGoesBesideTheMainWindow()
    {
        auto [mainAt, toolWidth, side] = fetch<double, int, QString>("mainAt", "toolWidth", "side");
        const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
        QWidget main;
        main.resize(available.width() * 3 / 10, available.height() / 2);
        main.move(available.topLeft() + QPoint(int(available.width() * mainAt), 0));
        WindowPlacement placement;
        placement.setReference(main.pos());
        QWidget tool;
        tool.setObjectName("neverPlaced");
        tool.resize(available.width() * toolWidth / 100, 100);
        bool placed = false;
        QVERIFY(WindowPlacement::placeOnFirstShow(&placement, &tool, &main, &placed));
        const QRect m = main.frameGeometry(), t = tool.frameGeometry();
        if (side == "right")
            QCOMPARE(t.left(), m.right() + 1);
        else if (side == "left")
            QCOMPARE(t.right(), m.left() - 1);
        else
            QCOMPARE(t.right(), available.right());
        QVERIFY(available.contains(QRect(tool.pos(), tool.size())));
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_MAIN(TstSystem)
#include "tst_system.moc"

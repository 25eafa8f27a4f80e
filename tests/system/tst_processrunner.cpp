#include "datatable.h"
#include "processrunner.h"

#include <QtTest>

#include <unistd.h>

using namespace tessel::test;

using namespace tessel;

class TstProcessRunner : public QObject
{
    Q_OBJECT
private slots:
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
        qputenv("TEMP", m_dir.path().toLocal8Bit());
        const QString a = makeTempFileName("pp");
        const QString b = makeTempFileName("pp");
        QVERIFY(!a.isEmpty() && !b.isEmpty());
        QVERIFY(a != b);
        QCOMPARE(QFileInfo(a).absolutePath(), QFileInfo(m_dir.path()).absoluteFilePath());
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
            folder = m_dir.filePath("readonly");
            QDir().mkpath(folder);
            QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner);
        }
        qputenv("TEMP", folder.toLocal8Bit());
        QCOMPARE(makeTempFileName("pp"), QString());
        qunsetenv("TEMP");
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TstProcessRunner)
#include "tst_processrunner.moc"

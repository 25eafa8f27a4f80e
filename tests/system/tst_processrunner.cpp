#include "processrunner.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <unistd.h>

using namespace tessel;

class TstProcessRunner : public QObject
{
    Q_OBJECT
private slots:
    void exitCodes_data();
    void exitCodes();
    void splitCommandLine_data();
    void splitCommandLine();
    void tempFiles();
    void tempFolderUnusable_data();
    void tempFolderUnusable();

private:
    QTemporaryDir m_dir;
};

void TstProcessRunner::exitCodes_data()
{
    QTest::addColumn<QString>("commandLine");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("success") << "true" << 0;
    QTest::newRow("exit code 3") << "sh -c \"exit 3\"" << 3;
    QTest::newRow("missing program") << "/nonexistent/postprocess" << -1;
    QTest::newRow("empty line") << "" << -1;
    QTest::newRow("killed by a signal") << "sh -c \"kill -9 $$\"" << -1;
}

void TstProcessRunner::exitCodes()
{
    QFETCH(QString, commandLine);
    QFETCH(int, exitCode);
    QCOMPARE(runAndWait(commandLine, false), exitCode);
}

void TstProcessRunner::splitCommandLine_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QStringList>("words");
    QTest::newRow("blanks") << "  fflash  -p 1\tx " << QStringList{"fflash", "-p", "1", "x"};
    QTest::newRow("double quotes") << "pp \"my file.S\"" << QStringList{"pp", "my file.S"};
    QTest::newRow("single quotes") << "pp 'a \"b\" c'" << QStringList{"pp", "a \"b\" c"};
    QTest::newRow("joined parts") << "pp -o\"x y\"'z'" << QStringList{"pp", "-ox yz"};
    QTest::newRow("escapes in double quotes")
        << "pp \"a\\\"b\\\\c\\n\"" << QStringList{"pp", "a\"b\\c\\n"};
    QTest::newRow("backslash outside quotes") << "pp a\\ b" << QStringList{"pp", "a b"};
    QTest::newRow("empty quotes are a word") << "pp \"\" ''" << QStringList{"pp", "", ""};
    QTest::newRow("nothing is expanded") << "pp $HOME *" << QStringList{"pp", "$HOME", "*"};
    QTest::newRow("unclosed quote") << "pp \"a b" << QStringList{"pp", "a b"};
    QTest::newRow("empty") << "   " << QStringList{};
}

void TstProcessRunner::splitCommandLine()
{
    QFETCH(QString, line);
    QFETCH(QStringList, words);
    QCOMPARE(tessel::splitCommandLine(line), words);
}

void TstProcessRunner::tempFiles()
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

void TstProcessRunner::tempFolderUnusable_data()
{
    QTest::addColumn<QString>("folder");
    QTest::newRow("missing") << "/nonexistent/folder";
    QTest::newRow("read-only") << "readonly";
    QTest::newRow("set but empty") << "";
}

void TstProcessRunner::tempFolderUnusable()
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

QTEST_GUILESS_MAIN(TstProcessRunner)
#include "tst_processrunner.moc"

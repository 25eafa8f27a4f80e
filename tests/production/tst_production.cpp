#include "commandlines.h"
#include "datatable.h"
#include "processrunner.h"
#include "productionrun.h"
#include "serialcounter.h"

#include <QtSql>
#include <QtTest>

#include <future>
#include <thread>

using namespace tessel::test;
using namespace tessel;
using namespace tessel::production;

namespace {
SerialDatabase sqliteIn(const QString& folder)
{
    SerialDatabase d;
    d.folder = folder;
    d.createIfMissing = false;
    return d;
}

bool makeDatabase(const QString& folder, const QStringList& statements)
{
    const QString name = QStringLiteral("make-%1").arg(quintptr(&folder));
    bool ok = true;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", name);
        db.setDatabaseName(folder + "/tessel.db");
        ok = db.open();
        QSqlQuery q(db);
        for (const QString& s : statements)
            ok = ok && q.exec(s);
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
    return ok;
}

bool postgresAvailable()
{
    return !qEnvironmentVariable("PGHOST").isEmpty() && !qEnvironmentVariable("PGPORT").isEmpty();
}

SerialDatabase postgres()
{
    SerialDatabase d;
    d.kind = SerialDatabase::Kind::PostgreSQL;
    d.host = qEnvironmentVariable("PGHOST");
    d.port = qEnvironmentVariableIntValue("PGPORT");
    d.name = qEnvironmentVariable("PGDATABASE");
    d.user = qEnvironmentVariable("PGUSER");
    d.password = qEnvironmentVariable("PGPASSWORD");
    return d;
}

// Four stations drawing `each` serials at the same time: every serial they got.
QList<int> drawTogether(const QStringList& stationArgs, int each, QString* failure)
{
    QList<QProcess*> stations;
    for (int i = 0; i < 4; ++i) {
        auto* p = new QProcess;
        p->start(QStringLiteral(SERIALSTATION_PATH),
                 QStringList{QString::number(each)} + stationArgs);
        stations << p;
    }
    QList<int> serials;
    for (QProcess* p : stations) {
        if (!p->waitForFinished(120000) || p->exitCode() != 0)
            *failure += QString::fromLocal8Bit(p->readAllStandardError());
        for (const QByteArray& line : p->readAllStandardOutput().split('\n'))
            if (!line.isEmpty())
                serials << line.toInt();
        delete p;
    }
    return serials;
}

void checkConsecutive(const QList<int>& serials, int first, int count)
{
    QCOMPARE(serials.size(), count);
    const QSet<int> distinct(serials.begin(), serials.end());
    QCOMPARE(distinct.size(), count);
    QCOMPARE(*std::min_element(serials.begin(), serials.end()), first);
    QCOMPARE(*std::max_element(serials.begin(), serials.end()), first + count - 1);
}

// Hooks that record what a run asks for and answer from their settings.
struct Recorder
{
    QStringList lines;
    QMap<QString, int> exitCodes; // first word -> exit code
    int serials = 0;
    qint32 counter = 41;
    QString databaseError;
    QList<QByteArray> loaded;
    int finalState = 3;
    std::function<void(const QString&)> onRun;

    ProductionRun::Hooks hooks()
    {
        ProductionRun::Hooks h;
        h.run = [this](const QString& line, bool) {
            lines << line;
            if (onRun)
                onRun(line);
            return exitCodes.value(line.section(' ', 0, 0), 0);
        };
        h.nextSerial = [this](int* number, QString* error) -> std::optional<qint32> {
            ++serials;
            if (!databaseError.isEmpty()) {
                *number = 3024;
                *error = databaseError;
                return std::nullopt;
            }
            return ++counter;
        };
        h.loadImage = [this](const QByteArray& image) {
            loaded << image;
            return QString();
        };
        h.waitForLoad = [this](QString*) { return std::optional<int>(finalState); };
        return h;
    }
};
} // namespace

class TstProduction : public QObject
{
    Q_OBJECT
private slots:
    // The serial counter against real databases: an SQLite file, its faults, four stations drawing
    // at once, a station waiting out another's lock; and a PostgreSQL server when the test runs
    // inside one (pg_virtualenv), else skipped with a note.
    void initTestCase() { QStandardPaths::setTestModeEnabled(true); }

    void faults_data()
    {
        // setup: what the folder holds
        columns<QString, int, QString>({"setup", "number", "says"});
        row("folder missing", "nothing", 3024, "not found");
        row("file missing", "empty folder", 3024, "not found");
        row("table missing", "other table", 3078, "no such table");
        row("no row", "empty table", 3078, "holds no serial");
        row("read-only file", "read-only", 3051, "readonly");
        row("not a database", "garbage", 3051, "");
        row("counter at the highest serial", "2147483647", 3349, "highest serial");
        row("counter below zero", "-5", 3349, "holds -5");
    }

    void faults()
    {
        auto [setup, says] = fetch<QString, QString>("setup", "says");
        const QString folder = m_dir.filePath(QString(QTest::currentDataTag()).replace(' ', '-'));
        if (setup != "nothing")
            QVERIFY(QDir().mkpath(folder));
        if (setup == "other table")
            QVERIFY(makeDatabase(folder, {"create table other (x integer)"}));
        if (setup == "empty table")
            QVERIFY(makeDatabase(folder, {"create table zdx_id (id_sk integer)"}));
        if (setup == "read-only") {
            QVERIFY(makeDatabase(folder, {"create table zdx_id (id_sk integer)",
                                          "insert into zdx_id (id_sk) values (7)"}));
            QFile::setPermissions(folder + "/tessel.db", QFile::ReadOwner | QFile::ReadGroup);
        }
        if (setup.toLongLong() != 0)
            QVERIFY(makeDatabase(folder, {"create table zdx_id (id_sk integer)",
                                          "insert into zdx_id (id_sk) values (" + setup + ")"}));
        if (setup == "garbage") {
            QFile f(folder + "/tessel.db");
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(QByteArray(4096, 'x'));
        }
        if (setup == "read-only" && QFileInfo(folder + "/tessel.db").isWritable())
            QSKIP("running as root: a read-only file is still writable here");
        SerialCounter counter(sqliteIn(folder));
        int got = 0;
        QString error;
        QCOMPARE(counter.next(&got, &error), std::nullopt);
        QTEST(got, "number");
        QVERIFY2(error.startsWith("SQLite database " + QDir::toNativeSeparators(folder)),
                 qPrintable(error));
        QVERIFY2(error.contains(says, Qt::CaseInsensitive), qPrintable(error));
        // Nothing taken: a folder that is not the line's is not made one.
        if (setup == "nothing" || setup == "empty folder")
            QVERIFY(!QFile::exists(folder + "/tessel.db"));
    }

    void fourStationsOnSQLite()
    {
        const QString folder = m_dir.filePath("line");
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(makeDatabase(folder, {"create table zdx_id (id_sk integer)",
                                      "insert into zdx_id (id_sk) values (1000)"}));
        QString failure;
        const QList<int> serials = drawTogether({"sqlite", folder}, 250, &failure);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        checkConsecutive(serials, 1001, 1000);
    }

    void waitsOutAnotherStationsLock()
    {
        // Another station holds the file locked for longer than one statement waits: the draw is
        // tried again until the lock is gone, instead of failing with "database is locked".
        const QString folder = m_dir.filePath("locked");
        QVERIFY(QDir().mkpath(folder));
        QVERIFY(makeDatabase(folder, {"create table zdx_id (id_sk integer)",
                                      "insert into zdx_id (id_sk) values (41)"}));
        std::promise<void> locked;
        std::thread other([&] {
            {
                QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "other-station");
                db.setDatabaseName(folder + "/tessel.db");
                db.open();
                QSqlQuery q(db);
                q.exec("begin exclusive");
                locked.set_value();
                QThread::msleep(500);
                q.exec("commit");
                db.close();
            }
            QSqlDatabase::removeDatabase("other-station");
        });
        locked.get_future().wait();
        SerialDatabase database = sqliteIn(folder);
        database.busyTimeoutMs = 50;
        SerialCounter counter(database);
        int number = 0;
        QString error;
        const auto serial = counter.next(&number, &error);
        other.join();
        QVERIFY2(serial, qPrintable(error));
        QCOMPARE(*serial, 42);
    }

    void postgresqlUnreachable()
    {
        SerialDatabase d;
        d.kind = SerialDatabase::Kind::PostgreSQL;
        d.host = "127.0.0.1";
        d.port = 1; // nothing listens there
        d.name = "line";
        SerialCounter counter(d);
        int number = 0;
        QString error;
        QCOMPARE(counter.next(&number, &error), std::nullopt);
        QCOMPARE(number, 3151);
        QVERIFY2(error.startsWith("PostgreSQL database line on 127.0.0.1:1 not reachable"),
                 qPrintable(error));
    }

    void fourStationsOnPostgreSQL()
    {
        if (!postgresAvailable())
            QSKIP("no PostgreSQL server: run under pg_virtualenv (package postgresql) to check the "
                  "line's shared counter");
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QPSQL", "setup");
            const SerialDatabase d = postgres();
            db.setHostName(d.host);
            db.setPort(d.port);
            db.setDatabaseName(d.name);
            db.setUserName(d.user);
            db.setPassword(d.password);
            QVERIFY2(db.open(), qPrintable(db.lastError().text()));
            QSqlQuery q(db);
            q.exec("drop table if exists zdx_id");
            QVERIFY(q.exec("create table zdx_id (id_sk integer)"));
            QVERIFY(q.exec("insert into zdx_id (id_sk) values (41)"));
            db.close();
        }
        QSqlDatabase::removeDatabase("setup");
        SerialCounter one(postgres());
        int number = 0;
        QString error;
        QCOMPARE(one.next(&number, &error), std::optional<qint32>(42));
        QCOMPARE(one.lastUpdate(), QString("update zdx_id set id_sk=42 where id_sk=41"));
        QString failure;
        const QList<int> serials = drawTogether({"postgresql"}, 250, &failure);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        checkConsecutive(serials, 43, 1000);
    }

    // Production runs of one unit: the exact command lines, the firmware base, the failures that stop
    // a run before a serial is taken, the serial programming.
    void firmwareBase_data()
    {
        // base: "-": none
        columns<QString, QString, QString>({"path", "base", "kickstart"});
        row(".s", "/fw/app.s", "/fw/app", "/fw/kickstart");
        row(".S", "/fw/app.S", "/fw/app", "/fw/kickstart");
        row(".sx cut too", "/fw/app.sx", "/fw/app", "/fw/kickstart");
        row("folder with .s", "/x.src/app.hex", "/x", "/kickstart");
        row("last of two", "/a.s/b.s", "/a.s/b", "/a.s/kickstart");
        row("no folder", "app.s", "app", "-");
        row("none", "/fw/app.hex", "-", "-");
        row("empty", "", "-", "-");
    }

    void firmwareBase()
    {
        auto [path, kickstart] = fetch<QString, QString>("path", "kickstart");
        const auto got = production::firmwareBase(path);
        QTEST(got.value_or("-"), "base");
        if (got)
            QCOMPARE(kickstartBase(*got).value_or("-"), kickstart);
    }

    void commandLines()
    {
        QCOMPARE(stampCommand("/fw/app", 1234),
                 QString("postprocess.exe /fw/app.s /fw/app.sx -i 1234"));
        QCOMPARE(
            flashCommand("/fw/drive.cfg", false, "/fw/app"),
            QString("fflash.exe /fw/drive.cfg -jtagclk=800 -erase=all -s -verifyprog /fw/app.sx"));
        QCOMPARE(flashCommand("/fw/drive.cfg", true, "/fw/app"),
                 QString("fflash.exe /fw/drive.cfg -jtagclk=800 -erase=all -recover -s -verifyprog "
                         "/fw/app.sx"));
        QCOMPARE(kickstartCommand("/fw/kickstart", "/fw/app"),
                 QString("postprocess.exe /fw/kickstart.s /fw/kickstart.sl -m /fw/app.sx -p"));
        QCOMPARE(identityBlockCommand("/tmp/sbf1", "/tmp/dbf2", 42),
                 QString("postprocess.exe \"/tmp/sbf1\" \"/tmp/dbf2\" -i 42 -p"));
        QCOMPARE(identityDataCommand("/tmp/skf3", "/tmp/dsf4", "/tmp/dbf2"),
                 QString("postprocess.exe \"/tmp/skf3\" \"/tmp/dsf4\" -m \"/tmp/dbf2\" -p"));
        QCOMPARE(createSbbCommand("/tmp/sbf1", "/tmp/skf3", 42, "/opt/zd/ZDProdInterface"),
                 QString("/opt/zd/ZDProdInterface CreateSBB \"/tmp/sbf1\" \"/tmp/skf3\" 42"));
        QCOMPARE(stampCommand("/fw/app", -7, "pp"), QString("pp /fw/app.s /fw/app.sx -i -7"));
        QCOMPARE(pathWithBlank("/fw/my app", "/fw/a.cfg"), QString("/fw/my app"));
        QCOMPARE(pathWithBlank("/fw/app", "/my cfg/a.cfg"), QString("/my cfg/a.cfg"));
        QCOMPARE(pathWithBlank("/fw/app", "/fw/a.cfg"), QString());
    }

    void refusedBeforeASerialIsTaken_data()
    {
        columns<QString, QString, QString, QString>(
            {"firmware", "configuration", "databaseError", "message"});
        row("no .s", "/fw/app.hex", "/fw/d.cfg", "",
            "Err: 52 firmware file '/fw/app.hex' has no .s extension: "
            "nothing run");
        row("blank in firmware", "/my fw/app.s", "/fw/d.cfg", "",
            "Err: 52 '/my fw/app' holds a blank: the programming commands take paths without "
            "blanks; nothing run");
        row("blank in configuration", "/fw/app.s", "/fw/my d.cfg", "",
            "Err: 52 '/fw/my d.cfg' holds a blank: the programming commands take paths without "
            "blanks; nothing run");
        row("database", "/fw/app.s", "/fw/d.cfg", "SQLite database /line/tessel.db not found",
            "Err: 3024 SQLite database /line/tessel.db not found");
    }

    void refusedBeforeASerialIsTaken()
    {
        auto [firmware, configuration, databaseError] =
            fetch<QString, QString, QString>("firmware", "configuration", "databaseError");
        Recorder r;
        r.databaseError = databaseError;
        ProductionRun run(r.hooks());
        QString tag;
        const auto o = run.jtag(firmware, configuration, false, &tag);
        QCOMPARE(o.kind, ProductionRun::Outcome::Error);
        QTEST(o.message, "message");
        QCOMPARE(r.lines, QStringList());
        QCOMPARE(tag, QString());
        QCOMPARE(r.serials, databaseError.isEmpty() ? 0 : 1);
    }

    void serialProgramming_data()
    {
        columns<int, int>({"finalState", "kind"});
        row("loaded", 3, int(ProductionRun::Outcome::Done));
        row("unit unpowered", 5, int(ProductionRun::Outcome::LoadFailed));
    }

    void serialProgramming()
    {
        QFETCH(int, finalState);
        const QString folder = m_dir.filePath("fw");
        QDir().mkpath(folder);
        Recorder r;
        r.finalState = finalState;
        // The post-processor's merge writes the loader the unit gets.
        r.onRun = [&](const QString& line) {
            if (line.contains("kickstart.sl")) {
                QFile f(folder + "/kickstart.sl");
                f.open(QIODevice::WriteOnly);
                f.write("S1 loader and firmware");
            }
        };
        ProductionRun run(r.hooks());
        QString tag;
        const auto o = run.serialProgramming(folder + "/app.s", &tag);
        QCOMPARE(r.lines, QStringList({stampCommand(folder + "/app", 42),
                                       kickstartCommand(folder + "/kickstart", folder + "/app")}));
        QCOMPARE(r.loaded, QList<QByteArray>{"S1 loader and firmware"});
        QTEST(int(o.kind), "kind");
        QCOMPARE(o.testState, finalState);
        QCOMPARE(tag, finalState == 3 ? QString() : QString("42"));
        QFile::remove(folder + "/kickstart.sl");
        // Without the loader file the unit gets nothing.
        r.onRun = nullptr;
        const auto missing = run.serialProgramming(folder + "/app.s", &tag);
        QCOMPARE(missing.kind, ProductionRun::Outcome::Error);
        QVERIFY2(missing.message.startsWith("Err: 53 " + folder + "/kickstart.sl"),
                 qPrintable(missing.message));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TstProduction)
#include "tst_production.moc"

// The serial counter against real databases: an SQLite file, its faults, four stations drawing
// at once, a station waiting out another's lock; and a PostgreSQL server when the test runs
// inside one (pg_virtualenv), else skipped with a note.
#include "datatable.h"
#include "serialcounter.h"

#include <QtSql>
#include <QtTest>

#include <future>
#include <thread>

using namespace tessel::test;

using namespace tessel;

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
} // namespace

class TstSerialCounter : public QObject
{
    Q_OBJECT
private slots:
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

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TstSerialCounter)
#include "tst_serialcounter.moc"

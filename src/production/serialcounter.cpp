#include "serialcounter.h"

#include "machinesettings.h"

#include <QAtomicInt>
#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QStandardPaths>
#include <QThread>

#include <limits>

namespace tessel {

namespace {
QAtomicInt connectionCount;

bool fail(int* number, QString* error, int code, const QString& text)
{
    *number = code;
    *error = text;
    return false;
}
} // namespace

SerialDatabase SerialDatabase::fromSettings()
{
    QSettings s = userSettings();
    s.beginGroup(QStringLiteral("production"));
    SerialDatabase d;
    const QString kind = s.value(QStringLiteral("database")).toString().trimmed().toLower();
    d.kind = kind == QLatin1String("postgresql") ? Kind::PostgreSQL : Kind::SQLite;
    d.folder = s.value(QStringLiteral("folder")).toString();
    d.createIfMissing = d.folder.isEmpty();
    d.host = s.value(QStringLiteral("host"), d.host).toString();
    d.port = s.value(QStringLiteral("port"), d.port).toInt();
    d.name = s.value(QStringLiteral("name"), d.name).toString();
    d.user = s.value(QStringLiteral("user")).toString();
    d.password = s.value(QStringLiteral("password")).toString();
    return d;
}

QString SerialDatabase::defaultFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/Qor/Tessel");
}

QString SerialDatabase::filePath() const
{
    return QDir(folder.isEmpty() ? defaultFolder() : folder).filePath(QStringLiteral("tessel.db"));
}

QString SerialDatabase::description() const
{
    if (kind == Kind::PostgreSQL)
        return QStringLiteral("PostgreSQL database %1 on %2:%3").arg(name, host).arg(port);
    return QStringLiteral("SQLite database %1").arg(QDir::toNativeSeparators(filePath()));
}

SerialCounter::SerialCounter(const SerialDatabase& database)
    : m_database(database),
      m_connection(QStringLiteral("serials-%1").arg(connectionCount.fetchAndAddRelaxed(1)))
{
}

SerialCounter::~SerialCounter()
{
    if (QSqlDatabase::contains(m_connection)) {
        QSqlDatabase::database(m_connection, false).close();
        QSqlDatabase::removeDatabase(m_connection);
    }
}

bool SerialCounter::open(int* number, QString* error)
{
    if (QSqlDatabase::contains(m_connection) && QSqlDatabase::database(m_connection).isOpen())
        return true;
    const QString what = m_database.description();
    if (m_database.kind == SerialDatabase::Kind::PostgreSQL) {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), m_connection);
        db.setHostName(m_database.host);
        db.setPort(m_database.port);
        db.setDatabaseName(m_database.name);
        db.setUserName(m_database.user);
        db.setPassword(m_database.password);
        db.setConnectOptions(QStringLiteral("connect_timeout=5"));
        if (!db.open())
            return fail(number, error, serialerror::kUnreachable,
                        QStringLiteral("%1 not reachable: %2").arg(what, db.lastError().text()));
        return true;
    }
    const QString path = m_database.filePath();
    const QFileInfo file(path);
    bool create = false;
    if (!file.exists()) {
        if (!m_database.createIfMissing)
            return fail(number, error, serialerror::kNotFound,
                        QStringLiteral("%1 not found: the line's counter is not there").arg(what));
        if (!QDir().mkpath(file.absolutePath()))
            return fail(number, error, serialerror::kCannotOpen,
                        QStringLiteral("%1 cannot be made: folder %2 is not writable")
                            .arg(what, file.absolutePath()));
        create = true;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), m_connection);
    db.setDatabaseName(path);
    // Stations that draw at the same moment wait for each other's write.
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(m_database.busyTimeoutMs));
    if (!db.open())
        return fail(number, error, serialerror::kCannotOpen,
                    QStringLiteral("%1 cannot be opened: %2").arg(what, db.lastError().text()));
    if (create) {
        QSqlQuery q(db);
        if (!q.exec(QStringLiteral("create table zdx_id (id_sk integer)")) ||
            !q.exec(QStringLiteral("insert into zdx_id (id_sk) values (0)")))
            return fail(number, error, serialerror::kCannotOpen,
                        QStringLiteral("%1 cannot be made: %2").arg(what, q.lastError().text()));
    }
    return true;
}

std::optional<qint32> SerialCounter::next(int* number, QString* error)
{
    if (!open(number, error))
        return std::nullopt;
    QSqlDatabase db = QSqlDatabase::database(m_connection);
    const QString what = m_database.description();
    const auto failed = [&](const QSqlQuery& q, const QString& doing) {
        const QString text = q.lastError().text();
        const bool noTable = text.contains(QLatin1String("no such table"), Qt::CaseInsensitive) ||
                             text.contains(QLatin1String("does not exist"), Qt::CaseInsensitive);
        fail(number, error, noTable ? serialerror::kNoTable : serialerror::kCannotOpen,
             QStringLiteral("%1: %2: %3").arg(what, doing, text));
        return std::nullopt;
    };
    const QDeadlineTimer lockedDeadline(SerialDatabase::kLockedRetryMs);
    // Another station's write in the way: wait a little and begin the draw again.
    const auto locked = [&](const QSqlQuery& q) {
        const QString text = q.lastError().text();
        if (!text.contains(QLatin1String("locked"), Qt::CaseInsensitive) ||
            lockedDeadline.hasExpired())
            return false;
        QThread::msleep(20);
        return true;
    };
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        QSqlQuery q(db);
        if (!q.exec(QStringLiteral("select max(id_sk) from zdx_id"))) {
            if (locked(q)) {
                --attempt;
                continue;
            }
            return failed(q, QStringLiteral("reading the counter"));
        }
        if (!q.next() || q.value(0).isNull()) {
            fail(number, error, serialerror::kNoTable,
                 QStringLiteral("%1: table zdx_id holds no serial").arg(what));
            return std::nullopt;
        }
        bool numeric = false;
        const QString text = q.value(0).toString();
        const qint64 current = text.toLongLong(&numeric);
        q.finish();
        // Serials are 32-bit signed on the drive: past 2147483647 the next would be negative.
        if (!numeric || current < 0 || current >= std::numeric_limits<qint32>::max()) {
            fail(number, error, serialerror::kExhausted,
                 QStringLiteral("%1: the counter holds %2; the highest serial is %3, no serial "
                                "taken")
                     .arg(what, text)
                     .arg(std::numeric_limits<qint32>::max()));
            return std::nullopt;
        }
        const QString update = QStringLiteral("update zdx_id set id_sk=%1 where id_sk=%2")
                                   .arg(current + 1)
                                   .arg(current);
        QSqlQuery u(db);
        if (!u.exec(update)) {
            if (locked(u)) {
                --attempt;
                continue;
            }
            return failed(u, QStringLiteral("advancing the counter"));
        }
        if (u.numRowsAffected() >= 1) {
            m_lastUpdate = update;
            return qint32(current + 1);
        }
        // Another station took current + 1 between the two statements: read again.
        QThread::usleep(100 + attempt % 7 * 100);
    }
    fail(number, error, serialerror::kBusy,
         QStringLiteral("%1: the counter kept moving; no serial taken").arg(what));
    return std::nullopt;
}

} // namespace tessel

#pragma once

#include <QString>

#include <optional>

namespace tessel {

// Where the production line keeps its serial counter: the table zdx_id with its one column
// id_sk, holding the last serial given out.
//
// By default an SQLite file tessel.db in this user's data folder, made with one row (0) on its
// first use. A station of a line names the shared database in its per-user settings, group
// "production":
//   database=sqlite, folder=DIR         tessel.db in DIR, which must already hold it: a station
//                                       never starts a line's counter again from 0
//   database=postgresql, host=, port=, name=, user=, password=
//                                       one counter for every station of the line
struct SerialDatabase
{
    enum class Kind
    {
        SQLite,
        PostgreSQL
    };
    Kind kind = Kind::SQLite;
    QString folder; // SQLite; empty: the default folder
    bool createIfMissing = true;
    QString host = QStringLiteral("localhost");
    int port = 5432;
    QString name = QStringLiteral("tessel");
    QString user;
    QString password;
    // SQLite: how long one statement waits for another station's write to end. A statement
    // still refused then ("database is locked": SQLite gives up at once where waiting could
    // deadlock) is tried again, for kLockedRetryMs in all.
    int busyTimeoutMs = 10000;
    static constexpr int kLockedRetryMs = 30000;

    static SerialDatabase fromSettings();
    static QString defaultFolder();
    QString filePath() const; // SQLite
    // Names the database in messages: "SQLite database /srv/line/tessel.db".
    QString description() const;
};

// Error numbers of the serial counter, reported as "Err: NUMBER DESCRIPTION".
namespace serialerror {
constexpr int kNotFound = 3024;    // database file or folder missing
constexpr int kCannotOpen = 3051;  // cannot open or write (read-only file, no permission)
constexpr int kNoTable = 3078;     // no table zdx_id (or no row in it)
constexpr int kUnreachable = 3151; // database server not reachable
constexpr int kBusy = 3260;        // the counter kept moving under this station
constexpr int kExhausted = 3349;   // the counter holds the highest serial, or no serial at all
} // namespace serialerror

// The serial counter: each call to next() gives the next serial and advances the counter with
// "update zdx_id set id_sk=N+1 where id_sk=N". When that update changes no row, another station
// took N+1 first: the counter is read again and the update tried with the new value, so no two
// stations ever get the same serial.
class SerialCounter
{
public:
    explicit SerialCounter(const SerialDatabase& database);
    ~SerialCounter();
    SerialCounter(const SerialCounter&) = delete;
    SerialCounter& operator=(const SerialCounter&) = delete;

    std::optional<qint32> next(int* errorNumber, QString* error);
    // The update that took the last serial.
    QString lastUpdate() const { return m_lastUpdate; }
    static constexpr int kMaxAttempts = 1000;

private:
    bool open(int* errorNumber, QString* error);

    SerialDatabase m_database;
    QString m_connection;
    QString m_lastUpdate;
};

} // namespace tessel

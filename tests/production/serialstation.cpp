// One station of a production line drawing serials: "serialstation COUNT sqlite FOLDER" or
// "serialstation COUNT postgresql" (the server from PGHOST, PGPORT, PGDATABASE, PGUSER,
// PGPASSWORD). Prints each serial on its own line; exits 1 with the error on the first failure.
#include "serialcounter.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 3)
        return 2;
    tessel::SerialDatabase db;
    if (args[2] == QLatin1String("postgresql")) {
        db.kind = tessel::SerialDatabase::Kind::PostgreSQL;
        db.host = qEnvironmentVariable("PGHOST");
        db.port = qEnvironmentVariableIntValue("PGPORT");
        db.name = qEnvironmentVariable("PGDATABASE");
        db.user = qEnvironmentVariable("PGUSER");
        db.password = qEnvironmentVariable("PGPASSWORD");
    } else {
        db.folder = args.value(3);
        db.createIfMissing = false;
    }
    tessel::SerialCounter counter(db);
    for (int i = 0; i < args[1].toInt(); ++i) {
        int number = 0;
        QString error;
        const auto serial = counter.next(&number, &error);
        if (!serial) {
            std::fprintf(stderr, "Err: %d %s\n", number, qPrintable(error));
            return 1;
        }
        std::printf("%d\n", *serial);
    }
    return 0;
}

// Connects to the CAN server on the socket given as the only argument, attaches its session,
// starts controller 0 and prints "ready"; then waits until it is killed.
#include "serverconnection.h"

#include <QCoreApplication>

#include <cstdio>

using namespace qorcalib;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2)
        return 2;
    ServerConnection connection;
    QString error;
    if (!connection.open(ServerAddress::fromMachineName("localhost", QString::fromLocal8Bit(argv[1])),
                         5000, &error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }
    if (!connection.wait(connection.bus()->Advise(), &error) ||
        !connection.wait(connection.bus()->StartController(0), &error))
        return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}

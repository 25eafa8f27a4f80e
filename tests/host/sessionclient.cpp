// Connects to the CAN server on the socket given as the first argument, attaches its session,
// starts controller 0 and prints "ready"; then waits until it is killed. With "sdo-wait" as the
// second argument it first asks for an SDO upload from node 0x7F, which nobody answers, with
// the longest time-out, so that it dies in the middle of the transfer.
#include "serverconnection.h"

#include <QCoreApplication>

#include <cstdio>

using namespace qorcalib;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2 && argc != 3)
        return 2;
    ServerConnection connection;
    QString error;
    if (!connection.open(
            ServerAddress::fromMachineName("localhost", QString::fromLocal8Bit(argv[1])), 5000,
            &error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }
    if (!connection.wait(connection.bus()->Advise(), &error) ||
        !connection.wait(connection.bus()->StartController(0), &error))
        return 1;
    if (argc == 3 && QByteArray(argv[2]) == "sdo-wait") {
        const auto set = connection.wait(connection.service()->SetSdoTimeout(65535), &error);
        const auto request =
            connection.wait(connection.service()->SdoUpload(0, 0x7F, 0x1000, 0), &error);
        if (!set || !request || !request->error().isEmpty())
            return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}

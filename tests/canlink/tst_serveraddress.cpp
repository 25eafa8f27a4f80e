#include "datatable.h"
#include "serverconnection.h"

#include <QTest>

using namespace tessel::test;

using namespace qorcalib;

class TstServerAddress : public QObject
{
    Q_OBJECT
private slots:
    void fromMachineName_data()
    {
        columns<QString, bool, QString, int>({"machine", "local", "host", "port"});
        row("localhost", "localhost", true, "", 0);
        // Only the exact spelling is the local server; anything else goes over the network.
        row("LOCALHOST", "LOCALHOST", false, "LOCALHOST", 17420);
        row("name", "bench7", false, "bench7", 17420);
        row("name and port", "bench7:5000", false, "bench7", 5000);
        row("ipv4 and port", "10.1.2.3:6000", false, "10.1.2.3", 6000);
        row("bare ipv6", "fe80::1", false, "fe80::1", 17420);
        row("bracketed ipv6", "[::1]:7000", false, "::1", 7000);
        row("bad port", "bench7:http", false, "bench7", 0);
        row("port too big", "bench7:70000", false, "bench7", 0);
    }

    void fromMachineName()
    {
        auto [machine, local, host, port] =
            fetch<QString, bool, QString, int>("machine", "local", "host", "port");
        const auto address = ServerAddress::fromMachineName(machine, QStringLiteral("/run/q"));
        QCOMPARE(address.isLocal(), local);
        if (local) {
            QCOMPARE(address.localPath, QStringLiteral("/run/q"));
        } else {
            QCOMPARE(address.host, host);
            QCOMPARE(int(address.port), port);
        }
    }
};

QTEST_APPLESS_MAIN(TstServerAddress)
#include "tst_serveraddress.moc"

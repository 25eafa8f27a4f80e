#include "serverconnection.h"

#include <QTest>

using namespace qorcalib;

class TstServerAddress : public QObject
{
    Q_OBJECT
private slots:
    void fromMachineName_data();
    void fromMachineName();
};

void TstServerAddress::fromMachineName_data()
{
    QTest::addColumn<QString>("machine");
    QTest::addColumn<bool>("local");
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::newRow("localhost") << "localhost" << true << "" << 0;
    // Only the exact spelling is the local server; anything else goes over the network.
    QTest::newRow("LOCALHOST") << "LOCALHOST" << false << "LOCALHOST" << 17420;
    QTest::newRow("name") << "bench7" << false << "bench7" << 17420;
    QTest::newRow("name and port") << "bench7:5000" << false << "bench7" << 5000;
    QTest::newRow("ipv4 and port") << "10.1.2.3:6000" << false << "10.1.2.3" << 6000;
    QTest::newRow("bare ipv6") << "fe80::1" << false << "fe80::1" << 17420;
    QTest::newRow("bracketed ipv6") << "[::1]:7000" << false << "::1" << 7000;
    QTest::newRow("bad port") << "bench7:http" << false << "bench7" << 0;
    QTest::newRow("port too big") << "bench7:70000" << false << "bench7" << 0;
}

void TstServerAddress::fromMachineName()
{
    QFETCH(QString, machine);
    QFETCH(bool, local);
    QFETCH(QString, host);
    QFETCH(int, port);
    const auto address = ServerAddress::fromMachineName(machine, QStringLiteral("/run/q"));
    QCOMPARE(address.isLocal(), local);
    if (local) {
        QCOMPARE(address.localPath, QStringLiteral("/run/q"));
    } else {
        QCOMPARE(address.host, host);
        QCOMPARE(int(address.port), port);
    }
}

QTEST_APPLESS_MAIN(TstServerAddress)
#include "tst_serveraddress.moc"

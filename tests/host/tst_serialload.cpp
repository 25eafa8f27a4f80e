// The bench's serial loader through the server, as a client meets it: a request that returns at
// once, progress on the session's sink, the test state while it runs and after, and the ways a
// load fails.
#include "datatable.h"
#include "serverprocess.h"

#include <QtTest>

using tessel::test::row;

using namespace qorcalib;
using qorcalib::test::ServerProcess;


namespace {
QByteArray srecordImage(int bytes)
{
    QByteArray image = "S00600004844521B\r\n";
    while (image.size() < bytes)
        image += "S1130000000102030405060708090A0B0C0D0E0F74\r\n";
    return image.left(bytes);
}

int testState(ServerConnection* c)
{
    QString error;
    const auto r = c->wait(c->benchBoard()->GetTestState(), &error);
    return r ? r->value() : -1;
}

// Starts a load and waits for its end: the state it ended in, or -1.
int load(ServerConnection* c, const QByteArray& image, QList<double>* progress = nullptr,
         int* stateWhileRunning = nullptr)
{
    QSignalSpy done(c->notify(), &QCSNotifyReplica::OperationDone);
    QSignalSpy notified(c->notify(), &QCSNotifyReplica::ProgressNotify);
    QString error;
    const auto reply = c->wait(c->benchBoard()->LoadSerialImage(image), &error);
    if (!reply || !reply->error().isEmpty())
        return -1;
    if (stateWhileRunning)
        *stateWhileRunning = testState(c);
    if (!QTest::qWaitFor([&] { return !done.isEmpty(); }, 30000))
        return -1;
    const auto result = done.first().at(0).value<OperationResult>();
    if (result.requestId() != reply->requestId())
        return -1;
    if (progress)
        for (const auto& args : notified)
            progress->append(args.at(0).toDouble());
    return result.value();
}
} // namespace

class TstSerialLoad : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { qRegisterMetaType<OperationResult>(); }
    void init()
    {
        m_server = std::make_unique<ServerProcess>();
        QVERIFY(m_server->start({"--unpaced"}));
    }

    void refusedImages_data()
    {
        QTest::addColumn<QByteArray>("image");
        row("empty", QByteArray());
        row("one byte", QByteArray("x"));
        row("text", QByteArray("hello world, not a loader"));
        row("S then no hex", QByteArray("S1zz00000000"));
    }

    void refusedImages()
    {
        QFETCH(QByteArray, image);
        auto a = m_server->attach();
        QVERIFY(a);
        QCOMPARE(testState(a.get()), 0);
        QCOMPARE(load(a.get(), image), 4);
        QCOMPARE(testState(a.get()), 4);
    }

    void loadsAtTheLinksRate()
    {
        auto a = m_server->attach();
        QVERIFY(a);
        QList<double> progress;
        int running = -1;
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(load(a.get(), srecordImage(11520), &progress, &running), 3);
        // 11,520 bytes at 115200 baud take a second, as on a real link.
        QVERIFY2(clock.elapsed() >= 950, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(running, 1);
        QCOMPARE(testState(a.get()), 3);
        QVERIFY(progress.size() >= 10);
        QCOMPARE(progress.last(), 0.0); // back at 0 when the load ended
        progress.removeLast();
        QCOMPARE(progress.last(), 1.0);
        QVERIFY(std::is_sorted(progress.begin(), progress.end()));
    }

    void unpoweredUnit()
    {
        auto a = m_server->attach();
        QVERIFY(a);
        CALL_OK(a, benchBoard()->BoardCommand(11, 0));
        QCOMPARE(load(a.get(), srecordImage(2000)), 5);
        // Power lost half-way.
        CALL_OK(a, benchBoard()->BoardCommand(10, 0));
        QSignalSpy done(a->notify(), &QCSNotifyReplica::OperationDone);
        CALL_OK(a, benchBoard()->LoadSerialImage(srecordImage(20000)));
        QTest::qWait(300);
        CALL_OK(a, benchBoard()->BoardCommand(11, 0));
        QTRY_COMPARE(done.size(), 1);
        QCOMPARE(done.first().at(0).value<OperationResult>().value(), 5);
    }

    void loadOfAClientThatLeavesIsCancelled()
    {
        auto a = m_server->attach();
        QVERIFY(a);
        {
            auto b = m_server->attach();
            QVERIFY(b);
            CALL_OK(b, benchBoard()->LoadSerialImage(srecordImage(50000)));
            QCOMPARE(testState(a.get()), 1);
        }
        QTRY_COMPARE_WITH_TIMEOUT(testState(a.get()), 6, 5000);
    }

private:
    std::unique_ptr<ServerProcess> m_server;
};

QTEST_MAIN(TstSerialLoad)
#include "tst_serialload.moc"

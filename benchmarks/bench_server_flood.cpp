// Floods controller 0 of the unpaced simulated bus and measures how many frames per second
// reach one client session over the local socket.
//
// The server's world and host run on their own thread, as they would in qorcalib-server; a
// flood node on controller 0's segment sends numbered frames as fast as the segment takes them.
// The client counts FilteredRxCan records and checks that none is lost or out of order.
//
//   bench_server_flood [frames]     (default 1000000)

#include "serverconnection.h"
#include "servercore.h"
#include "serverhost.h"
#include "simulatedsegment.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <cstdio>
#include <ctime>

using namespace qorcalib;

namespace {

// A node that transmits numbered 8-byte frames, keeping a bounded number in the segment's queue.
class FloodNode : public QObject, public SimPort
{
public:
    FloodNode(SimulatedSegment* segment, qint64 total) : m_segment(segment), m_total(total)
    {
        m_segment->attach(this);
        m_timer.setInterval(0);
        connect(&m_timer, &QTimer::timeout, this, &FloodNode::refill);
    }
    ~FloodNode() override { m_segment->detach(this); }
    void start() { m_timer.start(); }

    int bitRateIndex() const override { return 0; }
    bool isActive() const override { return true; }
    void receive(const BusFrame&) override {}
    void transmitted(const BusFrame&, bool) override { ++m_done; }

private:
    void refill()
    {
        constexpr qint64 kInFlight = 16384;
        while (m_sent < m_total && m_sent - m_done < kInFlight) {
            CanFrame frame;
            frame.id = 0x181;
            frame.len = 8;
            qToLittleEndian<quint64>(quint64(m_sent), frame.data.data());
            m_segment->transmit(this, frame, 0);
            ++m_sent;
        }
        if (m_sent >= m_total)
            m_timer.stop();
    }

    SimulatedSegment* m_segment;
    qint64 m_total;
    qint64 m_sent = 0;
    qint64 m_done = 0;
    QTimer m_timer;
};

double cpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 total = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1000000;
    QTemporaryDir dir;
    const QString socketPath = dir.filePath(QStringLiteral("qorcalib"));

    FloodNode* flood = nullptr;
    QThread* serverThread = QThread::create([&] {
        ServerCore::Config config;
        config.paced = false;
        config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
        QString error;
        auto core = ServerCore::create(config, &error);
        ServerHost host(core.get());
        if (!core || !host.listenLocal(socketPath, &error)) {
            std::fprintf(stderr, "server: %s\n", qPrintable(error));
            std::exit(1);
        }
        FloodNode node(core->segment(0), total);
        flood = &node;
        QEventLoop loop;
        QObject::connect(QThread::currentThread(), &QThread::finished, &loop, &QEventLoop::quit);
        QMetaObject::invokeMethod(QThread::currentThread(), [] {}, Qt::QueuedConnection);
        loop.exec();
        flood = nullptr;
    });
    serverThread->start();

    ServerConnection client;
    QString error;
    bool connected = false;
    for (int attempt = 0; attempt < 100 && !connected; ++attempt) {
        connected = client.open(ServerAddress::fromMachineName("localhost", socketPath), 2000, &error);
        if (!connected)
            QThread::msleep(20);
    }
    if (!connected || !client.wait(client.bus()->Advise(), &error) ||
        !client.wait(client.bus()->StartController(0), &error)) {
        std::fprintf(stderr, "client: %s\n", qPrintable(error));
        return 1;
    }

    qint64 received = 0;
    qint64 events = 0;
    qint64 outOfOrder = 0;
    QElapsedTimer clock;
    double cpuStart = 0;
    QObject::connect(client.notify(), &QCSNotifyReplica::FilteredRxCan, &app,
                     [&](int controller, const QByteArray& frames, int count) {
                         if (controller != 0)
                             return;
                         ++events;
                         for (int i = 0; i < count; ++i) {
                             const CanFrame f = recordAt(frames, i);
                             if (f.id != 0x181)
                                 continue; // the drive's heartbeat
                             if (qFromLittleEndian<quint64>(f.data.data()) != quint64(received))
                                 ++outOfOrder;
                             ++received;
                         }
                         if (received >= total)
                             app.quit();
                     });
    QTimer::singleShot(120000, &app, [&] {
        std::fprintf(stderr, "timed out after %lld of %lld frames\n", received, total);
        app.exit(1);
    });
    clock.start();
    cpuStart = cpuSeconds();
    QMetaObject::invokeMethod(flood, [&] { flood->start(); }, Qt::QueuedConnection);
    const int rc = app.exec();
    const double seconds = clock.nsecsElapsed() * 1e-9;
    const double cpu = cpuSeconds() - cpuStart;

    serverThread->quit();
    serverThread->wait();
    delete serverThread;
    if (rc != 0)
        return rc;
    std::printf("frames delivered to one session: %lld in %.3f s = %.0f frames/s\n", received,
                seconds, received / seconds);
    std::printf("events: %lld (%.0f frames per FilteredRxCan); frames lost or out of order: %lld\n",
                events, double(received) / double(events), outOfOrder);
    std::printf("process CPU (server thread + client): %.2f s, %.2f us per frame\n", cpu,
                cpu * 1e6 / double(received));
    return outOfOrder == 0 ? 0 : 2;
}

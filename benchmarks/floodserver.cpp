#include "floodserver.h"

#include "servercore.h"
#include "serverhost.h"
#include "simulatedsegment.h"

#include <QEventLoop>
#include <QTimer>
#include <QtEndian>

#include <cstdio>
#include <memory>
#include <vector>

namespace qorcalib {

// Sends its frames as fast as the segment takes them, keeping a bounded number queued.
class FloodNode : public QObject, public SimPort
{
public:
    // total < 0: endless, with only a few frames queued, as a busy device keeps its bus full.
    FloodNode(SimulatedSegment* segment, qint64 total, quint16 id = 0x181)
        : m_segment(segment), m_total(total), m_id(id)
    {
        m_segment->attach(this);
        m_timer.setInterval(0);
        QObject::connect(&m_timer, &QTimer::timeout, this, &FloodNode::refill);
    }
    ~FloodNode() override { m_segment->detach(this); }
    void start()
    {
        if (m_total < 0)
            refill();
        else
            m_timer.start();
    }

    int bitRateIndex() const override { return 0; }
    bool isActive() const override { return true; }
    void receive(const BusFrame&) override {}
    void transmitted(const BusFrame&, bool) override
    {
        ++m_done;
        // A busy device queues its next frame as one leaves, rather than spinning on a timer:
        // what this process then spends is the bus's and the server's, not the load's.
        if (m_total < 0)
            refill();
    }

private:
    void refill()
    {
        const qint64 inFlight = m_total < 0 ? 64 : 16384;
        while ((m_total < 0 || m_sent < m_total) && m_sent - m_done < inFlight) {
            CanFrame frame;
            frame.id = m_id;
            frame.len = 8;
            qToLittleEndian<quint64>(quint64(m_sent), frame.data.data());
            m_segment->transmit(this, frame, 0);
            ++m_sent;
        }
        if (m_total >= 0 && m_sent >= m_total)
            m_timer.stop();
    }

    SimulatedSegment* m_segment;
    qint64 m_total;
    quint16 m_id;
    qint64 m_sent = 0;
    qint64 m_done = 0;
    QTimer m_timer;
};

FloodServer::FloodServer(QString socketPath, qint64 frames)
    : m_socketPath(std::move(socketPath)), m_frames(frames)
{
}

FloodServer::FloodServer(QString socketPath, Load load)
    : m_socketPath(std::move(socketPath)), m_frames(-1), m_loadControllers(load.controllers)
{
}

FloodServer::~FloodServer()
{
    if (m_thread) {
        m_thread->quit();
        m_thread->wait();
        delete m_thread;
    }
}

bool FloodServer::start()
{
    m_thread = QThread::create([this] {
        ServerCore::Config config;
        config.paced = m_loadControllers > 0;
        if (m_loadControllers > 0) {
            config.channels.clear();
            for (int c = 0; c < m_loadControllers; ++c)
                config.channels << QStringLiteral("sim");
        }
        config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
        QString error;
        auto core = ServerCore::create(config, &error);
        if (!core) {
            std::fprintf(stderr, "server: %s\n", qPrintable(error));
            m_failed = true;
            return;
        }
        ServerHost host(core.get());
        if (!host.listenLocal(m_socketPath, &error)) {
            std::fprintf(stderr, "server: %s\n", qPrintable(error));
            m_failed = true;
            return;
        }
        std::vector<std::unique_ptr<FloodNode>> loads;
        for (int c = 0; c < m_loadControllers; ++c) {
            loads.push_back(std::make_unique<FloodNode>(core->segment(c), -1, quint16(0x7F0 + c)));
            loads.back()->start();
        }
        FloodNode node(core->segment(0), m_frames);
        m_node = &node;
        QEventLoop loop;
        QObject::connect(QThread::currentThread(), &QThread::finished, &loop, &QEventLoop::quit);
        loop.exec();
        m_node = nullptr;
    });
    m_thread->start();
    while (!m_node && !m_failed)
        QThread::msleep(5);
    return !m_failed;
}

void FloodServer::flood()
{
    FloodNode* node = m_node;
    QMetaObject::invokeMethod(
        node, [node] { node->start(); }, Qt::QueuedConnection);
}

} // namespace qorcalib

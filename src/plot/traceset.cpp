#include "traceset.h"

#include "bittiming.h"
#include "canlink.h"
#include "canmsg.h"
#include "filesource.h"
#include "sampling.h"

#include <QThread>

#include <cmath>

namespace tessel {

TraceSet::TraceSet(CanLink* link, QObject* parent) : QObject(parent), m_link(link)
{
    m_clock.start();
    connect(m_link, &CanLink::framesReceived, this, &TraceSet::onFrames);
}

TraceSet::~TraceSet() = default;

void TraceSet::setCapacity(qsizetype capacity)
{
    m_capacity = capacity;
    for (auto& t : m_traces)
        t->ring.setCapacity(capacity);
    emit valuesChanged();
}

bool TraceSet::add(const QString& text, QString* error)
{
    auto source = PlotSource::parse(text, error);
    if (!source)
        return false;
    if (source->isPeriodic() && source->periodMs == 0)
        source->periodMs = m_periodMs;
    if (source->isLive()) {
        addTrace(*source, {}, SampleRing(m_capacity));
        return true;
    }
    emit said(QStringLiteral("Reading %1...").arg(source->path));
    auto result = std::make_shared<FileTrace>();
    QThread* reader = QThread::create(
        [result, s = *source, keep = m_capacity] { *result = readFileTrace(s, keep); });
    connect(reader, &QThread::finished, this, [this, result, s = *source] {
        if (!result->error.isEmpty()) {
            emit failed(result->error);
            return;
        }
        addTrace(s, result->note, std::move(result->ring));
        emit said(QStringLiteral("%1: %2 values, %3 gaps%4")
                      .arg(s.label())
                      .arg(result->values)
                      .arg(result->gaps)
                      .arg(result->note.isEmpty() ? QString()
                                                  : QStringLiteral("; ") + result->note));
    });
    connect(reader, &QThread::finished, reader, &QObject::deleteLater);
    reader->start();
    return true;
}

void TraceSet::addTrace(const PlotSource& source, const QString& note, SampleRing ring)
{
    auto t = std::make_unique<Trace>();
    t->source = source;
    t->ring = std::move(ring);
    t->note = note;
    t->controller = source.controller >= 0 ? source.controller : m_controller;
    m_traces.push_back(std::move(t));
    if (source.isPeriodic() && m_reading)
        startSampler(m_traces.back().get());
    emit traceAdded(count() - 1);
}

void TraceSet::remove(int trace)
{
    if (trace >= 0 && trace < count())
        m_traces.erase(m_traces.begin() + trace);
}

void TraceSet::clearValues()
{
    for (auto& t : m_traces)
        t->ring.clear();
    emit valuesChanged();
}

void TraceSet::startReads()
{
    m_reading = true;
    for (auto& t : m_traces)
        if (t->source.isPeriodic() && !t->sampler)
            startSampler(t.get());
}

void TraceSet::stopReads()
{
    m_reading = false;
    for (auto& t : m_traces)
        t->sampler.reset();
}

bool TraceSet::hasLive() const
{
    for (const auto& t : m_traces)
        if (t->source.isLive())
            return true;
    return false;
}

double TraceSet::newest() const
{
    double newest = 0;
    bool live = false;
    for (const auto& t : m_traces) {
        live |= t->source.isLive();
        if (!t->ring.isEmpty())
            newest = qMax(newest, t->ring.last().t);
    }
    return live ? qMax(newest, now()) : newest;
}

void TraceSet::startSampler(Trace* t)
{
    const PlotSource& s = t->source;
    int period = s.periodMs;
    if (s.kind == PlotSource::Kind::Entry) {
        // Every entry plotted on the controller takes its share of the reads' half of the bus.
        int entries = 0;
        for (const auto& other : m_traces)
            entries += other->source.kind == PlotSource::Kind::Entry &&
                       other->controller == t->controller;
        QString error;
        const int rateIndex = m_link->bitRate(t->controller, &error).value_or(-1);
        const int smallest = smallestSamplePeriodMs(qorcalib::bitRateOfIndex(rateIndex), entries);
        if (period < smallest) {
            // As tessel-cli sample says it, with the entries that share the bus.
            emit said(
                QStringLiteral("%1 ms is below the shortest period%2%3: every %4 ms")
                    .arg(period)
                    .arg(rateIndex < 0 ? QString()
                                       : QStringLiteral(" at ") + qorcalib::bitRateText(rateIndex))
                    .arg(entries > 1 ? QStringLiteral(" for %1 entries").arg(entries) : QString())
                    .arg(smallest));
            period = smallest;
        }
    }
    LiveSampler::Target target;
    target.analog = s.kind == PlotSource::Kind::Analog;
    target.controller = t->controller;
    target.node = s.node;
    target.index = s.index;
    target.subIndex = s.subIndex;
    target.type = s.type;
    target.channel = s.channel;
    target.acquireFirst = s.latched;
    t->sampler = std::make_unique<LiveSampler>(m_link, target, period, &m_clock);
    connect(t->sampler.get(), &LiveSampler::sampled, this, [this, t](double at, double v) {
        t->ring.append(at, v);
        emit valuesChanged();
    });
    connect(t->sampler.get(), &LiveSampler::failed, this, [this, t](double at, const QString& why) {
        t->ring.appendGap(at, why);
        emit valuesChanged();
    });
    t->sampler->start();
}

double TraceSet::frameTime(quint32 serverUs)
{
    // The server's clock counts microseconds and wraps; frames are put on the set's clock by
    // where the two met. A server that started again, or a clock that drifted a second away, is
    // met anew.
    if (m_anchored && serverUs < m_lastServerUs && m_lastServerUs - serverUs > 0x80000000u)
        ++m_serverWraps;
    m_lastServerUs = serverUs;
    const qint64 server = (m_serverWraps << 32) + serverUs;
    double t = m_anchorClock + double(server - m_anchorServer) / 1e6;
    if (!m_anchored || std::fabs(t - now()) > 1.0) {
        m_anchored = true;
        m_anchorClock = now();
        m_anchorServer = server;
        t = m_anchorClock;
    }
    return t;
}

void TraceSet::onFrames(int controller, const QByteArray& records, int count)
{
    bool wanted = false;
    for (const auto& t : m_traces)
        wanted |= t->source.kind == PlotSource::Kind::Frame && t->controller == controller;
    if (!wanted)
        return;
    bool changed = false;
    for (int i = 0; i < count; ++i) {
        const qorcalib::CanFrame f = qorcalib::recordAt(records, i);
        if (f.remote)
            continue;
        double at = -1;
        for (auto& t : m_traces) {
            if (t->source.kind != PlotSource::Kind::Frame || t->controller != controller ||
                t->source.id != f.id)
                continue;
            if (at < 0)
                at = frameTime(f.timeUs);
            if (const auto v =
                    t->source.fieldValue(reinterpret_cast<const char*>(f.data.data()), f.len))
                t->ring.append(at, *v);
            else
                t->ring.appendGap(at, QStringLiteral("%1 bytes, the field needs %2")
                                          .arg(f.len)
                                          .arg((t->source.bit + t->source.bits + 7) / 8));
            changed = true;
        }
    }
    if (changed)
        emit valuesChanged();
}

} // namespace tessel

#include "tracereplay.h"

#include "bittiming.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace tessel {

qorcalib::CanFrame ScheduledFrame::busFrame() const
{
    qorcalib::CanFrame frame;
    frame.id = record.id;
    frame.len = quint8(qBound(0, record.length, 8));
    frame.remote = record.remote;
    if (!record.remote)
        std::copy_n(record.data.constData(), std::min<qsizetype>(frame.len, record.data.size()),
                    frame.data.begin());
    frame.timeUs = serverUs;
    return frame;
}

bool TraceReplay::start(const QString& fileName, const ReplayOptions& options, QString* error)
{
    stop();
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(fileName, m_file.errorString());
        return false;
    }
    if (!traceFormatOfContent(&m_file, &m_format) && !traceFormatOf(fileName, &m_format)) {
        m_file.close();
        *error = QStringLiteral("%1: a trace file is a candump log (.log), an ASC file (.asc) or "
                                "a PCAN-View trace (.trc)")
                     .arg(fileName);
        return false;
    }
    m_reader = TraceReader::create(&m_file, m_format);
    m_options = options;
    if (!(m_options.speed > 0))
        m_options.speed = 1.0;
    m_options.loops = std::max(1, m_options.loops);
    m_pass = 0;
    m_passFrames = 0;
    m_paceUs = 0;
    m_sent = m_errorFrames = m_comments = m_unmapped = 0;
    m_controllers.clear();
    m_error.clear();
    QString readError;
    const bool first = readNext();
    if (first && serverTime)
        readError = serverTime(&m_serverStartUs);
    if (!first || !readError.isEmpty()) {
        if (first)
            *error = QStringLiteral("%1: %2").arg(fileName, readError);
        else if (!m_error.isEmpty())
            *error = QStringLiteral("%1: %2").arg(fileName, m_error);
        else if (m_unmapped > 0)
            *error = QStringLiteral("%1: no frames on the channels mapped").arg(fileName);
        else
            *error = QStringLiteral("%1: no frames in it").arg(fileName);
        closeFile();
        return false;
    }
    m_firstUs = m_next.timeUs;
    m_shiftUs = 0;
    m_haveLast = false;
    m_clock.start();
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &TraceReplay::tick, Qt::UniqueConnection);
    m_timer.start(kTickMs);
    // The first frames go from the event loop: the caller learns of the start before any end.
    QMetaObject::invokeMethod(this, &TraceReplay::tick, Qt::QueuedConnection);
    return true;
}

bool TraceReplay::readNext()
{
    while (m_reader) {
        const auto result = m_reader->next(&m_next, &m_error);
        if (result == TraceReader::Error) {
            closeFile();
            return false;
        }
        if (result == TraceReader::End) {
            // A pass without a frame to send (every channel unmapped) is no reason for more.
            if (++m_pass >= m_options.loops || m_passFrames == 0) {
                closeFile();
                return false;
            }
            // The next pass: its first stamp lies before the last one, so it goes right after
            // the last frame, as a stamp gone back does.
            countSkipped();
            m_passFrames = 0;
            m_file.seek(0);
            m_reader = TraceReader::create(&m_file, m_format);
            continue;
        }
        m_nextController = m_options.controller;
        if (!m_options.channels.isEmpty()) {
            const auto mapped = m_options.channels.constFind(m_next.channel);
            if (mapped == m_options.channels.constEnd()) {
                ++m_unmapped;
                continue;
            }
            m_nextController = *mapped;
        }
        ++m_passFrames;
        if (m_options.paceBitsPerSecond > 0) {
            // Each frame follows the one before by its own time on the bus.
            m_next.timeUs = qint64(m_paceUs);
            m_paceUs += qorcalib::frameDurationUs(ScheduledFrame{m_next}.busFrame(),
                                                  m_options.paceBitsPerSecond);
        }
        return true;
    }
    return false;
}

qint64 TraceReplay::localDueUs(const TraceRecord& record) const
{
    return kLeadUs + qint64(double(record.timeUs - m_firstUs) / m_options.speed) + m_shiftUs;
}

void TraceReplay::tick()
{
    if (!isRunning())
        return;
    announceDue(m_clock.nsecsElapsed() / 1000);
    // Read again: announcing takes its time too (the trace).
    const qint64 nowUs = m_clock.nsecsElapsed() / 1000;
    QList<ScheduledFrame> batch;
    std::vector<qint64> localUs;
    while (m_reader && m_ahead.size() + size_t(batch.size()) < size_t(kMaxAhead)) {
        // A stamp that goes back in time (files joined, a clock set back) is taken as "now":
        // the frame goes right after the one before it, and those after it keep their spacing
        // from it. Frames go out in the file's order.
        if (m_haveLast && m_next.timeUs < m_lastStampUs)
            m_shiftUs += m_lastDueUs - localDueUs(m_next);
        qint64 dueUs = localDueUs(m_next);
        if (dueUs > nowUs + kAheadUs)
            break;
        if (dueUs < nowUs + kMarginUs) {
            m_shiftUs += nowUs + kMarginUs - dueUs;
            dueUs = nowUs + kMarginUs;
        }
        batch.append(
            ScheduledFrame{m_next, m_serverStartUs + quint32(quint64(dueUs)), m_nextController});
        localUs.push_back(dueUs);
        m_haveLast = true;
        m_lastStampUs = m_next.timeUs;
        m_lastDueUs = dueUs;
        readNext();
    }
    if (!batch.isEmpty()) {
        QString sendError;
        const int taken = handOver(batch, &sendError);
        for (int i = 0; i < taken && i < batch.size(); ++i)
            m_ahead.push_back(Ahead{batch[i], localUs[size_t(i)]});
        m_sent += taken;
        if (!sendError.isEmpty()) {
            // What the server took still goes out; the rest of the file does not.
            m_error =
                QStringLiteral("frame %1 could not be sent: %2").arg(m_sent + 1).arg(sendError);
            closeFile();
        }
    }
    // The end comes when the last frame handed over is due.
    if (!isRunning())
        finish(std::exchange(m_error, {}));
}

int TraceReplay::handOver(const QList<ScheduledFrame>& batch, QString* error)
{
    if (!sendTimed)
        return int(batch.size());
    // A run of frames for one controller at a time, in the file's order.
    int taken = 0;
    while (taken < batch.size()) {
        const int controller = batch[taken].controller;
        QVector<qorcalib::CanFrame> run;
        for (int i = taken; i < batch.size() && batch[i].controller == controller; ++i)
            run.append(batch[i].busFrame());
        m_controllers.insert(controller);
        const int took = sendTimed(controller, run, error);
        taken += std::clamp(took, 0, int(run.size()));
        if (took < run.size() || !error->isEmpty())
            break;
    }
    return taken;
}

void TraceReplay::countSkipped()
{
    if (!m_reader)
        return;
    m_errorFrames += m_reader->errorFrames();
    m_comments += m_reader->comments();
}

void TraceReplay::closeFile()
{
    countSkipped();
    m_reader.reset();
    m_file.close();
}

void TraceReplay::announceDue(qint64 nowUs)
{
    while (!m_ahead.empty() && m_ahead.front().localUs <= nowUs) {
        const ScheduledFrame frame = m_ahead.front().frame;
        m_ahead.pop_front();
        if (frameDue)
            frameDue(frame);
    }
}

void TraceReplay::stop()
{
    if (!isRunning())
        return;
    // What is due by now has gone out, as far as the trace knows; the server says how much it
    // took back.
    announceDue(m_clock.nsecsElapsed() / 1000);
    if (dropQueued) {
        qint64 dropped = 0;
        for (int controller : m_controllers) {
            const int n = dropQueued(controller);
            if (n < 0) {
                dropped = qint64(m_ahead.size());
                break;
            }
            dropped += n;
        }
        m_sent -= dropped;
    }
    finish({});
}

void TraceReplay::finish(const QString& error)
{
    m_timer.stop();
    closeFile();
    m_ahead.clear();
    emit finished(error, m_sent);
}

} // namespace tessel

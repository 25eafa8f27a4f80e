#include "tracereplay.h"

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

bool TraceReplay::start(const QString& fileName, double speed, QString* error)
{
    stop();
    TraceFormat format;
    if (!traceFormatOf(fileName, &format)) {
        *error = QStringLiteral("%1: a trace file is a candump log (.log) or an ASC file (.asc)")
                     .arg(fileName);
        return false;
    }
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: %2").arg(fileName, m_file.errorString());
        return false;
    }
    m_reader = TraceReader::create(&m_file, format);
    m_speed = speed > 0 ? speed : 1.0;
    m_sent = 0;
    QString readError;
    const auto first = m_reader->next(&m_next, &readError);
    if (first == TraceReader::Frame && serverTime)
        readError = serverTime(&m_serverStartUs);
    if (first != TraceReader::Frame || !readError.isEmpty()) {
        *error = first == TraceReader::End ? QStringLiteral("%1: no frames in it").arg(fileName)
                                           : QStringLiteral("%1: %2").arg(fileName, readError);
        m_reader.reset();
        m_file.close();
        return false;
    }
    m_error.clear();
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

qint64 TraceReplay::localDueUs(const TraceRecord& record) const
{
    return kLeadUs + qint64(double(record.timeUs - m_firstUs) / m_speed) + m_shiftUs;
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
        batch.append(ScheduledFrame{m_next, m_serverStartUs + quint32(quint64(dueUs))});
        localUs.push_back(dueUs);
        m_haveLast = true;
        m_lastStampUs = m_next.timeUs;
        m_lastDueUs = dueUs;
        if (m_reader->next(&m_next, &m_error) != TraceReader::Frame)
            closeFile();
    }
    if (!batch.isEmpty()) {
        QString sendError;
        const int taken = sendTimed ? sendTimed(batch, &sendError) : int(batch.size());
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

void TraceReplay::closeFile()
{
    if (m_reader) {
        m_errorFrames = m_reader->errorFrames();
        m_comments = m_reader->comments();
    }
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
        const int dropped = dropQueued();
        m_sent -= dropped >= 0 ? dropped : qint64(m_ahead.size());
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

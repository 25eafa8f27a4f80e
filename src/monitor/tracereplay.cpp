#include "tracereplay.h"

namespace tessel {

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
    if (first != TraceReader::Frame) {
        *error = first == TraceReader::End ? QStringLiteral("%1: no frames in it").arg(fileName)
                                           : QStringLiteral("%1: %2").arg(fileName, readError);
        m_reader.reset();
        m_file.close();
        return false;
    }
    m_haveNext = true;
    m_firstUs = m_next.timeUs;
    m_shiftUs = 0;
    m_clock.start();
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &TraceReplay::sendDue, Qt::UniqueConnection);
    m_timer.start(0);
    return true;
}

void TraceReplay::sendDue()
{
    QString error;
    int inARow = 0;
    while (m_haveNext) {
        // A burst gives the event loop its turn now and then: "Stop" must be clickable.
        if (++inARow > kBurst) {
            m_timer.start(0);
            return;
        }
        qint64 dueUs = qint64(double(m_next.timeUs - m_firstUs) / m_speed) + m_shiftUs;
        const qint64 nowUs = m_clock.nsecsElapsed() / 1000;
        // Held up (the machine was busy): the rest of the file keeps its spacing from here,
        // rather than rushing out what is overdue back to back.
        if (nowUs - dueUs > kLateUs) {
            m_shiftUs += nowUs - dueUs;
            dueUs = nowUs;
        }
        if (dueUs > nowUs) {
            // Woken a little early rather than late: the last milliseconds are waited here.
            const qint64 waitUs = dueUs - nowUs;
            if (waitUs > 1500) {
                m_timer.start(int((waitUs - 1000) / 1000));
                return;
            }
            while (m_clock.nsecsElapsed() / 1000 < dueUs) {
            }
        }
        if (send && send(m_next))
            return finish(QStringLiteral("frame %1 could not be sent").arg(m_sent + 1));
        ++m_sent;
        const auto result = m_reader->next(&m_next, &error);
        if (result == TraceReader::Error)
            return finish(error);
        m_haveNext = result == TraceReader::Frame;
    }
    finish({});
}

void TraceReplay::stop()
{
    if (m_reader)
        finish({});
}

void TraceReplay::finish(const QString& error)
{
    m_timer.stop();
    m_reader.reset();
    m_file.close();
    m_haveNext = false;
    emit finished(error, m_sent);
}

} // namespace tessel

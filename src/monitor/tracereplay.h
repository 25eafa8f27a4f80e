#pragma once

#include "tracefile.h"

#include <QElapsedTimer>
#include <QFile>
#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>

namespace tessel {

// Replays a trace file: its frames go out one by one with the spacing they were recorded with
// (divided by the speed factor), read from the file as they are due, so a file of any size
// takes the same memory.
class TraceReplay : public QObject
{
    Q_OBJECT
public:
    static constexpr int kBurst = 200;
    static constexpr qint64 kLateUs = 500;
    // Sends a frame; true when it could not be sent (the replay stops).
    std::function<bool(const TraceRecord&)> send;

    // False, with the reason, when the file cannot be opened or its format is not known.
    bool start(const QString& fileName, double speed, QString* error);
    void stop();
    bool isRunning() const { return m_timer.isActive() || m_reader != nullptr; }
    qint64 sent() const { return m_sent; }

signals:
    // The end: error empty when the whole file went out (or it was stopped).
    void finished(const QString& error, qint64 frames);

private:
    void sendDue();
    void finish(const QString& error);

    QFile m_file;
    std::unique_ptr<TraceReader> m_reader;
    TraceRecord m_next;
    bool m_haveNext = false;
    qint64 m_firstUs = 0;
    qint64 m_shiftUs = 0; // how far the schedule moved for hold-ups
    double m_speed = 1.0;
    QElapsedTimer m_clock;
    QTimer m_timer;
    qint64 m_sent = 0;
};

} // namespace tessel

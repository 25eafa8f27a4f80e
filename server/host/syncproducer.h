#pragma once

#include "canchannel.h"

#include <QObject>
#include <QTimer>

namespace qorcalib {

// The SYNC producer of one controller (CiA 301: COB-ID 0x080, no data). A session starts it at
// a period and stops it; it stops too when that session ends or the controller stops. SYNCs are
// queued as timed frames a little ahead of their time, so that each takes part in arbitration
// at its own microsecond however busy the server is; they are the session's frames on the bus.
class SyncProducer : public QObject
{
    Q_OBJECT
public:
    static constexpr quint16 kCobId = 0x080;
    static constexpr int kMinPeriodUs = 500;
    static constexpr int kMaxPeriodUs = 10000000;

    explicit SyncProducer(CanChannel* channel, QObject* parent = nullptr);

    // periodUs 0 stops. Empty, or why not (a period out of range, another session's SYNC, a
    // stopped controller).
    QString start(quint64 session, int periodUs);
    void dropSession(quint64 session);
    int periodUs() const { return m_periodUs; }
    quint64 owner() const { return m_owner; }
    // SYNCs queued since the start.
    quint64 produced() const { return m_produced; }

private:
    void queueAhead();
    void stop();

    CanChannel* m_channel;
    QTimer m_timer;
    quint64 m_owner = 0;
    int m_periodUs = 0;
    qint64 m_nextDueUs = 0;
    quint64 m_produced = 0;
};

} // namespace qorcalib

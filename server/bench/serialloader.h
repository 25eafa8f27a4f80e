#pragma once

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <functional>

namespace qorcalib {

// The bench's serial link to the unit under test: it loads an image (the loader with the stamped
// firmware, or the unit's identity data) into the unit at the link's rate, 115200 baud with 8
// data bits and 1 stop bit, and reports its progress and its end.
//
// The test state (GetTestState): 0 nothing loaded yet, 1 loading, 3 loaded; on failure 4 (the
// unit refused the image: empty, or not S-records), 5 (the unit has no power, at the start or
// during the load), 6 (cancelled: the client that asked went away).
class SerialLoader : public QObject
{
    Q_OBJECT
public:
    enum State
    {
        Idle = 0,
        Loading = 1,
        Loaded = 3,
        Refused = 4,
        NoPower = 5,
        Cancelled = 6,
    };
    static constexpr int kBytesPerSecond = 11520;
    static constexpr int kTickMs = 20;
    static constexpr int kMaxImageBytes = 4 * 1024 * 1024;
    // The unit's loader reads the image's first record before it takes the rest.
    static constexpr int kHandshakeMs = 50;

    explicit SerialLoader(std::function<bool()> unitPowered, QObject* parent = nullptr);

    // Starts a load; empty when it started, else why not (one at a time, size bound). The
    // owner's progress is called as the bytes go (0..1), done once at the end, after the state
    // changed.
    QString start(const QByteArray& image, quint64 owner, std::function<void(double)> progress,
                  std::function<void(int state)> done);
    // The owner went away: its load stops (Cancelled).
    void dropOwner(quint64 owner);
    int state() const { return m_state; }
    bool busy() const { return m_state == Loading; }
    // A unit refuses what is not an S-record image.
    static bool recognised(const QByteArray& image);

private:
    void tick();
    void finish(State state);

    std::function<bool()> m_unitPowered;
    QTimer m_timer;
    QByteArray m_image;
    qint64 m_sent = 0;
    qint64 m_elapsedMs = 0;
    quint64 m_owner = 0;
    int m_state = Idle;
    std::function<void(double)> m_progress;
    std::function<void(int)> m_done;
};

} // namespace qorcalib

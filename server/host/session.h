#pragma once

#include "canchannel.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <QVector>

#include <memory>

class QIODevice;
class QRemoteObjectHostBase;
class RequestReply;

namespace qorcalib {

class ServerCore;
class ServerHost;

// One client's session: its own set of remoted objects and what the server keeps for it
// (attached or not, receive-all, transmit reports, SDO time-out). It lives exactly as long as
// the client's connection. While more than the host's backlog limit waits unread for the
// client, its frame batches are dropped and the controller's status shows it a receive overrun.
//
// Frames go to the client gathered, at most every kFrameFlushMs: a saturated bus then costs the
// client one wake-up an interval instead of one for every millisecond of bus time, while the
// first frame after a quiet spell still goes at once. Whatever else the client is told about
// (a transfer's end, a transmit report, a changed configuration) sends the gathered frames
// first, so that it never overtakes the frames that came before it.
class Session : public QObject
{
    Q_OBJECT
public:
    static constexpr int kDefaultSdoTimeoutMs = 1000;
    static constexpr int kFrameFlushMs = 10;
    static constexpr int kFrameFlushRecords = 4096;

    Session(ServerCore* core, ServerHost* host, quint64 id, QString peer, QIODevice* connection);
    ~Session() override;

    // Puts the session's objects on the node, under "<name>/<class>".
    bool enableRemoting(QRemoteObjectHostBase* node, QString* error);

    quint64 id() const { return m_id; }
    QString name() const;
    QString description() const;
    QString objectName(const char* className) const;

    // State the session's objects share.
    ServerCore* core() const { return m_core; }
    ServerHost* host() const { return m_host; }
    bool attached = false;
    bool receiveAll = false;
    bool txNotify = true;
    bool serviceStarted = false;
    int sdoTimeoutMs = kDefaultSdoTimeoutMs;
    int lssTimeoutMs = 0; // set from the server's configuration
    quint32 takeOverrun(int controller);
    // Queues an SDO transfer; its result comes as OperationDone with the returned number.
    RequestReply startSdo(bool upload, int channel, int node, int index, int subIndex,
                          const QByteArray& data);
    QString cancelRequest(int requestId);
    // LSS services on a controller; their results come as OperationDone: the node-ID as the
    // value, and for an inquiry the bit-rate list index as the one byte of data.
    RequestReply startLss(int channel, bool configure, int nodeId, int bitRateIndex);
    // A boot catch on a controller; its result comes as OperationDone: the boot loader's version
    // as the value (0: none answered) and the caught node-ID as the one byte of data.
    RequestReply startBootCatch(int channel, int node, int bitRateIndex);
    // Loads an image into the unit over the bench's serial link; progress as ProgressNotify,
    // back to 0 at the end, then OperationDone with the test state as its value.
    RequestReply startSerialLoad(const QByteArray& image);

private:
    void onFrames(int controller, const QVector<BusFrame>& frames);
    void flushFrames();

    ServerCore* m_core;
    ServerHost* m_host;
    quint64 m_id;
    QString m_peer;
    QPointer<QIODevice> m_connection;
    QVector<bool> m_overrun;
    QVector<QByteArray> m_pending; // records gathered for the client, a controller each
    QTimer m_flushTimer;
    QElapsedTimer m_sinceFlush;
    int m_nextRequest = 1;
    struct Objects;
    std::unique_ptr<Objects> m_objects;
    QRemoteObjectHostBase* m_node = nullptr;
};

} // namespace qorcalib

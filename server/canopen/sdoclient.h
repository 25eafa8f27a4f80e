#pragma once

#include "errorkind.h"
#include "sdo.h"

#include <functional>

namespace qorcalib {

// The SDO client of the server (CiA 301): one transfer at a time to one node. Up to 4 bytes go
// expedited; larger downloads try block transfer with CRC and fall back to segmented when the
// node refuses it (abort 05040001). Uploads ask for a block transfer with a protocol switch
// threshold of 4 bytes, so that a node sends small values expedited, and fall back the same
// way. Each wait for the node is bounded by the time-out; a node that stays silent gets abort
// 05040000 and the transfer ends with the error "SDO timeout".
// Frames in through onFrame, time through onTimer, frames out through the send hook.
class SdoClient
{
public:
    enum class State
    {
        Idle,
        DownloadInitiate,
        DownloadSegment,
        BlockDownloadInitiate,
        BlockDownloadAck,
        BlockDownloadEnd,
        UploadInitiate,
        UploadSegment,
        BlockUploadInitiate,
        BlockUploadSegments,
        BlockUploadEnd,
    };
    struct Result
    {
        QByteArray data;
        quint32 abortCode = 0;
        QString error; // "SDO timeout", or empty
        ErrorKind kind = ErrorKind::None; // Abort with an abort code
    };
    static inline const QString kTimeoutText = QStringLiteral("SDO timeout");
    // The most an upload may bring: more would not fit in one answer to the client. A node that
    // announces or sends more gets abort 05040005.
    static constexpr qint64 kMaxUploadBytes = kMaxSdoBytes;

    explicit SdoClient(std::function<void(const CanFrame&)> send);

    void setTimeoutMs(int ms) { m_timeoutUs = qint64(ms) * 1000; }
    void setBlockTransfer(bool allowed) { m_blockAllowed = allowed; }
    std::function<void(double fraction)> progress;
    std::function<void(const Result&)> done;

    void startUpload(quint8 node, quint16 index, quint8 subIndex, qint64 nowUs);
    void startDownload(quint8 node, quint16 index, quint8 subIndex, const QByteArray& data,
                       qint64 nowUs);
    // True when the frame was an SDO response of the node this client talks to.
    bool onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const { return m_state == State::Idle ? -1 : m_deadlineUs; }
    bool isBusy() const { return m_state != State::Idle; }
    // Drops the transfer without a frame or a result: the caller ends it itself.
    void cancel() { m_state = State::Idle; }
    // Ends the transfer with an abort frame to the node; done() reports the code.
    void abort(quint32 code);
    State state() const { return m_state; }
    quint8 node() const { return m_node; }

private:
    void send(quint8 command, const QByteArray& payload = {});
    void sendRaw(const CanFrame& frame);
    void finish(quint32 abortCode, const QString& error = {});
    bool namesRequest(const CanFrame& f) const;
    bool isInitiateAnswer(quint8 cs) const;
    void startSegmentedDownload();
    void startSegmentedUpload();
    void sendDownloadSegment();
    void reportProgress(qsizetype done, qsizetype total);

    void onDownloadInitiate(const CanFrame& f);
    void onDownloadSegment(const CanFrame& f);
    void onBlockDownloadInitiate(const CanFrame& f);
    void onBlockDownloadAck(const CanFrame& f);
    void onUploadInitiate(const CanFrame& f);
    void onUploadSegment(const CanFrame& f);
    void onBlockUploadInitiate(const CanFrame& f);
    void onBlockUploadSegment(const CanFrame& f);
    void onBlockUploadEnd(const CanFrame& f);

    std::function<void(const CanFrame&)> m_send;
    qint64 m_timeoutUs = 1000 * 1000;
    bool m_blockAllowed = true;
    bool m_upload = false;
    State m_state = State::Idle;
    qint64 m_deadlineUs = -1;
    quint8 m_node = 0;
    quint16 m_index = 0;
    quint8 m_subIndex = 0;
    QByteArray m_data;
    qint64 m_size = -1;
    qsizetype m_offset = 0;
    bool m_toggle = false;
    bool m_crc = false;
    sdo::BlockSender m_sender;
    sdo::BlockReceiver m_receiver;
};

} // namespace qorcalib

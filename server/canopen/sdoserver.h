#pragma once

#include "sdo.h"

#include <functional>

namespace qorcalib {

// What an SDO server reads and writes: the node's object dictionary. Results are abort codes
// (0 for success).
class SdoObjectAccess
{
public:
    virtual ~SdoObjectAccess() = default;
    virtual quint32 upload(quint16 index, quint8 subIndex, QByteArray* data) = 0;
    // Before data arrives: does the entry exist, can it be written, does the announced size
    // (-1: not announced) fit.
    virtual quint32 checkDownload(quint16 index, quint8 subIndex, qint64 size) = 0;
    virtual quint32 download(quint16 index, quint8 subIndex, const QByteArray& data) = 0;
};

// The SDO server of a node (CiA 301): expedited, segmented and block transfers in both
// directions, block CRC, toggle checking, aborts both ways, and a time-out on a silent client.
// Frames in through onFrame, time through onTimer, frames out through the send hook; times
// are microseconds. Frame layouts are in sdo.h.
class SdoServer
{
public:
    enum class State {
        Idle,
        DownloadSegments,
        UploadSegments,
        BlockDownload,
        BlockDownloadEnd,
        BlockUploadStart,
        BlockUploadAck,
        BlockUploadEnd,
    };
    static constexpr int kDefaultTimeoutMs = 1000;

    SdoServer(SdoObjectAccess* access, std::function<void(const CanFrame&)> send);

    void setNodeId(quint8 nodeId) { m_nodeId = nodeId; }
    void setTimeoutMs(int ms) { m_timeoutUs = qint64(ms) * 1000; }
    // True when the frame was an SDO request to this node.
    bool onFrame(const CanFrame& frame, qint64 nowUs);
    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const { return m_state == State::Idle ? -1 : m_deadlineUs; }
    // Drops a transfer without a word, as a reset or power loss does.
    void reset();
    State state() const { return m_state; }

private:
    void send(quint8 command, const QByteArray& payload = {});
    void sendRaw(const CanFrame& frame);
    void abort(quint32 code);
    void initiateDownload(const CanFrame& f);
    void downloadSegment(const CanFrame& f);
    void initiateUpload();
    void uploadSegment(const CanFrame& f);
    void initiateBlockDownload(const CanFrame& f);
    void blockDownloadSegment(const CanFrame& f);
    void endBlockDownload(const CanFrame& f);
    void initiateBlockUpload(const CanFrame& f);
    void sendSubBlock();
    void blockUploadAck(const CanFrame& f);
    quint32 finishDownload();

    SdoObjectAccess* m_access;
    std::function<void(const CanFrame&)> m_send;
    quint8 m_nodeId = 0;
    qint64 m_timeoutUs = qint64(kDefaultTimeoutMs) * 1000;
    State m_state = State::Idle;
    qint64 m_deadlineUs = -1;
    quint16 m_index = 0;
    quint8 m_subIndex = 0;
    QByteArray m_data;
    qint64 m_size = -1; // announced size, -1 if none
    qsizetype m_offset = 0;
    bool m_toggle = false;
    bool m_crc = false;
    int m_blockSize = sdo::kBlockSize;
    sdo::BlockReceiver m_receiver;
    sdo::BlockSender m_sender;
};

} // namespace qorcalib

#include "sdoclient.h"

#include <QtEndian>

namespace qorcalib {

namespace {
// Below this many bytes an upload's server should answer as to a plain upload.
constexpr int kProtocolSwitchThreshold = 4;
} // namespace

SdoClient::SdoClient(std::function<void(const CanFrame&)> send) : m_send(std::move(send)) {}

void SdoClient::sendRaw(const CanFrame& frame)
{
    if (m_send)
        m_send(frame);
}

void SdoClient::send(quint8 command, const QByteArray& payload)
{
    sendRaw(sdo::frame(quint16(sdo::kRequestBase + m_node), command, m_index, m_subIndex, payload));
}

void SdoClient::finish(quint32 abortCode, const QString& error)
{
    Result result;
    result.abortCode = abortCode;
    result.error = error;
    // A time-out sends abort 05040000 too, yet what the user meets is the node's silence.
    result.kind = !error.isEmpty() ? ErrorKind::TimeOut
                  : abortCode      ? ErrorKind::Abort
                                   : ErrorKind::None;
    // A download's data went to the node; only an upload has data to report.
    if (abortCode == 0 && error.isEmpty() && m_upload)
        result.data = m_data;
    m_state = State::Idle;
    m_data.clear();
    if (done)
        done(result);
}

void SdoClient::abort(quint32 code)
{
    sendRaw(sdo::abortFrame(quint16(sdo::kRequestBase + m_node), m_index, m_subIndex, code));
    finish(code);
}

void SdoClient::reportProgress(qsizetype doneBytes, qsizetype total)
{
    if (progress && total > 0)
        progress(double(doneBytes) / double(total));
}

void SdoClient::startDownload(quint8 node, quint16 index, quint8 subIndex, const QByteArray& data,
                              qint64 nowUs)
{
    m_upload = false;
    m_node = node;
    m_index = index;
    m_subIndex = subIndex;
    m_data = data;
    m_deadlineUs = nowUs + m_timeoutUs;
    // Expedited carries 1 to 4 bytes; an empty value goes segmented with size 0.
    if (!data.isEmpty() && data.size() <= 4) {
        const int n = 4 - int(data.size());
        m_state = State::DownloadInitiate;
        m_size = data.size();
        send(quint8(0x23 | (n << 2)), data);
        return;
    }
    if (m_blockAllowed) {
        m_state = State::BlockDownloadInitiate;
        send(0xC6, sdo::u32Bytes(quint32(data.size()))); // CRC supported, size indicated
        return;
    }
    startSegmentedDownload();
}

void SdoClient::startSegmentedDownload()
{
    m_state = State::DownloadInitiate;
    m_size = -1; // marks a segmented download in DownloadInitiate
    send(0x21, sdo::u32Bytes(quint32(m_data.size())));
}

void SdoClient::startUpload(quint8 node, quint16 index, quint8 subIndex, qint64 nowUs)
{
    m_upload = true;
    m_node = node;
    m_index = index;
    m_subIndex = subIndex;
    m_data.clear();
    m_deadlineUs = nowUs + m_timeoutUs;
    if (m_blockAllowed) {
        m_state = State::BlockUploadInitiate;
        QByteArray payload(2, '\0');
        payload[0] = char(sdo::kBlockSize);
        payload[1] = char(kProtocolSwitchThreshold);
        send(0xA4, payload); // CRC supported
        return;
    }
    startSegmentedUpload();
}

void SdoClient::startSegmentedUpload()
{
    m_state = State::UploadInitiate;
    send(0x40);
}

bool SdoClient::namesRequest(const CanFrame& f) const
{
    return sdo::indexOf(f) == m_index && sdo::subIndexOf(f) == m_subIndex;
}

bool SdoClient::isInitiateAnswer(quint8 cs) const
{
    switch (m_state) {
    case State::DownloadInitiate:
        return cs == 0x60;
    case State::BlockDownloadInitiate:
        return (cs & 0xE3) == 0xA0;
    case State::UploadInitiate:
        return (cs & 0xE0) == 0x40;
    case State::BlockUploadInitiate:
        // Below the switch threshold the node answers as to a plain upload.
        return (cs & 0xE0) == 0x40 || (cs & 0xE1) == 0xC0;
    default:
        return false;
    }
}

bool SdoClient::onFrame(const CanFrame& f, qint64 nowUs)
{
    if (m_state == State::Idle || f.id != sdo::kResponseBase + m_node || f.remote || f.len != 8)
        return false;
    const quint8 cs = f.data[0];
    // Which frames are ours. The node's SDO channel is shared: a frame sent by hand from the
    // monitor or a slot gets an answer too, and an answer that comes after our time-out arrives
    // while the next transfer waits. Only initiate answers and aborts carry the multiplexer, so
    // only they can be told apart:
    // - an abort naming another object ends another transfer: ignored, not ours to report;
    // - while we wait for an initiate answer, anything but an initiate answer naming our object
    //   is a leftover of another exchange: ignored, the time-out still ends a node that never
    //   answers properly;
    // - once the transfer runs, every frame of the channel is taken as part of it and checked
    //   (command specifier, toggle, sequence numbers, sizes); one that does not fit aborts the
    //   transfer with the standard's code, since the node's state is no longer known.
    // An ignored frame does not move the deadline.
    const bool initiating =
        m_state == State::DownloadInitiate || m_state == State::BlockDownloadInitiate ||
        m_state == State::UploadInitiate || m_state == State::BlockUploadInitiate;
    if (cs == 0x80 && !namesRequest(f))
        return false;
    if (initiating && cs != 0x80 && !(isInitiateAnswer(cs) && namesRequest(f)))
        return false;
    m_deadlineUs = nowUs + m_timeoutUs;
    // During a block upload's sub-block every frame is a segment; sequence number 0 does not
    // exist, so 80 with our multiplexer is the node's abort.
    if (m_state == State::BlockUploadSegments) {
        if (cs == 0x80)
            finish(sdo::u32At(f, 4));
        else
            onBlockUploadSegment(f);
        return true;
    }
    if (cs == 0x80) {
        const quint32 code = sdo::u32At(f, 4);
        // A node without block transfer refuses the command: do it the plain way.
        if (code == quint32(SdoAbort::InvalidCommand) && m_state == State::BlockDownloadInitiate) {
            startSegmentedDownload();
            return true;
        }
        if (code == quint32(SdoAbort::InvalidCommand) && m_state == State::BlockUploadInitiate) {
            startSegmentedUpload();
            return true;
        }
        finish(code);
        return true;
    }
    switch (m_state) {
    case State::DownloadInitiate:
        onDownloadInitiate(f);
        break;
    case State::DownloadSegment:
        onDownloadSegment(f);
        break;
    case State::BlockDownloadInitiate:
        onBlockDownloadInitiate(f);
        break;
    case State::BlockDownloadAck:
        onBlockDownloadAck(f);
        break;
    case State::BlockDownloadEnd:
        if ((cs & 0xE3) == 0xA1)
            finish(0);
        else
            abort(quint32(SdoAbort::InvalidCommand));
        break;
    case State::UploadInitiate:
        onUploadInitiate(f);
        break;
    case State::UploadSegment:
        onUploadSegment(f);
        break;
    case State::BlockUploadInitiate:
        onBlockUploadInitiate(f);
        break;
    case State::BlockUploadEnd:
        onBlockUploadEnd(f);
        break;
    default:
        break;
    }
    return true;
}

void SdoClient::onTimer(qint64 nowUs)
{
    if (m_state == State::Idle || nowUs < m_deadlineUs)
        return;
    sendRaw(sdo::abortFrame(quint16(sdo::kRequestBase + m_node), m_index, m_subIndex,
                            quint32(SdoAbort::Timeout)));
    finish(quint32(SdoAbort::Timeout), kTimeoutText);
}

void SdoClient::onDownloadInitiate(const CanFrame& f)
{
    if (f.data[0] != 0x60)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (m_size >= 0) // expedited: done
        return finish(0);
    m_offset = 0;
    m_toggle = false;
    m_state = State::DownloadSegment;
    sendDownloadSegment();
}

void SdoClient::sendDownloadSegment()
{
    const qsizetype chunk = qMin<qsizetype>(7, m_data.size() - m_offset);
    const bool last = m_offset + chunk >= m_data.size();
    CanFrame out;
    out.id = quint16(sdo::kRequestBase + m_node);
    out.len = 8;
    out.data[0] = quint8((m_toggle ? 0x10 : 0) | ((7 - chunk) << 1) | (last ? 1 : 0));
    for (qsizetype i = 0; i < chunk; ++i)
        out.data[1 + i] = quint8(m_data[m_offset + i]);
    m_offset += chunk;
    sendRaw(out);
}

void SdoClient::onDownloadSegment(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    if ((cs & 0xE0) != 0x20)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (bool(cs & 0x10) != m_toggle)
        return abort(quint32(SdoAbort::ToggleNotAlternated));
    reportProgress(m_offset, m_data.size());
    if (m_offset >= m_data.size())
        return finish(0);
    m_toggle = !m_toggle;
    sendDownloadSegment();
}

void SdoClient::onBlockDownloadInitiate(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    if ((cs & 0xE3) != 0xA0)
        return abort(quint32(SdoAbort::InvalidCommand));
    m_crc = cs & 0x04;
    const int blockSize = f.data[4];
    if (blockSize < 1 || blockSize > 127)
        return abort(quint32(SdoAbort::InvalidBlockSize));
    m_sender.start(&m_data, blockSize);
    m_state = State::BlockDownloadAck;
    m_sender.sendSubBlock(quint16(sdo::kRequestBase + m_node),
                          [this](const CanFrame& frame) { sendRaw(frame); });
}

void SdoClient::onBlockDownloadAck(const CanFrame& f)
{
    if ((f.data[0] & 0xE3) != 0xA2)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (const quint32 code = m_sender.acknowledge(f.data[1], f.data[2]))
        return abort(code);
    reportProgress(m_sender.bytesTaken(), m_data.size());
    if (!m_sender.allTaken()) {
        m_sender.sendSubBlock(quint16(sdo::kRequestBase + m_node),
                              [this](const CanFrame& frame) { sendRaw(frame); });
        return;
    }
    m_state = State::BlockDownloadEnd;
    sendRaw(m_sender.endFrame(quint16(sdo::kRequestBase + m_node), m_crc));
}

void SdoClient::onUploadInitiate(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    if ((cs & 0xE0) != 0x40)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (cs & 0x02) { // expedited
        const int n = (cs & 0x01) ? (cs >> 2) & 0x03 : 0;
        m_data = QByteArray(reinterpret_cast<const char*>(f.data.data()) + 4, 4 - n);
        return finish(0);
    }
    m_size = (cs & 0x01) ? qint64(sdo::u32At(f, 4)) : -1;
    if (m_size > kMaxUploadBytes)
        return abort(quint32(SdoAbort::OutOfMemory));
    m_data.clear();
    m_toggle = false;
    m_state = State::UploadSegment;
    sendRaw(sdo::commandFrame(quint16(sdo::kRequestBase + m_node), 0x60));
}

void SdoClient::onUploadSegment(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    if ((cs & 0xE0) != 0x00)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (bool(cs & 0x10) != m_toggle)
        return abort(quint32(SdoAbort::ToggleNotAlternated));
    const int n = (cs >> 1) & 0x07;
    m_data.append(reinterpret_cast<const char*>(f.data.data()) + 1, 7 - n);
    if (m_size >= 0 && m_data.size() > m_size)
        return abort(quint32(SdoAbort::TooLong));
    if (m_data.size() > kMaxUploadBytes)
        return abort(quint32(SdoAbort::OutOfMemory));
    reportProgress(m_data.size(), m_size);
    if (cs & 0x01) {
        if (m_size >= 0 && m_data.size() != m_size)
            return abort(quint32(SdoAbort::TooShort));
        return finish(0);
    }
    m_toggle = !m_toggle;
    sendRaw(sdo::commandFrame(quint16(sdo::kRequestBase + m_node),
                              quint8(0x60 | (m_toggle ? 0x10 : 0))));
}

void SdoClient::onBlockUploadInitiate(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    // Below the switch threshold the node answers as to a plain upload.
    if ((cs & 0xE0) == 0x40) {
        m_state = State::UploadInitiate;
        return onUploadInitiate(f);
    }
    if ((cs & 0xE1) != 0xC0)
        return abort(quint32(SdoAbort::InvalidCommand));
    m_crc = cs & 0x04;
    m_size = (cs & 0x02) ? qint64(sdo::u32At(f, 4)) : -1;
    if (m_size > kMaxUploadBytes)
        return abort(quint32(SdoAbort::OutOfMemory));
    m_receiver.start(sdo::kBlockSize);
    m_state = State::BlockUploadSegments;
    sendRaw(sdo::commandFrame(quint16(sdo::kRequestBase + m_node), 0xA3));
}

void SdoClient::onBlockUploadSegment(const CanFrame& f)
{
    const auto ack = m_receiver.onSegment(f, quint16(sdo::kRequestBase + m_node));
    if (m_receiver.bytesReceived() > kMaxUploadBytes)
        return abort(quint32(SdoAbort::OutOfMemory));
    if (!ack)
        return;
    if (m_receiver.complete())
        m_state = State::BlockUploadEnd;
    // The last segment's padding is not data.
    const qsizetype received = m_receiver.bytesReceived();
    reportProgress(m_size >= 0 ? qMin<qsizetype>(received, m_size) : received, m_size);
    sendRaw(*ack);
}

void SdoClient::onBlockUploadEnd(const CanFrame& f)
{
    if ((f.data[0] & 0xE3) != 0xC1)
        return abort(quint32(SdoAbort::InvalidCommand));
    if (const quint32 code = m_receiver.finish(f, m_crc, &m_data))
        return abort(code);
    if (m_size >= 0 && m_data.size() != m_size)
        return abort(quint32(m_data.size() > m_size ? SdoAbort::TooLong : SdoAbort::TooShort));
    sendRaw(sdo::commandFrame(quint16(sdo::kRequestBase + m_node), 0xA1));
    finish(0);
}

} // namespace qorcalib

#include "sdoserver.h"

#include <QtEndian>

namespace qorcalib {

SdoServer::SdoServer(SdoObjectAccess* access, std::function<void(const CanFrame&)> send)
    : m_access(access), m_send(std::move(send))
{
}

void SdoServer::reset()
{
    m_state = State::Idle;
    m_data.clear();
}

void SdoServer::sendRaw(const CanFrame& frame)
{
    if (m_send)
        m_send(frame);
}

void SdoServer::send(quint8 command, const QByteArray& payload)
{
    sendRaw(sdo::frame(quint16(sdo::kResponseBase + m_nodeId), command, m_index, m_subIndex,
                       payload));
}

void SdoServer::abort(quint32 code)
{
    sendRaw(sdo::abortFrame(quint16(sdo::kResponseBase + m_nodeId), m_index, m_subIndex, code));
    reset();
}

bool SdoServer::onFrame(const CanFrame& f, qint64 nowUs)
{
    if (m_nodeId == 0 || m_nodeId > 127 || f.id != sdo::kRequestBase + m_nodeId || f.remote)
        return false;
    if (f.len != 8) {
        // Not a frame of the protocol; a transfer in progress goes on.
        return true;
    }
    m_deadlineUs = nowUs + m_timeoutUs;
    const quint8 cs = f.data[0];

    // Block download segments carry no command specifier: in that phase every frame is one.
    if (m_state == State::BlockDownload) {
        if (cs == 0x80)
            reset();
        else
            blockDownloadSegment(f);
        return true;
    }
    switch (cs >> 5) {
    case 1:
        m_index = sdo::indexOf(f);
        m_subIndex = sdo::subIndexOf(f);
        initiateDownload(f);
        break;
    case 0:
        if (m_state != State::DownloadSegments)
            abort(quint32(SdoAbort::InvalidCommand));
        else
            downloadSegment(f);
        break;
    case 2:
        m_index = sdo::indexOf(f);
        m_subIndex = sdo::subIndexOf(f);
        initiateUpload();
        break;
    case 3:
        if (m_state != State::UploadSegments)
            abort(quint32(SdoAbort::InvalidCommand));
        else
            uploadSegment(f);
        break;
    case 4: // abort from the client
        reset();
        break;
    case 5: // block upload: initiate, start, acknowledge, end
        if ((cs & 0x03) == 0) {
            m_index = sdo::indexOf(f);
            m_subIndex = sdo::subIndexOf(f);
            initiateBlockUpload(f);
        } else if ((cs & 0x03) == 3 && m_state == State::BlockUploadStart) {
            m_state = State::BlockUploadAck;
            sendSubBlock();
        } else if ((cs & 0x03) == 2 && m_state == State::BlockUploadAck) {
            blockUploadAck(f);
        } else if ((cs & 0x03) == 1 && m_state == State::BlockUploadEnd) {
            reset();
        } else {
            abort(quint32(SdoAbort::InvalidCommand));
        }
        break;
    case 6: // block download: initiate, end
        if ((cs & 0x01) == 0) {
            m_index = sdo::indexOf(f);
            m_subIndex = sdo::subIndexOf(f);
            initiateBlockDownload(f);
        } else if (m_state == State::BlockDownloadEnd) {
            endBlockDownload(f);
        } else {
            abort(quint32(SdoAbort::InvalidCommand));
        }
        break;
    default:
        // An unknown command: the abort names the object the request names, not the one of an
        // earlier transfer, so that its sender can tell that the abort is the answer to it.
        m_index = sdo::indexOf(f);
        m_subIndex = sdo::subIndexOf(f);
        abort(quint32(SdoAbort::InvalidCommand));
        break;
    }
    return true;
}

void SdoServer::onTimer(qint64 nowUs)
{
    if (m_state != State::Idle && nowUs >= m_deadlineUs)
        abort(quint32(SdoAbort::Timeout));
}

void SdoServer::initiateDownload(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    const bool expedited = cs & 0x02;
    const bool sized = cs & 0x01;
    if (expedited) {
        const int n = sized ? (cs >> 2) & 0x03 : 0;
        m_data = QByteArray(reinterpret_cast<const char*>(f.data.data()) + 4, 4 - n);
        m_size = m_data.size();
        const quint32 result = m_access->checkDownload(m_index, m_subIndex, m_size);
        if (result != 0)
            return abort(result);
        const quint32 written = m_access->download(m_index, m_subIndex, m_data);
        if (written != 0)
            return abort(written);
        m_state = State::Idle;
        send(0x60);
        return;
    }
    m_size = sized ? qint64(sdo::u32At(f, 4)) : -1;
    const quint32 result = m_access->checkDownload(m_index, m_subIndex, m_size);
    if (result != 0)
        return abort(result);
    m_data.clear();
    m_toggle = false;
    m_state = State::DownloadSegments;
    send(0x60);
}

quint32 SdoServer::finishDownload()
{
    if (m_size >= 0 && m_data.size() != m_size)
        return quint32(m_data.size() > m_size ? SdoAbort::TooLong : SdoAbort::TooShort);
    return m_access->download(m_index, m_subIndex, m_data);
}

void SdoServer::downloadSegment(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    if (bool(cs & 0x10) != m_toggle)
        return abort(quint32(SdoAbort::ToggleNotAlternated));
    const int n = (cs >> 1) & 0x07;
    m_data.append(reinterpret_cast<const char*>(f.data.data()) + 1, 7 - n);
    if (m_size >= 0 && m_data.size() > m_size)
        return abort(quint32(SdoAbort::TooLong));
    const quint8 response = quint8(0x20 | (m_toggle ? 0x10 : 0));
    m_toggle = !m_toggle;
    if (cs & 0x01) {
        const quint32 result = finishDownload();
        if (result != 0)
            return abort(result);
        m_state = State::Idle;
    }
    sendRaw(sdo::commandFrame(quint16(sdo::kResponseBase + m_nodeId), response));
}

void SdoServer::initiateUpload()
{
    const quint32 result = m_access->upload(m_index, m_subIndex, &m_data);
    if (result != 0)
        return abort(result);
    // Expedited carries 1 to 4 bytes; an empty value goes as a segmented upload of size 0.
    if (!m_data.isEmpty() && m_data.size() <= 4) {
        const int n = 4 - int(m_data.size());
        m_state = State::Idle;
        send(quint8(0x43 | (n << 2)), m_data);
        return;
    }
    m_offset = 0;
    m_toggle = false;
    m_state = State::UploadSegments;
    send(0x41, sdo::u32Bytes(quint32(m_data.size())));
}

void SdoServer::uploadSegment(const CanFrame& f)
{
    if (bool(f.data[0] & 0x10) != m_toggle)
        return abort(quint32(SdoAbort::ToggleNotAlternated));
    const qsizetype chunk = qMin<qsizetype>(7, m_data.size() - m_offset);
    const bool last = m_offset + chunk >= m_data.size();
    CanFrame out;
    out.id = quint16(sdo::kResponseBase + m_nodeId);
    out.len = 8;
    out.data[0] = quint8((m_toggle ? 0x10 : 0) | ((7 - chunk) << 1) | (last ? 1 : 0));
    for (qsizetype i = 0; i < chunk; ++i)
        out.data[1 + i] = quint8(m_data[m_offset + i]);
    m_offset += chunk;
    m_toggle = !m_toggle;
    if (last)
        m_state = State::Idle;
    sendRaw(out);
}

void SdoServer::initiateBlockDownload(const CanFrame& f)
{
    const quint8 cs = f.data[0];
    m_crc = cs & 0x04;
    m_size = (cs & 0x02) ? qint64(sdo::u32At(f, 4)) : -1;
    const quint32 result = m_access->checkDownload(m_index, m_subIndex, m_size);
    if (result != 0)
        return abort(result);
    m_blockSize = sdo::kBlockSize;
    m_receiver.start(m_blockSize);
    m_state = State::BlockDownload;
    send(0xA4, QByteArray(1, char(m_blockSize)));
}

void SdoServer::blockDownloadSegment(const CanFrame& f)
{
    if (const auto ack = m_receiver.onSegment(f, quint16(sdo::kResponseBase + m_nodeId))) {
        if (m_receiver.complete())
            m_state = State::BlockDownloadEnd;
        sendRaw(*ack);
    }
}

void SdoServer::endBlockDownload(const CanFrame& f)
{
    if (const quint32 code = m_receiver.finish(f, m_crc, &m_data))
        return abort(code);
    const quint32 result = finishDownload();
    if (result != 0)
        return abort(result);
    m_state = State::Idle;
    sendRaw(sdo::commandFrame(quint16(sdo::kResponseBase + m_nodeId), 0xA1));
}

void SdoServer::initiateBlockUpload(const CanFrame& f)
{
    m_crc = f.data[0] & 0x04;
    m_blockSize = f.data[4];
    if (m_blockSize < 1 || m_blockSize > 127)
        return abort(quint32(SdoAbort::InvalidBlockSize));
    const quint32 result = m_access->upload(m_index, m_subIndex, &m_data);
    if (result != 0)
        return abort(result);
    // At or below the client's protocol switch threshold a plain upload is cheaper.
    const int switchThreshold = f.data[5];
    if (switchThreshold > 0 && m_data.size() <= switchThreshold)
        return initiateUpload();
    m_sender.start(&m_data, m_blockSize);
    m_state = State::BlockUploadStart;
    send(0xC6, sdo::u32Bytes(quint32(m_data.size())));
}

void SdoServer::sendSubBlock()
{
    m_sender.sendSubBlock(quint16(sdo::kResponseBase + m_nodeId),
                          [this](const CanFrame& frame) { sendRaw(frame); });
}

void SdoServer::blockUploadAck(const CanFrame& f)
{
    if (const quint32 code = m_sender.acknowledge(f.data[1], f.data[2]))
        return abort(code);
    if (!m_sender.allTaken())
        return sendSubBlock();
    m_state = State::BlockUploadEnd;
    sendRaw(m_sender.endFrame(quint16(sdo::kResponseBase + m_nodeId), m_crc));
}

} // namespace qorcalib

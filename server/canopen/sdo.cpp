#include "sdo.h"

#include <QtEndian>

namespace qorcalib {

quint16 sdoCrc(const char* data, qsizetype size, quint16 crc)
{
    for (qsizetype i = 0; i < size; ++i) {
        crc ^= quint16(quint8(data[i])) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? quint16((crc << 1) ^ 0x1021) : quint16(crc << 1);
    }
    return crc;
}

namespace sdo {

CanFrame frame(quint16 id, quint8 command, quint16 index, quint8 subIndex,
               const QByteArray& payload)
{
    CanFrame f;
    f.id = id;
    f.len = 8;
    f.data[0] = command;
    f.data[1] = quint8(index);
    f.data[2] = quint8(index >> 8);
    f.data[3] = subIndex;
    for (int i = 0; i < 4 && i < payload.size(); ++i)
        f.data[4 + i] = quint8(payload[i]);
    return f;
}

CanFrame commandFrame(quint16 id, quint8 command, quint8 byte1, quint8 byte2)
{
    CanFrame f;
    f.id = id;
    f.len = 8;
    f.data[0] = command;
    f.data[1] = byte1;
    f.data[2] = byte2;
    return f;
}

CanFrame abortFrame(quint16 id, quint16 index, quint8 subIndex, quint32 code)
{
    QByteArray payload(4, '\0');
    qToLittleEndian(code, payload.data());
    return frame(id, 0x80, index, subIndex, payload);
}

QByteArray u32Bytes(quint32 value)
{
    QByteArray b(4, '\0');
    qToLittleEndian(value, b.data());
    return b;
}

quint32 u32At(const CanFrame& f, int offset)
{
    return qFromLittleEndian<quint32>(f.data.data() + offset);
}

void BlockSender::start(const QByteArray* data, int blockSize)
{
    m_data = data;
    m_offset = 0;
    m_subBlockStart = 0;
    m_blockSize = blockSize;
    m_segments = 0;
    m_allTaken = false;
}

void BlockSender::sendSubBlock(quint16 id, const std::function<void(const CanFrame&)>& send)
{
    m_subBlockStart = m_offset;
    m_segments = 0;
    for (int seq = 1; seq <= m_blockSize; ++seq) {
        const qsizetype chunk = qMin<qsizetype>(7, m_data->size() - m_offset);
        const bool last = m_offset + chunk >= m_data->size();
        CanFrame out;
        out.id = id;
        out.len = 8;
        out.data[0] = quint8((last ? 0x80 : 0) | seq);
        for (qsizetype i = 0; i < chunk; ++i)
            out.data[1 + i] = quint8((*m_data)[m_offset + i]);
        m_offset += chunk;
        ++m_segments;
        send(out);
        if (last)
            break;
    }
}

quint32 BlockSender::acknowledge(int ackSeq, int blockSize)
{
    if (ackSeq > m_segments)
        return quint32(SdoAbort::InvalidSequence);
    if (blockSize < 1 || blockSize > 127)
        return quint32(SdoAbort::InvalidBlockSize);
    m_blockSize = blockSize;
    m_offset = qMin<qsizetype>(m_subBlockStart + qsizetype(ackSeq) * 7, m_data->size());
    m_allTaken = ackSeq == m_segments && m_offset >= m_data->size();
    return 0;
}

CanFrame BlockSender::endFrame(quint16 id, bool crc) const
{
    const int lastChunk = m_data->isEmpty() ? 0 : int((m_data->size() - 1) % 7) + 1;
    const quint16 value = crc ? sdoCrc(*m_data) : 0;
    return commandFrame(id, quint8(0xC1 | ((7 - lastChunk) << 2)), quint8(value),
                        quint8(value >> 8));
}

void BlockReceiver::start(int blockSize)
{
    m_data.clear();
    m_blockSize = blockSize;
    m_expectedSeq = 1;
    m_lastSeen = false;
    m_complete = false;
}

std::optional<CanFrame> BlockReceiver::onSegment(const CanFrame& segment, quint16 id)
{
    const int seq = segment.data[0] & 0x7F;
    const bool last = segment.data[0] & 0x80;
    if (seq == m_expectedSeq) {
        m_data.append(reinterpret_cast<const char*>(segment.data.data()) + 1, 7);
        ++m_expectedSeq;
        if (last)
            m_lastSeen = true;
    }
    if (seq != m_blockSize && !last)
        return std::nullopt;
    const int ack = m_expectedSeq - 1;
    m_expectedSeq = 1;
    m_complete = m_lastSeen && ack == seq;
    return commandFrame(id, 0xA2, quint8(ack), quint8(m_blockSize));
}

quint32 BlockReceiver::finish(const CanFrame& end, bool crc, QByteArray* data)
{
    const int unused = (end.data[0] >> 2) & 0x07;
    if (unused > m_data.size())
        return quint32(SdoAbort::InvalidCommand);
    m_data.chop(unused);
    if (crc && quint16(end.data[1] | (end.data[2] << 8)) != sdoCrc(m_data))
        return quint32(SdoAbort::CrcError);
    *data = std::move(m_data);
    m_data.clear();
    return 0;
}

} // namespace sdo
} // namespace qorcalib

#pragma once

#include <QByteArray>
#include <QtEndian>

namespace tessel::test {

// An S3 record line with a correct checksum: address in words, data as bytes.
inline QByteArray s3Record(quint32 address, const QByteArray& data)
{
    QByteArray body(4, '\0');
    qToBigEndian(address, body.data());
    body += data;
    const int count = int(body.size()) + 1;
    quint8 sum = quint8(count);
    for (const char b : body)
        sum = quint8(sum + quint8(b));
    return "S3" + QByteArray::number(count, 16).rightJustified(2, '0').toUpper() +
           body.toHex().toUpper() +
           QByteArray::number(quint8(~sum), 16).rightJustified(2, '0').toUpper() + "\r\n";
}

inline QByteArray le32(quint32 value)
{
    QByteArray bytes(4, '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// The 20-byte identification block: app, reserved, version, fingerprints, reserved.
inline QByteArray identificationBlock(quint16 app, quint32 version, quint32 sf, quint32 hf)
{
    QByteArray block(2, '\0');
    qToLittleEndian(app, block.data());
    return block + QByteArray(2, '\0') + le32(version) + le32(sf) + le32(hf) + QByteArray(4, '\0');
}

} // namespace tessel::test

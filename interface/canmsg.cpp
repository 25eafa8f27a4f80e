#include "canmsg.h"

#include "handshake.h"

#include <QDir>
#include <QFileInfo>
#include <QtEndian>

#include <unistd.h>

namespace qorcalib {

CanFrame CanFrame::make(quint16 id, std::initializer_list<quint8> bytes)
{
    CanFrame frame;
    frame.id = id;
    for (quint8 b : bytes) {
        if (frame.len == 8)
            break;
        frame.data[frame.len++] = b;
    }
    return frame;
}

bool CanFrame::operator==(const CanFrame& other) const
{
    if (id != other.id || len != other.len || remote != other.remote)
        return false;
    for (int i = 0; i < len && i < 8; ++i)
        if (data[i] != other.data[i])
            return false;
    return true;
}

void appendRecord(QByteArray& records, const CanFrame& frame)
{
    char record[kRecordSize] = {};
    qToLittleEndian<qint16>(qint16(frame.remote ? frame.id | kRemoteRecordFlag : frame.id), record);
    qToLittleEndian<qint16>(qint16(frame.len), record + 2);
    for (int i = 0; i < frame.len && i < 8; ++i)
        record[4 + i] = char(frame.data[i]);
    qToLittleEndian<quint32>(frame.timeUs, record + 12);
    records.append(record, kRecordSize);
}

int recordLength(const QByteArray& records, int index)
{
    if (index < 0 || index >= recordCount(records))
        return -1;
    return qFromLittleEndian<qint16>(records.constData() + qsizetype(index) * kRecordSize + 2);
}

CanFrame recordAt(const QByteArray& records, int index)
{
    CanFrame frame;
    if (index < 0 || index >= recordCount(records))
        return frame;
    const char* record = records.constData() + qsizetype(index) * kRecordSize;
    const qint16 id = qFromLittleEndian<qint16>(record);
    frame.remote = id >= 0 && (id & kRemoteRecordFlag);
    frame.id = quint16(frame.remote ? id & ~kRemoteRecordFlag : id);
    frame.len = quint8(qBound<qint16>(qint16(0), qFromLittleEndian<qint16>(record + 2), qint16(8)));
    for (int i = 0; i < 8; ++i)
        frame.data[i] = quint8(record[4 + i]);
    frame.timeUs = qFromLittleEndian<quint32>(record + 12);
    return frame;
}

int bitRateOfIndex(int index)
{
    static constexpr int rates[kBitRateCount] = {1000000, 800000, 500000, 250000, 125000,
                                                 100000,  50000,  25000,  10000};
    return index >= 0 && index < kBitRateCount ? rates[index] : -1;
}

QString bitRateText(int index)
{
    const int rate = bitRateOfIndex(index);
    return rate < 0 ? QString() : QString::number(rate / 1000) + QLatin1Char('K');
}

int bitRateIndexOfText(const QString& text)
{
    for (int i = 0; i < kBitRateCount; ++i)
        if (text.compare(bitRateText(i), Qt::CaseInsensitive) == 0 ||
            text == QString::number(bitRateOfIndex(i) / 1000))
            return i;
    return -1;
}

QString defaultLocalSocketPath(QString* error)
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QFileInfo(runtime).isDir())
        return runtime + QStringLiteral("/qorcalib");
    // A folder of our own, so that another user of the machine cannot reach the socket.
    QString why;
    const QString folder = privateSocketFolder(&why);
    if (folder.isEmpty()) {
        if (error)
            *error = why;
        return {};
    }
    return folder + QStringLiteral("/qorcalib");
}

} // namespace qorcalib

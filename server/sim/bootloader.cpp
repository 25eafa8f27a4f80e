#include "bootloader.h"

#include "sdo.h"

namespace qorcalib {

namespace {
constexpr quint32 kNoObject = 0x06020000;
constexpr quint32 kNoSubIndex = 0x06090011;
constexpr quint32 kWriteOnly = 0x06010001;
constexpr quint32 kReadOnly = 0x06010002;
constexpr quint32 kTooLong = 0x06070012;
constexpr quint32 kTooShort = 0x06070013;
constexpr quint32 kInvalidValue = 0x06090030;
constexpr quint32 kOutOfMemory = 0x05040005;
constexpr quint32 kCannotStore = 0x08000020;

bool fromApplication(quint16 index, quint8 subIndex)
{
    return (index == 0x1000 && subIndex == 0) || (index == 0x1018 && subIndex <= 4);
}
} // namespace

quint32 BootLoader::upload(quint16 index, quint8 subIndex, QByteArray* data)
{
    if (fromApplication(index, subIndex)) {
        const OdEntry* entry = m_application->find(index, subIndex);
        if (!entry)
            return kNoObject;
        *data = entry->value;
        return 0;
    }
    if (index == 0x1F50) {
        if (subIndex == 0) {
            *data = QByteArray(1, '\x01');
            return 0;
        }
        return subIndex == 1 ? kWriteOnly : kNoSubIndex;
    }
    if (index == 0x5EF0)
        return subIndex == 0 ? kWriteOnly : kNoSubIndex;
    return index == 0x1018 ? kNoSubIndex : kNoObject;
}

quint32 BootLoader::checkDownload(quint16 index, quint8 subIndex, qint64 size)
{
    if (fromApplication(index, subIndex))
        return kReadOnly;
    if (index == 0x1F50) {
        if (subIndex == 0)
            return kReadOnly;
        if (subIndex != 1)
            return kNoSubIndex;
        return size > kFlashBytes ? kOutOfMemory : 0;
    }
    if (index == 0x5EF0) {
        if (subIndex != 0)
            return kNoSubIndex;
        if (size > 4)
            return kTooLong;
        return size >= 0 && size < 4 ? kTooShort : 0;
    }
    return index == 0x1018 ? kNoSubIndex : kNoObject;
}

quint32 BootLoader::download(quint16 index, quint8 subIndex, const QByteArray& data)
{
    if (const quint32 code = checkDownload(index, subIndex, data.size()))
        return code;
    if (index == 0x5EF0) {
        if (data != kReleaseKey)
            return kInvalidValue;
        if (release)
            release();
        return 0;
    }
    QString why;
    const auto identity = readFirmwareImage(data, &why);
    if (!identity)
        return kCannotStore;
    if (flashed)
        flashed(*identity);
    return 0;
}

} // namespace qorcalib

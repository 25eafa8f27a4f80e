#include "dictionaryaccess.h"

#include <QtEndian>

namespace qorcalib {

quint32 DictionaryAccess::find(quint16 index, quint8 subIndex, OdEntry** entry) const
{
    *entry = m_dictionary->find(index, subIndex);
    if (*entry)
        return 0;
    return quint32(m_dictionary->hasObject(index) ? SdoAbort::NoSubIndex : SdoAbort::NoObject);
}

quint32 DictionaryAccess::upload(quint16 index, quint8 subIndex, QByteArray* data)
{
    OdEntry* entry = nullptr;
    if (const quint32 code = find(index, subIndex, &entry))
        return code;
    if (!entry->readable())
        return quint32(SdoAbort::WriteOnly);
    *data = entry->value;
    return 0;
}

quint32 DictionaryAccess::checkSize(const OdEntry& entry, qint64 size)
{
    if (size < 0)
        return 0;
    const int fixed = odTypeSize(entry.dataType);
    if (fixed > 0) {
        if (size > fixed)
            return quint32(SdoAbort::TooLong);
        if (size < fixed)
            return quint32(SdoAbort::TooShort);
        return 0;
    }
    const qint64 limit = entry.dataType == quint16(OdType::Domain) ? kMaxDomain : kMaxString;
    return size > limit ? quint32(SdoAbort::TooLong) : 0;
}

quint32 DictionaryAccess::checkDownload(quint16 index, quint8 subIndex, qint64 size)
{
    OdEntry* entry = nullptr;
    if (const quint32 code = find(index, subIndex, &entry))
        return code;
    if (!entry->writable())
        return quint32(SdoAbort::ReadOnly);
    return checkSize(*entry, size);
}

quint32 DictionaryAccess::checkValue(const OdEntry& entry, const QByteArray& data)
{
    const int size = odTypeSize(entry.dataType);
    if (size == 0 || entry.dataType == quint16(OdType::Real32))
        return 0;
    QByteArray padded = data;
    const bool negative = odTypeIsSigned(entry.dataType) && (quint8(data.back()) & 0x80);
    padded.append(8 - padded.size(), negative ? '\xFF' : '\0');
    const quint64 raw = qFromLittleEndian<quint64>(padded.constData());
    if (entry.dataType == quint16(OdType::Boolean) && raw > 1)
        return quint32(SdoAbort::InvalidValue);
    if (odTypeIsSigned(entry.dataType)) {
        const qint64 value = qint64(raw);
        if (entry.highLimit && value > *entry.highLimit)
            return quint32(SdoAbort::ValueTooHigh);
        if (entry.lowLimit && value < *entry.lowLimit)
            return quint32(SdoAbort::ValueTooLow);
    } else {
        if (entry.highLimit && raw > quint64(*entry.highLimit))
            return quint32(SdoAbort::ValueTooHigh);
        if (entry.lowLimit && *entry.lowLimit > 0 && raw < quint64(*entry.lowLimit))
            return quint32(SdoAbort::ValueTooLow);
    }
    return 0;
}

quint32 DictionaryAccess::download(quint16 index, quint8 subIndex, const QByteArray& data)
{
    OdEntry* entry = nullptr;
    if (const quint32 code = checkDownload(index, subIndex, data.size()))
        return code;
    find(index, subIndex, &entry);
    if (const quint32 code = checkValue(*entry, data))
        return code;
    entry->value = data;
    if (written)
        written(index, subIndex);
    return 0;
}

} // namespace qorcalib

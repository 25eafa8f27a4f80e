#pragma once

#include "objectdictionary.h"
#include "sdoserver.h"

#include <functional>

namespace qorcalib {

// SDO access to a node's object dictionary with the rules of CiA 301: a missing object gives
// 06020000, a missing sub-index of an existing one 06090011; reading a write-only entry
// 06010001, writing a read-only or constant one 06010002; a value of the wrong size
// 06070012 (too long) or 06070013 (too short); a number outside its limits 06090031 (too
// high) or 06090032 (too low); a boolean other than 0 or 1 06090030. Strings take up to
// kMaxString bytes, domains up to kMaxDomain.
class DictionaryAccess : public SdoObjectAccess
{
public:
    static constexpr qint64 kMaxString = 255;
    static constexpr qint64 kMaxDomain = 1024 * 1024;

    explicit DictionaryAccess(ObjectDictionary* dictionary) : m_dictionary(dictionary) {}
    // Called after an entry was written, so the node can act on it (heartbeat period, ...).
    std::function<void(quint16 index, quint8 subIndex)> written;

    quint32 upload(quint16 index, quint8 subIndex, QByteArray* data) override;
    quint32 checkDownload(quint16 index, quint8 subIndex, qint64 size) override;
    quint32 download(quint16 index, quint8 subIndex, const QByteArray& data) override;

private:
    quint32 find(quint16 index, quint8 subIndex, OdEntry** entry) const;
    static quint32 checkSize(const OdEntry& entry, qint64 size);
    static quint32 checkValue(const OdEntry& entry, const QByteArray& data);

    ObjectDictionary* m_dictionary;
};

} // namespace qorcalib

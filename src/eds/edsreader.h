#pragma once

#include "canopendecoder.h"

#include <QHash>
#include <QList>
#include <QString>

namespace tessel {

// An INI file read once, with the lookup rules of the platform the program came from: section
// and key names compared without regard to case, the value after "=" with leading and trailing
// blanks removed, the default for a missing section or key, at most 127 characters returned.
class IniFile
{
public:
    static constexpr int kMaxValue = 127;
    // Data sheets are a few hundred KiB; a larger file is not read at all (error() says so).
    static constexpr qint64 kMaxFileBytes = 16 * 1024 * 1024;

    // A file that cannot be read gives an empty file: every lookup returns its default.
    explicit IniFile(const QString& path);
    // Why a file that exists was not read; empty when it was read, or is missing.
    QString error() const { return m_error; }
    QString value(const QString& section, const QString& key, const QString& fallback = {}) const;
    int keyCount(const QString& section) const;

private:
    QHash<QString, QHash<QString, QString>> m_sections; // lower-case names
    QString m_error;
};

// A number as the data sheet writes it: "0x" (lower-case x) hexadecimal, a leading "0" octal,
// else decimal; leading digits only, rounded to 32 bits.
qint32 edsNumber(const QString& text);

struct EdsEntry
{
    QString name; // "Object" or "Object\Sub-entry"
    qint32 index = 0;
    qint32 subIndex = 0;
};

// The entries of an EDS: the objects of the sections MandatoryObjects, OptionalObjects and
// ManufacturerObjects in that order (each list's SupportedObjects counts at most 0xFFFF, as
// many as an index can address, and the scan ends once every key of the list is found); an object
// with sub-entries gives one entry for each of its sub-indexes 1..SubNumber (sub-index 0 is not
// listed), else one entry with sub-index 0.
// What a damaged file could make cost more than it holds is bounded: an object listed again (in
// the same list or another) is read once, and the list ends at kMaxEdsEntries entries; note
// then says so, as it says why a file was not read.
constexpr int kMaxEdsEntries = 0x10000;
QList<EdsEntry> readEds(const QString& path, QString* note = nullptr);

// What the decoder needs of an EDS: its entries' names ("Object/Sub-entry") and its PDOs'
// default mappings (1600-1603, 1A00-1A03), each mapped entry signed or not by its data type.
DeviceDictionary readDeviceDictionary(const QString& path, QString* note = nullptr);
// An entry's value type as the plot and tessel-cli name them (u8 u16 u32 i8 i16 i32) from its
// DataType; empty for any other type or an entry the file does not describe.
QString edsValueType(const QString& path, int index, int subIndex);

} // namespace tessel

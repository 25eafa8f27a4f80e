#include "edsreader.h"

#include "numbers.h"

#include <QFile>
#include <QSet>

#include <algorithm>

namespace tessel {

IniFile::IniFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    if (file.size() > kMaxFileBytes) {
        m_error = QStringLiteral("%1 holds %2 MiB; an electronic data sheet is read up to %3 MiB")
                      .arg(path)
                      .arg(file.size() / (1024 * 1024))
                      .arg(kMaxFileBytes / (1024 * 1024));
        return;
    }
    QHash<QString, QString>* section = nullptr;
    while (!file.atEnd()) {
        const QString line = QString::fromLatin1(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char(';')))
            continue;
        if (line.startsWith(QLatin1Char('['))) {
            const qsizetype end = line.indexOf(QLatin1Char(']'));
            section = end > 0 ? &m_sections[line.mid(1, end - 1).trimmed().toLower()] : nullptr;
            continue;
        }
        const qsizetype eq = line.indexOf(QLatin1Char('='));
        if (!section || eq <= 0)
            continue;
        const QString key = line.left(eq).trimmed().toLower();
        // The first of two equal keys counts, as the lookup finds it first.
        if (!section->contains(key))
            section->insert(key, line.mid(eq + 1).trimmed());
    }
}

QString IniFile::value(const QString& section, const QString& key, const QString& fallback) const
{
    const auto s = m_sections.constFind(section.toLower());
    if (s == m_sections.cend())
        return fallback.left(kMaxValue);
    const auto k = s->constFind(key.toLower());
    return (k == s->cend() ? fallback : *k).left(kMaxValue);
}

int IniFile::keyCount(const QString& section) const
{
    const auto s = m_sections.constFind(section.toLower());
    return s == m_sections.cend() ? 0 : int(s->size());
}

qint32 edsNumber(const QString& text)
{
    const QString t = text.trimmed();
    if (t.startsWith(QLatin1String("0x")))
        return roundToInt32(lenientValue(QStringLiteral("&H") + t.mid(2)));
    if (t.startsWith(QLatin1Char('0')))
        return roundToInt32(lenientValue(QStringLiteral("&O") + t.mid(1)));
    return roundToInt32(lenientValue(t));
}

QList<EdsEntry> readEds(const QString& path, QString* note)
{
    const IniFile ini(path);
    QList<EdsEntry> entries;
    if (note)
        *note = ini.error();
    QSet<qint32> objectsRead;
    const auto full = [&] {
        if (entries.size() < kMaxEdsEntries)
            return false;
        if (note)
            *note = QStringLiteral("%1 lists more than %2 entries; the first %2 are shown")
                        .arg(path)
                        .arg(kMaxEdsEntries);
        return true;
    };
    for (const char* list : {"MandatoryObjects", "OptionalObjects", "ManufacturerObjects"}) {
        const QString listName = QLatin1String(list);
        constexpr int kMaxObjects = 0xFFFF;
        const int count = std::min(
            kMaxObjects, roundToInt32(lenientValue(ini.value(
                             listName, QStringLiteral("SupportedObjects"), QStringLiteral("0")))));
        // Every key but SupportedObjects may name an object; once all have been found, the
        // rest of the count finds nothing.
        const int listed = ini.keyCount(listName) - 1;
        int found = 0;
        for (int n = 1; n <= count && found < listed; ++n) {
            QString key = QString::number(n);
            QString value = ini.value(listName, key);
            for (int pad = 0; value.isEmpty() && pad < 2; ++pad) {
                key.prepend(QLatin1Char('0'));
                value = ini.value(listName, key);
            }
            if (value.isEmpty())
                continue;
            ++found;
            const qint32 index = edsNumber(value);
            if (objectsRead.contains(index))
                continue;
            objectsRead.insert(index);
            const QString section = QString::number(quint32(index) & 0xFFFF, 16)
                                        .toUpper()
                                        .rightJustified(4, QLatin1Char('0'));
            const qint32 subNumber =
                edsNumber(ini.value(section, QStringLiteral("SubNumber"), QStringLiteral("0")));
            const QString name = ini.value(section, QStringLiteral("ParameterName"));
            if (subNumber > 0) {
                // Up to SubNumber itself, also past 0xFF; a count beyond what a list can show is
                // a damaged file, and stops at 0xFFFF.
                for (int s = 1; s <= std::min(subNumber, kMaxObjects); ++s) {
                    if (full())
                        return entries;
                    QString subName = ini.value(
                        section + QStringLiteral("sub") +
                            QString::number(s, 16).toUpper().rightJustified(2, QLatin1Char('0')),
                        QStringLiteral("ParameterName"));
                    if (subName.isEmpty())
                        subName = ini.value(section + QStringLiteral("sub") +
                                                QString::number(s, 16).toUpper(),
                                            QStringLiteral("ParameterName"));
                    entries.append({name + QLatin1Char('\\') + subName,
                                    qint32(lenientHexValue(section)), s});
                }
            } else if (subNumber == 0) {
                if (full())
                    return entries;
                entries.append({name, index, 0});
            }
        }
    }
    return entries;
}

QString edsValueType(const QString& path, int index, int subIndex)
{
    const IniFile ini(path);
    const QString object = QStringLiteral("%1").arg(index, 4, 16, QLatin1Char('0'));
    QString type = ini.value(object + QStringLiteral("sub%1").arg(subIndex, 0, 16),
                             QStringLiteral("DataType"));
    if (type.isEmpty())
        type = ini.value(object, QStringLiteral("DataType"));
    switch (edsNumber(type)) {
    case 0x02:
        return QStringLiteral("i8");
    case 0x03:
        return QStringLiteral("i16");
    case 0x04:
        return QStringLiteral("i32");
    case 0x01:
    case 0x05:
        return QStringLiteral("u8");
    case 0x06:
        return QStringLiteral("u16");
    case 0x07:
        return QStringLiteral("u32");
    default:
        return {};
    }
}

DeviceDictionary readDeviceDictionary(const QString& path, QString* note)
{
    DeviceDictionary dictionary;
    for (const EdsEntry& e : readEds(path, note))
        dictionary.names.insert(quint32(e.index) << 8 | quint32(e.subIndex),
                                QString(e.name).replace(QLatin1Char('\\'), QLatin1Char('/')));
    const IniFile ini(path);
    const auto section = [&ini](int index, int sub) {
        const QString object = QStringLiteral("%1").arg(index, 4, 16, QLatin1Char('0'));
        const QString entry = object + QStringLiteral("sub%1").arg(sub, 0, 16);
        return ini.keyCount(entry) > 0 ? entry : object;
    };
    const auto mapping = [&](int index) {
        QList<DeviceDictionary::Field> fields;
        const int count = edsNumber(ini.value(section(index, 0), QStringLiteral("DefaultValue")));
        for (int sub = 1; sub <= qMin(count, 64); ++sub) {
            const quint32 v =
                quint32(edsNumber(ini.value(section(index, sub), QStringLiteral("DefaultValue"))));
            DeviceDictionary::Field f;
            f.index = quint16(v >> 16);
            f.subIndex = quint8(v >> 8);
            f.bits = int(v & 0xFF);
            // INTEGER8, 16, 32, 24, 40, 48, 56, 64
            static const QList<int> signedTypes{0x02, 0x03, 0x04, 0x10, 0x12, 0x13, 0x14, 0x15};
            f.isSigned = signedTypes.contains(
                edsNumber(ini.value(section(f.index, f.subIndex), QStringLiteral("DataType"))));
            fields << f;
        }
        return fields;
    };
    for (int n = 0; n < 4; ++n) {
        dictionary.rpdo[size_t(n)] = mapping(0x1600 + n);
        dictionary.tpdo[size_t(n)] = mapping(0x1A00 + n);
    }
    return dictionary;
}

} // namespace tessel

#include "objectdictionary.h"

#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QtEndian>

#include <cstring>
#include <limits>
#include <utility>

namespace qorcalib {

int odTypeSize(quint16 dataType)
{
    switch (OdType(dataType)) {
    case OdType::Boolean:
    case OdType::Integer8:
    case OdType::Unsigned8:
        return 1;
    case OdType::Integer16:
    case OdType::Unsigned16:
        return 2;
    case OdType::Integer32:
    case OdType::Unsigned32:
    case OdType::Real32:
        return 4;
    case OdType::Integer64:
    case OdType::Unsigned64:
        return 8;
    default:
        return 0;
    }
}

bool odTypeIsSigned(quint16 dataType)
{
    const auto t = OdType(dataType);
    return t == OdType::Integer8 || t == OdType::Integer16 || t == OdType::Integer32 ||
           t == OdType::Integer64;
}

namespace {

using Section = QHash<QString, QString>; // lower-case key -> value

// An EDS is an INI file: "[section]", "key=value", comments after ';'. Section and key names
// are compared without regard to case.
QHash<QString, Section> readIni(const QByteArray& text)
{
    QHash<QString, Section> sections;
    Section* current = nullptr;
    for (const QByteArray& raw : text.split('\n')) {
        const QString line = QString::fromLatin1(raw).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char(';')))
            continue;
        if (line.startsWith(QLatin1Char('['))) {
            const qsizetype end = line.indexOf(QLatin1Char(']'));
            if (end < 0) {
                current = nullptr;
                continue;
            }
            current = &sections[line.mid(1, end - 1).trimmed().toLower()];
            continue;
        }
        const qsizetype eq = line.indexOf(QLatin1Char('='));
        if (!current || eq <= 0)
            continue;
        current->insert(line.left(eq).trimmed().toLower(), line.mid(eq + 1).trimmed());
    }
    return sections;
}

// Wide enough for every value an EDS can write for a 64-bit entry, signed or not, with the
// node-ID added: no arithmetic on what a file says can overflow.
using Wide = __int128;

std::optional<Wide> parseInteger(QString text, quint8 nodeId)
{
    text = text.trimmed();
    Wide base = 0;
    if (text.startsWith(QLatin1String("$NODEID"), Qt::CaseInsensitive)) {
        base = nodeId;
        text = text.mid(7).trimmed();
        if (text.isEmpty())
            return base;
        if (!text.startsWith(QLatin1Char('+')))
            return std::nullopt;
        text = text.mid(1).trimmed();
    }
    bool negative = false;
    if (text.startsWith(QLatin1Char('-'))) {
        negative = true;
        text = text.mid(1);
    }
    if (text.startsWith(QLatin1Char('+')) || text.startsWith(QLatin1Char('-')))
        return std::nullopt;
    bool ok = false;
    const quint64 magnitude = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
                                  ? text.mid(2).toULongLong(&ok, 16)
                                  : text.toULongLong(&ok, 10);
    if (!ok)
        return std::nullopt;
    return base + (negative ? -Wide(magnitude) : Wide(magnitude));
}

// The value as the entry stores it (the bits of a 64-bit unsigned value in a qint64), when it
// lies within what the data type holds; a type without an integer size takes any qint64.
std::optional<qint64> fitInteger(Wide value, quint16 dataType)
{
    const int size = odTypeSize(dataType);
    const auto type = OdType(dataType);
    Wide min = std::numeric_limits<qint64>::min();
    Wide max = std::numeric_limits<qint64>::max();
    if (size > 0 && type != OdType::Real32) {
        const int bits = size * 8;
        min = odTypeIsSigned(dataType) ? -(Wide(1) << (bits - 1)) : Wide(0);
        max = odTypeIsSigned(dataType) ? (Wide(1) << (bits - 1)) - 1 : (Wide(1) << bits) - 1;
    }
    if (value < min || value > max)
        return std::nullopt;
    return qint64(quint64(value));
}

std::optional<OdAccess> parseAccess(const QString& text)
{
    const QString t = text.trimmed().toLower();
    if (t == QLatin1String("ro"))
        return OdAccess::ReadOnly;
    if (t == QLatin1String("wo"))
        return OdAccess::WriteOnly;
    if (t == QLatin1String("rw") || t == QLatin1String("rwr") || t == QLatin1String("rww"))
        return OdAccess::ReadWrite;
    if (t == QLatin1String("const"))
        return OdAccess::Const;
    return std::nullopt;
}

} // namespace

std::optional<QByteArray> ObjectDictionary::encodeValue(const QString& text, quint16 dataType,
                                                        quint8 nodeId)
{
    const auto type = OdType(dataType);
    if (type == OdType::VisibleString || type == OdType::OctetString)
        return text.toLatin1();
    if (type == OdType::Domain)
        return QByteArray();
    const int size = odTypeSize(dataType);
    if (size == 0)
        return std::nullopt;
    if (type == OdType::Real32) {
        bool ok = false;
        const float f = text.trimmed().isEmpty() ? 0.0f : text.trimmed().toFloat(&ok);
        if (!ok && !text.trimmed().isEmpty())
            return std::nullopt;
        quint32 bits;
        std::memcpy(&bits, &f, 4);
        QByteArray out(4, '\0');
        qToLittleEndian(bits, out.data());
        return out;
    }
    const auto wide =
        text.trimmed().isEmpty() ? std::optional<Wide>(0) : parseInteger(text, nodeId);
    const auto value = wide ? fitInteger(*wide, dataType) : std::nullopt;
    if (!value)
        return std::nullopt;
    QByteArray out(8, '\0');
    qToLittleEndian(quint64(*value), out.data());
    out.truncate(size);
    return out;
}

std::optional<ObjectDictionary> ObjectDictionary::fromEds(const QString& path, quint8 nodeId,
                                                          QString* error, QStringList* warnings)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("cannot read the EDS %1: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    const auto sections = readIni(file.readAll());
    const auto warn = [warnings](const QString& text) {
        if (warnings)
            warnings->append(text);
    };
    // A value that does not fit its entry stops the loading: the drive would otherwise
    // answer with something its data sheet never said.
    QString refusal;
    const auto refuse = [&](const QString& section, const QString& key, const QString& value) {
        if (refusal.isEmpty())
            refusal = QStringLiteral("the EDS %1: [%2] %3=%4 is not a value of the entry's "
                                     "data type")
                          .arg(path, section, key, value.left(40));
    };

    ObjectDictionary od;
    static const QRegularExpression objectName(QStringLiteral("^[0-9a-f]{4}$"));
    static const QRegularExpression subName(QStringLiteral("^([0-9a-f]{4})sub([0-9a-f]{1,2})$"));

    const auto addEntry = [&](const QString& sectionName, const Section& s, quint16 index,
                              quint8 sub) {
        OdEntry e;
        e.index = index;
        e.subIndex = sub;
        e.name = s.value(QStringLiteral("parametername"));
        bool ok = false;
        const QString typeText = s.value(QStringLiteral("datatype"));
        e.dataType = quint16(typeText.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
                                 ? typeText.mid(2).toUShort(&ok, 16)
                                 : typeText.toUShort(&ok, 0));
        const auto access = parseAccess(s.value(QStringLiteral("accesstype")));
        if (!ok || !access) {
            warn(QStringLiteral("[%1]: missing or unknown DataType/AccessType").arg(sectionName));
            return;
        }
        e.access = *access;
        e.pdoMapping = s.value(QStringLiteral("pdomapping")).trimmed() == QLatin1String("1");
        if (odTypeSize(e.dataType) == 0 && OdType(e.dataType) != OdType::VisibleString &&
            OdType(e.dataType) != OdType::OctetString && OdType(e.dataType) != OdType::Domain) {
            warn(QStringLiteral("[%1]: data type 0x%2 is not simulated")
                     .arg(sectionName)
                     .arg(e.dataType, 4, 16, QLatin1Char('0')));
            return;
        }
        const QString defaultText = s.value(QStringLiteral("defaultvalue"));
        const auto value = encodeValue(defaultText, e.dataType, nodeId);
        if (!value)
            return refuse(sectionName, QStringLiteral("DefaultValue"), defaultText);
        e.defaultValue = *value;
        e.value = *value;
        if (defaultText.contains(QLatin1String("$NODEID"), Qt::CaseInsensitive))
            e.nodeIdDefault = defaultText;
        for (const auto& [key, limit] : {std::pair{QStringLiteral("LowLimit"), &e.lowLimit},
                                         std::pair{QStringLiteral("HighLimit"), &e.highLimit}}) {
            if (!s.contains(key.toLower()))
                continue;
            const QString text = s.value(key.toLower());
            const auto wide = parseInteger(text, nodeId);
            *limit = wide ? fitInteger(*wide, e.dataType) : std::nullopt;
            if (!*limit)
                return refuse(sectionName, key, text);
        }
        od.insert(e);
    };

    for (auto it = sections.cbegin(); it != sections.cend(); ++it) {
        const QString& name = it.key();
        if (objectName.match(name).hasMatch()) {
            const quint16 index = quint16(name.toUShort(nullptr, 16));
            const auto objectType = parseInteger(
                it.value().value(QStringLiteral("objecttype"), QStringLiteral("7")), 0);
            // Arrays and records take their entries from their "sub" sections.
            if (objectType && *objectType == 7)
                addEntry(name, it.value(), index, 0);
        } else if (const auto m = subName.match(name); m.hasMatch()) {
            addEntry(name, it.value(), quint16(m.captured(1).toUShort(nullptr, 16)),
                     quint8(m.captured(2).toUShort(nullptr, 16)));
        }
    }
    if (!refusal.isEmpty()) {
        *error = refusal;
        return std::nullopt;
    }
    if (od.size() == 0) {
        *error = QStringLiteral("the EDS %1 has no object that can be read").arg(path);
        return std::nullopt;
    }
    return od;
}

const OdEntry* ObjectDictionary::find(quint16 index, quint8 subIndex) const
{
    const auto it = m_entries.constFind(key(index, subIndex));
    return it == m_entries.cend() ? nullptr : &it.value();
}

OdEntry* ObjectDictionary::find(quint16 index, quint8 subIndex)
{
    const auto it = m_entries.find(key(index, subIndex));
    return it == m_entries.end() ? nullptr : &it.value();
}

bool ObjectDictionary::hasObject(quint16 index) const
{
    const auto it = m_entries.lowerBound(key(index, 0));
    return it != m_entries.cend() && it.value().index == index;
}

void ObjectDictionary::insert(OdEntry entry)
{
    m_entries.insert(key(entry.index, entry.subIndex), std::move(entry));
}

quint64 ObjectDictionary::unsignedValue(quint16 index, quint8 subIndex, quint64 fallback) const
{
    const OdEntry* e = find(index, subIndex);
    if (!e || odTypeSize(e->dataType) == 0 || e->value.size() != odTypeSize(e->dataType))
        return fallback;
    QByteArray padded = e->value;
    padded.append(8 - padded.size(), '\0');
    return qFromLittleEndian<quint64>(padded.constData());
}

bool ObjectDictionary::setUnsigned(quint16 index, quint8 subIndex, quint64 value)
{
    OdEntry* e = find(index, subIndex);
    const int size = e ? odTypeSize(e->dataType) : 0;
    if (size == 0 || (size < 8 && value >> (8 * size)))
        return false;
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(value >> (8 * i));
    e->defaultValue = bytes;
    e->value = bytes;
    return true;
}

void ObjectDictionary::setNodeId(quint8 nodeId)
{
    for (OdEntry& e : m_entries) {
        if (e.nodeIdDefault.isEmpty())
            continue;
        // It was read with node-ID 0 at least, so it encodes; a node-ID that makes it overflow
        // its entry keeps the entry as it was.
        if (const auto value = encodeValue(e.nodeIdDefault, e.dataType, nodeId)) {
            e.defaultValue = *value;
            e.value = *value;
        }
    }
}

void ObjectDictionary::restoreDefaults(quint16 first, quint16 last)
{
    for (auto it = m_entries.lowerBound(key(first, 0)); it != m_entries.end(); ++it) {
        if (it.value().index > last)
            break;
        it.value().value = it.value().defaultValue;
    }
}

} // namespace qorcalib

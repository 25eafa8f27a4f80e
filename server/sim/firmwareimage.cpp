#include "firmwareimage.h"

#include <QList>

#include <cctype>

namespace qorcalib {

namespace {

constexpr quint32 kRawImageAddress = 0x3000000;
constexpr quint32 kIdentificationAddress = 0x8000000;
constexpr quint32 kVersionWordAddress = 0x86;

quint32 littleEndian(const QByteArray& bytes, int offset, int size)
{
    quint32 value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | quint8(bytes[offset + i]);
    return value;
}

struct Record
{
    quint32 address = 0;
    QByteArray data;
};

// One line as an S-record: its type digit, and for S3 the address and data. False when the
// line is not a well-formed record.
bool parseRecord(const QByteArray& line, char* type, Record* record)
{
    if (line.size() < 4 || line[0] != 'S' || (line.size() % 2) != 0)
        return false;
    for (const char c : line.mid(2))
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    const QByteArray bytes = QByteArray::fromHex(line.mid(2));
    const int count = quint8(bytes[0]);
    if (count != bytes.size() - 1 || count < 1)
        return false;
    quint8 sum = 0;
    for (const char b : bytes)
        sum = quint8(sum + quint8(b));
    if (sum != 0xFF)
        return false;
    *type = line[1];
    if (*type == '3') {
        if (count < 5)
            return false;
        record->address = quint32(quint8(bytes[1])) << 24 | quint32(quint8(bytes[2])) << 16 |
                          quint32(quint8(bytes[3])) << 8 | quint8(bytes[4]);
        record->data = bytes.mid(5, count - 5);
    }
    return true;
}

} // namespace

QString FirmwareIdentity::versionText() const
{
    return QStringLiteral("%1.%2.%3")
        .arg(version >> 16)
        .arg((version >> 8) & 0xFF)
        .arg(version & 0xFF);
}

std::optional<FirmwareIdentity> readFirmwareImage(const QByteArray& image, QString* why)
{
    const qsizetype stx = image.indexOf('\x02');
    const QByteArray text = stx >= 0 ? image.left(stx) : image;
    QList<Record> records;
    int lineNumber = 0;
    for (const QByteArray& rawLine : text.split('\n')) {
        ++lineNumber;
        const QByteArray line = rawLine.trimmed();
        if (line.isEmpty())
            continue;
        char type = 0;
        Record record;
        if (!parseRecord(line, &type, &record)) {
            *why = QStringLiteral("line %1 is not a valid S-record").arg(lineNumber);
            return std::nullopt;
        }
        if (type == '3')
            records << record;
    }
    if (records.isEmpty()) {
        *why = QStringLiteral("no S3 records");
        return std::nullopt;
    }
    const auto recordAt = [&](quint32 address) -> const Record* {
        for (const Record& r : std::as_const(records))
            if (r.address == address)
                return &r;
        return nullptr;
    };
    if (recordAt(kRawImageAddress)) {
        *why = QStringLiteral("a raw image: it must be post-processed first");
        return std::nullopt;
    }
    FirmwareIdentity identity;
    if (const Record* block = recordAt(kIdentificationAddress); block && block->data.size() >= 16) {
        identity.full = true;
        identity.app = quint16(littleEndian(block->data, 0, 2));
        identity.version = littleEndian(block->data, 4, 4);
        identity.softwareFingerprint = littleEndian(block->data, 8, 4);
        identity.hardwareFingerprint = littleEndian(block->data, 12, 4);
        return identity;
    }
    if (const Record* word = recordAt(kVersionWordAddress); word && word->data.size() >= 4) {
        identity.version = littleEndian(word->data, 0, 4);
        return identity;
    }
    *why = QStringLiteral("no identification block");
    return std::nullopt;
}

} // namespace qorcalib

#include "acquisition.h"

#include "decimal.h"

#include <QFileInfo>
#include <QSaveFile>

#include <cstring>

namespace tessel {

void AcquisitionBuffer::append(quint32 id, quint32 timeUs, int length, const quint8* data)
{
    Record r{};
    r.id = qint16(id);
    r.length = qint16(qBound(0, length, 8));
    r.timeUs = qint32(timeUs);
    if (r.length > 0)
        std::memcpy(r.data, data, size_t(r.length));
    m_records.push_back(r);
}

void AcquisitionBuffer::clear()
{
    // A new acquisition gives the memory of the last one back.
    std::vector<Record>().swap(m_records);
}

namespace {
void appendNumber(QByteArray& out, qint64 value)
{
    char text[21];
    out.append(text, qorcalib::writeDecimal(text, value) - text);
    out += ';';
}
} // namespace

void AcquisitionBuffer::appendLine(QByteArray& out, const Record& record)
{
    appendNumber(out, record.id);
    appendNumber(out, record.timeUs);
    appendNumber(out, record.length);
    for (int i = 0; i < record.length; ++i)
        appendNumber(out, record.data[i]);
    out += "\r\n";
}

bool AcquisitionBuffer::writeTo(QIODevice* device) const
{
    constexpr qsizetype kChunk = 1 << 20;
    QByteArray chunk;
    chunk.reserve(kChunk + 128);
    for (const Record& r : m_records) {
        appendLine(chunk, r);
        if (chunk.size() >= kChunk) {
            if (device->write(chunk) != chunk.size())
                return false;
            chunk.clear();
        }
    }
    return device->write(chunk) == chunk.size();
}

bool AcquisitionBuffer::writeFile(const QString& path, QString* error) const
{
    if (path.trimmed().isEmpty()) {
        *error = QStringLiteral("No file name for the acquisition: choose one first.");
        return false;
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        *error = QStringLiteral("Cannot write the acquisition to %1: %2")
                     .arg(QFileInfo(path).absoluteFilePath(), file.errorString());
        return false;
    }
    if (!writeTo(&file) || !file.commit()) {
        *error = QStringLiteral("Cannot write the acquisition to %1: %2")
                     .arg(QFileInfo(path).absoluteFilePath(), file.errorString());
        file.cancelWriting();
        return false;
    }
    return true;
}

} // namespace tessel

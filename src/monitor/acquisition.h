#pragma once

#include <QString>

#include <vector>

class QIODevice;

namespace tessel {

// The frames collected while "Export" is ticked, in the order they passed the receive filter,
// and their export for a spreadsheet. No upper limit besides memory: a frame costs 16 bytes.
class AcquisitionBuffer
{
public:
    struct Record
    {
        qint16 id;
        qint16 length;  // 0 to 8
        qint32 timeUs;  // the server's time stamp, as its 32 bits read signed
        quint8 data[8]; // bytes past the length are 0
    };

    void append(quint32 id, quint32 timeUs, int length, const quint8* data);
    void clear();
    qsizetype count() const { return qsizetype(m_records.size()); }
    const Record& at(qsizetype i) const { return m_records[size_t(i)]; }

    // One line per frame, every field followed by ";", CR LF at the end:
    //   identifier;time stamp;length;byte 1;...;byte length;     all in decimal
    // e.g. 385;5123456;2;18;52;  for 0x181 at 5.123456 s with 12 34.
    static void appendLine(QByteArray& out, const Record& record);
    bool writeTo(QIODevice* device) const;
    // Writes the file whole or not at all; false with the reason naming the path.
    bool writeFile(const QString& path, QString* error) const;

private:
    std::vector<Record> m_records;
};

} // namespace tessel

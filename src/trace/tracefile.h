#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

class QDateTime;
class QIODevice;

namespace tessel {

// A frame of a trace file: its time in microseconds (from the file's own start), channel,
// identifier, data, and whether it was sent by this program.
struct TraceRecord
{
    qint64 timeUs = 0;
    int channel = 0;
    quint16 id = 0;
    bool remote = false;
    bool transmitted = false;
    int length = 0;
    QByteArray data;
};

// The trace file formats other CAN tools read and write:
//   .log  candump's log: "(SECONDS.MICROS) canN ID#DATA" (ID#R for a remote frame)
//   .asc  the ASC text format: a header, then "TIME CHANNEL ID Rx|Tx d LEN BYTES" (r: remote)
//   .trc  PCAN-View's trace (read only), file versions 1.1 and 2.x: ";$FILEVERSION=..." and a
//         header of ';' lines, then a numbered line a frame ("1) 1059.9 Rx 0300 8 00 ..." in
//         1.1; in 2.x the columns $COLUMNS names, by default N O T I d l D)
// The server carries 11-bit identifiers: extended and FD frames are refused with the line.
enum class TraceFormat
{
    CandumpLog,
    Asc,
    PcanTrc,
};
// By the file's extension: false when it is none of the three.
bool traceFormatOf(const QString& fileName, TraceFormat* format);
// By the file's first lines, as the reader sees them; false when they are none of the three.
// A file is read by what it holds: a trace saved under another name is still read.
bool traceFormatOfContent(QIODevice* device, TraceFormat* format);

// Writes a trace file, frame by frame.
class TraceWriter
{
public:
    TraceWriter(QIODevice* device, TraceFormat format);
    // `start` names the measurement in the ASC header.
    void begin(const QDateTime& start);
    void write(const TraceRecord& record);
    void end();

private:
    QIODevice* m_device;
    TraceFormat m_format;
    qint64 m_firstUs = -1;
};

// Reads a trace file one frame at a time, so that a file of any size takes the same memory.
class TraceReader
{
public:
    enum Result
    {
        Frame,
        End,
        Error,
    };
    static std::unique_ptr<TraceReader> create(QIODevice* device, TraceFormat format);
    virtual ~TraceReader() = default;
    // The next frame; Error with a message that names the line ("line 12: ...").
    virtual Result next(TraceRecord* record, QString* error) = 0;
    qint64 lineNumber() const { return m_line; }
    // Lines passed over so far, as a player passes them: error frames and comments.
    qint64 errorFrames() const { return m_errorFrames; }
    qint64 comments() const { return m_comments; }

protected:
    explicit TraceReader(QIODevice* device) : m_device(device) {}
    // The next line without its end; false at the end of the file.
    bool readLine(QByteArray* line);
    // The error of the line just read.
    Result fail(QString* error, const QString& what) const
    {
        *error = QStringLiteral("line %1: ").arg(m_line) + what;
        return Error;
    }

    QIODevice* m_device;
    qint64 m_line = 0;
    qint64 m_errorFrames = 0;
    qint64 m_comments = 0;
};

} // namespace tessel

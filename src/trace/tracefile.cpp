#include "tracefile.h"

#include <QDateTime>

#include <QIODevice>
#include <QLocale>
#include <QRegularExpression>
#include <algorithm>
#include <array>

namespace tessel {

namespace {
// Longer lines are no trace lines: they are refused, not read into memory whole.
constexpr qint64 kMaxLine = 4096;
const QByteArray kOverlong = QByteArrayLiteral("\x01overlong");

QByteArray hexBytes(const QByteArray& data, const char* separator)
{
    QByteArray out;
    for (int i = 0; i < data.size(); ++i) {
        if (i > 0)
            out += separator;
        out += QByteArray::number(quint8(data[i]), 16).rightJustified(2, '0').toUpper();
    }
    return out;
}

QString ascDate(const QDateTime& t)
{
    return QLocale::c().toString(t, QStringLiteral("ddd MMM dd hh:mm:ss.zzz ap yyyy"));
}

// Time stamps beyond this (some 31,700 years) are no recording's: refused, and so kept clear of
// the microsecond count's range.
constexpr qint64 kMaxTraceSeconds = 1'000'000'000'000;

QString timeOutOfRange(const QString& text)
{
    return QStringLiteral("time stamp '%1' is not 0 to %2 s")
        .arg(text.left(40))
        .arg(kMaxTraceSeconds);
}

// A hexadecimal digit's value; -1 for any other character.
int hexDigit(QChar c)
{
    const char16_t u = c.unicode();
    if (u >= '0' && u <= '9')
        return u - '0';
    if (u >= 'a' && u <= 'f')
        return u - 'a' + 10;
    if (u >= 'A' && u <= 'F')
        return u - 'A' + 10;
    return -1;
}

class CandumpReader : public TraceReader
{
public:
    explicit CandumpReader(QIODevice* device) : TraceReader(device) {}

    // The common line, "(SECONDS.FRACTION) IFACE ID#DATA" with a base-format identifier and
    // whole data bytes, read without a regular expression or a string; false for anything else,
    // which the full rules below read (or refuse) as they always did.
    static bool fastFrame(const QByteArray& raw, TraceRecord* r)
    {
        const char* p = raw.constData();
        const char* const end = p + raw.size();
        const auto digits = [&p, end](qint64* value, int most) {
            int n = 0;
            for (*value = 0; p < end && *p >= '0' && *p <= '9' && n < most; ++p, ++n)
                *value = *value * 10 + (*p - '0');
            return n;
        };
        const auto blanks = [&p, end] {
            const char* from = p;
            while (p < end && (*p == ' ' || *p == '\t'))
                ++p;
            return p > from;
        };
        qint64 seconds = 0, fraction = 0;
        if (p == end || *p++ != '(' || digits(&seconds, 13) == 0 || p == end || *p++ != '.')
            return false;
        int fractionDigits = digits(&fraction, 9);
        if (fractionDigits == 0 || p == end || *p++ != ')' || !blanks() ||
            seconds > kMaxTraceSeconds)
            return false;
        const auto blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
        const char* interface = p;
        while (p < end && !blank(*p))
            ++p;
        const char* interfaceEnd = p;
        if (interfaceEnd == interface || !blanks())
            return false;
        int id = 0, idDigits = 0;
        for (int h; p < end && (h = hexDigit(QLatin1Char(*p))) >= 0; ++p, ++idDigits)
            id = id << 4 | h;
        if (idDigits == 0 || idDigits > 3 || id > 0x7FF || p == end || *p++ != '#' ||
            (p < end && *p == '#'))
            return false;
        const char* data = p;
        while (p < end && !blank(*p))
            ++p;
        const qsizetype dataLength = p - data;
        if (p != end || dataLength % 2 != 0 || dataLength > 16)
            return false;
        std::array<char, 8> bytes{};
        for (qsizetype i = 0; i < dataLength / 2; ++i) {
            const int high = hexDigit(QLatin1Char(data[2 * i]));
            const int low = hexDigit(QLatin1Char(data[2 * i + 1]));
            if (high < 0 || low < 0)
                return false;
            bytes[size_t(i)] = char(high << 4 | low);
        }
        // The fraction's first six digits are the microseconds.
        for (; fractionDigits > 6; --fractionDigits)
            fraction /= 10;
        for (; fractionDigits < 6; ++fractionDigits)
            fraction *= 10;
        const char* channel = interfaceEnd;
        while (channel > interface && channel[-1] >= '0' && channel[-1] <= '9')
            --channel;
        r->channel = 0;
        for (const char* c = channel; c < interfaceEnd && c - channel < 9; ++c)
            r->channel = r->channel * 10 + (*c - '0');
        r->id = quint16(id);
        r->timeUs = seconds * 1000000 + fraction;
        r->transmitted = false;
        r->remote = false;
        // Into the record's own buffer, which the next frame reuses.
        r->data.resize(dataLength / 2);
        std::copy(bytes.begin(), bytes.begin() + dataLength / 2, r->data.data());
        r->length = int(dataLength / 2);
        return true;
    }

    Result next(TraceRecord* r, QString* error) override
    {
        static const QRegularExpression frame(QStringLiteral(
            R"(^\((\d+)\.(\d{1,9})\)\s+(\S+)\s+([0-9A-Fa-f]+)(#{1,2})(\S*)(\s+\S+)?$)"));
        QByteArray& raw = m_raw;
        while (readLine(&raw)) {
            if (fastFrame(raw, r))
                return Frame;
            if (raw == kOverlong)
                return fail(error, QStringLiteral("longer than %1 characters").arg(kMaxLine));
            const QString line = QString::fromLatin1(raw).trimmed();
            if (line.isEmpty())
                continue;
            if (line.startsWith(QLatin1Char('#'))) {
                ++m_comments;
                continue;
            }
            const auto m = frame.match(line);
            if (!m.hasMatch())
                return fail(error,
                            QStringLiteral("not a candump log line: '%1'").arg(line.left(60)));
            if (m.capturedView(5) == QLatin1String("##"))
                return fail(error, QStringLiteral("CAN FD frames are not carried by the server"));
            const QStringView id = m.capturedView(4);
            // candump writes an error frame with the error flag in an 8-digit identifier.
            constexpr uint kErrorFrameFlag = 0x20000000;
            if (id.size() == 8 && (id.toUInt(nullptr, 16) & kErrorFrameFlag)) {
                ++m_errorFrames;
                continue;
            }
            if (id.size() > 3)
                return fail(error, QStringLiteral("identifier %1 is extended (29-bit): the "
                                                  "server carries 11-bit identifiers")
                                       .arg(id));
            r->id = quint16(id.toUInt(nullptr, 16));
            if (r->id > 0x7FF)
                return fail(error, QStringLiteral("identifier %1 is not 000 to 7FF").arg(id));
            // The fraction's first six digits, as many as there are, are the microseconds.
            const QStringView fraction = m.capturedView(2).left(6);
            qint64 micros = fraction.toLongLong();
            for (qsizetype d = fraction.size(); d < 6; ++d)
                micros *= 10;
            bool secondsOk = false;
            const qint64 seconds = m.capturedView(1).toLongLong(&secondsOk);
            if (!secondsOk || seconds > kMaxTraceSeconds)
                return fail(error, timeOutOfRange(m.captured(1)));
            r->timeUs = seconds * 1000000 + micros;
            // The channel's number is the interface name's last digits (can1, vcan0).
            const QStringView interface = m.capturedView(3);
            qsizetype digitsAt = interface.size();
            while (digitsAt > 0 && interface[digitsAt - 1] >= QLatin1Char('0') &&
                   interface[digitsAt - 1] <= QLatin1Char('9'))
                --digitsAt;
            r->channel = digitsAt < interface.size() ? interface.mid(digitsAt).toInt() : 0;
            r->transmitted = false;
            const QStringView data = m.capturedView(6);
            r->remote = data.startsWith(QLatin1Char('R'), Qt::CaseInsensitive);
            if (r->remote) {
                r->data.clear();
                r->length = data.size() > 1 ? data.mid(1).toInt() : 0;
                if (r->length < 0 || r->length > 8)
                    return fail(error, QStringLiteral("remote length '%1'").arg(data));
                return Frame;
            }
            if (data.size() % 2 != 0 || data.size() > 16)
                return fail(error, QStringLiteral("data '%1' is not 0 to 8 whole bytes").arg(data));
            r->data.resize(data.size() / 2);
            for (qsizetype i = 0; i < r->data.size(); ++i) {
                const int high = hexDigit(data[2 * i]), low = hexDigit(data[2 * i + 1]);
                if (high < 0 || low < 0)
                    return fail(error, QStringLiteral("data '%1' is not hexadecimal").arg(data));
                r->data[i] = char(high << 4 | low);
            }
            r->length = int(r->data.size());
            return Frame;
        }
        return End;
    }

private:
    QByteArray m_raw;
};

class AscReader : public TraceReader
{
public:
    explicit AscReader(QIODevice* device) : TraceReader(device) {}
    Result next(TraceRecord* r, QString* error) override
    {
        QByteArray raw;
        while (readLine(&raw)) {
            if (raw == kOverlong)
                return fail(error, QStringLiteral("longer than %1 characters").arg(kMaxLine));
            const QString line = QString::fromLatin1(raw).trimmed();
            const QStringList w =
                line.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
            if (w.isEmpty())
                continue;
            if (line.startsWith(QLatin1String("//"))) {
                ++m_comments;
                continue;
            }
            const QString first = w[0].toLower();
            if (first == QLatin1String("date") || first == QLatin1String("internal") ||
                first == QLatin1String("no") || first == QLatin1String("begin") ||
                first == QLatin1String("end"))
                continue;
            if (first == QLatin1String("base")) {
                m_decimal = w.value(1).toLower() == QLatin1String("dec");
                m_relative =
                    line.contains(QLatin1String("timestamps relative"), Qt::CaseInsensitive);
                continue;
            }
            bool ok = false;
            const double seconds = w[0].toDouble(&ok);
            if (!ok)
                return fail(error, QStringLiteral("not an ASC line: '%1'").arg(line.left(60)));
            // Also nan and inf, which compare false either way.
            if (!(seconds >= 0 && seconds <= double(kMaxTraceSeconds)))
                return fail(error, timeOutOfRange(w[0]));
            // Relative stamps count from the event before, whatever it was.
            const qint64 stampUs = qint64(seconds * 1e6 + 0.5);
            m_clockUs = m_relative ? m_clockUs + stampUs : stampUs;
            if (m_clockUs > kMaxTraceSeconds * 1000000)
                return fail(error, timeOutOfRange(w[0]));
            if (w.value(1).compare(QLatin1String("CANFD"), Qt::CaseInsensitive) == 0)
                return fail(error, QStringLiteral("CAN FD frames are not carried by the server"));
            int channel = w.value(1).toInt(&ok);
            if (ok && w.value(2).compare(QLatin1String("ErrorFrame"), Qt::CaseInsensitive) == 0) {
                ++m_errorFrames;
                continue;
            }
            // Events without a frame (start of measurement, statistics).
            if (!ok || w.size() < 5)
                continue;
            QString id = w[2];
            if (id.endsWith(QLatin1Char('x'), Qt::CaseInsensitive))
                return fail(error, QStringLiteral("identifier %1 is extended (29-bit): the "
                                                  "server carries 11-bit identifiers")
                                       .arg(id));
            const uint value = id.toUInt(&ok, m_decimal ? 10 : 16);
            if (!ok || value > 0x7FF)
                return fail(error, QStringLiteral("identifier '%1' is not 000 to 7FF").arg(id));
            const QString dir = w[3].toLower();
            if (dir != QLatin1String("rx") && dir != QLatin1String("tx"))
                continue;
            r->timeUs = m_clockUs;
            r->channel = std::max(0, channel - 1);
            r->id = quint16(value);
            r->transmitted = dir == QLatin1String("tx");
            const QString kind = w[4].toLower();
            if (kind == QLatin1String("r")) {
                r->remote = true;
                r->data.clear();
                r->length = w.size() > 5 ? w[5].toInt() : 0;
                return Frame;
            }
            if (kind != QLatin1String("d"))
                return fail(error, QStringLiteral("frame kind '%1' is not d or r").arg(w[4]));
            r->remote = false;
            r->length = w.value(5).toInt(&ok);
            if (!ok || r->length < 0 || r->length > 8)
                return fail(error, QStringLiteral("length '%1' is not 0 to 8").arg(w.value(5)));
            if (w.size() < 6 + r->length)
                return fail(error, QStringLiteral("%1 data bytes announced, %2 there")
                                       .arg(r->length)
                                       .arg(w.size() - 6));
            r->data.clear();
            for (int i = 0; i < r->length; ++i) {
                const uint b = w[6 + i].toUInt(&ok, m_decimal ? 10 : 16);
                if (!ok || b > 0xFF)
                    return fail(error, QStringLiteral("data byte '%1'").arg(w[6 + i]));
                r->data.append(char(b));
            }
            return Frame;
        }
        return End;
    }

private:
    bool m_decimal = false;
    bool m_relative = false; // "timestamps relative" in the header
    qint64 m_clockUs = 0;    // the time of the last event read
};
class TrcReader : public TraceReader
{
public:
    explicit TrcReader(QIODevice* device) : TraceReader(device) {}
    Result next(TraceRecord* r, QString* error) override
    {
        QByteArray raw;
        while (readLine(&raw)) {
            if (raw == kOverlong)
                return fail(error, QStringLiteral("longer than %1 characters").arg(kMaxLine));
            const QString line = QString::fromLatin1(raw).trimmed();
            if (line.isEmpty())
                continue;
            if (line.startsWith(QLatin1Char(';'))) {
                header(line);
                continue;
            }
            QStringList w =
                line.split(QRegularExpression(QStringLiteral("\\s+")), Qt::SkipEmptyParts);
            const Result result = m_version < 2 ? frame11(w, r, error) : frame2(w, r, error);
            if (result == End) // an event without a frame
                continue;
            return result;
        }
        return End;
    }

private:
    void header(const QString& line)
    {
        if (line.startsWith(QLatin1String(";$FILEVERSION="))) {
            m_version = int(line.mid(14).toDouble());
            if (m_version >= 2)
                m_columns = QStringLiteral("NOTIdlD");
        } else if (line.startsWith(QLatin1String(";$COLUMNS="))) {
            m_columns = line.mid(10).remove(QLatin1Char(','));
        } else {
            ++m_comments;
        }
    }
    // "1)  1059.9  Rx  0300  8  00 11 ..." ("RTR" for the data of a remote request).
    Result frame11(const QStringList& w, TraceRecord* r, QString* error)
    {
        if (w.size() < 5 || !w[0].endsWith(QLatin1Char(')')))
            return fail(error, QStringLiteral("not a trace line: '%1'").arg(w.join(' ').left(60)));
        const QString type = w[2].toLower();
        if (type != QLatin1String("rx") && type != QLatin1String("tx")) {
            ++m_errorFrames; // Error, Warng: the bus's state, no frame
            return End;
        }
        const bool remote = w.value(5).compare(QLatin1String("RTR"), Qt::CaseInsensitive) == 0;
        return take(w[1], w[3], type, w[4], remote, w.mid(5), 0, r, error);
    }
    // The columns of $COLUMNS: N number, O time offset (ms), T type, B bus, I identifier,
    // d direction, R reserved, l or L length, D data.
    Result frame2(const QStringList& w, TraceRecord* r, QString* error)
    {
        const auto at = [&](QChar column) {
            const qsizetype i = m_columns.indexOf(column);
            return i < 0 ? QString() : w.value(i);
        };
        const QString type = at(QLatin1Char('T')).toUpper();
        if (type == QLatin1String("FD") || type == QLatin1String("FB") ||
            type == QLatin1String("FE") || type == QLatin1String("BI"))
            return fail(error, QStringLiteral("CAN FD frames are not carried by the server"));
        if (type != QLatin1String("DT") && type != QLatin1String("RR")) {
            ++m_errorFrames; // status, error counters, errors, events
            return End;
        }
        const qsizetype dataAt = m_columns.indexOf(QLatin1Char('D'));
        const QString length =
            m_columns.contains(QLatin1Char('L')) ? at(QLatin1Char('L')) : at(QLatin1Char('l'));
        const QString bus = at(QLatin1Char('B'));
        return take(at(QLatin1Char('O')), at(QLatin1Char('I')), at(QLatin1Char('d')).toLower(),
                    length, type == QLatin1String("RR"), dataAt < 0 ? QStringList() : w.mid(dataAt),
                    bus.isEmpty() ? 0 : std::max(0, bus.toInt() - 1), r, error);
    }
    Result take(const QString& offsetMs, const QString& id, const QString& direction,
                const QString& length, bool remote, const QStringList& bytes, int channel,
                TraceRecord* r, QString* error)
    {
        bool ok = false;
        const double ms = offsetMs.toDouble(&ok);
        if (!ok || !(ms >= 0 && ms / 1000 <= double(kMaxTraceSeconds)))
            return fail(error, timeOutOfRange(offsetMs));
        const uint value = id.toUInt(&ok, 16);
        if (ok && (id.size() > 4 || value > 0x7FF))
            return fail(error, QStringLiteral("identifier %1 is extended (29-bit): the server "
                                              "carries 11-bit identifiers")
                                   .arg(id));
        if (!ok)
            return fail(error, QStringLiteral("identifier '%1' is not 000 to 7FF").arg(id));
        r->length = length.toInt(&ok);
        if (!ok || r->length < 0 || r->length > 8)
            return fail(error, QStringLiteral("length '%1' is not 0 to 8").arg(length));
        r->timeUs = qint64(ms * 1000.0 + 0.5);
        r->channel = channel;
        r->id = quint16(value);
        r->remote = remote;
        r->transmitted = direction == QLatin1String("tx");
        r->data.clear();
        if (remote)
            return Frame;
        if (bytes.size() < r->length)
            return fail(error, QStringLiteral("%1 data bytes announced, %2 there")
                                   .arg(r->length)
                                   .arg(bytes.size()));
        for (int i = 0; i < r->length; ++i) {
            const uint b = bytes[i].toUInt(&ok, 16);
            if (!ok || b > 0xFF)
                return fail(error, QStringLiteral("data byte '%1'").arg(bytes[i]));
            r->data.append(char(b));
        }
        return Frame;
    }

    int m_version = 1;
    QString m_columns;
};
} // namespace

bool traceFormatOf(const QString& fileName, TraceFormat* format)
{
    if (fileName.endsWith(QLatin1String(".log"), Qt::CaseInsensitive))
        *format = TraceFormat::CandumpLog;
    else if (fileName.endsWith(QLatin1String(".asc"), Qt::CaseInsensitive))
        *format = TraceFormat::Asc;
    else if (fileName.endsWith(QLatin1String(".trc"), Qt::CaseInsensitive))
        *format = TraceFormat::PcanTrc;
    else
        return false;
    return true;
}

bool traceFormatOfContent(QIODevice* device, TraceFormat* format)
{
    const QByteArray head = device->peek(4096);
    if (head.contains(";$FILEVERSION=")) {
        *format = TraceFormat::PcanTrc;
        return true;
    }
    for (QByteArray line : head.split('\n')) {
        line = line.trimmed();
        if (line.isEmpty())
            continue;
        if (line.startsWith('(')) {
            *format = TraceFormat::CandumpLog;
            return true;
        }
        const QByteArray first = line.left(5).toLower();
        if (first.startsWith("date ") || first.startsWith("base ")) {
            *format = TraceFormat::Asc;
            return true;
        }
        if (!line.startsWith('#') && !line.startsWith("//"))
            return false;
    }
    return false;
}

TraceWriter::TraceWriter(QIODevice* device, TraceFormat format) : m_device(device), m_format(format)
{
}

void TraceWriter::begin(const QDateTime& start)
{
    if (m_format != TraceFormat::Asc)
        return;
    const QByteArray date = ascDate(start).toLatin1();
    m_device->write("date " + date +
                    "\nbase hex  timestamps absolute\nno internal events "
                    "logged\n// version 7.0.0\nBegin Triggerblock " +
                    date + "\n");
}

void TraceWriter::write(const TraceRecord& r)
{
    if (m_format == TraceFormat::CandumpLog) {
        QByteArray line = QStringLiteral("(%1.%2) can%3 %4#")
                              .arg(r.timeUs / 1000000, 10, 10, QLatin1Char('0'))
                              .arg(r.timeUs % 1000000, 6, 10, QLatin1Char('0'))
                              .arg(r.channel)
                              .arg(r.id, 3, 16, QLatin1Char('0'))
                              .toUpper()
                              .toLatin1();
        line.replace("CAN", "can");
        if (r.remote)
            line += r.length ? "R" + QByteArray::number(r.length) : QByteArray("R");
        else
            line += hexBytes(r.data.left(r.length), "");
        m_device->write(line + "\n");
        return;
    }
    if (m_firstUs < 0)
        m_firstUs = r.timeUs;
    // ASC counts from its first frame; a frame stamped before it is put at the start.
    const qint64 t = std::max<qint64>(0, r.timeUs - m_firstUs);
    QByteArray line = QStringLiteral("%1.%2 %3  %4             %5   ")
                          .arg(t / 1000000, 4)
                          .arg(t % 1000000, 6, 10, QLatin1Char('0'))
                          .arg(r.channel + 1)
                          .arg(QString::number(r.id, 16).toUpper(), -3)
                          .arg(r.transmitted ? QLatin1String("Tx") : QLatin1String("Rx"))
                          .toLatin1();
    if (r.remote)
        line += r.length ? "r " + QByteArray::number(r.length) : QByteArray("r");
    else
        line += "d " + QByteArray::number(r.length) + (r.length ? " " : "") +
                hexBytes(r.data.left(r.length), " ");
    m_device->write(line + "\n");
}

void TraceWriter::end()
{
    if (m_format == TraceFormat::Asc)
        m_device->write("End TriggerBlock\n");
}

std::unique_ptr<TraceReader> TraceReader::create(QIODevice* device, TraceFormat format)
{
    if (format == TraceFormat::Asc)
        return std::make_unique<AscReader>(device);
    if (format == TraceFormat::PcanTrc)
        return std::make_unique<TrcReader>(device);
    return std::make_unique<CandumpReader>(device);
}

bool TraceReader::readLine(QByteArray* line)
{
    if (m_device->atEnd())
        return false;
    // Into the line's own buffer, which keeps its room from one line to the next: no allocation
    // a line.
    line->resize(kMaxLine + 2);
    const qint64 read = m_device->readLine(line->data(), kMaxLine + 3);
    line->resize(read < 0 ? 0 : read);
    ++m_line;
    if (line->size() > kMaxLine && !line->endsWith('\n')) {
        // The rest of an overlong line is skipped, never held.
        while (!m_device->atEnd() && !m_device->readLine(kMaxLine + 2).endsWith('\n')) {
        }
        *line = kOverlong;
        return true;
    }
    while (line->endsWith('\n') || line->endsWith('\r'))
        line->chop(1);
    return true;
}

} // namespace tessel

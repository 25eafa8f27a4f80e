#include "filesource.h"

#include "tracefile.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace tessel {

namespace {

// Fields of a CSV line: commas, quoted fields with their quotes doubled.
QStringList csvFields(const QString& line)
{
    QStringList fields;
    QString field;
    bool quoted = false;
    for (qsizetype i = 0; i < line.size(); ++i) {
        const QChar c = line[i];
        if (quoted) {
            if (c == QLatin1Char('"') && i + 1 < line.size() && line[i + 1] == QLatin1Char('"'))
                field += line[++i];
            else if (c == QLatin1Char('"'))
                quoted = false;
            else
                field += c;
        } else if (c == QLatin1Char('"')) {
            quoted = true;
        } else if (c == QLatin1Char(',')) {
            fields << field.trimmed();
            field.clear();
        } else {
            field += c;
        }
    }
    fields << field.trimmed();
    return fields;
}

struct Passed
{
    qint64 count = 0;
    QString first;
    void add(const QString& why)
    {
        if (count++ == 0)
            first = why;
    }
    QString note() const
    {
        return count == 0 ? QString()
                          : QStringLiteral("%1 lines passed over (%2)").arg(count).arg(first);
    }
};

void readColumn(QFile& file, const PlotSource& s, FileTrace* out)
{
    const QStringList header = csvFields(QString::fromUtf8(file.readLine()).trimmed());
    const qsizetype column = header.indexOf(s.column);
    if (column < 1) {
        out->error = column == 0
                         ? QStringLiteral("%1 is the time column of %2: choose another")
                               .arg(s.column, QFileInfo(s.path).fileName())
                         : QStringLiteral("%1 has no column '%2'; its columns: %3")
                               .arg(QFileInfo(s.path).fileName(), s.column,
                                    header.mid(1).join(QStringLiteral(", ")));
        return;
    }
    const qsizetype reasonColumn = header.indexOf(QStringLiteral("error"));
    Passed passed;
    qint64 line = 1;
    while (!file.atEnd()) {
        ++line;
        const QString text = QString::fromUtf8(file.readLine()).trimmed();
        if (text.isEmpty())
            continue;
        const QStringList f = csvFields(text);
        bool ok = false;
        const double t = f[0].toDouble(&ok);
        if (!ok || f.size() <= column) {
            passed.add(QStringLiteral("line %1: %2").arg(line).arg(
                ok ? QStringLiteral("no field '%1'").arg(s.column)
                   : QStringLiteral("the time '%1' is not a number").arg(f[0])));
            continue;
        }
        const double v = f[column].toDouble(&ok);
        if (ok) {
            out->ring.append(t, v);
            ++out->values;
            continue;
        }
        ++out->gaps;
        const QString reason = f[column].isEmpty() ? f.value(reasonColumn) : QString();
        out->ring.appendGap(t, !reason.isEmpty()        ? reason
                               : f[column].isEmpty() ? QStringLiteral("no value")
                                                     : QStringLiteral("'%1' is not a number")
                                                           .arg(f[column]));
    }
    out->note = passed.note();
}

void addField(const PlotSource& s, double t, const char* data, int length, FileTrace* out)
{
    if (const auto v = s.fieldValue(data, length)) {
        out->ring.append(t, *v);
        ++out->values;
    } else {
        out->ring.appendGap(t, QStringLiteral("%1 bytes, the field needs %2")
                                   .arg(length)
                                   .arg((s.bit + s.bits + 7) / 8));
        ++out->gaps;
    }
}

// "ID;TIME;LENGTH;BYTES;": the server's time in microseconds, which wraps at 32 bits.
void readAcquisition(QFile& file, const PlotSource& s, FileTrace* out)
{
    Passed passed;
    qint64 line = 0, first = -1, last = 0, wraps = 0;
    while (!file.atEnd()) {
        ++line;
        const QByteArray text = file.readLine().trimmed();
        if (text.isEmpty())
            continue;
        const QList<QByteArray> f = text.split(';');
        bool okId = false, okTime = false, okLength = false;
        const int id = f.value(0).toInt(&okId);
        const qint64 time = f.value(1).toLongLong(&okTime);
        const int length = f.value(2).toInt(&okLength);
        if (!okId || !okTime || !okLength || length < 0 || length > 8 || f.size() < 3 + length) {
            passed.add(QStringLiteral("line %1: not ID;TIME;LENGTH;BYTES;").arg(line));
            continue;
        }
        if (first >= 0 && time < last)
            ++wraps;
        last = time;
        if (first < 0)
            first = time;
        if (id != s.id)
            continue;
        char data[8] = {};
        for (int i = 0; i < length; ++i)
            data[i] = char(f[3 + i].toInt());
        addField(s, double(time + (wraps << 32) - first) / 1e6, data, length, out);
    }
    out->note = passed.note();
}

} // namespace

FileTrace readFileTrace(const PlotSource& s, qsizetype capacity)
{
    FileTrace out;
    out.ring.setCapacity(capacity);
    QFile file(s.path);
    if (!file.open(QIODevice::ReadOnly)) {
        out.error = QStringLiteral("Cannot read %1: %2").arg(s.path, file.errorString());
        return out;
    }
    if (s.kind == PlotSource::Kind::FileColumn) {
        readColumn(file, s, &out);
        return out;
    }
    TraceFormat format;
    if (!traceFormatOfContent(&file, &format)) {
        file.seek(0);
        static const QRegularExpression acquisition(QStringLiteral("^\\d+;\\d+;\\d;"));
        if (acquisition.match(QString::fromLatin1(file.readLine(64))).hasMatch()) {
            file.seek(0);
            readAcquisition(file, s, &out);
            return out;
        }
        out.error = QStringLiteral("%1 is no trace file (candump log, ASC, PCAN-View trace) and "
                                   "no acquisition file")
                        .arg(QFileInfo(s.path).fileName());
        return out;
    }
    file.seek(0);
    const auto reader = TraceReader::create(&file, format);
    Passed passed;
    TraceRecord r;
    QString error;
    qint64 firstUs = -1;
    for (;;) {
        const TraceReader::Result result = reader->next(&r, &error);
        if (result == TraceReader::End)
            break;
        if (result == TraceReader::Error) {
            passed.add(error);
            continue;
        }
        if (firstUs < 0)
            firstUs = r.timeUs;
        if (r.id == s.id && !r.remote)
            addField(s, double(r.timeUs - firstUs) / 1e6, r.data.constData(), int(r.data.size()),
                     &out);
    }
    out.note = passed.note();
    return out;
}

} // namespace tessel

#include "monitorconfig.h"

#include <optional>

namespace tessel {

namespace {

void appendText(QByteArray& out, const QString& text)
{
    out += '"';
    out += text.toUtf8().replace("\"", "\"\"");
    out += '"';
}

// Fields one by one; a comma or any run of line ends closes a field.
class FieldReader
{
public:
    explicit FieldReader(const QByteArray& bytes) : m_bytes(bytes) {}

    // The next field's text, or nothing with the reason when the file has none or it is
    // malformed.
    std::optional<QString> next(QString* reason)
    {
        ++m_field;
        skipBlanks();
        skipLineEnds();
        skipBlanks();
        if (m_pos >= m_bytes.size()) {
            *reason = QStringLiteral("the file ends before field %1").arg(m_field);
            return std::nullopt;
        }
        QByteArray field;
        if (m_bytes[m_pos] == '"') {
            ++m_pos;
            for (;;) {
                if (m_pos >= m_bytes.size()) {
                    *reason = QStringLiteral("field %1 has no closing quote").arg(m_field);
                    return std::nullopt;
                }
                const char c = m_bytes[m_pos++];
                if (c != '"') {
                    field += c;
                } else if (m_pos < m_bytes.size() && m_bytes[m_pos] == '"') {
                    field += '"';
                    ++m_pos;
                } else {
                    break;
                }
            }
            skipBlanks();
            if (m_pos < m_bytes.size() && !isSeparator(m_bytes[m_pos])) {
                *reason = QStringLiteral("field %1 has text after its closing quote").arg(m_field);
                return std::nullopt;
            }
        } else {
            while (m_pos < m_bytes.size() && !isSeparator(m_bytes[m_pos]))
                field += m_bytes[m_pos++];
            field = field.trimmed();
        }
        if (m_pos < m_bytes.size() && m_bytes[m_pos] == ',')
            ++m_pos;
        return QString::fromUtf8(field);
    }

private:
    static bool isSeparator(char c) { return c == ',' || c == '\r' || c == '\n'; }
    void skipBlanks()
    {
        while (m_pos < m_bytes.size() && (m_bytes[m_pos] == ' ' || m_bytes[m_pos] == '\t'))
            ++m_pos;
    }
    void skipLineEnds()
    {
        while (m_pos < m_bytes.size() && (m_bytes[m_pos] == '\r' || m_bytes[m_pos] == '\n'))
            ++m_pos;
    }

    const QByteArray& m_bytes;
    qsizetype m_pos = 0;
    int m_field = 0;
};

} // namespace

QByteArray writeMonitorConfig(const MonitorSetup& setup)
{
    QByteArray out;
    appendText(out, QStringLiteral(";COPDIB config file"));
    out += "\r\n";
    for (const SlotTexts& slot : setup.transmitSlots) {
        appendText(out, slot.id);
        for (const QString& d : slot.data) {
            out += ',';
            appendText(out, d);
        }
        out += ',';
        appendText(out, slot.length);
        out += slot.remote ? ",1\r\n" : ",0\r\n";
    }
    for (int i = 0; i < MonitorSetup::kFilters; ++i) {
        if (i > 0)
            out += ',';
        appendText(out, setup.filters[i]);
    }
    for (const QString& s : setup.sequences) {
        out += ',';
        appendText(out, s);
    }
    return out;
}

MonitorConfigLoad readMonitorConfig(const QByteArray& file, const MonitorSetup& current)
{
    MonitorConfigLoad load;
    load.setup = current;
    FieldReader reader(file);
    QString reason;
    const auto header = reader.next(&reason);
    if (!header) {
        load.result = MonitorConfigLoad::UnknownHeader;
        load.reason = reason;
        return load;
    }
    const QString version = header->left(7);
    const bool withFilters =
        version == QLatin1String(";COPDIA") || version == QLatin1String(";COPDIB");
    const bool withSequences = version == QLatin1String(";COPDIB");
    if (!withFilters && version != QLatin1String(";CANDIA")) {
        load.result = MonitorConfigLoad::UnknownHeader;
        load.reason = QStringLiteral("the file does not start with a known header");
        return load;
    }
    auto fail = [&](const QString& why) {
        load.result = MonitorConfigLoad::Failed;
        load.reason = why;
        return load;
    };
    for (int i = 0; i < MonitorSetup::kSlots; ++i) {
        SlotTexts& slot = load.setup.transmitSlots[i];
        QString* texts[] = {&slot.id,      &slot.data[0], &slot.data[1], &slot.data[2],
                            &slot.data[3], &slot.data[4], &slot.data[5], &slot.data[6],
                            &slot.data[7], &slot.length};
        for (QString* target : texts) {
            const auto field = reader.next(&reason);
            if (!field)
                return fail(reason);
            *target = *field;
        }
        const auto remote = reader.next(&reason);
        if (!remote)
            return fail(reason);
        const QString value = remote->trimmed();
        if (value != QLatin1String("0") && value != QLatin1String("1"))
            return fail(QStringLiteral("the remote box of slot %1 reads \"%2\", not 0 or 1")
                            .arg(i + 1)
                            .arg(*remote));
        slot.remote = value == QLatin1String("1");
    }
    if (withFilters) {
        for (QString& filter : load.setup.filters) {
            const auto field = reader.next(&reason);
            if (!field)
                return fail(reason);
            filter = *field;
        }
    }
    if (withSequences) {
        for (QString& sequence : load.setup.sequences) {
            const auto field = reader.next(&reason);
            if (!field)
                return fail(reason);
            sequence = *field;
        }
    }
    load.result = MonitorConfigLoad::Loaded;
    return load;
}

} // namespace tessel

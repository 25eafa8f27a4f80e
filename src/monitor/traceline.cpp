#include "traceline.h"

#include "decimal.h"

#include <algorithm>

namespace tessel {

QString traceLine(int channel, int kind, quint32 id, quint32 timeUs, int length, const quint8* data,
                  QChar decimalPoint)
{
    // Written straight into the line's characters: this runs for every frame traced, tens of
    // thousands a second on busy buses, where building it from numbers' texts would cost more
    // than the rest of the frame's way through the monitor.
    char16_t letter = 0;
    switch (kind) {
    case int(TraceKind::Received):
        letter = u'R';
        break;
    case int(TraceKind::Transmitted):
        letter = u'T';
        break;
    case int(TraceKind::RemoteRequest):
        letter = u'M';
        length = 0;
        break;
    default:
        break;
    }
    length = std::max(length, 0);
    QString line(40 + 3 * length, Qt::Uninitialized);
    char16_t* out = reinterpret_cast<char16_t*>(line.data());
    const auto padded = [&out](quint32 value, int width) {
        for (int i = width - 1; i >= 0; --i, value /= 10)
            out[i] = char16_t(u'0' + value % 10);
        out += width;
    };
    static const char16_t hex[] = u"0123456789ABCDEF";
    if (letter)
        *out++ = letter;
    out = qorcalib::writeDecimal(out, channel);
    *out++ = u' ';
    for (int shift = 8; shift >= 0; shift -= 4)
        *out++ = hex[(id >> shift) & 0xF];
    *out++ = u' ';
    out = qorcalib::writeDecimal(out, length);
    *out++ = u' ';
    // Seconds modulo 1000, "s", then the milliseconds of the second with three decimals.
    padded((timeUs / 1000000u) % 1000u, 3);
    *out++ = u's';
    const quint32 micros = timeUs % 1000000u;
    padded(micros / 1000u, 3);
    *out++ = decimalPoint.unicode();
    padded(micros % 1000u, 3);
    for (const char16_t c : u" > ")
        if (c)
            *out++ = c;
    for (int i = 0; i < length; ++i) {
        *out++ = hex[data[i] >> 4];
        *out++ = hex[data[i] & 0xF];
        *out++ = u' ';
    }
    line.truncate(out - reinterpret_cast<const char16_t*>(line.constData()));
    return line;
}

void TraceBuffer::append(std::initializer_list<QStringView> parts)
{
    qsizetype length = 0;
    for (QStringView part : parts)
        length += part.size();
    if (m_text.size() + length + 2 >= m_maxLength) {
        m_dropped += std::max<qsizetype>(0, m_text.size() - m_keepLength);
        m_text = m_text.right(m_keepLength);
        m_replaced = true;
    }
    for (QStringView part : parts)
        m_text += part;
    m_text += QLatin1String("\r\n");
}

void TraceBuffer::clear()
{
    m_text.clear();
    m_replaced = true;
    m_cleared = true;
}

TraceBuffer::Change TraceBuffer::takeChange()
{
    Change change;
    change.replaced = m_replaced;
    change.cleared = m_cleared;
    change.added = m_replaced ? m_text.size() : m_text.size() - m_shown;
    change.dropped = m_dropped;
    m_replaced = false;
    m_cleared = false;
    m_dropped = 0;
    m_shown = m_text.size();
    return change;
}

} // namespace tessel

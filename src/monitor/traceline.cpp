#include "traceline.h"

#include "numbers.h"

namespace tessel {

QString traceLine(int channel, int kind, quint32 id, quint32 timeUs, int length, const quint8* data,
                  QChar decimalPoint)
{
    QString letter;
    switch (kind) {
    case int(TraceKind::Received):
        letter = QStringLiteral("R");
        break;
    case int(TraceKind::Transmitted):
        letter = QStringLiteral("T");
        break;
    case int(TraceKind::RemoteRequest):
        letter = QStringLiteral("M");
        length = 0;
        break;
    default:
        break;
    }
    QString line;
    line.reserve(24 + 3 * qMax(length, 0));
    line += letter;
    line += QString::number(channel);
    line += QLatin1Char(' ');
    line += hexField(id, 3);
    line += QLatin1Char(' ');
    line += QString::number(length);
    line += QLatin1Char(' ');
    const quint32 seconds = (timeUs / 1000000u) % 1000u;
    line += QString::number(seconds).rightJustified(3, QLatin1Char('0'));
    line += QLatin1Char('s');
    // Milliseconds with three decimals: the microseconds of the second, written as
    // "mmm.uuu" and right-aligned in 7 characters.
    const quint32 micros = timeUs % 1000000u;
    QString millis = QString::number(micros / 1000u);
    millis += decimalPoint;
    millis += QString::number(micros % 1000u).rightJustified(3, QLatin1Char('0'));
    line += (QStringLiteral("0000") + millis).right(7);
    line += QStringLiteral(" > ");
    static const char digits[] = "0123456789ABCDEF";
    for (int i = 0; i < length; ++i) {
        line += QLatin1Char(digits[data[i] >> 4]);
        line += QLatin1Char(digits[data[i] & 0xF]);
        line += QLatin1Char(' ');
    }
    return line;
}

void TraceBuffer::append(const QString& line)
{
    if (m_text.size() + line.size() + 2 >= m_maxLength) {
        m_text = m_text.right(m_keepLength);
        m_replaced = true;
    }
    m_text += line;
    m_text += QLatin1String("\r\n");
}

void TraceBuffer::clear()
{
    m_text.clear();
    m_replaced = true;
}

TraceBuffer::Change TraceBuffer::takeChange()
{
    Change change;
    change.replaced = m_replaced;
    change.added = m_replaced ? m_text.size() : m_text.size() - m_shown;
    m_replaced = false;
    m_shown = m_text.size();
    return change;
}

} // namespace tessel

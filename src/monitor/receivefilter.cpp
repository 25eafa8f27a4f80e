#include "receivefilter.h"

#include "numbers.h"

namespace tessel {

void ReceiveFilter::setText(int box, const QString& text)
{
    if (box < 0 || box >= kBoxes)
        return;
    m_texts[box] = text;
    const QString trimmed = text.trimmed();
    m_ids[box] = trimmed.isEmpty() ? -1 : qint64(lenientHexValue(trimmed));
}

bool ReceiveFilter::passes(quint32 id) const
{
    for (qint64 boxId : m_ids)
        if (boxId >= 0 && quint32(boxId) == id)
            return m_invert;
    return !m_invert;
}

} // namespace tessel

#include "messagegate.h"

namespace tessel {

bool MessageGate::admit(const QString& text, qint64 nowMs)
{
    m_recent.removeIf([nowMs](const auto& said) {
        return said.value() >= 0 && nowMs - said.value() >= kRepeatMs;
    });
    if (m_recent.contains(text))
        return false;
    m_recent.insert(text, -1);
    return true;
}

void MessageGate::answered(const QString& text, qint64 nowMs)
{
    m_recent.insert(text, nowMs);
}

} // namespace tessel

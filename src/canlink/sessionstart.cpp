#include "sessionstart.h"

namespace tessel {

std::optional<SessionStart> startSession(CanLink& link, const QString& answer, QString* error)
{
    if (!link.connectToServer(answer, error))
        return std::nullopt;
    SessionStart start;
    const auto timeout = link.sdoTimeout(error);
    if (!timeout)
        return std::nullopt;
    start.sdoTimeoutMs = *timeout;
    const auto bench = link.benchInfo(error);
    if (!bench)
        return std::nullopt;
    start.bench = *bench;
    if (!(*error = link.advise()).isEmpty())
        return std::nullopt;
    const auto count = link.controllerCount(error);
    if (!count)
        return std::nullopt;
    start.controllers = *count;
    if (!(*error = link.startService()).isEmpty())
        return std::nullopt;
    return start;
}

} // namespace tessel

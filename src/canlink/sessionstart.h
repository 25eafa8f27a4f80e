#pragma once

#include "canlink.h"

#include <optional>

namespace tessel {

// What the main window shows of a server it has just joined.
struct SessionStart
{
    int sdoTimeoutMs = 0;
    CanLink::BenchInfo bench;
    int controllers = 0;
};

// Joins the server named by the start prompt's answer: connects, reads the SDO time-out, the
// bench and the number of controllers, subscribes to the bus's frames and starts the protocol
// service. nullopt with the reason when a step fails: the program cannot go on without them.
std::optional<SessionStart> startSession(CanLink& link, const QString& answer, QString* error);

} // namespace tessel

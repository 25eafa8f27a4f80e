#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <optional>

namespace tessel {

class FrmMain;

// The program's start: ask for the server name ("Remote server name:", default from the
// machine settings), end at once on an empty answer or a cancel, remember the answer, and
// load the main window. `ask` returns nullopt for a cancel; `show` tells the user why the
// start failed. On success the main window is returned and the caller runs the event loop.
struct StartUp
{
    std::function<std::optional<QString>(const QString& defaultName)> ask;
    std::function<void(const QString& title, const QString& text)> show;
    QString localSocketPath; // empty: the default
};

struct StartResult
{
    std::unique_ptr<FrmMain> window; // null when the program ends
    int exitCode = 0;
};

StartResult startTessel(const StartUp& startUp);

} // namespace tessel

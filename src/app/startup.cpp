#include "startup.h"

#include "frmmain.h"
#include "machinesettings.h"

namespace tessel {

StartResult startTessel(const StartUp& startUp)
{
    StartResult result;
    const auto answer = startUp.ask(readRemoteServer(QStringLiteral("localhost")));
    if (!answer || answer->isEmpty())
        return result; // ends at once, nothing remembered

    auto window = std::make_unique<FrmMain>();
    if (!startUp.localSocketPath.isEmpty())
        window->link()->setLocalSocketPath(startUp.localSocketPath);
    QString error;
    if (!window->formLoad(*answer, &error)) {
        startUp.show(window->windowTitle(), error);
        window->formUnload();
        result.exitCode = 1;
        return result;
    }
    // Remembered for every account only once it connected: a typo ("nohost") is not offered
    // to everyone at the next start.
    writeRemoteServer(*answer);
    result.window = std::move(window);
    return result;
}

} // namespace tessel

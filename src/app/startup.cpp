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
    writeRemoteServer(*answer);

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
    result.window = std::move(window);
    return result;
}

} // namespace tessel

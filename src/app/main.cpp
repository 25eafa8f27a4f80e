#include "display.h"
#include "frmmain.h"
#include "machinesettings.h"
#include "startup.h"

#include <QApplication>
#include <QInputDialog>
#include <QMessageBox>

#include <cstdio>
#include <cstring>

using namespace tessel;

namespace {

const char kHelp[] =
    "Usage: tessel [--help] [--version]\n"
    "The CANopen servo-drive tool of the test bench and the production line: reads and writes\n"
    "the object dictionary by SDO, sends NMT and LSS commands, watches, records and sends CAN\n"
    "frames, loads firmware through the drive's boot loader, browses EDS files, switches the\n"
    "bench supplies, reads the fixture boards and the drive's alarm log, and programs serial\n"
    "numbers.\n"
    "\n"
    "At start it asks for the CAN server: \"localhost\" starts qorcalib-server beside it (or on\n"
    "PATH) when none runs; with no hardware named that server runs a simulated bus with two\n"
    "simulated drives and a simulated test bench. Any other name reaches a server on TCP.\n"
    "\n"
    "Options:\n"
    "  -h, --help     Show this help and exit.\n"
    "  -v, --version  Show the version and exit.\n"
    "\n"
    "Environment:\n"
    "  TESSEL_DATA_DIR  Folder of the simulated drive's EDS and the sample files (default: the\n"
    "                   installed share/tessel folder, else the source tree's data folder).\n"
    "\n"
    "Tessel needs a display (X11 or Wayland). For scripts and machines without one, use\n"
    "tessel-cli.\n";

} // namespace

int main(int argc, char** argv)
{
    // Answered before any window system is touched, so that they work on a bare console.
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            std::fputs(kHelp, stdout);
            return 0;
        }
        if (!std::strcmp(argv[i], "--version") || !std::strcmp(argv[i], "-v")) {
            std::printf("tessel %s\n", PROJECT_VERSION);
            return 0;
        }
    }
    // Without one, the window system would abort the program with a message about plugins.
    if (!qorcalib::hasDisplay()) {
        std::fputs("tessel: no display: Tessel is a desktop program and needs X11 or Wayland "
                   "(DISPLAY or WAYLAND_DISPLAY is not set). Start it from a desktop session, or "
                   "use tessel-cli on a console.\n",
                   stderr);
        return 1;
    }
    QApplication app(argc, argv);
    QApplication::setOrganizationName(userSettingsOrganisation());
    QApplication::setApplicationName(userSettingsApplication());
    QApplication::setApplicationDisplayName(FrmMain::kCaption);

    StartUp startUp;
    startUp.ask = [](const QString& defaultName) -> std::optional<QString> {
        bool ok = false;
        const QString answer =
            QInputDialog::getText(nullptr, FrmMain::kCaption, QStringLiteral("Remote server name:"),
                                  QLineEdit::Normal, defaultName, &ok);
        return ok ? std::optional<QString>(answer) : std::nullopt;
    };
    startUp.show = [](const QString& title, const QString& text) {
        QMessageBox::critical(nullptr, title, text);
    };
    StartResult started = startTessel(startUp);
    if (!started.window)
        return started.exitCode;
    return app.exec();
}

#include "frmmain.h"
#include "machinesettings.h"
#include "startup.h"

#include <QApplication>
#include <QInputDialog>
#include <QMessageBox>

using namespace tessel;

int main(int argc, char** argv)
{
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

#include "frmmain.h"
#include "machinesettings.h"

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

    bool ok = false;
    const QString answer =
        QInputDialog::getText(nullptr, FrmMain::kCaption, QStringLiteral("Remote server name:"),
                              QLineEdit::Normal, readRemoteServer(QStringLiteral("localhost")), &ok);
    if (!ok || answer.isEmpty())
        return 0;
    writeRemoteServer(answer);

    FrmMain window;
    QString error;
    if (!window.formLoad(answer, &error)) {
        QMessageBox::critical(nullptr, window.windowTitle(), error);
        window.formUnload();
        return 1;
    }
    return app.exec();
}

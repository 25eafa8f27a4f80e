#include "machinesettings.h"

#include "handshake.h"

#include <QSettings>

namespace tessel {

namespace {
const QString kCompany = QStringLiteral("Qor");

} // namespace

QByteArray readServerSecret(QString* problem)
{
    QSettings settings = userSettings();
    const QByteArray hex = settings.value(QStringLiteral("server/secret")).toByteArray().trimmed();
    if (hex.isEmpty())
        return {};
    // A secret in a file others can read is no secret: it is not used, and the user is told.
    const QString path = settings.fileName();
    if (!qorcalib::handshake::isPrivateFile(path)) {
        if (problem)
            *problem = QStringLiteral("the server's secret in %1 is not used: others can read "
                                      "that file; make it readable by this user only (chmod "
                                      "600), or keep the secret in qorcalib-server.secret "
                                      "beside it")
                           .arg(path);
        return {};
    }
    return QByteArray::fromHex(hex);
}

QString readRemoteServer(const QString& fallback)
{
    QSettings settings(QSettings::IniFormat, QSettings::SystemScope, kCompany,
                       QStringLiteral("Common"));
    const QString name = settings.value(QStringLiteral("Common/RemoteServer")).toString();
    // An empty or one-character value counts as absent, as it always has.
    return name.size() > 1 ? name : fallback;
}

void writeRemoteServer(const QString& name)
{
    QSettings settings(QSettings::IniFormat, QSettings::SystemScope, kCompany,
                       QStringLiteral("Common"));
    settings.setValue(QStringLiteral("Common/RemoteServer"), name);
    settings.sync();
}

QString externalProgram(const QString& name)
{
    QSettings settings = userSettings();
    const QString command = settings.value(QStringLiteral("programs/") + name).toString().trimmed();
    return command.isEmpty() ? name : command;
}

QString userSettingsOrganisation()
{
    return kCompany;
}

QString userSettingsApplication()
{
    return QStringLiteral("Qor.Tessel");
}

QSettings userSettings()
{
    return QSettings(QSettings::IniFormat, QSettings::UserScope, userSettingsOrganisation(),
                     userSettingsApplication());
}

} // namespace tessel

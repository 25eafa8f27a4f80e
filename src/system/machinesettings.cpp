#include "machinesettings.h"

#include <QSettings>

namespace tessel {

namespace {
const QString kCompany = QStringLiteral("Qor");

} // namespace

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

QByteArray readServerSecret()
{
    QSettings settings = userSettings();
    return QByteArray::fromHex(
        settings.value(QStringLiteral("server/secret")).toByteArray().trimmed());
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

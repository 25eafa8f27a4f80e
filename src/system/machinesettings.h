#pragma once

#include <QSettings>
#include <QString>

namespace tessel {

// Machine-wide settings of the program (INI, system scope, organisation "Qor", group
// "Common"): the name of the CAN server to offer at start-up.
QString readRemoteServer(const QString& fallback);
// Failures (a read-only system folder) are ignored: the name is then only not remembered.
void writeRemoteServer(const QString& name);

// The secret that a CAN server listening on TCP asks its clients for: per-user setting
// "server/secret" of "Qor.Tessel", in hexadecimal as the server's secret file holds it. Empty
// when none is set, or when the settings file is readable by others (*problem then says so).
QByteArray readServerSecret(QString* problem = nullptr);

// The command that stands for an external program (postprocess.exe, fflash.exe, ...): the
// per-user setting "programs/<name>" of "Qor.Tessel" when it names one (a wrapper script, say),
// else the name itself, found on PATH.
QString externalProgram(const QString& name);

// Per-user settings "Qor.Tessel" (INI), group "filename".
QString userSettingsOrganisation();
QString userSettingsApplication();
// Those settings, opened.
QSettings userSettings();

} // namespace tessel

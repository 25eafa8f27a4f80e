#include "windowplacement.h"

#include "machinesettings.h"

#include <QSettings>
#include <QWidget>

namespace tessel {

void WindowPlacement::placeNearMain(QWidget* window, const QWidget* mainWindow) const
{
    const QPoint shift = mainWindow->pos() - m_reference;
    window->move(window->pos() + shift);
}

void WindowPlacement::restoreGeometry(QWidget* window, const QString& key)
{
    QSettings settings(QSettings::IniFormat, QSettings::UserScope, userSettingsOrganisation(),
                       userSettingsApplication());
    const QByteArray geometry = settings.value(QStringLiteral("windows/") + key).toByteArray();
    if (!geometry.isEmpty())
        window->restoreGeometry(geometry);
}

void WindowPlacement::saveGeometry(const QWidget* window, const QString& key)
{
    QSettings settings(QSettings::IniFormat, QSettings::UserScope, userSettingsOrganisation(),
                       userSettingsApplication());
    settings.setValue(QStringLiteral("windows/") + key, window->saveGeometry());
}

} // namespace tessel

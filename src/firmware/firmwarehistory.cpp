#include "firmwarehistory.h"

#include "machinesettings.h"

#include <QSettings>

namespace tessel {

void FirmwareHistory::add(const QString& name, const QString& opts)
{
    while (options.size() < names.size())
        options << QString();
    const int p = find(name);
    if (p >= 0) {
        names.move(p, 0);
        options.move(p, 0);
    } else {
        names.prepend(name);
        options.prepend(QString());
    }
    options[0] = opts;
}

void FirmwareHistory::clear()
{
    names.clear();
    options.clear();
}

void FirmwareHistory::load()
{
    QSettings settings = userSettings();
    settings.beginGroup(QStringLiteral("filename"));
    const int count = qMax(0, settings.value(QStringLiteral("fwupdcnt"), 0).toInt());
    names.clear();
    options.clear();
    for (int i = 0; i < count; ++i) {
        names << settings.value(QStringLiteral("fwname%1").arg(i)).toString();
        options << settings.value(QStringLiteral("fwppopt%1").arg(i)).toString();
    }
}

void FirmwareHistory::save() const
{
    QSettings settings = userSettings();
    settings.beginGroup(QStringLiteral("filename"));
    for (int i = 0; i < names.size(); ++i) {
        settings.setValue(QStringLiteral("fwname%1").arg(i), names[i]);
        settings.setValue(QStringLiteral("fwppopt%1").arg(i), options.value(i));
    }
    settings.setValue(QStringLiteral("fwupdcnt"), int(names.size()));
    settings.sync();
}

} // namespace tessel

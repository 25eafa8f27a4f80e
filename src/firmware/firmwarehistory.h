#pragma once

#include <QString>
#include <QStringList>

namespace tessel {

// The firmware files used before, most recent first, each with its post-processor options.
// Kept in the per-user settings "Qor.Tessel", group "filename": "fwupdcnt" (the number of
// entries, written last so that a cut-short save never names entries it did not write), and
// "fwname<i>" / "fwppopt<i>" for i from 0.
class FirmwareHistory
{
public:
    QStringList names;
    QStringList options;

    void load();
    void save() const;
};

} // namespace tessel

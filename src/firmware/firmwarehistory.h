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

    // Position of a name (compared exactly, case included), -1 when absent.
    int find(const QString& name) const { return int(names.indexOf(name)); }
    // After a successful upgrade: the name goes to the top with its options; a name already in
    // the list moves there from its place, the others keep their order. No length limit.
    void add(const QString& name, const QString& options);
    void clear();

    void load();
    void save() const;
};

} // namespace tessel

#include "filedialogfilter.h"

#include <QStringList>

namespace tessel {

QString qtFileDialogFilter(const QString& filter)
{
    const QStringList parts = filter.split(QLatin1Char('|'));
    QStringList out;
    for (qsizetype i = 0; i + 1 < parts.size(); i += 2) {
        QString description = parts[i].trimmed();
        const QString patterns = parts[i + 1].split(QLatin1Char(';'), Qt::SkipEmptyParts).join(QLatin1Char(' '));
        // The description may already show its patterns in parentheses; Qt reads the patterns
        // from the last parenthesised part, so put the real ones there.
        const qsizetype open = description.lastIndexOf(QLatin1Char('('));
        if (open >= 0 && description.endsWith(QLatin1Char(')')))
            description = description.left(open).trimmed();
        out << QStringLiteral("%1 (%2)").arg(description, patterns);
    }
    return out.join(QStringLiteral(";;"));
}

} // namespace tessel

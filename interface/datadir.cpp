#include "datadir.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace qorcalib {

QString dataDirectory()
{
    const QString chosen = qEnvironmentVariable("TESSEL_DATA_DIR");
    if (!chosen.isEmpty())
        return QDir::cleanPath(chosen);
    // Looked up from the program rather than fixed at build time, so that a package installed
    // under any prefix, or unpacked into another root, still finds its own data.
    if (QCoreApplication::instance()) {
        const QString installed = QDir::cleanPath(QCoreApplication::applicationDirPath() +
                                                  QStringLiteral("/" QORCALIB_INSTALLED_DATA));
        if (QFileInfo::exists(installed + QStringLiteral("/drive.eds")))
            return installed;
    }
    return QStringLiteral(QORCALIB_DATA_DIR);
}

QString dataFile(const QString& relativePath)
{
    return dataDirectory() + QLatin1Char('/') + relativePath;
}

} // namespace qorcalib

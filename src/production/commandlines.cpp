#include "commandlines.h"

namespace tessel::production {

namespace {
QString quoted(const QString& path)
{
    return QLatin1Char('"') + path + QLatin1Char('"');
}
} // namespace

std::optional<QString> firmwareBase(const QString& path)
{
    const qsizetype cut = path.lastIndexOf(QLatin1String(".s"), -1, Qt::CaseInsensitive);
    if (cut < 0)
        return std::nullopt;
    return path.left(cut);
}

std::optional<QString> kickstartBase(const QString& base)
{
    const qsizetype slash = base.lastIndexOf(QLatin1Char('/'));
    if (slash < 0)
        return std::nullopt;
    return base.left(slash + 1) + QStringLiteral("kickstart");
}

QString pathWithBlank(const QString& base, const QString& configuration)
{
    for (const QString& path : {base, configuration})
        if (path.contains(QLatin1Char(' ')) || path.contains(QLatin1Char('\t')))
            return path;
    return {};
}

QString stampCommand(const QString& base, qint32 serial, const QString& program)
{
    return program + QLatin1Char(' ') + base + QStringLiteral(".s ") + base +
           QStringLiteral(".sx -i ") + QString::number(serial);
}

QString flashCommand(const QString& configuration, bool recover, const QString& base,
                     const QString& program)
{
    return program + QLatin1Char(' ') + configuration +
           QStringLiteral(" -jtagclk=800 -erase=all ") +
           (recover ? QStringLiteral("-recover ") : QString()) + QStringLiteral("-s -verifyprog ") +
           base + QStringLiteral(".sx");
}

QString kickstartCommand(const QString& kickstart, const QString& base, const QString& program)
{
    return program + QLatin1Char(' ') + kickstart + QStringLiteral(".s ") + kickstart +
           QStringLiteral(".sl -m ") + base + QStringLiteral(".sx -p");
}

QString identityBlockCommand(const QString& sbf, const QString& dbf, qint32 serial,
                             const QString& program)
{
    return program + QLatin1Char(' ') + quoted(sbf) + QLatin1Char(' ') + quoted(dbf) +
           QStringLiteral(" -i ") + QString::number(serial) + QStringLiteral(" -p");
}

QString identityDataCommand(const QString& skf, const QString& dsf, const QString& dbf,
                            const QString& program)
{
    return program + QLatin1Char(' ') + quoted(skf) + QLatin1Char(' ') + quoted(dsf) +
           QStringLiteral(" -m ") + quoted(dbf) + QStringLiteral(" -p");
}

QString createSbbCommand(const QString& sbf, const QString& skf, qint32 serial,
                         const QString& program)
{
    return program + QStringLiteral(" CreateSBB ") + quoted(sbf) + QLatin1Char(' ') + quoted(skf) +
           QLatin1Char(' ') + QString::number(serial);
}

} // namespace tessel::production

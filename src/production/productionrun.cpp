#include "productionrun.h"

#include "commandlines.h"
#include "machinesettings.h"
#include "processrunner.h"

#include <QFile>

namespace tessel {

namespace {
// Run-time error numbers of the runs themselves.
constexpr int kBadFileName = 52;
constexpr int kFileNotFound = 53;
constexpr int kCannotCreate = 75;

ProductionRun::Outcome error(int number, const QString& description)
{
    ProductionRun::Outcome o;
    o.kind = ProductionRun::Outcome::Error;
    o.message = QStringLiteral("Err: %1 %2").arg(number).arg(description);
    return o;
}

// The firmware's base, refused (before any serial is taken) when it has no ".s" or when the
// unquoted command lines would split one of its paths.
std::optional<QString> usableBase(const QString& firmware, const QString& configuration,
                                  ProductionRun::Outcome* failure)
{
    const auto base = production::firmwareBase(firmware);
    if (!base) {
        *failure = error(kBadFileName, QStringLiteral("firmware file '%1' has no .s extension: "
                                                      "nothing run")
                                           .arg(firmware));
        return std::nullopt;
    }
    const QString blank = production::pathWithBlank(*base, configuration);
    if (!blank.isEmpty()) {
        *failure = error(kBadFileName, QStringLiteral("'%1' holds a blank: the programming "
                                                      "commands take paths without blanks; "
                                                      "nothing run")
                                           .arg(blank));
        return std::nullopt;
    }
    return base;
}
} // namespace

QString ProductionRun::program(const QString& name) const
{
    return m_hooks.program ? m_hooks.program(name) : name;
}

std::optional<qint32> ProductionRun::takeSerial(QString* tag, Outcome* failure)
{
    qint32 serial = 0;
    if (!tag->isEmpty()) {
        serial = qint32(tag->toDouble()); // truncated, as a number read from the tag
    } else {
        int number = 0;
        QString description;
        const auto next = m_hooks.nextSerial(&number, &description);
        if (!next) {
            *failure = error(number, description);
            return std::nullopt;
        }
        serial = *next;
    }
    *tag = QString::number(serial);
    return serial;
}

bool ProductionRun::runTool(const QString& label, const QString& commandLine, bool show,
                            Outcome* failure)
{
    const int code = m_hooks.run(commandLine, show);
    if (code == 0)
        return true;
    failure->kind = Outcome::ToolFailed;
    failure->message = label + QStringLiteral(" retval=") + QString::number(code);
    // A program that never ran says why, with its place to set.
    if (const QString missing = missingProgram(commandLine); code == -1 && !missing.isEmpty())
        failure->message += QStringLiteral(": %1; the program to run is set under [programs] in "
                                           "%2")
                                .arg(missing, userSettings().fileName());
    return false;
}

std::optional<QString> ProductionRun::stampedFirmware(const QString& firmware,
                                                      const QString& configuration, QString* tag,
                                                      Outcome* o)
{
    const auto base = usableBase(firmware, configuration, o);
    if (!base)
        return std::nullopt;
    const auto serial = takeSerial(tag, o);
    if (!serial)
        return std::nullopt;
    o->serial = *serial;
    const QString post = program(production::kPostProcess);
    if (!runTool(QStringLiteral("Postprocess"), production::stampCommand(*base, *serial, post),
                 false, o))
        return std::nullopt;
    return base;
}

ProductionRun::Outcome ProductionRun::jtag(const QString& firmware, const QString& configuration,
                                           bool recover, QString* tag)
{
    Outcome o;
    const auto base = stampedFirmware(firmware, configuration, tag, &o);
    if (!base || !runTool(QStringLiteral("FFlash"),
                          production::flashCommand(configuration, recover, *base,
                                                   program(production::kFlasher)),
                          true, &o))
        return o;
    tag->clear();
    return o;
}

ProductionRun::Outcome ProductionRun::serialProgramming(const QString& firmware, QString* tag)
{
    Outcome o;
    const auto base = stampedFirmware(firmware, {}, tag, &o);
    if (!base)
        return o;
    const QString post = program(production::kPostProcess);
    const auto kickstart = production::kickstartBase(*base);
    if (!kickstart)
        return error(kBadFileName, QStringLiteral("firmware file '%1' names no folder: no "
                                                  "kickstart loader beside it")
                                       .arg(firmware));
    if (!runTool(QStringLiteral("Postprocess"),
                 production::kickstartCommand(*kickstart, *base, post), false, &o))
        return o;
    QFile file(*kickstart + QStringLiteral(".sl"));
    if (!file.open(QIODevice::ReadOnly))
        return error(kFileNotFound,
                     QStringLiteral("%1: %2").arg(file.fileName(), file.errorString()));
    return load(file.readAll(), o.serial, tag);
}

ProductionRun::Outcome ProductionRun::identityLoading(QString* tag)
{
    Outcome o;
    const auto serial = takeSerial(tag, &o);
    if (!serial)
        return o;
    o.serial = *serial;
    const auto data = makeIdentityFiles(*serial, &o);
    if (!data)
        return o;
    return load(*data, *serial, tag);
}

ProductionRun::Outcome ProductionRun::load(const QByteArray& image, qint32 serial, QString* tag)
{
    Outcome o;
    o.serial = serial;
    QString failure = m_hooks.loadImage(image);
    std::optional<int> state;
    if (failure.isEmpty())
        state = m_hooks.waitForLoad(&failure);
    if (!state)
        return error(kCannotCreate, failure);
    o.testState = *state;
    if (*state != kLoadedState) {
        o.kind = Outcome::LoadFailed;
        o.message = QStringLiteral("serial load ended in state %1").arg(*state);
        return o;
    }
    tag->clear();
    return o;
}

std::optional<QByteArray> ProductionRun::makeIdentityFiles(qint32 serial, Outcome* failure)
{
    m_kept.clear();
    QStringList files;
    for (const char* prefix : {"sbf", "dbf", "skf", "dsf"}) {
        const QString name = makeTempFileName(QLatin1String(prefix));
        if (name.isEmpty()) {
            for (const QString& f : files)
                QFile::remove(f);
            *failure = error(kCannotCreate,
                             QStringLiteral("no temporary file can be made for the identity data"));
            return std::nullopt;
        }
        files << name;
    }
    const QString &sbf = files[0], &dbf = files[1], &skf = files[2], &dsf = files[3];
    const QString post = program(production::kPostProcess);
    if (!runTool(
            QStringLiteral("ZDProdInterface"),
            production::createSbbCommand(sbf, skf, serial, program(production::kProdInterface)),
            false, failure) ||
        !runTool(QStringLiteral("Postprocess"),
                 production::identityBlockCommand(sbf, dbf, serial, post), false, failure) ||
        !runTool(QStringLiteral("Postprocess"),
                 production::identityDataCommand(skf, dsf, dbf, post), false, failure)) {
        failure->serial = serial;
        m_kept = files; // what went wrong can be looked at
        return std::nullopt;
    }
    QFile out(dsf);
    if (!out.open(QIODevice::ReadOnly)) {
        m_kept = files;
        *failure = error(kFileNotFound, QStringLiteral("%1: %2").arg(dsf, out.errorString()));
        return std::nullopt;
    }
    const QByteArray data = out.readAll();
    out.close();
    for (const QString& f : files)
        QFile::remove(f);
    return data;
}

} // namespace tessel

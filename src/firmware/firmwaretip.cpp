#include "firmwaretip.h"

#include <QFileInfo>

namespace tessel {

namespace {

enum TipError
{
    PostProcessorFailed = 5,
    NoIdentification = 13,
};
enum TipStep
{
    ChosenFile = 1,
    PostProcessorStep = 2,
    OutputFile = 3,
};

UpgradeTip errorTip(int error, int step, const QString& fileName)
{
    QString what;
    switch (error) {
    case FileNotFound:
        what = QStringLiteral("%1 not found").arg(fileName);
        break;
    case FileNotReadable:
        what = QStringLiteral("%1 cannot be read").arg(fileName);
        break;
    case FileTooLarge:
        what = QStringLiteral("%1 is larger than any firmware image (%2 MiB at most)")
                   .arg(fileName)
                   .arg(kMaxImageFileBytes / (1024 * 1024));
        break;
    case PostProcessorFailed:
        what = postProcessorFailure(fileName);
        break;
    default:
        what = QStringLiteral("%1 has no identification block").arg(fileName);
        break;
    }
    return {QStringLiteral("Error: %1/%2").arg(error).arg(step), what};
}

QString hex(quint32 value, int digits)
{
    return QStringLiteral("%1").arg(value, digits, 16, QLatin1Char('0')).toUpper();
}

} // namespace

QString identityTipText(const ImageIdentity& identity, const QDateTime& changed)
{
    const bool full = identity.kind == ImageKind::Identified;
    QString text;
    if (full)
        text += QStringLiteral("App ") + hex(identity.app, 4) + QStringLiteral("h / ");
    text += QLatin1Char('V') + versionText(identity.version);
    if (full)
        text += QStringLiteral(" / SF ") + hex(identity.softwareFingerprint, 8) +
                QStringLiteral("h / HF ") + hex(identity.hardwareFingerprint, 8) + QLatin1Char('h');
    text += QStringLiteral(" (") + changed.toString(QStringLiteral("dd/MM/yyyy HH:mm:ss")) +
            QLatin1Char(')');
    return text;
}

UpgradeTip upgradeTip(const QString& fileName, const QString& options,
                      const PostProcessor& postProcessor)
{
    int error = 0;
    auto identity = classifyImage(fileName, &error);
    if (!identity)
        return errorTip(error, ChosenFile, fileName);
    if (identity->kind == ImageKind::Raw) {
        QString output;
        if (!postProcessor || !postProcessor(fileName, options, &output))
            return errorTip(PostProcessorFailed, PostProcessorStep, fileName);
        identity = classifyImage(output, &error);
        if (!identity)
            return errorTip(error, OutputFile, output);
        if (identity->kind != ImageKind::Identified)
            return errorTip(NoIdentification, OutputFile, output);
    }
    return {identityTipText(*identity, QFileInfo(fileName).lastModified()), {}};
}

} // namespace tessel

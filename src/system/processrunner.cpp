#include "processrunner.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryFile>

namespace tessel {

int runAndWait(const QString& commandLine, bool show)
{
    Q_UNUSED(show);
    QStringList words = QProcess::splitCommand(commandLine);
    if (words.isEmpty())
        return -1;
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    const QString program = words.takeFirst();
    process.start(program, words);
    if (!process.waitForStarted(-1))
        return -1;
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

QString makeTempFileName(const QString& prefix)
{
    const QString folder = qEnvironmentVariableIsSet("TEMP") ? qEnvironmentVariable("TEMP")
                                                             : QDir::tempPath();
    if (folder.isEmpty())
        return {};
    QTemporaryFile file(QDir(folder).filePath(prefix + QStringLiteral("XXXXXX.tmp")));
    file.setAutoRemove(false);
    if (!file.open())
        return {};
    return file.fileName();
}

} // namespace tessel

#include "processrunner.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryFile>

namespace tessel {

QStringList splitCommandLine(const QString& commandLine)
{
    QStringList words;
    QString word;
    bool inWord = false;
    enum { Plain, Single, Double } quote = Plain;
    for (qsizetype i = 0; i < commandLine.size(); ++i) {
        const QChar c = commandLine[i];
        switch (quote) {
        case Single:
            if (c == QLatin1Char('\''))
                quote = Plain;
            else
                word += c;
            break;
        case Double:
            if (c == QLatin1Char('"')) {
                quote = Plain;
            } else if (c == QLatin1Char('\\') && i + 1 < commandLine.size() &&
                       QStringLiteral("\"\\$`").contains(commandLine[i + 1])) {
                word += commandLine[++i];
            } else {
                word += c;
            }
            break;
        case Plain:
            if (c.isSpace()) {
                if (inWord)
                    words << word;
                word.clear();
                inWord = false;
                continue;
            }
            inWord = true;
            if (c == QLatin1Char('\'')) {
                quote = Single;
            } else if (c == QLatin1Char('"')) {
                quote = Double;
            } else if (c == QLatin1Char('\\')) {
                if (i + 1 < commandLine.size())
                    word += commandLine[++i];
            } else {
                word += c;
            }
            break;
        }
    }
    if (inWord)
        words << word;
    return words;
}

QString missingProgram(const QString& commandLine)
{
    const QStringList words = splitCommandLine(commandLine);
    if (words.isEmpty())
        return QStringLiteral("no program is named");
    const QString program = words.first();
    if (program.contains(QLatin1Char('/'))) {
        const QFileInfo info(program);
        if (info.isFile() && info.isExecutable())
            return {};
        return QStringLiteral("%1 is not a program that can be run").arg(program);
    }
    if (!QStandardPaths::findExecutable(program).isEmpty())
        return {};
    return QStringLiteral("%1 was not found in any folder of PATH (%2)")
        .arg(program, qEnvironmentVariable("PATH"));
}

int runAndWait(const QString& commandLine, bool show)
{
    Q_UNUSED(show);
    QStringList words = splitCommandLine(commandLine);
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

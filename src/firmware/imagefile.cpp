#include "imagefile.h"

#include "machinesettings.h"
#include "processrunner.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cctype>

namespace tessel {

namespace {

constexpr quint32 kRawCodeAddress = 0x3000000;
constexpr quint32 kIdentificationAddress = 0x8000000;
constexpr quint32 kVersionWordAddress = 0x86;
constexpr char kTextLimit = '\x02';

// A hexadecimal field of the image; 0 when it is cut short or holds anything but digits.
qint64 hexField(const QByteArray& text, qsizetype start, int length)
{
    if (start + length > text.size())
        return 0;
    qint64 value = 0;
    for (qsizetype i = start; i < start + length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (!std::isxdigit(c))
            return 0;
        value = value * 16 + (std::isdigit(c) ? c - '0' : std::toupper(c) - 'A' + 10);
    }
    return value;
}

} // namespace

QByteArray readImageWords(const QByteArray& image, quint32 wordAddress, int wordCount)
{
    const qsizetype limit = image.indexOf(kTextLimit);
    const qint64 address = wordAddress;
    qint64 remaining = qint64(wordCount) * 2;
    QByteArray result;
    qsizetype from = 0;
    while (remaining >= 1) {
        const qsizetype found = image.indexOf("S3", from);
        if (found < 0 || (limit >= 0 && found > limit))
            break;
        from = found + 2;
        const qint64 n = hexField(image, found + 2, 2) - 5;
        const qint64 a = hexField(image, found + 4, 8);
        // n / 2 truncates toward zero, as the record's word count always has.
        if (a + n / 2 <= address || address < a)
            continue;
        const qint64 take = std::min(n - (address - a) * 2, remaining);
        result += image.mid(found + 12, take * 2);
        remaining -= take;
    }
    return result;
}

quint32 littleEndianValue(const QByteArray& hexText, int digits)
{
    const QByteArray field = hexText.left(digits);
    QByteArray reversed;
    for (qsizetype i = 0; i < field.size(); i += 2)
        reversed.prepend(field.mid(i, 2));
    return quint32(hexField(reversed, 0, int(reversed.size())));
}

ImageIdentity classifyImageText(const QByteArray& image)
{
    ImageIdentity id;
    if (!readImageWords(image, kRawCodeAddress, 1).isEmpty()) {
        id.kind = ImageKind::Raw;
        return id;
    }
    const QByteArray block = readImageWords(image, kIdentificationAddress, 10);
    if (!block.isEmpty()) {
        id.kind = ImageKind::Identified;
        id.app = quint16(littleEndianValue(block.mid(0, 4), 4));
        id.version = littleEndianValue(block.mid(8, 8), 8);
        id.softwareFingerprint = littleEndianValue(block.mid(16, 8), 8);
        id.hardwareFingerprint = littleEndianValue(block.mid(24, 8), 8);
        return id;
    }
    const QByteArray word = readImageWords(image, kVersionWordAddress, 2);
    if (!word.isEmpty()) {
        id.kind = ImageKind::VersionOnly;
        id.version = littleEndianValue(word, 8);
    }
    return id;
}

std::optional<ImageIdentity> classifyImage(const QString& fileName, int* errorNumber)
{
    QFile file(fileName);
    if (fileName.isEmpty() || !QFileInfo::exists(fileName)) {
        *errorNumber = FileNotFound;
        return std::nullopt;
    }
    if (QFileInfo(fileName).isDir() || !file.open(QIODevice::ReadOnly)) {
        *errorNumber = FileNotReadable;
        return std::nullopt;
    }
    if (file.size() > kMaxImageFileBytes) {
        *errorNumber = FileTooLarge;
        return std::nullopt;
    }
    return classifyImageText(file.readAll());
}

QString versionText(quint32 version)
{
    return QStringLiteral("%1.%2.%3")
        .arg(version / 65536)
        .arg((version & 0xFFFF) / 256)
        .arg(version & 0xFF);
}

std::optional<QString> postProcessOutput(const QString& fileName)
{
    const qsizetype dot = fileName.lastIndexOf(QLatin1String(".s"), -1, Qt::CaseInsensitive);
    if (dot < 0)
        return std::nullopt;
    return fileName.left(dot + 1) + QStringLiteral("sx");
}

namespace {
// A word that the command-line splitting keeps as it is.
QString quotedWord(const QString& word)
{
    static const QString plain = QStringLiteral("+-./:=@_,%");
    const bool safe = !word.isEmpty() && std::all_of(word.begin(), word.end(), [](QChar c) {
        return (c.unicode() < 128 && c.isLetterOrNumber()) || plain.contains(c);
    });
    if (safe)
        return word;
    return QLatin1Char('\'') + QString(word).replace(QLatin1String("'"), QLatin1String("'\\''")) +
           QLatin1Char('\'');
}
} // namespace

QString postProcessCommand(const QString& program, const QString& fileName,
                           const QString& outputFileName, const QString& options)
{
    return program + QLatin1Char(' ') + quotedWord(fileName) + QLatin1Char(' ') +
           quotedWord(outputFileName) + QLatin1Char(' ') + options;
}

QString postProcessProgram()
{
    return externalProgram(QStringLiteral("postprocess.exe"));
}

QString postProcessorFailure(const QString& fileName)
{
    const QString missing = missingProgram(postProcessProgram());
    if (missing.isEmpty())
        return QStringLiteral("the post-processor failed on %1").arg(fileName);
    return QStringLiteral("the post-processor did not run: %1; the program to run is set under "
                          "[programs] postprocess.exe in %2")
        .arg(missing, userSettings().fileName());
}

bool postProcess(const QString& fileName, const QString& options, QString* outputFileName)
{
    const auto output = postProcessOutput(fileName);
    if (!output)
        return false;
    *outputFileName = *output;
    return runAndWait(postProcessCommand(postProcessProgram(), fileName, *output, options),
                      false) == 0;
}

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace tessel {

// Firmware image files: text files of S3 records whose 32-bit addresses count 16-bit words of
// the drive's processor. A hybrid image (.sx) is S-record text, a character STX (code 2), and
// further content; records are looked for only before the STX. The program only peeks at a
// few words at fixed addresses: checksums are not verified, and a field that is not all
// hexadecimal digits reads as 0.

enum class ImageKind
{
    Unknown = 0,     // no identification found
    Raw = 1,         // code at 0x3000000: needs the post-processor
    Identified = 2,  // full identification block at 0x8000000
    VersionOnly = 3, // version word at 0x86
};

struct ImageIdentity
{
    ImageKind kind = ImageKind::Unknown;
    quint16 app = 0;
    quint32 version = 0;
    quint32 softwareFingerprint = 0;
    quint32 hardwareFingerprint = 0;
};

// The data of wordCount words from wordAddress on, as hexadecimal pairs in file order; empty
// when no record holds the address. The pairs always start at the first data byte of the
// record that holds the address, not at the word inside it: callers ask for addresses at which
// a record begins. A record that begins after the address is skipped, so the result can be
// shorter than asked.
QByteArray readImageWords(const QByteArray& image, quint32 wordAddress, int wordCount);
// The first `digits` (4 or 8) characters of hexText as bytes in reverse order, read as one
// hexadecimal number; missing characters are left out, malformed ones give 0.
quint32 littleEndianValue(const QByteArray& hexText, int digits);
ImageIdentity classifyImageText(const QByteArray& image);

// Errors of reading an image file, by the numbers the tool tip shows.
enum ImageFileError
{
    FileTooLarge = 7,
    FileNotFound = 53,
    FileNotReadable = 75,
};
// No image a drive's boot loader takes comes near this; a larger file is not read at all.
constexpr qint64 kMaxImageFileBytes = 16 * 1024 * 1024;
// The file's kind and identification; nullopt when it cannot be read, with the error number.
std::optional<ImageIdentity> classifyImage(const QString& fileName, int* errorNumber);

// "major.minor.build" of a version value: value / 65536, (value & 0xFFFF) / 256, value & 0xFF.
QString versionText(quint32 version);

// The post-processor's output for an image: the name up to its last ".s" (any case), then
// ".sx"; nullopt when the name has no ".s", which is never post-processed.
std::optional<QString> postProcessOutput(const QString& fileName);
// The post-processor's command line: program, the file, its output, then the options as they
// stand. The two names are quoted when the command-line splitting would otherwise change them
// (blanks, quotes, backslashes).
QString postProcessCommand(const QString& program, const QString& fileName,
                           const QString& outputFileName, const QString& options);
// The post-processor's program: "postprocess.exe", found on PATH, unless the per-user setting
// "programs/postprocess.exe" names another command.
QString postProcessProgram();
// Runs the post-processor and waits for it; true, with the output's name, when it exits with 0.
bool postProcess(const QString& fileName, const QString& options, QString* outputFileName);
// Why post-processing a file failed, in words: the program missing (where it was looked for and
// where to name it), or the program's own failure.
QString postProcessorFailure(const QString& fileName);

} // namespace tessel

#include "datatable.h"
#include "firmwarehistory.h"
#include "firmwaretip.h"
#include "imagefile.h"
#include "srecords.h"

#include <QtTest>

using namespace tessel::test;
using namespace tessel;

Q_DECLARE_METATYPE(tessel::ImageKind)

namespace {
const QByteArray kBlock = identificationBlock(0x0012, 0x00020107, 0x0001A2B3, 0x00000004);
const QByteArray kCode = s3Record(0x3000000, QByteArray(32, '\x5A'));
} // namespace

class TstFirmware : public QObject
{
    Q_OBJECT
private slots:
    // Reading firmware image files: the words at fixed addresses, the kind and identification, and
    // the post-processor call, on hand-made S-record files.
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_dir.filePath("settings"));
        qputenv("PATH", QByteArray(QORCALIB_DATA_DIR "/bin:") + qgetenv("PATH"));
    }

    void readImageWords_data()
    {
        columns<QByteArray, quint32, int, QByteArray>({"image", "address", "words", "expected"});

        const QByteArray eight = "0102030405060708";
        row("record at the address", s3Record(0x86, QByteArray::fromHex(eight)), 0x86u, 2,
            QByteArray("01020304"));
        row("more words than the record has: what it has",
            s3Record(0x86, QByteArray::fromHex(eight)), 0x86u, 10, eight);
        row("the next record begins after the address: not read",
            s3Record(0x86, QByteArray::fromHex("0102")) +
                s3Record(0x87, QByteArray::fromHex("0304")),
            0x86u, 2, QByteArray("0102"));
        // Deliberately from the record's first byte, not from the wanted word inside it.
        row("address inside a record: from its first byte",
            s3Record(0x84, QByteArray::fromHex(eight)), 0x86u, 2, QByteArray("01020304"));
        row("record after the address is skipped", s3Record(0x87, QByteArray::fromHex(eight)),
            0x86u, 2, QByteArray());
        // Nine bytes are four words (the count truncates): the odd last byte does not reach 0x86.
        row("odd record ending just before the address",
            s3Record(0x82, QByteArray::fromHex("010203040506070809")), 0x86u, 2, QByteArray());
        row("record ending before the address", s3Record(0x80, QByteArray::fromHex(eight)), 0x86u,
            2, QByteArray());
        row("16-byte block, 10 words asked: 16 bytes", s3Record(0x8000000, kBlock.left(16)),
            0x8000000u, 10, kBlock.left(16).toHex().toUpper());
        row("lower-case digits", "S3" + s3Record(0x86, QByteArray::fromHex(eight)).mid(2).toLower(),
            0x86u, 2, QByteArray("01020304"));
        row("malformed byte count reads as 0: skipped", QByteArray("S3ZZ000000860102030405\r\n"),
            0x86u, 2, QByteArray());
        row("malformed address reads as 0", QByteArray("S30900000G860102030405\r\n"), 0x86u, 2,
            QByteArray());
        row("byte count running past the line takes the next line",
            QByteArray("S3FF000000860102\r\nS7"), 0x86u, 2, QByteArray("0102\r\nS7"));
        row("record cut short by the end of the file", QByteArray("S30D0000008601"), 0x86u, 2,
            QByteArray("01"));
        row("records after STX are not looked at",
            QByteArray("S00300FC\r\n\x02") + s3Record(0x86, QByteArray::fromHex(eight)), 0x86u, 2,
            QByteArray());
        row("data of a record before STX may run into it", QByteArray("S30D000000860102\x02"),
            0x86u, 2, QByteArray("0102\x02"));
        row("empty", QByteArray(), 0x86u, 2, QByteArray());
        row("S3 at the very end", QByteArray("xxS3"), 0x86u, 2, QByteArray());
    }

    void readImageWords()
    {
        auto [image, address, words] = fetch<QByteArray, quint32, int>("image", "address", "words");
        QTEST(tessel::readImageWords(image, address, words), "expected");
    }

    void classify_data()
    {
        columns<QByteArray, ImageKind, quint32, quint32, quint32, quint32>(
            {"image", "kind", "app", "version", "sf", "hf"});

        const QByteArray block = s3Record(0x8000000, kBlock);
        row("full block", block, ImageKind::Identified, 0x12u, 0x00020107u, 0x0001A2B3u, 4u);
        row("raw code wins over a block", block + kCode, ImageKind::Raw, 0u, 0u, 0u, 0u);
        row("16-byte block: every field", s3Record(0x8000000, kBlock.left(16)),
            ImageKind::Identified, 0x12u, 0x00020107u, 0x0001A2B3u, 4u);
        row("8-byte block: the fingerprints read 0", s3Record(0x8000000, kBlock.left(8)),
            ImageKind::Identified, 0x12u, 0x00020107u, 0u, 0u);
        row("version word", s3Record(0x100, QByteArray(32, 'x')) + s3Record(0x86, le32(0x00020009)),
            ImageKind::VersionOnly, 0u, 0x00020009u, 0u, 0u);
        row("block before a version word", s3Record(0x86, le32(0x00020009)) + block,
            ImageKind::Identified, 0x12u, 0x00020107u, 0x0001A2B3u, 4u);
        row("hybrid: records before STX count", block + "\x02" + QByteArray(100, '\xFF'),
            ImageKind::Identified, 0x12u, 0x00020107u, 0x0001A2B3u, 4u);
        row("hybrid: records only after STX", QByteArray("\x02") + block + kCode,
            ImageKind::Unknown, 0u, 0u, 0u, 0u);
        row("version word running past its line reads 0",
            QByteArray("S3FF000000860900\r\nS70500000000FA\r\n"), ImageKind::VersionOnly, 0u, 0u,
            0u, 0u);
        row("no records", QByteArray("hello\r\n"), ImageKind::Unknown, 0u, 0u, 0u, 0u);
        row("empty", QByteArray(), ImageKind::Unknown, 0u, 0u, 0u, 0u);
        QByteArray garbage(4096, '\0');
        for (int i = 0; i < garbage.size(); ++i)
            garbage[i] = char((i * 131 + 7) % 256);
        row("binary garbage", garbage, ImageKind::Unknown, 0u, 0u, 0u, 0u);
    }

    void classify()
    {
        auto [image, kind, app, version] =
            fetch<QByteArray, ImageKind, quint32, quint32>("image", "kind", "app", "version");
        const QString path = write(QStringLiteral("image.S"), image);
        int error = 0;
        const auto id = classifyImage(path, &error);
        QVERIFY(id);
        QCOMPARE(id->kind, kind);
        QCOMPARE(quint32(id->app), app);
        QCOMPARE(id->version, version);
        QTEST(id->softwareFingerprint, "sf");
        QTEST(id->hardwareFingerprint, "hf");
    }

    void versionText_data()
    {
        columns<quint32, QString>({"value", "text"});
        row("1.2.3", 0x00010203u, "1.2.3");
        row("two-digit minor", 0x00020A01u, "2.10.1");
        row("zero", 0u, "0.0.0");
        row("all bits", 0xFFFFFFFFu, "65535.255.255");
    }

    void versionText()
    {
        QFETCH(quint32, value);
        QTEST(tessel::versionText(value), "text");
    }

    void unreadableFiles_data()
    {
        columns<QString, int>({"path", "error"});
        row("missing", m_dir.filePath("missing.S"), int(FileNotFound));
        row("empty name", QString(), int(FileNotFound));
        row("a folder", m_dir.path(), int(FileNotReadable));
        // Sparse: 2 GiB that take no room, refused by their size before anything is read.
        const QString huge = m_dir.filePath("huge.S");
        QFile file(huge);
        if (file.open(QIODevice::WriteOnly) && file.resize(qint64(2) << 30))
            row("2 GiB", huge, int(FileTooLarge));
        // One byte past the largest image there is.
        const QString over = m_dir.filePath("over.S");
        QFile past(over);
        if (past.open(QIODevice::WriteOnly) && past.resize(kMaxImageFileBytes + 1))
            row("16 MiB + 1", over, int(FileTooLarge));
    }

    void unreadableFiles()
    {
        QFETCH(QString, path);
        int found = 0;
        QVERIFY(!classifyImage(path, &found));
        QTEST(found, "error");
    }

    void postProcessOutputName_data()
    {
        columns<QString, QString>({"file", "output"});
        row(".S", "/fw/app.S", "/fw/app.sx");
        row(".s", "/fw/app.s", "/fw/app.sx");
        row(".sre", "/fw/app.sre", "/fw/app.sx");
        row("the last .s", "/fw.s/app.S", "/fw.s/app.sx");
        row("no .s", "/fw/image.bin", QString());
    }

    void postProcessOutputName()
    {
        QFETCH(QString, file);
        QTEST(postProcessOutput(file).value_or(QString()), "output");
    }

    void postProcessCommandLine_data()
    {
        columns<QString, QString, QString>({"file", "options", "line"});
        row("options", "/fw/app.S", "-x", "postprocess.exe /fw/app.S /fw/app.sx -x");
        row("no options: the blank stays", "/fw/app.S", "",
            "postprocess.exe /fw/app.S /fw/app.sx ");
        row("options as they stand", "/fw/app.S", "-a  'b c'",
            "postprocess.exe /fw/app.S /fw/app.sx -a  'b c'");
        row("a blank in the name is quoted", "/my fw/app.S", "",
            "postprocess.exe '/my fw/app.S' '/my fw/app.sx' ");
        row("a quote in the name", "/fw/it's.S", "",
            "postprocess.exe '/fw/it'\\''s.S' '/fw/it'\\''s.sx' ");
    }

    void postProcessCommandLine()
    {
        auto [file, options, line] = fetch<QString, QString, QString>("file", "options", "line");
        QCOMPARE(postProcessCommand(QStringLiteral("postprocess.exe"), file,
                                    postProcessOutput(file).value(), options),
                 line);
    }

    void postProcessRunsTheStandIn_data()
    {
        columns<QString, QString, bool>({"name", "options", "succeeds"});
        row("plain", "raw.S", "", true);
        row("-x", "raw.s", "-x", true);
        row("a blank in the name", "my raw.S", "-x", true);
        row("non-zero exit", "raw.S", "--fail", false);
        row("refused option", "raw.S", "-q", false);
        row("no .s: never run", "raw.bin", "", false);
    }

    void postProcessRunsTheStandIn()
    {
        auto [name, options, succeeds] =
            fetch<QString, QString, bool>("name", "options", "succeeds");
        const QString path = write(name, s3Record(0x8000000, kBlock) + kCode);
        QString output;
        const QString expected = postProcessOutput(path).value_or(QString());
        if (!expected.isEmpty())
            QFile::remove(expected);
        QCOMPARE(postProcess(path, options, &output), succeeds);
        if (!succeeds) {
            QVERIFY(expected.isEmpty() || !QFile::exists(expected));
            return;
        }
        QCOMPARE(output, expected);
        int error = 0;
        const auto id = classifyImage(output, &error);
        QVERIFY(id);
        QCOMPARE(id->kind, ImageKind::Identified);
        QCOMPARE(id->version, 0x00020107u);
    }

    // The firmware file history: how an upgrade moves a file to the top, and how the list is kept
    // in the per-user settings.
    void add_data()
    {
        columns<QStringList, QStringList, QString, QString, QStringList, QStringList>(
            {"names", "options", "name", "option", "namesAfter", "optionsAfter"});

        const QStringList abc{"a.S", "b.S", "c.S"};
        const QStringList opts{"-1", "-2", "-3"};
        row("third to the top, the others keep their order", abc, opts, "c.S", "-9",
            QStringList{"c.S", "a.S", "b.S"}, QStringList{"-9", "-1", "-2"});
        row("second to the top", abc, opts, "b.S", "-2", QStringList{"b.S", "a.S", "c.S"},
            QStringList{"-2", "-1", "-3"});
        row("the top again: only its options change", abc, opts, "a.S", "-x", abc,
            QStringList{"-x", "-2", "-3"});
        row("a new file goes on top", abc, opts, "d.S", "", QStringList{"d.S", "a.S", "b.S", "c.S"},
            QStringList{"", "-1", "-2", "-3"});
        row("names compare exactly", abc, opts, "A.S", "", QStringList{"A.S", "a.S", "b.S", "c.S"},
            QStringList{"", "-1", "-2", "-3"});
        row("into an empty list", QStringList(), QStringList(), "a.S", "-x", QStringList{"a.S"},
            QStringList{"-x"});
        row("fewer options than names: the rest are empty", abc, QStringList{"-1"}, "c.S", "-3",
            QStringList{"c.S", "a.S", "b.S"}, QStringList{"-3", "-1", ""});
    }

    void add()
    {
        auto [names, options, name, option] =
            fetch<QStringList, QStringList, QString, QString>("names", "options", "name", "option");
        FirmwareHistory history;
        history.names = names;
        history.options = options;
        history.add(name, option);
        QTEST(history.names, "namesAfter");
        QTEST(history.options, "optionsAfter");
        QCOMPARE(history.find(name), 0);
    }

    void savedAndLoaded()
    {
        QTemporaryDir dir;
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir.path());
        FirmwareHistory saved;
        saved.add("/fw/one.S", "-x");
        saved.add("/fw/two.sx", "");
        saved.save();
        FirmwareHistory loaded;
        loaded.load();
        QCOMPARE(loaded.names, saved.names);
        QCOMPARE(loaded.options, saved.options);
        QSettings settings(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel");
        QCOMPARE(settings.value("filename/fwupdcnt").toInt(), 2);
        QCOMPARE(settings.value("filename/fwname0").toString(), QString("/fw/two.sx"));
        QCOMPARE(settings.value("filename/fwppopt1").toString(), QString("-x"));
        // A cleared list saves no entries.
        loaded.clear();
        loaded.save();
        FirmwareHistory empty;
        empty.load();
        QVERIFY(empty.names.isEmpty());
    }

private:
    QString write(const QString& name, const QByteArray& content)
    {
        const QString path = m_dir.filePath(name);
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
            return {};
        return path;
    }
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TstFirmware)
#include "tst_firmware.moc"

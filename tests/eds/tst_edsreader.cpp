#include "datatable.h"
#include "edsreader.h"
#include "filedialogfilter.h"
#include "frmeds.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstEdsReader : public QObject
{
    Q_OBJECT
private slots:
    void edsNumber_data()
    {
        columns<QString, qint32>({"text", "value"});
        row("hex", "0x1000", 0x1000);
        row("decimal", "4096", 4096);
        row("octal", "010000", 4096);
        row("zero", "0", 0);
        row("010 is eight", "010", 8);
        row("upper X is not hex", "0X10", 0);
        row("blanks", "  0x1a  ", 26);
        row("stops at junk", "12ab", 12);
        row("empty", "", 0);
    }

    void edsNumber()
    {
        QFETCH(QString, text);
        QTEST(tessel::edsNumber(text), "value");
    }

    void keySpellings()
    {
        const QString path = write(
            "[MandatoryObjects]\r\nSupportedObjects=3\r\n1=0x1000\r\n02=4096\r\n003=010030\r\n"
            "[OptionalObjects]\r\nSupportedObjects=2\r\n1=0x1018\r\n2=0x9999\r\n"
            "[ManufacturerObjects]\r\nsupportedobjects = 1\r\n1 = 0x2000\r\n"
            "[1000]\r\nParameterName=Device Type\r\n"
            "[1018]\r\nParameterName=Identity\r\nSubNumber=0x3\r\n"
            "[1018sub01]\r\nParameterName=Vendor\r\n"
            "[1018sub2]\r\nParameterName=Product\r\n"
            "[1018SUB0]\r\nParameterName=Count\r\n"
            "[1018]\r\nParameterName=Second section of the same name\r\n"
            "[2000]\r\nPARAMETERNAME =  Spaced name  \r\nSubNumber=0\r\n");
        const QList<EdsEntry> e = readEds(path);
        QStringList seen;
        for (const EdsEntry& x : e)
            seen << QStringLiteral("%1 %2 %3").arg(x.name).arg(x.index, 0, 16).arg(x.subIndex);
        QCOMPARE(seen, (QStringList{
                           "Device Type 1000 0",       // "1=0x1000"; "02=4096" names it again
                           "Identity\\Vendor 1018 1",  // "003=010030", octal for 0x1018
                           "Identity\\Product 1018 2", // "1018sub2" when "1018sub02" is missing
                           "Identity\\ 1018 3",        // no sub-entry 3: the name ends in "\"
                                                       // the same object listed again: once
                           " 9999 0",                  // no section: no name
                           "Spaced name 2000 0",
                       }));
    }

    void unreadableFiles_data()
    {
        columns<QByteArray, bool>({"content", "exists"});
        row("missing", QByteArray(), false);
        row("empty", QByteArray(), true);
        QByteArray garbage(8192, '\0');
        for (int i = 0; i < garbage.size(); ++i)
            garbage[i] = char((i * 7919 + 13) & 0xFF);
        row("binary garbage", garbage, true);
        row("count without entries", QByteArray("[OptionalObjects]\nSupportedObjects=500\n"), true);
    }

    void unreadableFiles()
    {
        auto [content, exists] = fetch<QByteArray, bool>("content", "exists");
        const QString path = exists ? write(content) : m_dir.filePath("none.eds");
        QVERIFY(readEds(path).isEmpty());
    }

    void costBoundedByTheFile_data()
    {
        // content: empty: a sparse 2 GiB file
        columns<QByteArray, int, QString>({"content", "entries", "note"});
        QByteArray sameObject = "[OptionalObjects]\nSupportedObjects=1000\n";
        for (int i = 1; i <= 1000; ++i)
            sameObject += QByteArray::number(i) + "=0x2100\n";
        sameObject += "[2100]\nParameterName=T\nSubNumber=65535\n";
        row("one object listed 1000 times", sameObject, 65535, QString());
        row("the same object in two lists",
            QByteArray(
                "[MandatoryObjects]\nSupportedObjects=1\n1=0x1000\n"
                "[OptionalObjects]\nSupportedObjects=1\n1=0x1000\n[1000]\nParameterName=D\n"),
            1, QString());
        row("two objects of 65535 entries",
            QByteArray("[OptionalObjects]\nSupportedObjects=2\n1=0x2100\n2=0x2200\n"
                       "[2100]\nSubNumber=65535\n[2200]\nSubNumber=65535\n"),
            65536, "lists more than 65536 entries; the first 65536 are shown");
        row("2 GiB", QByteArray(), 0, "holds 2048 MiB");
    }

    void costBoundedByTheFile()
    {
        auto [content, note] = fetch<QByteArray, QString>("content", "note");
        QString path = m_dir.filePath("huge.eds");
        if (content.isEmpty()) {
            QFile f(path);
            if (!f.open(QIODevice::WriteOnly) || !f.resize(qint64(2) << 30))
                QSKIP("no room for a sparse 2 GiB file here");
        } else {
            path = write(content);
        }
        QString said;
        QTEST(int(readEds(path, &said).size()), "entries");
        if (note.isEmpty())
            QCOMPARE(said, QString());
        else
            QVERIFY2(said.contains(note), qPrintable(said));
    }

    void countsBeyondTheKeys_data()
    {
        columns<QByteArray, QByteArray, QList<int>>({"count", "keys", "indexes"});
        const QByteArray two = "1=0x2001\n2=0x2002\n";
        row("2^31 - 1 with two objects", QByteArray("2147483647"), two, QList<int>{0x2001, 0x2002});
        row("2^31 - 1 and no object", QByteArray("2147483647"), QByteArray(), QList<int>{});
        row("ten million", QByteArray("10000000"), two, QList<int>{0x2001, 0x2002});
        row("sparse keys up to the last index", QByteArray("2147483647"),
            QByteArray("1=0x2001\n65535=0x2002\n"), QList<int>{0x2001, 0x2002});
        row("a key past what an index can address", QByteArray("2147483647"),
            QByteArray("1=0x2001\n65536=0x2002\n"), QList<int>{0x2001});
        row("count below the keys", QByteArray("1"), two, QList<int>{0x2001});
    }

    void countsBeyondTheKeys()
    {
        auto [count, keys] = fetch<QByteArray, QByteArray>("count", "keys");
        const QString path = write("[ManufacturerObjects]\nSupportedObjects=" + count + "\n" +
                                   keys + "[2001]\nParameterName=A\n[2002]\nParameterName=B\n");
        QList<int> found;
        for (const EdsEntry& e : readEds(path))
            found << e.index;
        QTEST(found, "indexes");
    }

    void subNumberRule_data()
    {
        columns<QByteArray, QByteArray, int, int>(
            {"supported", "subNumber", "entries", "lastSubIndex"});
        row("three", QByteArray("2"), QByteArray("3"), 3, 3);
        row("past 0xFF", QByteArray("2"), QByteArray("300"), 300, 300);
        row("zero: the object itself", QByteArray("2"), QByteArray("0"), 1, 0);
        row("negative: nothing", QByteArray("2"), QByteArray("-1"), 0, -1);
        // "1e1" is 1, not ten: only the first key is read, and the object at key 2 is not listed.
        row("count with an exponent", QByteArray("1e1"), QByteArray("0"), 0, -1);
    }

    void subNumberRule()
    {
        auto [supported, subNumber, lastSubIndex] =
            fetch<QByteArray, QByteArray, int>("supported", "subNumber", "lastSubIndex");
        const QList<EdsEntry> e =
            readEds(write("[OptionalObjects]\nSupportedObjects=" + supported +
                          "\n2=0x2100\n[2100]\nParameterName=Table\nSubNumber=" + subNumber +
                          "\n[2100sub12C]\nParameterName=Far\n"));
        QTEST(int(e.size()), "entries");
        if (lastSubIndex >= 0)
            QCOMPARE(e.last().subIndex, lastSubIndex);
        if (lastSubIndex == 300)
            QCOMPARE(e.last().name, QString("Table\\Far"));
    }

    void driveEds()
    {
        const QList<EdsEntry> e = readEds(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"));
        QVERIFY(e.size() > 60);
        const auto vendor = std::find_if(e.begin(), e.end(), [](const EdsEntry& x) {
            return x.name == QStringLiteral("Identity Object\\Vendor-ID");
        });
        QVERIFY(vendor != e.end());
        QCOMPARE(vendor->index, 0x1018);
        QCOMPARE(vendor->subIndex, 1);
    }

    void browserPutsTheAddress_data()
    {
        columns<QString, bool, QString>({"node", "doubleClick", "address"});
        row("button", "1", false, "1,1018,1");
        row("double click", "1", true, "1,1018,1");
        row("empty node", "", false, "0,1018,1");
        // Decimal in the box, hexadecimal in the address, which reads it so.
        row("node 12", "12", true, "C,1018,1");
        row("node 127", "127", false, "7F,1018,1");
    }

    void browserPutsTheAddress()
    {
        auto [node, doubleClick] = fetch<QString, bool>("node", "doubleClick");
        FrmEDS browser(nullptr, nullptr);
        QString put;
        QObject::connect(&browser, &FrmEDS::addressChosen,
                         [&put](const QString& text) { put = text; });
        browser.txtFileName->setText(QStringLiteral(QORCALIB_DATA_DIR "/drive.eds"));
        browser.show();
        QVERIFY(browser.lstKey->count() > 60);
        browser.cmdMove_Click(); // nothing selected: nothing happens
        QCOMPARE(put, QString());
        const auto items =
            browser.lstKey->findItems("Identity Object\\Vendor-ID", Qt::MatchExactly);
        QCOMPARE(items.size(), 1);
        browser.txtNode->setText(node);
        browser.lstKey->setCurrentItem(items.first());
        if (doubleClick) {
            QVERIFY(QTest::qWaitForWindowExposed(&browser));
            browser.lstKey->scrollToItem(items.first());
            const QRect r = browser.lstKey->visualItemRect(items.first());
            QTest::mouseClick(browser.lstKey->viewport(), Qt::LeftButton, {}, r.center());
            QTest::mouseDClick(browser.lstKey->viewport(), Qt::LeftButton, {}, r.center());
        } else {
            QTest::mouseClick(browser.cmdMove, Qt::LeftButton);
        }
        QTEST(put, "address");
    }

    void fileDialogFilter()
    {
        QCOMPARE(qtFileDialogFilter("EDS files (*.eds)|*.eds|All Files (*.*)|*.*"),
                 QString("EDS files (*.eds);;All Files (*.*)"));
        QCOMPARE(qtFileDialogFilter("All ZD/ZDx firmware files (*.S;*.sx;*.sre)|*.S;*.sx;*.sre|"
                                    "Motorola HEX files (*.S)|*.S"),
                 QString("All ZD/ZDx firmware files (*.S *.sx *.sre);;Motorola HEX files (*.S)"));
    }

private:
    QString write(const QByteArray& content)
    {
        const QString path = m_dir.filePath(QStringLiteral("f%1.eds").arg(m_files++));
        QFile f(path);
        if (f.open(QIODevice::WriteOnly))
            f.write(content);
        return path;
    }
    QTemporaryDir m_dir;
    int m_files = 0;
};

QTEST_MAIN(TstEdsReader)
#include "tst_edsreader.moc"

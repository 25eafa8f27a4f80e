// The firmware panel end to end, against the real server and its simulated drive: the boot
// catch, a raw image post-processed by the stand-in, the upgrade with its progress, the release
// and the new version read back; every failure of the upgrade; the server lost during the
// download.
#include "canlink.h"
#include "controllerpanel.h"
#include "datatable.h"
#include "frmmain.h"
#include "sdopanel.h"
#include "srecords.h"
#include "tesselharness.h"
#include "upgradepanel.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstUpgrade : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        m_bench.useOwnSettings();
        qputenv("PATH", QByteArray(QORCALIB_DATA_DIR "/bin:") + qgetenv("PATH"));
    }

    void init()
    {
        QSettings(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel").clear();
    }

    void catchUpgradeReleaseAndReadBack()
    {
        // On the paced bus the image takes long enough for the progress to show. A raw image: the
        // stand-in post-processes it first, with the options given.
        m_bench.server = std::make_unique<qorcalib::test::ServerProcess>();
        QVERIFY(m_bench.server->start());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().contains("> 7F "), 5000);
        UpgradePanel* p = t.window.upgradePanel;
        QCOMPARE(read(t, "1,100A,0"), QString("FW 3.4.12"));

        const QString raw = copyToTemp("raw-2.2.0.S");
        p->cmbFileName->setEditText(raw);
        p->txtPostProcOpt->setText("-x");
        t.window.txtFWNode->setText("1");
        QTest::mouseClick(p->cmdStopOnBoot[0], Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString("Boot V1.2.3"));
        QVERIFY(t.window.upgradePanel->procedure().benchPending());

        QList<int> progress;
        connect(t.window.prbStato, &QProgressBar::valueChanged, this,
                [&progress](int v) { progress << v; });
        const qsizetype traceBefore = t.trace().size();
        QTest::mouseClick(p->cmdUpgrade, Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString());
        QVERIFY2(t.window.sbrDone->text().startsWith("Upgraded node 01 on CAN 0 with "),
                 qPrintable(t.window.sbrDone->text()));
        QVERIFY(QFile::exists(m_files.filePath("raw-2.2.0.sx")));
        QVERIFY(
            std::any_of(progress.begin(), progress.end(), [](int v) { return v > 0 && v < 100; }));
        QCOMPARE(t.window.prbStato->value(), 100); // and "done" until the next operation
        // The end of the transfer ended the bench's transfer begun by the catch.
        QVERIFY(!t.window.upgradePanel->procedure().benchPending());
        QString error;
        QCOMPARE(t.window.link()->boardCommand(17, 0, &error), std::optional<int>(0));
        QVERIFY(!t.window.traceHeld());
        // The image's segments stayed out of the trace.
        QVERIFY(t.trace().mid(traceBefore).count(QLatin1String("581")) < 5);

        QTest::mouseClick(p->cmdEnUpgrade, Qt::LeftButton);
        QCOMPARE(t.window.txtAbort->text(), QString());
        QTRY_COMPARE(read(t, "1,100A,0"), QString("FW 2.2.0")); // once the application booted
        t.window.sdoPanel->cmbIndex->setCurrentText("1,1018,3");
        t.window.sdoPanel->cmdUpload_Click();
        QCOMPARE(t.window.sdoPanel->txtDataHex->text(), QString("00020200"));
        // The history keeps the raw file with its options.
        QCOMPARE(p->cmbFileName->itemText(0), raw);
        p->txtPostProcOpt->clear();
        p->cmbFileName_Click(0);
        QCOMPARE(p->txtPostProcOpt->text(), QString("-x"));
        // The monitor traces again after the upgrade.
        const qsizetype after = t.trace().size();
        t.window.cmdNMT[0]->click();
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().mid(after).contains("R0 701 1"), 5000);
    }

    void failures_data()
    {
        columns<QString, QString, QString, bool, QString, bool>(
            {"file", "options", "postProcessor", "catchFirst", "result", "sent"});

        row("post-processor exits non-zero", "raw-2.2.0.S", "--fail", "", true, "PostProc err",
            false);
        row("post-processor missing", "raw-2.2.0.S", "", "/nonexistent/postprocess", true,
            "PostProc err", false);
        row("post-processor not in PATH", "raw-2.2.0.S", "", "no-such-postprocessor", true,
            "PostProc err", false);
        row("image missing", "missing.sx", "", "", true, "File - err", false);
        row("image is a folder", ".", "", "", true, "File - err", false);
        row("drive not in its boot loader", "drive-2.1.7.sx", "", "", false, "08000022", true);
        row("kind 0 is sent as it is, and refused by the drive", "garbage.S", "", "", true,
            "08000020", true);
    }

    void failures()
    {
        auto [file, options, postProcessor, catchFirst, result, sent] =
            fetch<QString, QString, QString, bool, QString, bool>(
                "file", "options", "postProcessor", "catchFirst", "result", "sent");
        {
            QFile garbage(m_files.filePath("garbage.S"));
            QVERIFY(garbage.open(QIODevice::WriteOnly));
            garbage.write(QByteArray(2000, '\x5A'));
        }
        copyToTemp("raw-2.2.0.S");
        copyToTemp("drive-2.1.7.sx");
        QFile::remove(m_files.filePath("raw-2.2.0.sx"));
        if (!postProcessor.isEmpty())
            QSettings(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel")
                .setValue("programs/postprocess.exe", postProcessor);
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        UpgradePanel* p = t.window.upgradePanel;
        if (catchFirst) {
            p->cmdStopOnBoot_Click(0);
            QCOMPARE(t.window.txtAbort->text(), QString("Boot V1.2.3"));
        } else {
            QTest::qWait(300); // the drive's application runs
        }
        const QString path = file == "." ? m_files.path() : m_files.filePath(file);
        p->cmbFileName->setEditText(path);
        p->txtPostProcOpt->setText(options);
        p->cmdUpgrade_Click();
        QCOMPARE(t.window.txtAbort->text(), result);
        // The target is shown, and named with a refusal.
        QCOMPARE(p->lblTarget->text(), QString("Target: node 1 on CAN 0"));
        if (result.startsWith("0800"))
            QVERIFY2(t.window.sbrDone->text().startsWith("Upgrade of node 1 on CAN 0: SDO abort " +
                                                         result + " ("),
                     qPrintable(t.window.sbrDone->text()));
        // The short result, and beside it why: which program, where it was looked for.
        if (result == "PostProc err")
            QVERIFY2(t.window.sbrDone->text().contains(
                         postProcessor.isEmpty()         ? QString("the post-processor failed on ")
                         : postProcessor.startsWith('/') ? postProcessor + " is not a program"
                                                         : postProcessor + " was not found in any "
                                                                           "folder of PATH ("),
                     qPrintable(t.window.sbrDone->text()));
        // An abort counts as done: the history has the file and the busy flag is down.
        QVERIFY(!t.window.traceHeld());
        QCOMPARE(p->cmbFileName->count(), sent ? 1 : 0);
        if (sent)
            QCOMPARE(p->cmbFileName->itemText(0), path);
        QCOMPARE(QFile::exists(m_files.filePath("raw-2.2.0.sx")), false);
        // Nothing was flashed: released, the drive runs what it ran.
        if (catchFirst) {
            p->cmdEnUpgrade_Click();
            QCOMPARE(t.window.txtAbort->text(), QString());
            QTest::qWait(100);
        }
        QCOMPARE(read(t, "1,100A,0"), QString("FW 3.4.12"));
    }

    void serverGoesAwayDuringTheDownload()
    {
        // A paced bus, so that the download takes long enough to be cut.
        m_bench.server = std::make_unique<qorcalib::test::ServerProcess>();
        QVERIFY(m_bench.server->start());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        t.answerMessagesWithAClick();
        UpgradePanel* p = t.window.upgradePanel;
        QByteArray image = tessel::test::s3Record(
            0x8000000, tessel::test::identificationBlock(0x12, 0x00090000, 1, 2));
        image += '\x02';
        image += QByteArray(256 * 1024, '\x11');
        const QString path = m_files.filePath("big.sx");
        {
            QFile f(path);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(image);
        }
        p->cmdStopOnBoot_Click(0);
        QCOMPARE(t.window.txtAbort->text(), QString("Boot V1.2.3"));
        p->cmbFileName->setEditText(path);
        QTimer::singleShot(500, this, [this] { m_bench.server->kill(); });
        p->cmdUpgrade_Click();
        QCOMPARE(t.window.txtAbort->text(), QStringLiteral("CAN server not reachable"));
        // The busy flag stays set and the history is not updated.
        QVERIFY(t.window.traceHeld());
        QCOMPARE(p->cmbFileName->count(), 0);
        // One message says so, after the transfer's wait has ended, and a click answers it.
        QTRY_COMPARE(t.messages.size(), 1);
        QVERIFY2(t.messages[0].startsWith("The CAN server was lost"), qPrintable(t.messages[0]));
        // With a server back, Tessel works on.
        QVERIFY(m_bench.server->start({QStringLiteral("--unpaced")}));
        QTest::qWait(400);
        QCOMPARE(read(t, "1,100A,0"), QString("FW 3.4.12"));
        p->cmdStopOnBoot_Click(0);
        QCOMPARE(t.window.txtAbort->text(), QString("Boot V1.2.3"));
    }

private:
    QString sample(const char* name) const
    {
        return QStringLiteral(QORCALIB_DATA_DIR "/firmware/") + QLatin1String(name);
    }
    QString copyToTemp(const char* name)
    {
        const QString path = m_files.filePath(QLatin1String(name));
        QFile::remove(path);
        return QFile::copy(sample(name), path) ? path : QString();
    }
    static QString read(Tessel& t, const QString& address)
    {
        t.window.sdoPanel->cmbIndex->setCurrentText(address);
        t.window.sdoPanel->cmdUpload_Click();
        return t.window.txtAbort->text().isEmpty() ? t.window.sdoPanel->txtDataText->text()
                                                   : t.window.txtAbort->text();
    }

    tessel::test::WindowTestBench m_bench;
    QTemporaryDir m_files;
};

QTEST_MAIN(TstUpgrade)
#include "tst_upgrade.moc"

// Production programming end to end: the window, the stand-in programs, the serial counter in
// an SQLite file, and the server's serial loader on the simulated bench.
#include "frmxboot.h"
#include "tesselharness.h"

#include <QtSql>
#include <QtTest>
#include <QtWidgets>

using namespace tessel;
using tessel::test::Tessel;

class TstXBoot : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        m_bench.useOwnSettings();
        qputenv("PATH", QByteArray(QORCALIB_DATA_DIR "/bin:") + qgetenv("PATH"));
        qputenv("STANDIN_LOG", m_dir.filePath("calls.log").toLocal8Bit());
        qputenv("TEMP", m_dir.path().toLocal8Bit());
        m_fw = m_dir.filePath("fw");
        QVERIFY(QDir().mkpath(m_fw));
        for (const char* name : {"app.s", "kickstart.s", "drive.cfg"})
            QVERIFY(QFile::copy(QStringLiteral(QORCALIB_DATA_DIR "/firmware/production/") + name,
                                m_fw + "/" + name));
    }

    void init()
    {
        QVERIFY(m_bench.startServer());
        QFile::remove(m_dir.filePath("calls.log"));
        QFile::remove(m_dir.filePath("line/tessel.db"));
        QVERIFY(QDir().mkpath(m_dir.filePath("line")));
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "make");
            db.setDatabaseName(m_dir.filePath("line/tessel.db"));
            QVERIFY(db.open());
            QSqlQuery q(db);
            QVERIFY(q.exec("create table zdx_id (id_sk integer)"));
            QVERIFY(q.exec("insert into zdx_id (id_sk) values (41)"));
            db.close();
        }
        QSqlDatabase::removeDatabase("make");
        QSettings user(QSettings::IniFormat, QSettings::UserScope, "Qor", "Qor.Tessel");
        user.clear();
        user.setValue("production/folder", m_dir.filePath("line"));
        m_beeps = 0;
    }

    void walk()
    {
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        FrmXBoot* x = open(t);
        QList<int> progress;
        connect(t.window.link(), &CanLink::progressChanged, this,
                [&](float p) { progress << int(p); });
        // Serial programming: the next serial stamped into the image, merged with the kick-start,
        // loaded over the bench's serial link with progress.
        QTest::mouseClick(x->cmdSerialPrg, Qt::LeftButton);
        QCOMPARE(t.messages, QStringList());
        QCOMPARE(x->txtIDSK->text(), QString("42"));
        QCOMPARE(x->idskTag, QString());
        QVERIFY(x->isEnabled());
        QCOMPARE(counter(), 42);
        QCOMPARE(calls(),
                 QStringList({"postprocess.exe|" + m_fw + "/app.s|" + m_fw + "/app.sx|-i|42",
                              "postprocess.exe|" + m_fw + "/kickstart.s|" + m_fw +
                                  "/kickstart.sl|-m|" + m_fw + "/app.sx|-p"}));
        QVERIFY(progress.size() > 5);
        QVERIFY(*std::max_element(progress.begin(), progress.end()) == 100);
        QCOMPARE(m_beeps, 0);
        QVERIFY(!t.window.link()->productionRun);

        // Identity loading: the next serial, the temporary files gone afterwards.
        QFile::remove(m_dir.filePath("calls.log"));
        QTest::mouseClick(x->cmdSerialLoc, Qt::LeftButton);
        QCOMPARE(t.messages, QStringList());
        QCOMPARE(x->txtIDSK->text(), QString("43"));
        QCOMPARE(calls().size(), 3);
        QVERIFY(calls()[0].startsWith("ZDProdInterface|CreateSBB|" + m_dir.path() + "/sbf"));
        QCOMPARE(QDir(m_dir.path()).entryList({"sbf*", "dbf*", "skf*", "dsf*"}), QStringList());

        // A JTAG run that fails keeps its serial for the retry, even across a restart of Tessel.
        QFile::remove(m_dir.filePath("calls.log"));
        qputenv("FFLASH_EXIT", "7");
        QTest::mouseClick(x->cmdJtagPrg, Qt::LeftButton);
        qunsetenv("FFLASH_EXIT");
        QCOMPARE(t.messages, QStringList{"FFlash retval=7"});
        QCOMPARE(x->lblDone->text(), QString("JTAG programming failed: FFlash retval=7"));
        QCOMPARE(x->idskTag, QString("44"));
        QCOMPARE(x->txtIDSK->text(), QString("43")); // the last unit's, not the failed one's
        {
            Tessel again(m_bench.server->socketPath());
            QVERIFY(again.load());
            QCOMPARE(open(again)->idskTag, QString("44"));
        }
        x->chkFR->setChecked(true);
        QTest::mouseClick(x->cmdJtagPrg, Qt::LeftButton);
        QCOMPARE(t.messages.size(), 1);
        QCOMPARE(x->txtIDSK->text(), QString("44"));
        QCOMPARE(x->lblDone->text(), QString("JTAG programming done: serial 44"));
        QCOMPARE(counter(), 44); // taken once for the unit
        const QStringList c = calls();
        QCOMPARE(c.size(), 4);
        QCOMPARE(c[2], c[0]);
        QCOMPARE(c[3], "fflash.exe|" + m_fw +
                           "/drive.cfg|-jtagclk=800|-erase=all|-recover|-s|-verifyprog|" + m_fw +
                           "/app.sx");
        // A firmware path without ".s": a clear message, no serial, nothing run.
        x->txtFileName->setText(m_fw + "/app.hex");
        QTest::mouseClick(x->cmdSerialPrg, Qt::LeftButton);
        QVERIFY(t.messages.last().startsWith("Err: 52 "));
        QCOMPARE(calls().size(), 4);
        QCOMPARE(counter(), 44);
    }

private:
    int counter() const
    {
        int value = -1;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "read");
            db.setDatabaseName(m_dir.filePath("line/tessel.db"));
            if (db.open()) {
                QSqlQuery q("select id_sk from zdx_id", db);
                if (q.next())
                    value = q.value(0).toInt();
            }
            db.close();
        }
        QSqlDatabase::removeDatabase("read");
        return value;
    }

    QStringList calls() const
    {
        QFile f(m_dir.filePath("calls.log"));
        if (!f.open(QIODevice::ReadOnly))
            return {};
        return QString::fromLocal8Bit(f.readAll()).split('\n', Qt::SkipEmptyParts);
    }
    FrmXBoot* open(Tessel& t)
    {
        t.window.cmdXBoot->click();
        FrmXBoot* x = t.window.productionWindow();
        x->txtFileName->setText(m_fw + "/app.s");
        x->txtCfgFile->setText(m_fw + "/drive.cfg");
        x->beep = [this] { ++m_beeps; };
        return x;
    }

    tessel::test::WindowTestBench m_bench;
    QTemporaryDir m_dir;
    QString m_fw;
    int m_beeps = 0;
};

QTEST_MAIN(TstXBoot)
#include "tst_xboot.moc"

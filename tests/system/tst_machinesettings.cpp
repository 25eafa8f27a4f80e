#include "datatable.h"
#include "firmwarehistory.h"
#include "machinesettings.h"

#include <QtTest>

using namespace tessel::test;

using namespace tessel;

// Settings go to scratch folders: the machine's and the user's are never touched.
class TstMachineSettings : public QObject
{
    Q_OBJECT
private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, m_dir->filePath("system"));
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_dir->filePath("user"));
    }

    void remoteServer_data()
    {
        // stored: "-" for no value at all
        columns<QString, QString>({"stored", "read"});
        row("absent", "-", "localhost");
        row("empty", "", "localhost");
        row("one character counts as absent", "x", "localhost");
        row("two characters", "pc", "pc");
        row("name with selector", "bench7#CANopen", "bench7#CANopen");
    }

    void remoteServer()
    {
        auto [stored, read] = fetch<QString, QString>("stored", "read");
        if (stored != "-")
            writeRemoteServer(stored);
        QCOMPARE(readRemoteServer("localhost"), read);
    }

    void writeCreatesTheGroup()
    {
        QVERIFY(!QFile::exists(m_dir->filePath("system/Qor/Common.ini")));
        writeRemoteServer("bench7:17421");
        QVERIFY(QFile::exists(m_dir->filePath("system/Qor/Common.ini")));
        QSettings raw(m_dir->filePath("system/Qor/Common.ini"), QSettings::IniFormat);
        QCOMPARE(raw.value("Common/RemoteServer").toString(), QString("bench7:17421"));
    }

    void unwritableFolderIsIgnored()
    {
        QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, "/proc/no-such-folder");
        writeRemoteServer("bench7"); // no crash, no exception: the name is just not remembered
        QCOMPARE(readRemoteServer("localhost"), QString("localhost"));
    }

private:
    std::unique_ptr<QTemporaryDir> m_dir;
};

QTEST_GUILESS_MAIN(TstMachineSettings)
#include "tst_machinesettings.moc"

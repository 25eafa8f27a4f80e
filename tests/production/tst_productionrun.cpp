// Production runs of one unit: the exact command lines, the firmware base, the failures that stop
// a run before a serial is taken, the serial programming.
#include "commandlines.h"
#include "datatable.h"
#include "processrunner.h"
#include "productionrun.h"

#include <QtTest>

using namespace tessel::test;

using namespace tessel;
using namespace tessel::production;

namespace {
// Hooks that record what a run asks for and answer from their settings.
struct Recorder
{
    QStringList lines;
    QMap<QString, int> exitCodes; // first word -> exit code
    int serials = 0;
    qint32 counter = 41;
    QString databaseError;
    QList<QByteArray> loaded;
    int finalState = 3;
    std::function<void(const QString&)> onRun;

    ProductionRun::Hooks hooks()
    {
        ProductionRun::Hooks h;
        h.run = [this](const QString& line, bool) {
            lines << line;
            if (onRun)
                onRun(line);
            return exitCodes.value(line.section(' ', 0, 0), 0);
        };
        h.nextSerial = [this](int* number, QString* error) -> std::optional<qint32> {
            ++serials;
            if (!databaseError.isEmpty()) {
                *number = 3024;
                *error = databaseError;
                return std::nullopt;
            }
            return ++counter;
        };
        h.loadImage = [this](const QByteArray& image) {
            loaded << image;
            return QString();
        };
        h.waitForLoad = [this](QString*) { return std::optional<int>(finalState); };
        return h;
    }
};
} // namespace

class TstProductionRun : public QObject
{
    Q_OBJECT
private slots:
    void firmwareBase_data()
    {
        // base: "-": none
        columns<QString, QString, QString>({"path", "base", "kickstart"});
        row(".s", "/fw/app.s", "/fw/app", "/fw/kickstart");
        row(".S", "/fw/app.S", "/fw/app", "/fw/kickstart");
        row(".sx cut too", "/fw/app.sx", "/fw/app", "/fw/kickstart");
        row("folder with .s", "/x.src/app.hex", "/x", "/kickstart");
        row("last of two", "/a.s/b.s", "/a.s/b", "/a.s/kickstart");
        row("no folder", "app.s", "app", "-");
        row("none", "/fw/app.hex", "-", "-");
        row("empty", "", "-", "-");
    }

    void firmwareBase()
    {
        auto [path, kickstart] = fetch<QString, QString>("path", "kickstart");
        const auto got = production::firmwareBase(path);
        QTEST(got.value_or("-"), "base");
        if (got)
            QCOMPARE(kickstartBase(*got).value_or("-"), kickstart);
    }

    void commandLines()
    {
        QCOMPARE(stampCommand("/fw/app", 1234),
                 QString("postprocess.exe /fw/app.s /fw/app.sx -i 1234"));
        QCOMPARE(
            flashCommand("/fw/drive.cfg", false, "/fw/app"),
            QString("fflash.exe /fw/drive.cfg -jtagclk=800 -erase=all -s -verifyprog /fw/app.sx"));
        QCOMPARE(flashCommand("/fw/drive.cfg", true, "/fw/app"),
                 QString("fflash.exe /fw/drive.cfg -jtagclk=800 -erase=all -recover -s -verifyprog "
                         "/fw/app.sx"));
        QCOMPARE(kickstartCommand("/fw/kickstart", "/fw/app"),
                 QString("postprocess.exe /fw/kickstart.s /fw/kickstart.sl -m /fw/app.sx -p"));
        QCOMPARE(identityBlockCommand("/tmp/sbf1", "/tmp/dbf2", 42),
                 QString("postprocess.exe \"/tmp/sbf1\" \"/tmp/dbf2\" -i 42 -p"));
        QCOMPARE(identityDataCommand("/tmp/skf3", "/tmp/dsf4", "/tmp/dbf2"),
                 QString("postprocess.exe \"/tmp/skf3\" \"/tmp/dsf4\" -m \"/tmp/dbf2\" -p"));
        QCOMPARE(createSbbCommand("/tmp/sbf1", "/tmp/skf3", 42, "/opt/zd/ZDProdInterface"),
                 QString("/opt/zd/ZDProdInterface CreateSBB \"/tmp/sbf1\" \"/tmp/skf3\" 42"));
        QCOMPARE(stampCommand("/fw/app", -7, "pp"), QString("pp /fw/app.s /fw/app.sx -i -7"));
        QCOMPARE(pathWithBlank("/fw/my app", "/fw/a.cfg"), QString("/fw/my app"));
        QCOMPARE(pathWithBlank("/fw/app", "/my cfg/a.cfg"), QString("/my cfg/a.cfg"));
        QCOMPARE(pathWithBlank("/fw/app", "/fw/a.cfg"), QString());
    }

    void refusedBeforeASerialIsTaken_data()
    {
        columns<QString, QString, QString, QString>(
            {"firmware", "configuration", "databaseError", "message"});
        row("no .s", "/fw/app.hex", "/fw/d.cfg", "",
            "Err: 52 firmware file '/fw/app.hex' has no .s extension: "
            "nothing run");
        row("blank in firmware", "/my fw/app.s", "/fw/d.cfg", "",
            "Err: 52 '/my fw/app' holds a blank: the programming commands take paths without "
            "blanks; nothing run");
        row("blank in configuration", "/fw/app.s", "/fw/my d.cfg", "",
            "Err: 52 '/fw/my d.cfg' holds a blank: the programming commands take paths without "
            "blanks; nothing run");
        row("database", "/fw/app.s", "/fw/d.cfg", "SQLite database /line/tessel.db not found",
            "Err: 3024 SQLite database /line/tessel.db not found");
    }

    void refusedBeforeASerialIsTaken()
    {
        auto [firmware, configuration, databaseError] =
            fetch<QString, QString, QString>("firmware", "configuration", "databaseError");
        Recorder r;
        r.databaseError = databaseError;
        ProductionRun run(r.hooks());
        QString tag;
        const auto o = run.jtag(firmware, configuration, false, &tag);
        QCOMPARE(o.kind, ProductionRun::Outcome::Error);
        QTEST(o.message, "message");
        QCOMPARE(r.lines, QStringList());
        QCOMPARE(tag, QString());
        QCOMPARE(r.serials, databaseError.isEmpty() ? 0 : 1);
    }

    void serialProgramming_data()
    {
        columns<int, int>({"finalState", "kind"});
        row("loaded", 3, int(ProductionRun::Outcome::Done));
        row("unit unpowered", 5, int(ProductionRun::Outcome::LoadFailed));
    }

    void serialProgramming()
    {
        QFETCH(int, finalState);
        const QString folder = m_dir.filePath("fw");
        QDir().mkpath(folder);
        Recorder r;
        r.finalState = finalState;
        // The post-processor's merge writes the loader the unit gets.
        r.onRun = [&](const QString& line) {
            if (line.contains("kickstart.sl")) {
                QFile f(folder + "/kickstart.sl");
                f.open(QIODevice::WriteOnly);
                f.write("S1 loader and firmware");
            }
        };
        ProductionRun run(r.hooks());
        QString tag;
        const auto o = run.serialProgramming(folder + "/app.s", &tag);
        QCOMPARE(r.lines, QStringList({stampCommand(folder + "/app", 42),
                                       kickstartCommand(folder + "/kickstart", folder + "/app")}));
        QCOMPARE(r.loaded, QList<QByteArray>{"S1 loader and firmware"});
        QTEST(int(o.kind), "kind");
        QCOMPARE(o.testState, finalState);
        QCOMPARE(tag, finalState == 3 ? QString() : QString("42"));
        QFile::remove(folder + "/kickstart.sl");
        // Without the loader file the unit gets nothing.
        r.onRun = nullptr;
        const auto missing = run.serialProgramming(folder + "/app.s", &tag);
        QCOMPARE(missing.kind, ProductionRun::Outcome::Error);
        QVERIFY2(missing.message.startsWith("Err: 53 " + folder + "/kickstart.sl"),
                 qPrintable(missing.message));
    }

private:
    QTemporaryDir m_dir;
};

QTEST_GUILESS_MAIN(TstProductionRun)
#include "tst_productionrun.moc"

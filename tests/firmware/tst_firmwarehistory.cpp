// The firmware file history: how an upgrade moves a file to the top, and how the list is kept
// in the per-user settings.
#include "datatable.h"
#include "firmwarehistory.h"

#include <QtTest>

using namespace tessel::test;

using namespace tessel;

class TstFirmwareHistory : public QObject
{
    Q_OBJECT
private slots:
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
};

QTEST_GUILESS_MAIN(TstFirmwareHistory)
#include "tst_firmwarehistory.moc"

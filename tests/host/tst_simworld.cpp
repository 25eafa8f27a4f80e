// The simulated world's bench hands: the status window's doors and alarm button, and the
// overvoltage the drives log when the bench powers them too high.
#include "servercore.h"
#include "serverhost.h"
#include "simdrive.h"
#include "statuswindow.h"

#include <QtTest>
#include <QtWidgets>

using namespace qorcalib;

class TstSimWorld : public QObject
{
    Q_OBJECT
private slots:
    void statusWindowWorksTheBench()
    {
        auto core = world();
        QVERIFY(core);
        ServerHost host(core.get());
        StatusWindow window(core.get(), &host);
        QVERIFY(window.chkDoorClosed[1]->isChecked());
        window.chkDoorClosed[1]->click();
        QString error;
        bool closed = true;
        QVERIFY(core->bench()->readInput(10, &closed, &error));
        QVERIFY(!closed);
        // Set from elsewhere, the box follows.
        core->bench()->setInput(0, false);
        QVERIFY(!window.chkDoorClosed[0]->isChecked());

        const int before = core->drive(0)->alarmLog().size();
        window.spnAlarm->setValue(19);
        window.cmdRaiseAlarm->click();
        QCOMPARE(window.lblAlarm->text(), QString("logged by 2"));
        const AlarmLog& log = core->drive(0)->alarmLog();
        QCOMPARE(log.size(), before + 1);
        QCOMPARE(log.record(before)[AlarmLog::AlarmNumber - 1], 19u);
        QCOMPARE(log.record(before)[AlarmLog::BusVoltage - 1], 480u);
        // Without power no drive can log anything.
        int status = 0;
        QVERIFY(core->bench()->command(11, 0, &status, &error));
        window.cmdRaiseAlarm->click();
        QCOMPARE(window.lblAlarm->text(), QString("no drive has power"));
        QCOMPARE(log.size(), before + 1);
    }

    void overvoltageIsLogged()
    {
        auto core = world();
        QVERIFY(core);
        const AlarmLog& log = core->drive(0)->alarmLog();
        const int before = log.size();
        QString error;
        QVERIFY(core->bench()->setParameter(26, 57.5, &error));
        QCOMPARE(log.size(), before + 1);
        QCOMPARE(log.record(before)[AlarmLog::AlarmNumber - 1], SimDrive::kOvervoltageAlarm);
        QCOMPARE(log.record(before)[AlarmLog::BusVoltage - 1], 575u);
        QVERIFY(log.record(before)[AlarmLog::TimeStamp - 1] >= AlarmLog::kOperatingSecondsAtStart);
        QCOMPARE(log.countWord() >> 16, quint32(before));
        QVERIFY(core->bench()->setParameter(26, 48.0, &error));
        QCOMPARE(log.size(), before + 1);
    }

private:
    static std::unique_ptr<ServerCore> world(bool doorsOpen = false)
    {
        ServerCore::Config config;
        config.edsPath = QStringLiteral(QORCALIB_DATA_DIR "/drive.eds");
        config.doorsOpen = doorsOpen;
        QString error;
        auto core = ServerCore::create(config, &error);
        if (!core)
            qWarning("%s", qPrintable(error));
        return core;
    }
};

QTEST_MAIN(TstSimWorld)
#include "tst_simworld.moc"

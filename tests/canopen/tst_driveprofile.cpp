// The drive profile against controlwords written out by hand: its state machine (every
// transition, and commands a state does not take), profile position, profile velocity and
// homing moves in time, quick stop, and the following error fault with its reset.
#include "datatable.h"
#include "driveprofile.h"
#include "frametext.h"

#include <QtTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

using State = DriveProfile::State;

// The profile's entries with the drive's defaults.
struct Drive : ObjectValues
{
    Drive()
        : profile(this, {[this](quint16 index) { changed << index; },
                         [this](quint16 code) { faults << code; },
                         [this](quint16 code) { cleared << code; }})
    {
        for (const auto& [index, value, bytes] :
             std::initializer_list<std::tuple<quint16, qint64, int>>{{0x6040, 0, 2},
                                                                     {0x6041, 0, 2},
                                                                     {0x603F, 0, 2},
                                                                     {0x6060, 1, 1},
                                                                     {0x6061, 0, 1},
                                                                     {0x6064, 0, 4},
                                                                     {0x6065, 10000, 4},
                                                                     {0x606C, 0, 4},
                                                                     {0x6072, 3000, 2},
                                                                     {0x607A, 0, 4},
                                                                     {0x6081, 100000, 4},
                                                                     {0x6083, 500000, 4},
                                                                     {0x6084, 500000, 4},
                                                                     {0x6085, 5000000, 4},
                                                                     {0x6098, 35, 1},
                                                                     {0x60FF, 0, 4}})
            entries[index] = le(value, bytes);
        profile.start(0);
    }
    QByteArray value(quint16 index, quint8) const override { return entries.value(index); }
    void write(quint16 index, quint8, const QByteArray& v) override { entries[index] = v; }
    qint64 read(quint16 index) const
    {
        QByteArray raw = entries.value(index);
        const bool negative = !raw.isEmpty() && (quint8(raw.back()) & 0x80) && raw.size() == 4;
        raw.append(8 - raw.size(), negative ? '\xFF' : '\0');
        return qFromLittleEndian<qint64>(raw.constData());
    }
    void set(quint16 index, qint64 value)
    {
        entries[index] = le(value, int(entries[index].size()));
    }
    void control(quint16 word)
    {
        set(0x6040, word);
        profile.controlwordWritten(now);
    }
    quint16 status() const { return quint16(read(0x6041)); }
    // Runs the profile's steps for `us`.
    void run(qint64 us)
    {
        const qint64 end = now + us;
        for (qint64 d = profile.nextDeadlineUs(); d >= 0 && d <= end; d = profile.nextDeadlineUs())
            profile.step(now = d);
        now = end;
    }
    void enable()
    {
        control(0x06);
        control(0x07);
        control(0x0F);
    }

    QMap<quint16, QByteArray> entries;
    DriveProfile profile;
    QList<quint16> changed;
    QList<quint16> faults;
    QList<quint16> cleared;
    qint64 now = 0;
};

} // namespace

class TstDriveProfile : public QObject
{
    Q_OBJECT
private slots:
    void stateMachine_data()
    {
        // Controlwords in order from switch on disabled; the state after the last, its statusword.
        columns<QList<int>, State, int>({"words", "state", "status"});
        row("start", QList<int>{}, State::SwitchOnDisabled, 0x0240);
        row("shutdown", QList<int>{0x06}, State::ReadyToSwitchOn, 0x0231);
        row("switch on", QList<int>{0x06, 0x07}, State::SwitchedOn, 0x0233);
        row("enable operation", QList<int>{0x06, 0x07, 0x0F}, State::OperationEnabled, 0x0637);
        row("switch on and enable at once", QList<int>{0x06, 0x0F}, State::OperationEnabled,
            0x0637);
        row("disable operation", QList<int>{0x06, 0x0F, 0x07}, State::SwitchedOn, 0x0233);
        row("shutdown from enabled", QList<int>{0x06, 0x0F, 0x06}, State::ReadyToSwitchOn, 0x0231);
        row("disable voltage from enabled", QList<int>{0x06, 0x0F, 0x00}, State::SwitchOnDisabled,
            0x0240);
        row("quick stop from switched on", QList<int>{0x06, 0x07, 0x02}, State::SwitchOnDisabled,
            0x0240);
        row("quick stop from enabled, standing", QList<int>{0x06, 0x0F, 0x02},
            State::QuickStopActive, 0x0217);
        row("back from quick stop", QList<int>{0x06, 0x0F, 0x02, 0x0F}, State::OperationEnabled,
            0x0637);
        // Commands the state does not take change nothing.
        row("switch on without shutdown", QList<int>{0x07}, State::SwitchOnDisabled, 0x0240);
        row("enable without shutdown", QList<int>{0x0F}, State::SwitchOnDisabled, 0x0240);
        row("fault reset without a fault disables the voltage", QList<int>{0x06, 0x80},
            State::SwitchOnDisabled, 0x0240);
    }

    void stateMachine()
    {
        auto [words, status] = fetch<QList<int>, int>("words", "status");
        Drive d;
        for (int w : words)
            d.control(quint16(w));
        QTEST(d.profile.state(), "state");
        QCOMPARE(QString::number(d.status(), 16), QString::number(status, 16));
    }

    void profilePositionMove()
    {
        Drive d;
        d.enable();
        d.set(0x607A, 20000);
        d.control(0x1F);
        // Acknowledged at once, not reached; the acknowledgement goes with bit 4.
        QCOMPARE(d.status() & 0x1400, 0x1000);
        d.control(0x0F);
        QCOMPARE(d.status() & 0x1000, 0);
        // 20000 at 100000/s with 500000/s² both ways: 0.2 s up to full speed (10000), 0.2 s down.
        d.run(100000);
        const qint64 early = d.read(0x6064);
        QVERIFY2(early > 2000 && early < 3000, qPrintable(QString::number(early)));
        QVERIFY(d.read(0x606C) > 40000 && d.read(0x606C) < 60000);
        d.run(350000);
        QCOMPARE(d.read(0x6064), 20000);
        QCOMPARE(d.read(0x606C), 0);
        QCOMPARE(d.status() & 0x0400, 0x0400);
        QVERIFY(d.changed.contains(0x6064) && d.changed.contains(0x6041));
        // Relative: from the last target.
        d.set(0x607A, -5000);
        d.control(0x5F);
        d.control(0x4F);
        d.run(500000);
        QCOMPARE(d.read(0x6064), 15000);
        QCOMPARE(d.profile.nextDeadlineUs(), -1); // standing: no steps
    }

    void profileVelocityAndQuickStop()
    {
        Drive d;
        d.set(0x6060, DriveProfile::kProfileVelocity);
        d.profile.modeWritten();
        QCOMPARE(d.read(0x6061), 3);
        d.enable();
        d.set(0x60FF, -50000);
        d.control(0x0F);
        d.run(50000);
        QVERIFY(d.read(0x606C) < -20000 && !(d.status() & 0x0400));
        d.run(100000);
        QCOMPARE(d.read(0x606C), -50000);
        QCOMPARE(d.status() & 0x0400, 0x0400);
        // At rest, while only other timers wake the drive, a new target velocity starts a ramp
        // from that moment: not a jump by all the time since the last wake-up.
        d.set(0x60FF, 0);
        d.run(200000);
        QCOMPARE(d.read(0x606C), 0);
        d.profile.step(d.now += 900000);
        d.set(0x60FF, 50000);
        d.profile.step(d.now += 400000); // the drive's timer, now that it moves
        QVERIFY2(d.read(0x606C) > 0 && d.read(0x606C) < 5000,
                 qPrintable(QString::number(d.read(0x606C))));
        // Quick stop: down with 6085, then switch on disabled.
        d.control(0x0B);
        QCOMPARE(d.profile.state(), State::QuickStopActive);
        d.run(20000);
        QCOMPARE(d.profile.state(), State::SwitchOnDisabled);
        QCOMPARE(d.read(0x606C), 0);
    }

    void homing()
    {
        Drive d;
        d.set(0x6064, 777);
        d.profile.start(0);
        d.set(0x6060, DriveProfile::kHoming);
        d.profile.modeWritten();
        d.enable();
        // Method 35: the present position is home at once.
        d.control(0x1F);
        QCOMPARE(d.read(0x6064), 0);
        QCOMPARE(d.status() & 0x3400, 0x1400);
        // Another method moves to 0 first.
        d.control(0x0F);
        d.set(0x6098, 1);
        d.set(0x607A, 3000);
        d.profile.modeWritten();
        d.set(0x6060, DriveProfile::kProfilePosition);
        d.profile.modeWritten();
        d.control(0x1F);
        d.control(0x0F);
        d.run(400000);
        QCOMPARE(d.read(0x6064), 3000);
        d.set(0x6060, DriveProfile::kHoming);
        d.profile.modeWritten();
        d.control(0x1F);
        QCOMPARE(d.status() & 0x3400, 0x0000); // in progress
        d.run(500000);
        QCOMPARE(d.read(0x6064), 0);
        QCOMPARE(d.status() & 0x3400, 0x1400);
    }

    void followingErrorAndFaultReset()
    {
        Drive d;
        d.set(0x6072, 5); // 0.5 % torque: the motor lags far behind
        d.enable();
        d.set(0x607A, 100000);
        d.control(0x1F);
        d.run(1000000);
        QCOMPARE(d.profile.state(), State::Fault);
        QCOMPARE(d.faults, QList<quint16>{DriveProfile::kFollowingError});
        QCOMPARE(d.read(0x603F), DriveProfile::kFollowingError);
        QCOMPARE(d.status() & 0x204F, 0x2008);
        // Commands other than the reset are not taken; the reset's rising edge is.
        d.control(0x0F);
        QCOMPARE(d.profile.state(), State::Fault);
        d.control(0x80);
        QCOMPARE(d.profile.state(), State::SwitchOnDisabled);
        QCOMPARE(d.cleared, QList<quint16>{DriveProfile::kFollowingError});
        QCOMPARE(d.read(0x603F), 0);
        // A fault from outside (the bus's over-voltage) takes the same way.
        d.enable();
        d.profile.raiseFault(0x3210, d.now);
        QCOMPARE(d.profile.state(), State::Fault);
        QCOMPARE(d.faults.last(), quint16(0x3210));
    }
};

QTEST_GUILESS_MAIN(TstDriveProfile)
#include "tst_driveprofile.moc"

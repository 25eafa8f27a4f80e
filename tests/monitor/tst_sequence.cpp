#include "datatable.h"
#include "sequence.h"

#include <QTest>

#include <memory>

using namespace tessel::test;

using namespace tessel;

namespace {

// A fake clock for one row: the timer is a due time; advancing fires it when due.
class FakeClock : public RowTimer
{
public:
    void start(int ms) override { due = now + ms; }
    void stop() override { due = -1; }
    qint64 nowMs() const override { return now; }
    // Runs the row until `until`; every expiry at its due time.
    void runUntil(SequenceRow& row, qint64 until)
    {
        for (int guard = 0; due >= 0 && due <= until && guard < 100000; ++guard) {
            now = due;
            row.onTimer();
        }
        now = until;
    }
    qint64 now = 0;
    qint64 due = -1;
};

struct Rig
{
    explicit Rig(const QString& text)
    {
        SequenceRow::Hooks hooks;
        hooks.sendSlot = [this](int slot) {
            sent.append({clock.now, slot});
            return slot == failingSlot;
        };
        hooks.stopped = [this](const QString& message) {
            ++stops;
            lastMessage = message;
        };
        row = std::make_unique<SequenceRow>(&clock, hooks);
        row->setText(text);
    }
    QString sends() const
    {
        QStringList parts;
        for (const auto& [time, slot] : sent)
            parts << QStringLiteral("%1@%2").arg(slot).arg(time);
        return parts.join(QLatin1Char(' '));
    }
    FakeClock clock;
    std::unique_ptr<SequenceRow> row;
    QList<std::pair<qint64, int>> sent;
    int failingSlot = -100;
    int stops = 0;
    QString lastMessage;
};

} // namespace

class TstSequence : public QObject
{
    Q_OBJECT
private slots:
    void tokens_data()
    {
        columns<QString, int, QString, int>({"text", "start", "token", "position"});
        row("first", "M1 T0.5", 1, "M1", 3);
        row("blanks skipped", "M1   T0.5", 3, "T0.5", 10);
        row("lower case", "m1 t1", 4, "T1", 6);
        row("comma ends a token", "M1,M2", 1, "M1", 3);
        row("comma: empty, stays", "M1,M2", 3, "", 3);
        row("past the end", "M1 ", 3, "", 4);
        row("empty text", "", 1, "", 1);
        row("tab is no blank", "\tM1", 1, "", 1);
        row("letters run on", "MT5 M2", 1, "MT5", 4);
    }

    void tokens()
    {
        auto [text, start] = fetch<QString, int>("text", "start");
        int at = start;
        QTEST(nextSequenceToken(text, at), "token");
        QTEST(at, "position");
    }

    void rows_data()
    {
        // stop: the message of a row that stopped by itself
        columns<QString, qint64, QString, QString>({"text", "until", "sends", "stop"});
        const QString running = QStringLiteral("(running)");
        const auto bad = [](const QString& at) {
            return QStringLiteral(
                       "Sequence stopped at \"%1\": a row holds Mn (send slot n, 1 to 8) "
                       "and Tx (wait x seconds), with blanks between them.")
                .arg(at);
        };
        // Ticking starts 1 ms later; the end of each pass gives the event loop one turn (0 ms).
        row("M1 T0.5 M2 T1", "M1 T0.5 M2 T1", qint64(3100), "0@1 1@501 0@1501 1@2001 0@3001",
            running);
        row("lower case", "m1 t1", qint64(2500), "0@1 0@1001 0@2001", running);
        row("comma stops after the first", "M1,M2", qint64(1000), "0@1", bad(",M2"));
        row("T0 hangs", "M1 T0 M2", qint64(5000), "0@1", running);
        row("M9: no such slot", "M3 M9 T1", qint64(1500), "2@1",
            "Sequence stopped at \"M9\": there is no slot 9 (M1 to M8).");
        row("M0: no such slot", "M0 M3", qint64(1500), "",
            "Sequence stopped at \"M0\": there is no slot 0 (M1 to M8).");
        row("digit first stops", "M1 5", qint64(1000), "0@1", bad("5"));
        row("blank text stops", "   ", qint64(1000), "", QString());
        row("empty text stops", "", qint64(1000), "", QString());
        row("rounding M1.5 is slot 0", "M1.5 T2", qint64(100), "0@1", running);
        row("T0.0004 rounds to 0, hangs", "M2 T0.0004", qint64(100), "1@1", running);
        row("longest wait", "M1 T65.535", qint64(70000), "0@1 0@65536", running);
        row("trailing blanks", "M1 T1 ", qint64(1500), "0@1 0@1001", running);
    }

    void rows()
    {
        auto [text, until, sends, stop] =
            fetch<QString, qint64, QString, QString>("text", "until", "sends", "stop");
        Rig rig(text);
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, until);
        QCOMPARE(rig.sends(), sends);
        const bool running = stop == QStringLiteral("(running)");
        QCOMPARE(rig.row->isEnabled(), running);
        QCOMPARE(rig.stops, running ? 0 : 1);
        QCOMPARE(rig.lastMessage, running ? QString() : stop);
    }

    void tooLongWaitStopsWithMessage()
    {
        Rig rig("M1 T65.536 M2");
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, 100000);
        QCOMPARE(rig.sends(), QStringLiteral("0@1"));
        QVERIFY(!rig.row->isEnabled());
        QCOMPARE(rig.stops, 1);
        QVERIFY2(rig.lastMessage.contains("T65.536"), qPrintable(rig.lastMessage));
    }

    void failedSendStopsTheRow()
    {
        Rig rig("M1 M2 M3 T1");
        rig.failingSlot = 1;
        rig.row->setEnabled(true);
        rig.clock.runUntil(*rig.row, 5000);
        QCOMPARE(rig.sends(), QStringLiteral("0@1 1@1"));
        QVERIFY(!rig.row->isEnabled());
        QCOMPARE(rig.stops, 1);
    }
};

QTEST_APPLESS_MAIN(TstSequence)
#include "tst_sequence.moc"

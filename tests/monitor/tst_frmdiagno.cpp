#include "canmsg.h"
#include "datatable.h"
#include "frametransmitter.h"
#include "frmdiagno.h"
#include "frminviamesg.h"
#include "frmio.h"
#include "frmseq.h"
#include "traceview.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

namespace {

QByteArray record(quint16 id, qint16 len)
{
    QByteArray r(qorcalib::kRecordSize, '\0');
    qToLittleEndian<qint16>(qint16(id), r.data());
    qToLittleEndian<qint16>(len, r.data() + 2);
    for (int i = 0; i < 8; ++i)
        r[4 + i] = char(0x10 + i);
    return r;
}

// A monitor whose sends and messages are recorded: "181:1234" for a data frame, "R181:4" for
// a remote request.
struct Rig : FrameTransmitter
{
    Rig()
    {
        monitor.setTransmitter(this);
        QObject::connect(&monitor, &FrmDiagno::message,
                         [this](const QString& text) { messages << text; });
        // No file dialog opens in a test: each is cancelled.
        monitor.chooseOpenFile = [](const QString&, const QString&, const QString&) {
            return QString();
        };
        monitor.chooseSaveFile = monitor.chooseOpenFile;
    }
    void setSlot(int i, const QString& id, const QString& length, const QStringList& data = {})
    {
        monitor.slotGrid->edID0[i]->setText(id);
        monitor.slotGrid->edLen0[i]->setText(length);
        for (int j = 0; j < 8; ++j)
            monitor.slotGrid->edD0[i * 8 + j]->setText(data.value(j));
    }
    FrmDiagno monitor{nullptr, nullptr};
    bool send(quint16 id, int, const QByteArray& data) override
    {
        sent << QStringLiteral("%1:%2").arg(id, 0, 16).arg(QString::fromLatin1(data.toHex()));
        return failSends;
    }
    bool sendRemote(quint32 id, int length) override
    {
        sent << QStringLiteral("R%1:%2").arg(id, 0, 16).arg(length);
        return failSends;
    }
    QStringList sent;
    QStringList messages;
    bool failSends = false;
};

} // namespace

class TstFrmDiagno : public QObject
{
    Q_OBJECT
private slots:
    void recordsOfNoFrameLengthAreDropped_data()
    {
        columns<int, bool>({"length", "traced"});
        row("0", 0, true);
        row("8", 8, true);
        row("9", 9, false);
        row("300", 300, false);
        row("-1", -1, false);
    }

    void recordsOfNoFrameLengthAreDropped()
    {
        auto [length, traced] = fetch<int, bool>("length", "traced");
        FrmDiagno monitor(nullptr, nullptr);
        monitor.receiveRecords(0, record(0x181, qint16(length)) + record(0x182, 1), 2);
        QCOMPARE(monitor.traceText().contains("R0 181"), traced);
        QVERIFY(monitor.traceText().contains("R0 182 1 000s000.000 > 10 "));
        if (traced)
            QVERIFY(monitor.traceText().contains(QStringLiteral("R0 181 %1 ").arg(length)));
    }

    void viewFollowsOnlyFromTheBottom()
    {
        FrmDiagno monitor(nullptr, nullptr);
        monitor.resize(600, 300);
        monitor.show();
        QVERIFY(QTest::qWaitForWindowExposed(&monitor));
        const quint8 data[8] = {};
        const auto heartbeat = [&] {
            monitor.traceFrame(0, 1, 0x701, 0, 1, data);
            monitor.refreshTrace();
        };
        for (int i = 0; i < 200; ++i)
            heartbeat();
        QScrollBar* bar = monitor.edTrace->verticalScrollBar();
        QCOMPARE(bar->value(), bar->maximum());
        bar->setValue(bar->maximum() / 2); // the user scrolls up to read
        const int reading = bar->value();
        heartbeat();
        heartbeat();
        QCOMPARE(bar->value(), reading);
        bar->setValue(bar->maximum()); // back at the bottom: following again
        heartbeat();
        QCOMPARE(bar->value(), bar->maximum());
        QVERIFY(monitor.screenText().endsWith("R0 701 1 000s000.000 > 00 \n"));
        // A view shown for the first time with lines wider than itself follows too.
        TraceView wide;
        wide.resize(200, 100);
        wide.show();
        TraceBuffer lines;
        for (int i = 0; i < 50; ++i)
            lines.append(QString(100, QLatin1Char('x')));
        wide.showChanges(lines);
        QTRY_VERIFY(wide.horizontalScrollBar()->isVisible());
        QVERIFY(wide.verticalScrollBar()->maximum() > 0);
        QCOMPARE(wide.verticalScrollBar()->value(), wide.verticalScrollBar()->maximum());

        // A reader a page up keeps the line in view, and what is selected, while the text is cut
        // from the front; a drag selects, Ctrl+C copies.
        for (quint32 i = 0; i < 2100; ++i) {
            monitor.traceFrame(0, 1, 0x181, i * 1000, 1, data);
            monitor.refreshTrace();
        }
        bar->setValue(bar->maximum() - 40);
        const auto topLine = [&] { return monitor.screenText().split('\n').value(bar->value()); };
        const QString kept = topLine();
        QTest::mouseClick(monitor.edTrace->viewport(), Qt::LeftButton, {}, QPoint(2, 2));
        QTest::mouseClick(monitor.edTrace->viewport(), Qt::LeftButton, Qt::ShiftModifier,
                          QPoint(2, 2 + monitor.edTrace->fontMetrics().lineSpacing()));
        QCOMPARE(monitor.edTrace->selectedText(), kept + "\n");
        for (int i = 0; i < 200; ++i)
            heartbeat();
        QVERIFY(monitor.screenText().size() < 16300 + 200 * 28); // cut meanwhile
        QCOMPARE(topLine(), kept);
        QCOMPARE(monitor.edTrace->selectedText(), kept + "\n");
        QTest::keyClick(monitor.edTrace, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(), kept + "\n");
        bar->setValue(bar->maximum());

        // Paused, the view stands still while frames are collected; resumed, it shows them.
        const QString frozen = monitor.screenText();
        QTest::mouseClick(monitor.cmdPause, Qt::LeftButton);
        for (int i = 0; i < 3; ++i)
            heartbeat();
        QCOMPARE(monitor.screenText(), frozen);
        QCOMPARE(monitor.cmdPause->text(), QString("Resume"));
        QTest::mouseClick(monitor.cmdPause, Qt::LeftButton);
        QCOMPARE(monitor.screenText().count('\n'), frozen.count('\n') + 3);
        // Ctrl+Home and Ctrl+End move in the trace.
        monitor.edTrace->setFocus();
        QTest::keyClick(monitor.edTrace, Qt::Key_Home, Qt::ControlModifier);
        QCOMPARE(bar->value(), 0);
        QTest::keyClick(monitor.edTrace, Qt::Key_End, Qt::ControlModifier);
        QCOMPARE(bar->value(), bar->maximum());
    }

    void sendButtons()
    {
        Rig rig;
        rig.setSlot(0, "000", "2", {"01", "00"});
        rig.setSlot(1, "181", "9", {"12"});
        rig.setSlot(2, "7e5", "4", {"zz"});
        rig.monitor.slotGrid->chRem[2]->setChecked(true);
        rig.setSlot(7, "182", "abc");
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[0], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[1], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[2], Qt::LeftButton);
        QTest::mouseClick(rig.monitor.slotGrid->btnSend[7], Qt::LeftButton);
        QCOMPARE(rig.sent, QStringList({"0:0100", "R7e5:4"}));
        QCOMPARE(rig.messages.size(), 2);
        QCOMPARE(rig.messages[0], QStringLiteral("Invalid message lenght"));
        QVERIFY(rig.messages[1].contains("slot 8"));
        // Slots outside 0..7 send nothing and say nothing; a failed send is reported as such.
        QVERIFY(!rig.monitor.sendSlot(-1));
        QVERIFY(!rig.monitor.sendSlot(8));
        rig.failSends = true;
        QVERIFY(rig.monitor.sendSlot(0));
        QCOMPARE(rig.sent.size(), 3);
        // The fields are kept as typed.
        QCOMPARE(rig.monitor.slotGrid->edLen0[1]->text(), QStringLiteral("9"));
    }
};

QTEST_MAIN(TstFrmDiagno)
#include "tst_frmdiagno.moc"

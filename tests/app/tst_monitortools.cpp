#include "benchpanel.h"
#include "frmdiagno.h"
#include "frminviamesg.h"
#include "frmio.h"
#include "frmmain.h"
#include "frmnetwork.h"
#include "frmplot.h"
#include "frmseq.h"
#include "identifiertable.h"
#include "sdopanel.h"
#include "serverprocess.h"
#include "tesselharness.h"
#include "toolwindows.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel;
using namespace tessel::test;
using namespace qorcalib::test;

namespace {

void setSlot(FrmDiagno* monitor, int i, const QString& id, const QString& length,
             const QStringList& data = {})
{
    monitor->slotGrid->edID0[i]->setText(id);
    monitor->slotGrid->edLen0[i]->setText(length);
    for (int j = 0; j < 8; ++j)
        monitor->slotGrid->edD0[i * 8 + j]->setText(data.value(j));
}

// A second Tessel on the same bus collects what the first one sends, with the server's time
// stamps: only the identifiers in `ids` pass its filter.
struct Observer
{
    Observer(const QString& socket, const QStringList& ids) : tessel(socket)
    {
        ok = tessel.load();
        FrmDiagno* m = tessel.window.monitor();
        for (int i = 0; i < ids.size(); ++i)
            m->txtDiscardList[i]->setText(ids[i]);
        m->chkInvert->setChecked(true);
        m->acquisition->chkExport->setChecked(true);
    }
    const AcquisitionBuffer& frames() const
    {
        return tessel.window.monitor()->acquisition->buffer();
    }
    Tessel tessel;
    bool ok = false;
};

} // namespace

class TstMonitorTools : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { m_bench.useOwnSettings(); }

    void composerListGoesOutCompleteAndInOrder()
    {
        QVERIFY(m_bench.startServer());
        Observer observer(m_bench.server->socketPath(), {"181"});
        QVERIFY(observer.ok);
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        t.window.monitor()->cmdInvia_Click();
        FrmInviaMesg* composer = t.window.monitor()->composer();
        QString text;
        for (int i = 0; i < 100; ++i)
            text += QStringLiteral("T 181 xxxxx > %1\n").arg(i, 2, 16, QLatin1Char('0'));
        composer->txtMesg->setPlainText(text);
        composer->txtRitardo->setText("1");
        QSignalSpy done(composer, &FrmInviaMesg::runFinished);
        QTest::mouseClick(composer->cmdInvia, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(done.size(), 1, 20000);
        QTRY_COMPARE(observer.frames().count(), qsizetype(100));
        for (int i = 0; i < 100; ++i) {
            QCOMPARE(int(observer.frames().at(i).length), 1);
            QCOMPARE(int(observer.frames().at(i).data[0]), i);
        }
        QVERIFY2(t.messages.isEmpty(), qPrintable(t.messages.join("; ")));
    }

    void acquisitionOfTenThousandFramesExports()
    {
        QVERIFY(m_bench.startServer());
        Observer observer(m_bench.server->socketPath(), {"181", "7FF", "0"});
        QVERIFY(observer.ok);
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        constexpr int kFrames = 10000;
        for (int i = 0; i < kFrames; ++i) {
            const quint16 id = i % 3 == 0 ? 0x181 : i % 3 == 1 ? 0x7FF : 0x000;
            const QByteArray data = QByteArray::number(i).left(i % 9);
            QCOMPARE(t.window.SendCanMsg(id, int(data.size()), data), false);
        }
        QTRY_COMPARE_WITH_TIMEOUT(observer.frames().count(), qsizetype(kFrames), 20000);
        QTemporaryDir dir;
        AcquisitionBar* acq = observer.tessel.window.monitor()->acquisition;
        acq->txtFileName->setText(dir.filePath("acq.csv"));
        QTest::mouseClick(acq->cmdSaveAcq, Qt::LeftButton);
        QVERIFY(observer.tessel.messages.isEmpty());
        QFile file(dir.filePath("acq.csv"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.size(), kFrames + 1);
        QVERIFY(lines.last().isEmpty());
        const QRegularExpression format(
            QStringLiteral("^(385|2047|0);-?\\d+;([0-8]);((\\d{1,3};)*)\\r$"));
        for (int i = 0; i < kFrames; ++i) {
            const QRegularExpressionMatch m = format.match(QString::fromLatin1(lines[i]));
            QVERIFY2(m.hasMatch(), lines[i].constData());
            QCOMPARE(m.captured(3).count(';'), m.captured(2).toInt());
            const QByteArray data = QByteArray::number(i).left(i % 9);
            QCOMPARE(m.captured(2).toInt(), int(data.size()));
        }
    }

    void runningToolsStopWhenTheServerGoes()
    {
        // Two sequencer rows and the composer keep sending when the server is killed: each stops
        // and says so once, and the messages do not go on at every tick.
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        FrmDiagno* monitor = t.window.monitor();
        setSlot(monitor, 0, "181", "1", {"11"});
        setSlot(monitor, 1, "182", "1", {"22"});
        monitor->cmdSeq_Click();
        FrmSeq* seq = monitor->sequencer();
        seq->txtSeq[0]->setText("M1 T0.02");
        seq->txtSeq[1]->setText("M2 T0.03");
        seq->chkEn[0]->setChecked(true);
        seq->chkEn[1]->setChecked(true);
        monitor->cmdInvia_Click();
        FrmInviaMesg* composer = monitor->composer();
        QString text;
        for (int i = 0; i < 500; ++i)
            text += QStringLiteral("T 183 xxxxx > %1\n").arg(i & 0xFF, 2, 16, QLatin1Char('0'));
        composer->txtMesg->setPlainText(text);
        composer->txtRitardo->setText("10");
        QSignalSpy done(composer, &FrmInviaMesg::runFinished);
        QTimer::singleShot(300, this, [this] { m_bench.server->kill(); });
        QTest::mouseClick(composer->cmdInvia, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(done.size(), 1, 5000);
        QTRY_VERIFY(!seq->chkEn[0]->isChecked() && !seq->chkEn[1]->isChecked());
        QTRY_COMPARE(t.messages.filter("was lost").size(), 1);
        const QStringList said = t.messages;
        QCOMPARE(said.filter("Row 1: Sequence stopped").size(), 1);
        QCOMPARE(said.filter("Row 2: Sequence stopped").size(), 1);
        // Why the sends failed is said once for the three of them (twice where a send failed
        // before the loss was known, with the shorter text).
        QVERIFY2(said.size() <= 5, qPrintable(said.join("\n")));
        QTest::qWait(300);
        QCOMPARE(t.messages, said);
        // The rows can be edited again, and the monitor still traces what was sent.
        QVERIFY(seq->txtSeq[0]->isEnabled());
        QVERIFY(t.trace().contains("T0 181 1 "));
    }

    void busViewDecodesAndCounts()
    {
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        FrmDiagno* m = t.window.monitor();
        m->chkEnShowTx->setChecked(true);
        m->show();
        QTRY_VERIFY_WITH_TIMEOUT(t.trace().count("> 7F ") >= 2, 5000);
        QTest::mouseClick(t.window.cmdNMT[0], Qt::LeftButton);
        t.window.sdoPanel->cmbIndex->setCurrentText("1,1018,1");
        t.window.sdoPanel->cmdUpload_Click();
        QCOMPARE(t.window.txtAbort->text(), QString());
        // The same frames, decoded behind the start of their trace lines, entries named by the EDS
        // the EDS browser opens with.
        const QRegularExpression lines(
            "R0 701 1 \\d{3}s\\d{3}\\.\\d{3}  heartbeat node 1: pre-operational\r\n(.*\r\n)*"
            "T0 000 2 000s000.000  NMT: start, all nodes\r\n(.*\r\n)*"
            "T0 601 8 000s000.000  SDO request node 1: block upload 1018:01 \\(Identity "
            "Object/Vendor-ID\\), 127 segments a block\r\n(.*\r\n)*"
            "R0 581 8 \\d{3}s\\d{3}\\.\\d{3}  SDO answer node 1: upload 1018:01 \\(Identity "
            "Object/Vendor-ID\\) = A1 03 00 00 \\(929\\)");
        QTRY_VERIFY2(lines.match(m->busView->decodedText()).hasMatch(),
                     qPrintable(m->busView->decodedText()));
        m->tabView->setCurrentWidget(m->busView->edDecoded);
        QTRY_VERIFY(m->busView->edDecoded->toPlainText().contains("NMT: start, all nodes"));

        // By identifier: what came, how often, at which cycle; the rows published when shown.
        m->tabView->setCurrentWidget(m->busView->tblIds);
        const QAbstractItemModel* rows = m->busView->tblIds->model();
        const auto cell = [rows](const QString& can, const QString& id, int column) {
            for (int r = 0; r < rows->rowCount(); ++r)
                if (rows->index(r, 0).data().toString() == can &&
                    rows->index(r, 1).data().toString() == id)
                    return rows->index(r, column).data().toString();
            return QString("no row");
        };
        QTRY_COMPARE(cell("0", "701", IdentifierTable::Service), QString("heartbeat"));
        QTRY_COMPARE(cell("0", "701", IdentifierTable::Meaning), QString("operational"));
        QVERIFY(cell("0", "701", IdentifierTable::Count).toInt() >= 3);
        // The drive's heartbeat every second, by the server's stamps.
        const double cycle = cell("0", "701", IdentifierTable::CycleLast).toDouble();
        QVERIFY2(cycle > 900 && cycle < 1100, qPrintable(QString::number(cycle)));
        QVERIFY(cell("0", "701", IdentifierTable::CycleMin).toDouble() <= cycle);
        QCOMPARE(cell("0 Tx", "000", IdentifierTable::Data), QString("01 00"));
        QCOMPARE(cell("0", "581", IdentifierTable::Service), QString("SDO answer"));
        // Sorted by count, the heartbeat comes first among the drive's frames.
        m->busView->tblIds->sortByColumn(IdentifierTable::Count, Qt::DescendingOrder);
        QCOMPARE(rows->index(0, 1).data().toString(), QString("701"));
        // The load of the running controller, measured every second.
        QTRY_VERIFY2_WITH_TIMEOUT(m->busView->lblLoad->text().startsWith("CAN 0: 0."),
                                  qPrintable(m->busView->lblLoad->text()), 3000);
        // Cleared with the trace.
        QTest::mouseClick(m->btnRes, Qt::LeftButton);
        QCOMPARE(rows->rowCount(), 0);
        QCOMPARE(m->busView->decodedText(), QString());

        // TPDO1 mapped anew on the drive, and its mapping read back for the decoder: the next TPDO1
        // (the statusword changing) shows the new field by its name.
        const auto write = [&](int index, int sub, const QByteArray& value) {
            const auto r = t.window.link()->sdoTransfer(0, false, 1, index, sub, value);
            return r.error.isEmpty() && r.abortCode == 0;
        };
        QVERIFY(write(0x1800, 1, QByteArray::fromHex("81010080"))); // not valid while mapped
        QVERIFY(write(0x1A00, 0, QByteArray(1, 0)));
        QVERIFY(write(0x1A00, 2, QByteArray::fromHex("08006160")));
        QVERIFY(write(0x1A00, 0, QByteArray(1, 2)));
        QVERIFY(write(0x1800, 1, QByteArray::fromHex("81010000")));
        t.window.findChild<ToolWindows*>()->readMapping(0, 0x181);
        QVERIFY(write(0x6040, 0, QByteArray::fromHex("0600")));
        QTRY_VERIFY2(m->busView->decodedText().contains(
                         "TPDO1 node 1: Statusword = 561; Modes of Operation Display = 0"),
                     qPrintable(m->busView->decodedText()));
    }

    void networkWindow()
    {
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        t.window.findChild<QPushButton*>("cmdNetwork")->click();
        auto* w = t.window.findChild<FrmNetwork*>();
        QVERIFY(w && w->isVisible());
        const auto cell = [w](int column) {
            for (int r = 0; r < w->tblNodes->rowCount(); ++r)
                if (w->tblNodes->item(r, FrmNetwork::Node)->text() == "1")
                    return w->tblNodes->item(r, column)->text();
            return QString("no row");
        };
        // The drive, from its heartbeats: its state, then its period once two have come.
        QTRY_COMPARE_WITH_TIMEOUT(cell(FrmNetwork::State), QString("pre-operational"), 3000);
        QTRY_VERIFY_WITH_TIMEOUT(cell(FrmNetwork::Heartbeat).endsWith(" ms"), 5000);
        const int period = cell(FrmNetwork::Heartbeat).chopped(3).toInt();
        QVERIFY2(period > 900 && period < 1100, qPrintable(cell(FrmNetwork::Heartbeat)));
        // Scan: its identity; the user's SDO time-out back afterwards.
        QTest::mouseClick(w->cmdScan, Qt::LeftButton);
        QCOMPARE(cell(FrmNetwork::DeviceType), QString("00020192"));
        QCOMPARE(cell(FrmNetwork::Vendor), QString("000003A1"));
        QCOMPARE(cell(FrmNetwork::Name), QString("QD-300"));
        QVERIFY2(w->logText().contains("scan of CAN 0: 1 node(s) answered"),
                 qPrintable(w->logText()));
        QCOMPARE(t.window.link()->sdoTimeoutMs(), 1000);
        QVERIFY(t.messages.isEmpty());
        // NMT by node, seen in the next heartbeat.
        w->sendNmt(1, 0x01);
        QTRY_COMPARE_WITH_TIMEOUT(cell(FrmNetwork::State), QString("operational"), 3000);
        QVERIFY(w->logText().contains("node 1: pre-operational -> operational"));
        QVERIFY2(t.trace().contains("T0 000 2 000s000.000 > 01 01 "),
                 qPrintable(t.trace().right(400)));
        // Over-voltage: the drive's fault and its emergency, then the error history read.
        t.window.benchPanel->txtVout->setText("58");
        QTest::mouseClick(t.window.benchPanel->cmdDoVout, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(cell(FrmNetwork::Emergency).startsWith("3210"), 3000);
        w->readErrorHistory(1);
        QVERIFY2(w->logText().contains("node 1: error history, newest first: 1: 3210 "),
                 qPrintable(w->logText()));
        // Power off: the heartbeat missed, said once and shown in the row.
        QTest::mouseClick(t.window.benchPanel->cmdShutdown, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(cell(FrmNetwork::Alarm), QString("heartbeat missed"), 3000);
        QCOMPARE(w->logText().count("heartbeat missed"), 1);
        // The server lost during a scan: the scan stops, and the user's time-out, not the scan's
        // short one, is what the next connection gets.
        QTimer::singleShot(200, this, [this] { m_bench.server->kill(); });
        QTest::mouseClick(w->cmdScan, Qt::LeftButton);
        QVERIFY2(t.messages.join('\n').contains("Scan stopped: "),
                 qPrintable(t.messages.join('\n')));
        QCOMPARE(t.window.link()->sdoTimeoutMs(), 1000);
    }

    void plotWindow()
    {
        QVERIFY(m_bench.startServer());
        Tessel t(m_bench.server->socketPath());
        QVERIFY(t.load());
        t.window.findChild<QPushButton*>("cmdPlot")->click();
        auto* w = t.window.findChild<FrmPlot*>();
        QVERIFY(w && w->isVisible());
        // A typo is said, and nothing is added.
        w->txtSource->setText("sdo 1,60x1,0");
        QTest::mouseClick(w->cmdAdd, Qt::LeftButton);
        QVERIFY2(w->lblStatus->text().startsWith("Not added: an entry is"),
                 qPrintable(w->lblStatus->text()));
        QCOMPARE(w->traceCount(), 0);
        // The drive's statusword by SDO, its heartbeat's state byte, a fixture channel.
        w->txtSource->setText("sdo 1,6041,0 u16 every 20 as Statusword");
        QTest::keyClick(w->txtSource, Qt::Key_Return);
        QVERIFY(w->addSource("frame 701 0:7 as State"));
        QVERIFY(w->addSource("analog 0 every 50"));
        QCOMPARE(w->traceCount(), 3);
        QTRY_VERIFY_WITH_TIMEOUT(
            w->ring(0).size() > 10 && w->ring(1).size() >= 1 && w->ring(2).size() > 3, 5000);
        const CanLink::SdoResult status = t.window.link()->sdoTransfer(0, true, 1, 0x6041, 0);
        QCOMPARE(w->ring(0).last().v, double(quint8(status.data[0]) | quint8(status.data[1]) << 8));
        QCOMPARE(w->ring(1).last().v, 127.0); // pre-operational
        // The reads keep to their period: about 50 a second, none of them failed.
        const double span = w->ring(0).last().t - w->ring(0).at(0).t;
        QVERIFY2(w->ring(0).size() >= span * 25 && w->ring(0).size() <= span * 50 + 2,
                 qPrintable(QString("%1 reads in %2 s").arg(w->ring(0).size()).arg(span)));
        for (qsizetype i = 0; i < w->ring(0).size(); ++i)
            QVERIFY(!w->ring(0).at(i).isGap());
        // Cursors read every trace; the CSV holds the visible range's values.
        w->setFollowing(false);
        w->redraw();
        w->setCursorAt(0, w->ring(0).at(2).t);
        w->setCursorAt(1, w->ring(0).last().t);
        QCOMPARE(w->grdTraces->item(0, FrmPlot::AtA)->text(), QString::number(w->ring(0).at(2).v));
        QCOMPARE(w->grdTraces->item(0, FrmPlot::Difference)->text(), QString("0"));
        QVERIFY(w->lblStatus->text().contains("B - A "));
        QTemporaryDir dir;
        QString error;
        QVERIFY2(w->exportCsv(dir.filePath("plot.csv"), &error), qPrintable(error));
        QFile csv(dir.filePath("plot.csv"));
        QVERIFY(csv.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = csv.readAll().split('\n');
        QCOMPARE(lines[0], QByteArray("time_s,trace,value,error"));
        QVERIFY(lines.size() > 10);
        QVERIFY(w->exportPng(dir.filePath("plot.png"), &error));
        QCOMPARE(QImage(dir.filePath("plot.png")).isNull(), false);
        // The server gone: a gap with its reason, no line across it, no crash.
        m_bench.server->kill();
        QTRY_VERIFY_WITH_TIMEOUT(w->ring(0).last().isGap(), 5000);
        QVERIFY(w->ring(0).gapReason(w->ring(0).last().t).startsWith("CAN server not reachable"));
        w->redraw();
        QTRY_VERIFY(w->grdTraces->item(0, FrmPlot::Now)->text().startsWith("gap: "));
        // Closed, the reads stop; the traces and the settings stay for the next window.
        w->close();
        const qsizetype kept = w->ring(0).size();
        QTest::qWait(200);
        QCOMPARE(w->ring(0).size(), kept);
        FrmPlot again(t.window.link());
        QCOMPARE(again.traceCount(), 3);
        QCOMPARE(again.traceName(0), QString("Statusword"));
        // The loss is said once, by the main window.
        QCOMPARE(t.messages.size(), 1);
        QVERIFY(t.messages[0].startsWith("The CAN server was lost."));
    }

private:
    WindowTestBench m_bench;
};

QTEST_MAIN(TstMonitorTools)
#include "tst_monitortools.moc"

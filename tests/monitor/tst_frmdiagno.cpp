#include "canmsg.h"
#include "frmdiagno.h"

#include <QPlainTextEdit>
#include <QScrollBar>
#include <QTest>
#include <QtEndian>

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

} // namespace

class TstFrmDiagno : public QObject
{
    Q_OBJECT
private slots:
    void recordsOfNoFrameLengthAreDropped_data();
    void recordsOfNoFrameLengthAreDropped();
    void viewFollowsOnlyFromTheBottom();
};

void TstFrmDiagno::recordsOfNoFrameLengthAreDropped_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<bool>("traced");
    QTest::newRow("0") << 0 << true;
    QTest::newRow("8") << 8 << true;
    QTest::newRow("9") << 9 << false;
    QTest::newRow("300") << 300 << false;
    QTest::newRow("-1") << -1 << false;
}

void TstFrmDiagno::recordsOfNoFrameLengthAreDropped()
{
    QFETCH(int, length);
    QFETCH(bool, traced);
    FrmDiagno monitor(nullptr, nullptr);
    monitor.receiveRecords(0, record(0x181, qint16(length)) + record(0x182, 1), 2);
    QCOMPARE(monitor.traceText().contains("R0 181"), traced);
    QVERIFY(monitor.traceText().contains("R0 182 1 000s000.000 > 10 "));
    if (traced)
        QVERIFY(monitor.traceText().contains(QStringLiteral("R0 181 %1 ").arg(length)));
}

void TstFrmDiagno::viewFollowsOnlyFromTheBottom()
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
}

QTEST_MAIN(TstFrmDiagno)
#include "tst_frmdiagno.moc"

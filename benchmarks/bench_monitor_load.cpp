// What the user feels under load: the server's world on its own thread with four paced
// simulated controllers at 1000K, each kept full by a busy device, and Tessel tracing all four
// in the monitor on screen while a sequence sends two slots every 10 ms. Prints the lateness of
// a 10 ms timer on Tessel's main thread (how late each expiry came: median, 99th percentile,
// worst), the frames Tessel received per second, and the process's resident memory (Tessel and
// the server together) after the first minute and at the end, and the CPU time a frame received
// of Tessel's main thread and of the rest of the process.
//
//   bench_monitor_load [--minutes N] [--tab T] [--plot]
//     N: default 2, 60 for the hour-long run; T: the monitor's tab on screen, 0 the trace
//     (default), 1 the decoded frames, 2 the identifiers. --plot: the plot window on screen
//     too, with a trace of each controller's frames (their number, from the frame's data).

#include "floodserver.h"
#include "frmdiagno.h"
#include "frmmain.h"
#include "frmplot.h"
#include "frmseq.h"
#include "serverprocess.h"
#include "slotgrid.h"

#include <QApplication>

#include <QCheckBox>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTimer>
#include <ctime>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

using namespace tessel;
using namespace qorcalib;

namespace {

constexpr int kControllers = 4;

qint64 residentKib()
{
    return qorcalib::test::residentKib(QCoreApplication::applicationPid());
}

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[size_t(p * double(values.size() - 1))];
}

double cpuSeconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    double minutes = 2;
    int tab = 0;
    bool plot = false;
    for (int i = 1; i < argc; ++i) {
        const QByteArray value = i + 1 < argc ? QByteArray(argv[i + 1]) : QByteArray();
        if (QByteArray(argv[i]) == "--minutes")
            minutes = value.toDouble();
        if (QByteArray(argv[i]) == "--plot")
            plot = true;
        if (QByteArray(argv[i]) == "--tab")
            tab = value.toInt();
    }
    QTemporaryDir dir;
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir.filePath("settings"));
    QSettings::setPath(QSettings::IniFormat, QSettings::SystemScope, dir.filePath("system"));

    const QString socketPath = dir.filePath(QStringLiteral("qorcalib"));
    FloodServer server(socketPath, FloodServer::Load{kControllers});
    if (!server.start())
        return 1;

    FrmMain window;
    window.link()->setLocalSocketPath(socketPath);
    window.setMessageHandler(
        [](const QString& text) { std::fprintf(stderr, "message: %s\n", qPrintable(text)); });
    QString error;
    if (!window.formLoad(QStringLiteral("localhost"), &error)) {
        std::fprintf(stderr, "start-up: %s\n", qPrintable(error));
        return 1;
    }
    for (int c = 0; c < kControllers; ++c)
        window.chkCanEnable[c]->setChecked(true); // all at 1000K
    window.cmdDiagno->click();
    FrmDiagno* monitor = window.monitor();
    for (int s = 0; s < 2; ++s) {
        monitor->slotGrid->edID0[s]->setText(QString::number(0x281 + s, 16));
        monitor->slotGrid->edLen0[s]->setText(QStringLiteral("8"));
    }
    monitor->tabView->setCurrentIndex(tab);
    monitor->setSequenceText(0, QStringLiteral("M1 T0.01 M2 T0.01"));
    monitor->cmdSeq_Click();
    monitor->sequencer()->chkEn[0]->setChecked(true);
    if (plot) {
        window.findChild<QPushButton*>(QStringLiteral("cmdPlot"))->click();
        auto* p = window.findChild<FrmPlot*>();
        for (int c = 0; c < kControllers; ++c)
            p->addSource(QStringLiteral("frame %1 0:32 on %2").arg(0x7F0 + c, 0, 16).arg(c));
    }

    qint64 received = 0;
    std::array<qint64, kControllers> perController{};
    QObject::connect(window.link(), &CanLink::framesReceived, &app,
                     [&](int controller, const QByteArray&, int count) {
                         received += count;
                         if (controller >= 0 && controller < kControllers)
                             perController[size_t(controller)] += count;
                     });

    std::vector<double> lateMs;
    QElapsedTimer clock;
    clock.start();
    qint64 lastTick = 0;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    qint64 memoryAfterMinute = -1;
    qint64 receivedAtMinute = 0;
    QObject::connect(&tick, &QTimer::timeout, &app, [&] {
        const qint64 now = clock.nsecsElapsed();
        if (lastTick > 0)
            lateMs.push_back(std::max(0.0, (now - lastTick) * 1e-6 - 10.0));
        lastTick = now;
        if (memoryAfterMinute < 0 && now >= 60'000'000'000LL) {
            memoryAfterMinute = residentKib();
            receivedAtMinute = received;
        }
    });
    // The first seconds fill the trace and the buses; lateness and CPU count from then on.
    double mainCpuFrom = 0, processCpuFrom = 0;
    qint64 receivedFrom = 0;
    QTimer::singleShot(3000, &app, [&] {
        lateMs.clear();
        lastTick = 0;
        tick.start(10);
        mainCpuFrom = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
        processCpuFrom = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
        receivedFrom = received;
    });
    QTimer::singleShot(qint64(minutes * 60000), &app, [&] { app.exit(0); });
    app.exec();
    tick.stop();
    const double mainCpu = cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - mainCpuFrom;
    const double restCpu = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - processCpuFrom - mainCpu;
    const double counted = double(std::max<qint64>(1, received - receivedFrom));
    const double seconds = clock.nsecsElapsed() * 1e-9;
    const qint64 memoryAtEnd = residentKib();
    monitor->sequencer()->chkEn[0]->setChecked(false);

    std::printf("%.0f s, four controllers at 1000K: Tessel received %.0f frames/s (%.0f, %.0f, "
                "%.0f, %.0f a controller)\n",
                seconds, received / seconds, perController[0] / seconds, perController[1] / seconds,
                perController[2] / seconds, perController[3] / seconds);
    std::printf("main thread lateness of a 10 ms timer (%zu expiries): median %.2f ms, 99th "
                "percentile %.2f ms, worst %.2f ms\n",
                lateMs.size(), percentile(lateMs, 0.5), percentile(lateMs, 0.99),
                percentile(lateMs, 1.0));
    std::printf("CPU a frame received: Tessel's main thread %.2f us; the rest of the process (the "
                "server's thread with the simulated buses and their busy devices) %.2f us\n",
                mainCpu * 1e6 / counted, restCpu * 1e6 / counted);
    if (auto* p = window.findChild<FrmPlot*>())
        std::printf("plot: %d traces, %lld values in the first\n", p->traceCount(),
                    p->traceCount() > 0 ? qint64(p->ring(0).size()) : 0LL);
    if (memoryAfterMinute >= 0)
        std::printf("resident memory of Tessel and the server: %.1f MB after the first minute, "
                    "%.1f MB at the end "
                    "(%+.1f MB; %lld frames received since the first minute)\n",
                    memoryAfterMinute / 1024.0, memoryAtEnd / 1024.0,
                    (memoryAtEnd - memoryAfterMinute) / 1024.0, received - receivedAtMinute);
    return 0;
}

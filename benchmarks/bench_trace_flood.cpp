// Floods controller 0 of the unpaced simulated bus and measures the whole path of a received
// frame in Tessel: server, session events, the link's notify rules, the monitor's receive
// filter and the trace text (with the screen refreshed as in use). Prints frames per second
// and the CPU time of Tessel's thread per frame, and checks that the trace ends with exactly
// the line of the last frame. With --export the monitor collects the frames too ("Export"
// ticked), and the collected frames are then written with "Save Acq", timed.
//
//   bench_trace_flood [frames] [--export]     (default 300000)

#include "canmsg.h"
#include "floodserver.h"
#include "frmdiagno.h"
#include "frmmain.h"
#include "traceline.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <QtEndian>

#include <cstdio>
#include <ctime>

using namespace tessel;

namespace {
double threadCpuSeconds()
{
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}
} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    qint64 total = 300000;
    bool collect = false;
    for (int i = 1; i < argc; ++i) {
        if (QByteArray(argv[i]) == "--export")
            collect = true;
        else
            total = QByteArray(argv[i]).toLongLong();
    }
    QTemporaryDir dir;
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir.filePath("settings"));
    const QString socketPath = dir.filePath(QStringLiteral("qorcalib"));
    qorcalib::FloodServer server(socketPath, total);
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
    window.cmdDiagno->click(); // the monitor on screen, refreshing as in use
    if (collect)
        window.monitor()->acquisition->chkExport->setChecked(true);

    qint64 received = 0;
    qint64 outOfOrder = 0;
    qorcalib::CanFrame last;
    // Connected after the main window: it runs once the monitor has taken the batch.
    QObject::connect(window.link(), &CanLink::framesReceived, &app,
                     [&](int controller, const QByteArray& records, int count) {
                         if (controller != 0)
                             return;
                         for (int i = 0; i < count; ++i) {
                             const qorcalib::CanFrame f = qorcalib::recordAt(records, i);
                             last = f; // the drive's heartbeats are traced too
                             if (f.id != 0x181)
                                 continue;
                             if (qFromLittleEndian<quint64>(f.data.data()) != quint64(received))
                                 ++outOfOrder;
                             ++received;
                         }
                         // exit, not quit: quit would close the windows, and closing is not
                         // what is measured here.
                         if (received >= total)
                             app.exit(0);
                     });
    QTimer::singleShot(300000, &app, [&] {
        std::fprintf(stderr, "timed out after %lld of %lld frames\n", received, total);
        app.exit(1);
    });

    QElapsedTimer clock;
    clock.start();
    const double cpuStart = threadCpuSeconds();
    server.flood();
    if (app.exec() != 0)
        return 1;
    const double seconds = clock.nsecsElapsed() * 1e-9;
    const double cpu = threadCpuSeconds() - cpuStart;

    window.monitor()->refreshTrace();
    const QString expected = traceLine(0, int(TraceKind::Received), last.id, last.timeUs, last.len,
                                       last.data.data(), QLocale().decimalPoint().at(0)) +
                             QStringLiteral("\r\n");
    const bool exact = window.monitor()->traceText().endsWith(expected) &&
                       window.monitor()->screenText().endsWith(
                           QString(expected).replace(QStringLiteral("\r\n"), QStringLiteral("\n")));
    std::printf("frames through server, link, filter and trace: %lld in %.3f s = %.0f frames/s\n",
                received, seconds, received / seconds);
    std::printf("Tessel thread CPU: %.2f s, %.2f us per frame; lost or out of order: %lld; "
                "trace ends with the last frame's exact line: %s\n",
                cpu, cpu * 1e6 / double(received), outOfOrder, exact ? "yes" : "NO");
    if (collect) {
        AcquisitionBar* acq = window.monitor()->acquisition;
        const qsizetype collected = acq->buffer().count();
        acq->txtFileName->setText(dir.filePath(QStringLiteral("acq.csv")));
        QElapsedTimer writing;
        writing.start();
        acq->cmdSaveAcq_Click();
        const double writeSeconds = writing.nsecsElapsed() * 1e-9;
        std::printf("collected %lld frames; Save Acq wrote %lld bytes in %.3f s\n",
                    qint64(collected), qint64(QFileInfo(dir.filePath("acq.csv")).size()),
                    writeSeconds);
    }
    return outOfOrder == 0 && exact ? 0 : 2;
}

// What a long plot costs: four traces of 1,000 values a second for ten minutes (600,000 values
// each, read from a recording as a file source reads it), drawn in the plot window at its size.
// Prints the time to read the recording, the time of one redraw with the last 10 s in view (as
// the plot follows the newest values) and with all ten minutes in view, and the process's
// resident memory before and after.
//
//   bench_plot [--minutes N]     N: of values at 1 kHz, default 10

#include "canlink.h"
#include "frmplot.h"
#include "sampletrace.h"
#include "serverprocess.h"

#include <qcustomplot.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>

#include <cmath>
#include <cstdio>

using namespace tessel;

namespace {

qint64 residentKib()
{
    return qorcalib::test::residentKib(QCoreApplication::applicationPid());
}

// The mean time of `times` redraws, each drawn to its pixels; *drawMs: of that, the drawing.
double redrawMs(FrmPlot* w, int times, double* drawMs)
{
    QElapsedTimer took, drawing;
    took.start();
    qint64 drawn = 0;
    for (int i = 0; i < times; ++i) {
        w->redraw();
        drawing.start();
        w->plot->replot(QCustomPlot::rpImmediateRefresh);
        drawn += drawing.nsecsElapsed();
    }
    *drawMs = drawn / 1e6 / times;
    return took.nsecsElapsed() / 1e6 / times;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    double minutes = 10;
    for (int i = 1; i + 1 < argc; ++i)
        if (QByteArray(argv[i]) == "--minutes")
            minutes = QByteArray(argv[i + 1]).toDouble();
    QTemporaryDir dir;
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, dir.filePath("settings"));
    const qint64 values = qint64(minutes * 60000);

    // A recording as tessel-cli sample would leave it, with four columns: a position ramp, a
    // noisy velocity, a statusword that changes now and then, a supply with a dip.
    const QString path = dir.filePath(QStringLiteral("run.csv"));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return 1;
        QByteArray chunk = "time_s,position,velocity,status,supply\n";
        for (qint64 i = 0; i < values; ++i) {
            const double t = double(i) / 1000;
            chunk += QByteArray::number(t, 'f', 3) + ',' + QByteArray::number(i * 7 % 200000) +
                     ',' + QByteArray::number(int(1000 * std::sin(t) + (i * 7919 % 61) - 30)) +
                     ',' + QByteArray::number(i / 5000 % 2 ? 0x1637 : 0x0237) + ',' +
                     QByteArray::number(48.0 - (i % 60000 < 500 ? 3.5 : 0), 'f', 2) + '\n';
            if (chunk.size() > (1 << 20)) {
                file.write(chunk);
                chunk.clear();
            }
        }
        file.write(chunk);
    }
    const qint64 memoryBefore = residentKib();
    CanLink link; // not connected: the recording needs no server
    FrmPlot w(&link);
    w.resize(1200, 700);
    w.show();
    QElapsedTimer reading;
    reading.start();
    for (const char* column : {"position", "velocity", "status", "supply"})
        w.addSource(QStringLiteral("file %1 column %2").arg(path, QLatin1String(column)));
    while (w.traceCount() < 4 && reading.elapsed() < 600000)
        app.processEvents(QEventLoop::WaitForMoreEvents, 50);
    const double readS = reading.nsecsElapsed() / 1e9;
    if (w.traceCount() < 4 || w.ring(0).size() != values) {
        std::fprintf(stderr, "the recording was not read\n");
        return 1;
    }
    app.processEvents();
    w.plot->xAxis->setRange(0, 10);
    w.setFollowing(true);
    double followDrawMs = 0, wholeDrawMs = 0;
    const double followMs = redrawMs(&w, 20, &followDrawMs);
    w.setFollowing(false);
    w.plot->xAxis->setRange(0, minutes * 60);
    const double wholeMs = redrawMs(&w, 10, &wholeDrawMs);
    const qint64 memoryAfter = residentKib();
    std::printf("4 traces of %lld values (%.0f min at 1 kHz), read from a %.1f MB CSV in %.1f s\n",
                values, minutes, QFileInfo(path).size() / 1e6, readS);
    std::printf("redraw at %d px (of which painting): last 10 s in view %.2f ms (%.2f); all %.0f "
                "min in view %.2f ms (%.2f). At most 30 redraws a second; one longer than 6.6 ms "
                "waits 4 times its length\n",
                w.plot->axisRect()->width(), followMs, followDrawMs, minutes, wholeMs,
                wholeDrawMs);
    std::printf("resident memory: %.1f MB before, %.1f MB with the traces (%+.1f MB; %.1f MB of "
                "samples at %lld bytes each)\n",
                memoryBefore / 1024.0, memoryAfter / 1024.0,
                (memoryAfter - memoryBefore) / 1024.0,
                4.0 * values * SampleRing::kBytesPerSample / 1e6,
                qint64(SampleRing::kBytesPerSample));
    return 0;
}

// The serial console under a device that streams at full speed: megabytes through a
// pseudo-terminal into the console on screen, with the lateness of a 10 ms timer on the main
// thread as the user feels it. Usage: bench_serial_console [MiB] (default 10).
#include "frmserial.h"
#include "pty.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTextBlock>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    const int mib = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
    tessel::test::Pty device;
    if (!device.ok()) {
        std::fprintf(stderr, "no pseudo-terminal\n");
        return 1;
    }
    tessel::FrmSerial console(nullptr, nullptr);
    console.show();
    console.txtPort->setCurrentText(device.device());
    console.txtParams->setText("115200,n,8,1");
    console.chkEnable->setChecked(true);
    if (!console.isOpen()) {
        std::fprintf(stderr, "port not open\n");
        return 1;
    }
    // A 10 ms timer on the main thread: how late it fires is how late a click would be served.
    QList<qint64> lateness;
    QElapsedTimer tick;
    QTimer probe;
    probe.setTimerType(Qt::PreciseTimer);
    probe.setInterval(10);
    QObject::connect(&probe, &QTimer::timeout, [&] {
        if (tick.isValid())
            lateness << std::max<qint64>(0, tick.nsecsElapsed() / 1000 - 10000);
        tick.start();
    });
    probe.start();

    QByteArray line = "ADC 0123 4567 89AB CDEF temperature 41.5 C, bus 48.0 V, state 0x0637\r\n";
    QByteArray chunk;
    while (chunk.size() < 64 * 1024)
        chunk += line;
    const qint64 total = qint64(mib) * 1024 * 1024;
    QElapsedTimer clock;
    clock.start();
    // The device streams from its own thread, as a real one does, whatever the window does.
    std::atomic<bool> stalled{false};
    std::thread streamer([&] {
        const auto write = [&](const QByteArray& bytes) {
            qsizetype done = 0;
            while (done < bytes.size()) {
                const ssize_t n = ::write(device.masterFd(), bytes.constData() + done,
                                          size_t(bytes.size() - done));
                if (n > 0) {
                    done += n;
                    continue;
                }
                pollfd p{device.masterFd(), POLLOUT, 0};
                if (::poll(&p, 1, 60000) <= 0) {
                    stalled = true;
                    return;
                }
            }
        };
        for (qint64 sent = 0; sent < total && !stalled; sent += chunk.size())
            write(chunk);
        write("END OF STREAM\r\n");
    });
    while (!stalled && !console.txtConsole->document()->lastBlock().previous().text().endsWith("END OF STREAM"))
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    streamer.join();
    if (stalled) {
        std::fprintf(stderr, "the console stopped reading\n");
        return 1;
    }
    const double seconds = clock.nsecsElapsed() / 1e9;
    std::sort(lateness.begin(), lateness.end());
    const auto at = [&](double q) {
        return lateness.isEmpty() ? 0.0 : lateness[qsizetype(q * (lateness.size() - 1))] / 1000.0;
    };
    std::printf("%d MiB through the console in %.2f s: %.1f MiB/s (%.0f kbaud equivalent); "
                "console %d lines, %d characters\n",
                mib, seconds, mib / seconds, mib * 1024.0 * 1024.0 * 10.0 / seconds / 1000.0,
                console.txtConsole->document()->blockCount(),
                console.txtConsole->document()->characterCount());
    std::printf("10 ms timer lateness: median %.2f ms, 99th percentile %.2f ms, worst %.2f ms "
                "(%lld ticks)\n",
                at(0.5), at(0.99), at(1.0), qint64(lateness.size()));
    return 0;
}

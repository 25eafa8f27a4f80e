// tessel-cli dump under the trace flood: the unpaced simulated bus floods controller 0 with
// numbered frames and `tessel-cli dump` writes them as a candump log to a pipe; prints how many
// frames a second reach the log, and whether any was lost or came out of order.
//
//   bench_cli_dump [frames]     (default 1000000)
#include "floodserver.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 total = argc > 1 ? QByteArray(argv[1]).toLongLong() : 1000000;
    QTemporaryDir dir;
    const QString socketPath = dir.filePath(QStringLiteral("qorcalib"));
    qorcalib::FloodServer server(socketPath, total);
    if (!server.start())
        return 1;
    QProcess dump;
    dump.start(QStringLiteral(TESSEL_CLI_PATH),
               {QStringLiteral("--socket"), socketPath, QStringLiteral("dump"),
                QStringLiteral("--seconds"), QStringLiteral("120")});
    if (!dump.waitForStarted())
        return 1;
    QThread::msleep(1500); // connected and attached
    QElapsedTimer clock;
    clock.start();
    server.flood();
    qint64 lines = 0;
    qint64 flood = 0;
    qint64 outOfOrder = 0;
    QByteArray partial;
    while (flood < total && clock.elapsed() < 120000) {
        dump.waitForReadyRead(1000);
        partial += dump.readAllStandardOutput();
        qsizetype start = 0;
        for (qsizetype end; (end = partial.indexOf('\n', start)) >= 0; start = end + 1) {
            ++lines;
            const QByteArray line = partial.mid(start, end - start);
            const qsizetype hash = line.indexOf("181#");
            if (hash < 0)
                continue;
            // The frame's number, little-endian in its data.
            const QByteArray data = QByteArray::fromHex(line.mid(hash + 4));
            quint64 number = 0;
            for (int i = int(data.size()) - 1; i >= 0; --i)
                number = (number << 8) | quint8(data[i]);
            if (number != quint64(flood))
                ++outOfOrder;
            ++flood;
        }
        partial.remove(0, start);
    }
    const double seconds = clock.nsecsElapsed() / 1e9;
    dump.terminate();
    dump.waitForFinished(5000);
    std::printf("tessel-cli dump: %lld of %lld flood frames logged in %.2f s: %.0f frames/s "
                "(%lld lines in all, %lld out of order)\n",
                flood, total, seconds, flood / seconds, lines, outOfOrder);
    return flood == total && outOfOrder == 0 ? 0 : 1;
}

#pragma once

#include <QtCore>

#include <functional>

namespace tessel::test {

// Writes a candump log of `count` frames on canCHANNEL: frame i comes `spacingUs(i)` after the
// one before, its COB-ID is `idDigit` followed by i % 100 in two decimal digits (so that a
// pattern such as "5[0-9]{2}" finds them), its data i as two bytes. Their times, in
// microseconds, go to `times`. False when the file cannot be written.
inline bool writeCandumpLog(const QString& path, int count, char idDigit,
                            const std::function<qint64(int)>& spacingUs,
                            QList<qint64>* times = nullptr, int channel = 0)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly))
        return false;
    qint64 us = 1795400000000000;
    for (int i = 0; i < count; ++i) {
        us += i == 0 ? 0 : spacingUs(i);
        if (times)
            times->append(us);
        f.write(QStringLiteral("(%1.%2) can%3 %4%5#%6\n")
                    .arg(us / 1000000)
                    .arg(us % 1000000, 6, 10, QLatin1Char('0'))
                    .arg(channel)
                    .arg(QLatin1Char(idDigit))
                    .arg(i % 100, 2, 10, QLatin1Char('0'))
                    .arg(i % 65536, 4, 16, QLatin1Char('0'))
                    .toLatin1());
    }
    return f.error() == QFile::NoError;
}

} // namespace tessel::test

#include "serverclock.h"

#include <QElapsedTimer>

namespace qorcalib {

qint64 serverTimeUs()
{
    static const QElapsedTimer started = [] {
        QElapsedTimer timer;
        timer.start();
        return timer;
    }();
    return started.nsecsElapsed() / 1000;
}

} // namespace qorcalib

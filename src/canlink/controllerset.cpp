#include "controllerset.h"

namespace tessel {

void ControllerSet::reset()
{
    m_bitRate.fill(0);
    m_previous.fill(0);
}

QString ControllerSet::start(int controller, int bitRateIndex)
{
    QString error = m_link->setBitRate(controller, bitRateIndex);
    return error.isEmpty() ? m_link->startController(controller) : error;
}

QString ControllerSet::stop(int controller)
{
    return m_link->stopController(controller);
}

QString ControllerSet::switchBitRate(int controller, int bitRateIndex)
{
    QString error = m_link->setBitRate(controller, bitRateIndex);
    return error.isEmpty() ? m_link->restartController(controller) : error;
}

void ControllerSet::chooseBitRate(int controller, int bitRateIndex)
{
    m_previous.at(size_t(controller)) = m_bitRate.at(size_t(controller));
    m_bitRate.at(size_t(controller)) = bitRateIndex;
}

CanLink::LssResult ControllerSet::lssGet(int controller)
{
    const CanLink::LssResult found = m_link->lssInquire(controller);
    if (found.error.isEmpty() && found.nodeId >= 0)
        m_previous.at(size_t(controller)) = found.bitRateIndex;
    return found;
}

ControllerSet::LssSetResult ControllerSet::lssSet(int controller, int nodeId, int newBitRateIndex)
{
    LssSetResult result;
    result.listeningRate = m_previous.at(size_t(controller));
    const QString error = switchBitRate(controller, result.listeningRate);
    if (!error.isEmpty()) {
        result.switchedBack = false;
        result.lss.error = error;
        return result;
    }
    result.lss = m_link->lssConfigure(controller, nodeId, newBitRateIndex);
    return result;
}

QString ControllerSet::produceSync(int controller, int periodUs)
{
    if (m_syncController >= 0 && (m_syncController != controller || periodUs == 0)) {
        if (const QString e = m_link->setSyncPeriod(m_syncController, 0); !e.isEmpty())
            return e;
        m_syncController = -1;
    }
    if (periodUs == 0)
        return {};
    const QString error = m_link->setSyncPeriod(controller, periodUs);
    if (error.isEmpty())
        m_syncController = controller;
    return error;
}

} // namespace tessel

#include "firmwareupgrade.h"

namespace tessel {

FirmwareUpgrade::FirmwareUpgrade(CanLink* link, QObject* parent) : QObject(parent), m_link(link)
{
    connect(m_link, &CanLink::progressNotified, this, &FirmwareUpgrade::onProgress);
}

QString FirmwareUpgrade::beginBench()
{
    if (m_link->isRemote())
        return {};
    QString error;
    if (!m_link->boardCommand(kBenchTransferBegin, 0, &error))
        return error;
    m_benchPending = true;
    return {};
}

QString FirmwareUpgrade::endBench()
{
    if (!m_benchPending)
        return {};
    m_benchPending = false;
    QString error;
    return m_link->boardCommand(kBenchTransferEnd, 0, &error) ? QString() : error;
}

void FirmwareUpgrade::onProgress(double fraction)
{
    // The first report of the image's transfer: the bench has done its part.
    if (!m_benchPending || CanLink::progressPercent(fraction) > 0.0f)
        return;
    if (const QString error = endBench(); !error.isEmpty())
        emit benchFailed(error);
}

CanLink::BootResult FirmwareUpgrade::catchBoot(int controller, int node, int bitRateIndex)
{
    return m_link->stopOnBoot(controller, node, bitRateIndex);
}

CanLink::SdoResult FirmwareUpgrade::load(int controller, int node, const QByteArray& image,
                                         int index, int subIndex)
{
    return m_link->sdoTransfer(controller, false, node, index, subIndex, image);
}

CanLink::SdoResult FirmwareUpgrade::release(int controller, int node)
{
    return m_link->sdoTransfer(controller, false, node, kReleaseIndex, 0, kReleaseKey);
}

FirmwareUpgrade::Outcome FirmwareUpgrade::run(int controller, int node, int bitRateIndex,
                                              const QByteArray& image)
{
    Outcome outcome;
    // Without a bench that cycles the supply, the catch waits for a boot the user brings about.
    beginBench();
    const CanLink::BootResult caught = catchBoot(controller, node, bitRateIndex);
    outcome.bootVersion = caught.version;
    if (!caught.error.isEmpty() || caught.version == 0) {
        endBench();
        outcome.error = caught.error;
        outcome.kind = caught.kind;
        return outcome;
    }
    const CanLink::SdoResult loaded = load(controller, node, image);
    endBench();
    if (!loaded.error.isEmpty() || loaded.abortCode != 0) {
        release(controller, node);
        outcome.error = loaded.error;
        outcome.kind = loaded.kind;
        outcome.abortCode = loaded.abortCode;
        return outcome;
    }
    const CanLink::SdoResult released = release(controller, node);
    outcome.error = released.error;
    outcome.kind = released.kind;
    outcome.abortCode = released.abortCode;
    outcome.releaseFailed = released.abortCode != 0;
    return outcome;
}

} // namespace tessel

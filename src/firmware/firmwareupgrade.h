#pragma once

#include "canlink.h"

#include <QByteArray>
#include <QObject>
#include <QString>

namespace tessel {

// The drive's firmware upgrade through its boot loader, once for the firmware panel (a button per
// step) and for tessel-cli (the whole in one call):
//   1. the local bench cycles the unit's supply so that the drive boots (bench command 16; the
//      bench of a server reached over the network is left to the people beside it);
//   2. the catch stops the booting drive in its boot loader;
//   3. the image goes into the program-download object, and the bench's transfer ends (command
//      17) with the transfer's first progress report;
//   4. the release key written to the release object starts the new application.
class FirmwareUpgrade : public QObject
{
    Q_OBJECT
public:
    static constexpr int kBenchTransferBegin = 16;
    static constexpr int kBenchTransferEnd = 17;
    static constexpr int kProgramIndex = 0x1F50;
    static constexpr int kProgramSubIndex = 1;
    static constexpr int kReleaseIndex = 0x5EF0;
    static inline const QByteArray kReleaseKey = QByteArrayLiteral("QorS");

    explicit FirmwareUpgrade(CanLink* link, QObject* parent = nullptr);

    // Step 1. "" when the bench began its transfer or there is no local bench to begin it;
    // otherwise the bench's error.
    QString beginBench();
    bool benchPending() const { return m_benchPending; }
    // Ends a begun bench transfer now (tessel-cli, and after a failed catch); "" or the error.
    QString endBench();
    // Step 2: node 0 catches whichever drive boots.
    CanLink::BootResult catchBoot(int controller, int node, int bitRateIndex);
    // Step 3.
    CanLink::SdoResult load(int controller, int node, const QByteArray& image,
                            int index = kProgramIndex, int subIndex = kProgramSubIndex);
    // Step 4.
    CanLink::SdoResult release(int controller, int node);

    // The whole upgrade. A drive whose load failed is released to the application it had, not
    // left in its boot loader.
    struct Outcome
    {
        QString error;          // the link's error; empty when the server answered throughout
        ErrorKind kind = ErrorKind::None; // the error's
        quint32 abortCode = 0;  // of the load, or of the release when the load went through
        bool releaseFailed = false; // the abort code is the release's
        quint32 bootVersion = 0;    // 0: no boot loader answered
    };
    Outcome run(int controller, int node, int bitRateIndex, const QByteArray& image);

signals:
    // Ending the bench's transfer at the first progress report failed.
    void benchFailed(const QString& error);

private:
    void onProgress(double fraction);

    CanLink* m_link;
    bool m_benchPending = false;
};

} // namespace tessel

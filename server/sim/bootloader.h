#pragma once

#include "firmwareimage.h"
#include "objectdictionary.h"
#include "sdoserver.h"

#include <functional>

namespace qorcalib {

// The objects the drive's boot loader answers by SDO while a boot catch holds it:
//
//   0x1000, 0x1018 sub 0..4  device type and identity, read-only, as the application has them
//   0x1F50 sub 0             1 (one program)
//   0x1F50 sub 1             program download (write-only domain): a firmware image that
//                            readFirmwareImage accepts, at most kFlashBytes; anything else is
//                            refused with 08000020 and the installed firmware stays
//   0x5EF0 sub 0             application release (write-only, 4 bytes): exactly "QorS" starts
//                            the application; other values 06090030
//
// Everything else does not exist here (06020000).
class BootLoader : public SdoObjectAccess
{
public:
    static constexpr quint32 kVersion = 0x00010203;
    static constexpr qint64 kFlashBytes = 2 * 1024 * 1024;
    static inline const QByteArray kReleaseKey = QByteArrayLiteral("QorS");

    explicit BootLoader(const ObjectDictionary* application) : m_application(application) {}

    // An image was accepted and flashed.
    std::function<void(const FirmwareIdentity&)> flashed;
    // The release key was written: the application is to start.
    std::function<void()> release;

    quint32 upload(quint16 index, quint8 subIndex, QByteArray* data) override;
    quint32 checkDownload(quint16 index, quint8 subIndex, qint64 size) override;
    quint32 download(quint16 index, quint8 subIndex, const QByteArray& data) override;

private:
    const ObjectDictionary* m_application;
};

} // namespace qorcalib

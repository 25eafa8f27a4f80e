#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace qorcalib {

// What a firmware image says about itself.
struct FirmwareIdentity
{
    quint16 app = 0;
    quint32 version = 0; // major << 16 | minor << 8 | build
    quint32 softwareFingerprint = 0;
    quint32 hardwareFingerprint = 0;
    bool full = false; // false: the image carries a version word only

    // "major.minor.build"
    QString versionText() const;
};

// How the drive's boot loader checks an image before it flashes it. Stricter than a tool that
// only peeks at an image: every line before the first STX (code 2; a hybrid image carries its
// binary part after it) must be a well-formed S-record with a correct byte count and checksum.
// S3 records carry data at word addresses. An image with code at the raw-image address
// (0x3000000) has not been post-processed and is refused; otherwise the identification block
// at 0x8000000 (at least 16 bytes: app code, reserved, version, software and hardware
// fingerprints, little-endian) or else the version word at 0x86 (4 bytes) identifies it.
// nullopt, with the reason, when the image is not one the drive can run.
std::optional<FirmwareIdentity> readFirmwareImage(const QByteArray& image, QString* why);

} // namespace qorcalib

#pragma once

#include <QString>

#include <optional>

namespace tessel {

// The command lines of production programming, built exactly as the post-processor, the JTAG
// flasher and the production interface expect them. Program names are passed in (the window
// gives the commands the settings name for them); the texts here use the programs' own names
// by default.
namespace production {

inline const QString kPostProcess = QStringLiteral("postprocess.exe");
inline const QString kFlasher = QStringLiteral("fflash.exe");
inline const QString kProdInterface = QStringLiteral("ZDProdInterface");

// The firmware path cut at its last ".s" (any case), even inside a folder name; nullopt when
// it has none.
std::optional<QString> firmwareBase(const QString& path);
// The kickstart loader kept beside the firmware: the folder of the base, up to and including its
// last "/", followed by "kickstart"; nullopt when the base names no folder.
std::optional<QString> kickstartBase(const QString& base);
// The JTAG and serial programming commands put their paths on the line unquoted: a path with a
// blank would be split into two words. The first such path, or "" when there is none.
QString pathWithBlank(const QString& base, const QString& configuration = {});

// "postprocess.exe B.s B.sx -i SERIAL": the firmware stamped with the unit's serial.
QString stampCommand(const QString& base, qint32 serial, const QString& program = kPostProcess);
// "fflash.exe CFG -jtagclk=800 -erase=all [-recover ]-s -verifyprog B.sx".
QString flashCommand(const QString& configuration, bool recover, const QString& base,
                     const QString& program = kFlasher);
// "postprocess.exe K.s K.sl -m B.sx -p": the kickstart loader with the stamped firmware.
QString kickstartCommand(const QString& kickstart, const QString& base,
                         const QString& program = kPostProcess);
// postprocess.exe "SBF" "DBF" -i SERIAL -p: the unit's identity block.
QString identityBlockCommand(const QString& sbf, const QString& dbf, qint32 serial,
                             const QString& program = kPostProcess);
// postprocess.exe "SKF" "DSF" -m "DBF" -p: the identity data to load.
QString identityDataCommand(const QString& skf, const QString& dsf, const QString& dbf,
                            const QString& program = kPostProcess);
// ZDProdInterface CreateSBB "SBF" "SKF" SERIAL: the production interface writes the identity
// block's source (sbf) and the unit's key data (skf) for the serial.
QString createSbbCommand(const QString& sbf, const QString& skf, qint32 serial,
                         const QString& program = kProdInterface);

} // namespace production
} // namespace tessel

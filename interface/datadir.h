#pragma once

#include <QString>

namespace qorcalib {

// The folder of the data the programs share: the simulated drive's EDS, the sample command file
// and firmware images. In order: $TESSEL_DATA_DIR when it is set; the installed folder beside
// the program (share/tessel next to its bin folder, /usr/share/tessel for /usr/bin); else the
// source tree's data folder, for programs run from the build tree.
QString dataDirectory();
// A file of that folder, e.g. dataFile("drive.eds"), whether or not it exists.
QString dataFile(const QString& relativePath);

} // namespace qorcalib

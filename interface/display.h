#pragma once

#include <QtGlobal>

namespace qorcalib {

// Whether a window system can be reached: an X11 or Wayland display, or a Qt platform named
// (offscreen, as tests run). Without one, programs answer on the console instead.
inline bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") ||
           !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

} // namespace qorcalib

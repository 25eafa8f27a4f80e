#pragma once

#include <QCursor>
#include <QGuiApplication>

namespace tessel {

// The hourglass for the length of a scope: long operations show it and restore the pointer on
// every way out.
class WaitCursor
{
public:
    WaitCursor() { QGuiApplication::setOverrideCursor(Qt::WaitCursor); }
    ~WaitCursor() { QGuiApplication::restoreOverrideCursor(); }
    WaitCursor(const WaitCursor&) = delete;
    WaitCursor& operator=(const WaitCursor&) = delete;
};

} // namespace tessel

#pragma once

#include <QObject>
#include <QPointer>

namespace tessel {

// While an InputBlocker exists, the user's input (mouse buttons, keys, wheel, touch, context
// menus) is dropped, not queued: a click made while a call to the server waits must not be
// carried out once it returns. Objects let through (the abort dialog, and what it holds) still
// take input. Blockers nest.
class InputBlocker
{
public:
    InputBlocker();
    ~InputBlocker();
    InputBlocker(const InputBlocker&) = delete;
    InputBlocker& operator=(const InputBlocker&) = delete;

    // `object` and its children take input while a blocker exists, and so does `window`, the
    // window-system window that receives its input first (for a widget, its windowHandle());
    // null ends it.
    static void letThrough(QObject* object, QObject* window = nullptr);
    static bool isBlocking();

    // While one exists, input goes through as if no blocker existed: a message that opens
    // inside a wait (the server was lost) must be answerable, or the wait never ends.
    class Pause
    {
    public:
        Pause();
        ~Pause();
        Pause(const Pause&) = delete;
        Pause& operator=(const Pause&) = delete;
    };
};

} // namespace tessel

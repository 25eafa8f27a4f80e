#include "inputblocker.h"

#include <QCoreApplication>
#include <QEvent>

namespace tessel {

namespace {

class InputFilter : public QObject
{
public:
    QPointer<QObject> allowed;
    QPointer<QObject> allowedWindow;
    int depth = 0;
    int paused = 0;

    bool eventFilter(QObject* receiver, QEvent* event) override
    {
        switch (event->type()) {
        // A release goes through: it ends a press made before the wait (a slider dragged,
        // a button held), which would otherwise stay pressed. Without its press a release
        // clicks nothing.
        case QEvent::MouseButtonPress:
        case QEvent::MouseButtonDblClick:
        case QEvent::KeyPress:
        case QEvent::KeyRelease:
        case QEvent::ShortcutOverride:
        case QEvent::Shortcut:
        case QEvent::Wheel:
        case QEvent::TouchBegin:
        case QEvent::TouchUpdate:
        case QEvent::TouchEnd:
        case QEvent::ContextMenu:
            break;
        default:
            return false;
        }
        if (paused > 0)
            return false;
        if (allowedWindow && receiver == allowedWindow)
            return false;
        for (QObject* o = receiver; o; o = o->parent())
            if (o == allowed)
                return false;
        return true;
    }
};

InputFilter& filter()
{
    static InputFilter f;
    return f;
}

} // namespace

InputBlocker::InputBlocker()
{
    if (filter().depth++ == 0 && QCoreApplication::instance())
        QCoreApplication::instance()->installEventFilter(&filter());
}

InputBlocker::~InputBlocker()
{
    if (--filter().depth == 0 && QCoreApplication::instance())
        QCoreApplication::instance()->removeEventFilter(&filter());
}

void InputBlocker::letThrough(QObject* object, QObject* window)
{
    filter().allowed = object;
    filter().allowedWindow = window;
}

InputBlocker::Pause::Pause()
{
    ++filter().paused;
}

InputBlocker::Pause::~Pause()
{
    --filter().paused;
}

bool InputBlocker::isBlocking()
{
    return filter().depth > 0;
}

} // namespace tessel

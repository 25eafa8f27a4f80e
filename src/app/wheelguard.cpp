#include "wheelguard.h"

#include <QAbstractSlider>
#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QEvent>

namespace tessel {

namespace {

// The list, spin box or slider a wheel event is meant for: the widget itself or the one whose
// part it is (the line edit of an editable list).
QWidget* valueWidgetOf(QObject* object)
{
    for (int depth = 0; object && depth < 3; ++depth, object = object->parent()) {
        if (qobject_cast<QComboBox*>(object) || qobject_cast<QAbstractSpinBox*>(object) ||
            qobject_cast<QAbstractSlider*>(object))
            return static_cast<QWidget*>(object);
        if (!object->isWidgetType() || static_cast<QWidget*>(object)->isWindow())
            break;
    }
    return nullptr;
}

} // namespace

void WheelGuard::install()
{
    static WheelGuard* guard = nullptr;
    if (guard || !qApp)
        return;
    guard = new WheelGuard;
    guard->setParent(qApp);
    qApp->installEventFilter(guard);
}

bool WheelGuard::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::Polish) {
        // A wheel turn must not give the focus either, or the next turn would change it.
        if (QWidget* w = valueWidgetOf(watched); w == watched && w->focusPolicy() == Qt::WheelFocus)
            w->setFocusPolicy(Qt::StrongFocus);
        return false;
    }
    if (event->type() != QEvent::Wheel)
        return false;
    QWidget* target = valueWidgetOf(watched);
    if (!target || target->hasFocus() || (target->focusProxy() && target->focusProxy()->hasFocus()))
        return false;
    // Not clicked into: the turn is not this widget's. Dropped rather than passed to the
    // scroll area around it, which would scroll the value widget out from under the pointer.
    return true;
}

} // namespace tessel

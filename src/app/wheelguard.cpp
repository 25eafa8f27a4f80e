#include "wheelguard.h"

#include <QAbstractScrollArea>
#include <QAbstractSlider>
#include <QAbstractSpinBox>
#include <QApplication>
#include <QComboBox>
#include <QEvent>
#include <QScrollBar>

namespace tessel {

namespace {

// The list, spin box or slider a wheel event is meant for: the widget itself or the one whose
// part it is (the line edit of an editable list).
QWidget* valueWidgetOf(QObject* object)
{
    // A scroll bar scrolls a view: what a view hands it is always meant.
    if (qobject_cast<QScrollBar*>(object))
        return nullptr;
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
    // Not clicked into: the turn is not this widget's value's but the view's around it (the
    // main window's panels on a small screen), as over any other part of the view.
    for (QWidget* w = target->parentWidget(); w; w = w->parentWidget()) {
        if (auto* area = qobject_cast<QAbstractScrollArea*>(w)) {
            QCoreApplication::sendEvent(area->verticalScrollBar(), event);
            break;
        }
        if (w->isWindow())
            break;
    }
    return true;
}

} // namespace tessel

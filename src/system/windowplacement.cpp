#include "windowplacement.h"

#include "machinesettings.h"

#include <QScreen>
#include <QSettings>
#include <QWidget>

#include <algorithm>

namespace tessel {

QPoint WindowPlacement::onScreen(const QRect& frame, const QRect& available)
{
    // Wholly inside where it fits; a window larger than the screen shows its top left corner,
    // where its title bar and first controls are.
    const int x =
        std::max(available.left(), std::min(frame.left(), available.right() + 1 - frame.width()));
    const int y =
        std::max(available.top(), std::min(frame.top(), available.bottom() + 1 - frame.height()));
    return {x, y};
}

void WindowPlacement::keepOnScreen(QWidget* window, const QWidget* mainWindow)
{
    const QScreen* screen = mainWindow ? mainWindow->screen() : window->screen();
    if (!screen)
        return;
    const auto marginsOf = [](const QWidget* w) {
        return QMargins(w->geometry().left() - w->frameGeometry().left(),
                        w->geometry().top() - w->frameGeometry().top(),
                        w->frameGeometry().right() - w->geometry().right(),
                        w->frameGeometry().bottom() - w->geometry().bottom());
    };
    // Until the window manager has framed the window, its frame is not known: the main
    // window's frame, which the window manager draws alike, stands in for it.
    QMargins frame = marginsOf(window);
    if (frame.isNull() && mainWindow)
        frame = marginsOf(mainWindow);
    // Nor is the main window's before its first show: a title bar and thin borders.
    if (frame.isNull() && !mainWindow && !window->isVisible())
        frame = QMargins(2, 28, 2, 2);
    // Larger than the screen's room (a laptop's screen less its task bar): as large as fits.
    const QSize room = screen->availableGeometry().size().shrunkBy(frame);
    if (window->width() > room.width() || window->height() > room.height())
        window->resize(window->size().boundedTo(room).expandedTo(window->minimumSizeHint()));
    const QRect outer(window->pos(), window->size().grownBy(frame));
    const QPoint place = onScreen(outer, screen->availableGeometry());
    if (place != window->pos())
        window->move(place);
}

void WindowPlacement::placeNearMain(QWidget* window, const QWidget* mainWindow) const
{
    const QPoint shift = mainWindow->pos() - m_reference;
    window->move(window->pos() + shift);
    keepOnScreen(window, mainWindow);
}

void WindowPlacement::restoreGeometry(QWidget* window, const QString& key)
{
    QSettings settings = userSettings();
    // The place of the frame and the size of the inside, as saved: a restored window stands
    // exactly where it stood, where restoring Qt's saved geometry before the window manager
    // has framed the window shifts it by its title bar at every start.
    const QRect place = settings.value(QStringLiteral("windows/") + key).toRect();
    if (place.isValid()) {
        window->resize(place.size());
        window->move(place.topLeft());
    }
}

void WindowPlacement::saveGeometry(const QWidget* window, const QString& key)
{
    QSettings settings = userSettings();
    settings.setValue(QStringLiteral("windows/") + key, QRect(window->pos(), window->size()));
}

bool WindowPlacement::placeOnFirstShow(const WindowPlacement* placement, QWidget* window,
                                       const QWidget* mainWindow, bool* placed)
{
    if (*placed)
        return false;
    *placed = true;
    if (!placement || !mainWindow)
        return true;
    // A place the user gave it before moves with the main window; a window never placed goes
    // beside the main window, on the side with more room, rather than over it.
    if (hasSavedGeometry(window->objectName()))
        placement->placeNearMain(window, mainWindow);
    else
        placeBeside(window, mainWindow);
    return true;
}

bool WindowPlacement::hasSavedGeometry(const QString& key)
{
    return !key.isEmpty() && userSettings().contains(QStringLiteral("windows/") + key);
}

void WindowPlacement::placeBeside(QWidget* window, const QWidget* mainWindow)
{
    const QScreen* screen = mainWindow->screen();
    if (!screen)
        return;
    const QRect room = screen->availableGeometry();
    const QRect main = mainWindow->frameGeometry();
    const int frameWidth = main.width() - mainWindow->width();
    const int width = window->width() + frameWidth;
    const bool right = room.right() - main.right() >= main.left() - room.left();
    // At the main window's inside top: a window not yet framed takes the place as that of its
    // inside, and its title bar then lines up with the main window's.
    window->move(right ? main.right() + 1 : main.left() - width, mainWindow->geometry().top());
    // Where the screen has too little room, as little over the main window as it can.
    keepOnScreen(window, mainWindow);
}

void WindowPlacement::bringToFront(QWidget* window)
{
    // A window the user minimized comes back as it was (maximized stays maximized).
    if (window->isMinimized())
        window->setWindowState((window->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    window->show();
    window->raise();
    window->activateWindow();
}

} // namespace tessel

#pragma once

#include <QPoint>
#include <QRect>
#include <QString>

class QWidget;

namespace tessel {

// Tool windows are laid out beside the main window's first position; wherever the main window
// is now, they keep that relation. The reference is the main window's position at start-up.
class WindowPlacement
{
public:
    void setReference(const QPoint& mainWindowPosition) { m_reference = mainWindowPosition; }
    QPoint reference() const { return m_reference; }
    // Moves a tool window by the main window's displacement since start-up, and then wholly
    // onto the screen that shows the main window.
    void placeNearMain(QWidget* window, const QWidget* mainWindow) const;
    // Moves a window, frame included, wholly into the available area of the main window's
    // screen (or its own, without a main window).
    static void keepOnScreen(QWidget* window, const QWidget* mainWindow);
    // Where a frame of that size and place goes to be wholly inside `available`.
    static QPoint onScreen(const QRect& frame, const QRect& available);

    // A tool window's first show lays it out beside the main window (without a placement, it
    // stays where it is); later shows keep the place the user gave it. True on the first show.
    static bool placeOnFirstShow(const WindowPlacement* placement, QWidget* window,
                                 const QWidget* mainWindow, bool* placed);
    // Beside the main window's frame, on the side of the screen with more room.
    static void placeBeside(QWidget* window, const QWidget* mainWindow);
    static bool hasSavedGeometry(const QString& key);
    // Shows a tool window in front of the others, with the focus.
    static void bringToFront(QWidget* window);

    // Remembered place (of the frame) and size of a window between runs (per-user settings,
    // group "windows"); restoring gives back exactly what was saved.
    static void restoreGeometry(QWidget* window, const QString& key);
    static void saveGeometry(const QWidget* window, const QString& key);

private:
    QPoint m_reference;
};

} // namespace tessel

#pragma once

#include <QPoint>
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
    // Moves a tool window by the main window's displacement since start-up.
    void placeNearMain(QWidget* window, const QWidget* mainWindow) const;

    // Remembered geometry of a window between runs (per-user settings, group "windows").
    static void restoreGeometry(QWidget* window, const QString& key);
    static void saveGeometry(const QWidget* window, const QString& key);

private:
    QPoint m_reference;
};

} // namespace tessel

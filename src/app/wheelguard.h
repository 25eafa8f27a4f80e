#pragma once

#include <QObject>

namespace tessel {

// Lists, spin boxes and sliders change on a wheel turn only once the user has clicked into
// them: a pointer that merely passes over a bit-rate list while the wheel turns must not change
// a running controller's bit rate. Installed once on the application, it holds for every
// window, present and future.
class WheelGuard : public QObject
{
    Q_OBJECT
public:
    // Installs the guard on the application (once, however often it is called).
    static void install();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
};

} // namespace tessel

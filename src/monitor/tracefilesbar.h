#pragma once

#include "tracereplay.h"

#include <QWidget>

#include <functional>

class QDoubleSpinBox;
class QPushButton;

namespace tessel {

// "Save trace..." and "Replay..." of the CAN monitor: the frames the trace shows go to a candump
// log or an ASC file; a recorded file goes out on the selected controller with its timing.
class TraceFilesBar : public QWidget
{
    Q_OBJECT
public:
    explicit TraceFilesBar(QWidget* parent = nullptr);

    // The frames the trace shows, oldest first.
    std::function<QList<TraceRecord>()> frames;
    std::function<QString(const QString&, const QString&, const QString&)> chooseOpenFile;
    std::function<QString(const QString&, const QString&, const QString&)> chooseSaveFile;

    QPushButton* cmdSaveTrace = nullptr;
    QPushButton* cmdReplay = nullptr;
    QDoubleSpinBox* spnSpeed = nullptr;
    TraceReplay replay;

    // Writes the trace's frames; false when it failed (the user has been told).
    bool saveTrace(const QString& fileName);
    void cmdSaveTrace_Click();
    void cmdReplay_Click();

    static inline const QString kFilter =
        QStringLiteral("candump log (*.log)|*.log|ASC files (*.asc)|*.asc|All Files (*.*)|*.*");
    // A replay also reads PCAN-View's traces (not written here).
    static inline const QString kReplayFilter =
        QStringLiteral("candump log (*.log)|*.log|ASC files (*.asc)|*.asc|PCAN-View traces "
                       "(*.trc)|*.trc|All Files (*.*)|*.*");

private:
    void say(const QString& text);

signals:
    // What to tell the user; the main window shows it in a message box.
    void message(const QString& text);
};

} // namespace tessel

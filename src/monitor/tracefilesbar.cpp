#include "tracefilesbar.h"

#include <QDateTime>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSaveFile>

namespace tessel {

TraceFilesBar::TraceFilesBar(QWidget* parent) : QWidget(parent)
{
    cmdSaveTrace = new QPushButton(QStringLiteral("Save trace..."), this);
    cmdSaveTrace->setObjectName(QStringLiteral("cmdSaveTrace"));
    cmdSaveTrace->setToolTip(QStringLiteral("Write the frames the trace shows as a candump log "
                                            "(.log) or an ASC file (.asc)"));
    cmdReplay = new QPushButton(QStringLiteral("Replay..."), this);
    cmdReplay->setObjectName(QStringLiteral("cmdReplay"));
    cmdReplay->setToolTip(QStringLiteral("Send the frames of a candump log or ASC file on the "
                                         "selected controller, with their recorded spacing"));
    spnSpeed = new QDoubleSpinBox(this);
    spnSpeed->setObjectName(QStringLiteral("spnSpeed"));
    spnSpeed->setRange(0.01, 100.0);
    spnSpeed->setValue(1.0);
    spnSpeed->setSuffix(QStringLiteral(" x"));
    spnSpeed->setToolTip(QStringLiteral("Replay speed: 2 x sends twice as fast as recorded"));
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(cmdSaveTrace);
    layout->addWidget(cmdReplay);
    auto* speed = new QLabel(QStringLiteral("Spee&d:"), this);
    speed->setBuddy(spnSpeed);
    layout->addWidget(speed);
    layout->addWidget(spnSpeed);
    layout->addStretch();
    connect(cmdSaveTrace, &QPushButton::clicked, this, &TraceFilesBar::cmdSaveTrace_Click);
    connect(cmdReplay, &QPushButton::clicked, this, &TraceFilesBar::cmdReplay_Click);
    connect(&replay, &TraceReplay::finished, this, [this](const QString& error, qint64 frames) {
        cmdReplay->setText(QStringLiteral("Replay..."));
        spnSpeed->setEnabled(true);
        if (!error.isEmpty())
            say(QStringLiteral("Replay stopped after %1 frames: %2").arg(frames).arg(error));
    });
}

void TraceFilesBar::say(const QString& text)
{
    emit message(text);
}

bool TraceFilesBar::saveTrace(const QString& fileName)
{
    TraceFormat format;
    if (!traceFormatOf(fileName, &format)) {
        say(QStringLiteral("%1: name the file .log (candump log) or .asc (ASC)").arg(fileName));
        return false;
    }
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly)) {
        say(QStringLiteral("%1: %2").arg(fileName, file.errorString()));
        return false;
    }
    TraceWriter writer(&file, format);
    writer.begin(QDateTime::currentDateTime());
    if (frames)
        for (const TraceRecord& r : frames())
            writer.write(r);
    writer.end();
    if (!file.commit()) {
        say(QStringLiteral("%1: %2").arg(fileName, file.errorString()));
        return false;
    }
    return true;
}

void TraceFilesBar::cmdSaveTrace_Click()
{
    const QString name = chooseSaveFile ? chooseSaveFile(QStringLiteral("Save trace"), kFilter,
                                                         QStringLiteral("trace.log"))
                                        : QString();
    if (!name.isEmpty())
        saveTrace(name);
}

void TraceFilesBar::cmdReplay_Click()
{
    if (replay.isRunning()) {
        replay.stop();
        return;
    }
    const QString name =
        chooseOpenFile ? chooseOpenFile(QStringLiteral("Replay trace"), kReplayFilter, QString())
                       : QString();
    if (name.isEmpty())
        return;
    QString error;
    ReplayOptions options;
    options.speed = spnSpeed->value();
    if (!replay.start(name, options, &error))
        return say(error);
    cmdReplay->setText(QStringLiteral("Stop"));
    spnSpeed->setEnabled(false);
}

} // namespace tessel

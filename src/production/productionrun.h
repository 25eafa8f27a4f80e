#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace tessel {

// The production programming runs of one unit, without widgets: JTAG programming, serial
// programming (the kickstart loader with the stamped firmware, loaded over the bench's serial
// link) and identity loading. What they need from outside comes through hooks, so that the
// window wires the real programs, database and server, and tests their stand-ins.
//
// The unit's serial is kept in a tag: a run takes the tag's serial when it holds one, else the
// next serial of the counter, and puts it in the tag before anything runs; a failed run keeps
// it, so the retry of the same unit reuses it. A run that succeeds clears the tag for the next
// unit.
class ProductionRun
{
public:
    struct Hooks
    {
        // Runs a command line and waits: its exit code, -1 when it could not start.
        std::function<int(const QString& commandLine, bool show)> run;
        std::function<std::optional<qint32>(int* errorNumber, QString* error)> nextSerial;
        // Starts loading an image into the unit; "" when it started, else the error.
        std::function<QString(const QByteArray& image)> loadImage;
        // Waits for the load to end: its test state, or nullopt with the error.
        std::function<std::optional<int>(QString* error)> waitForLoad;
        // The command standing for an external program's name.
        std::function<QString(const QString& name)> program;
    };
    struct Outcome
    {
        enum Kind
        {
            Done,       // the unit is programmed; serial holds its number
            ToolFailed, // message: "Postprocess retval=N", "FFlash retval=N", ...
            Error,      // message: "Err: N DESCRIPTION"
            LoadFailed, // the serial link's test state was not 3
        };
        Kind kind = Done;
        QString message;
        qint32 serial = 0;
        int testState = 0;
    };
    static constexpr int kLoadedState = 3;

    explicit ProductionRun(Hooks hooks) : m_hooks(std::move(hooks)) {}

    Outcome jtag(const QString& firmware, const QString& configuration, bool recover, QString* tag);
    Outcome serialProgramming(const QString& firmware, QString* tag);
    Outcome identityLoading(QString* tag);

    // The identity files of a serial: the data to load (the second post-processor run's output),
    // or the outcome that stopped them. Temporary files are deleted after success and kept
    // after a failure (listed in keptFiles).
    std::optional<QByteArray> makeIdentityFiles(qint32 serial, Outcome* failure);
    QStringList keptFiles() const { return m_kept; }

private:
    std::optional<qint32> takeSerial(QString* tag, Outcome* failure);
    // The common start of JTAG and serial programming: the firmware's base (refused before a
    // serial is taken when unusable), the unit's serial, and the firmware stamped with it.
    std::optional<QString> stampedFirmware(const QString& firmware, const QString& configuration,
                                           QString* tag, Outcome* o);
    bool runTool(const QString& label, const QString& commandLine, bool show, Outcome* failure);
    Outcome load(const QByteArray& image, qint32 serial, QString* tag);
    QString program(const QString& name) const;

    Hooks m_hooks;
    QStringList m_kept;
};

} // namespace tessel

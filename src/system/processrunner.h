#pragma once

#include <QString>
#include <QStringList>

namespace tessel {

// Runs a command line and waits for it to end. The line is split into words as a shell splits
// them (quotes group words), but no shell runs. Returns the exit code, or -1 when the program
// cannot be started or does not end normally. `show` is accepted for the callers' sake: a
// command-line program has no window to show or hide here.
int runAndWait(const QString& commandLine, bool show);

// Splits a command line into words as a POSIX shell does, without running one: blanks
// separate words; '...' keeps everything literally; "..." keeps blanks, with \" \\ \$ \`
// escaped; a backslash outside quotes takes the next character literally. Nothing is
// expanded. An unclosed quote runs to the end of the line.
QStringList splitCommandLine(const QString& commandLine);

// Why the command line's program cannot be started: it is not found where it is named, or not
// in any folder of PATH (each named); empty when it is there to run.
QString missingProgram(const QString& commandLine);

// A new empty file with a unique name in the temporary folder ("TEMP" when set, else the
// system's), whose name starts with prefix; "" when none can be made.
QString makeTempFileName(const QString& prefix);

} // namespace tessel

#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

namespace tessel {

// The composer's frame lines, by character position (1-based):
//   1-2    ignored (a direction letter and a blank: "T ")
//   3-5    identifier, three hexadecimal digits
//   6..    ignored up to the first ">"
//   ">"+2  data bytes, two hexadecimal digits every three characters, at most 8
// e.g. "T 181 xxxxx > 12 34". Every line, the last one included, ends with a line end: a last
// line without one is not sent. Blank lines are passed over.
struct ComposerFrame
{
    int line = 0; // 1-based, for messages
    quint16 id = 0;
    QByteArray data;
};

struct ComposerScript
{
    QList<ComposerFrame> frames; // in order, up to the first bad line
    // A bad line ends the run where it stands: the frames before it go out, then this is
    // said. Empty when every line is good.
    QString error;
    bool lastLineUnsent = false; // the text ends with a line that has no line end
};

ComposerScript parseComposerText(const QString& text);

} // namespace tessel

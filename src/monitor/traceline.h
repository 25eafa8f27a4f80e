#pragma once

#include <QString>

#include <initializer_list>

namespace tessel {

// Kinds of trace entries.
enum class TraceKind : int
{
    Received = 1,
    Transmitted = 2,
    RemoteRequest = 3
};

// One trace line, without line end: "R0 181 2 005s123.456 > 12 34 ".
//   letter R/T/M by kind (none for another code) and the channel in decimal; the COB-ID as 3
//   hexadecimal digits (its last 3 when longer); the length; the time as seconds modulo 1000
//   ("000") + "s" + milliseconds with three decimals, always 7 characters ("005.500"); " > ";
//   each data byte as 2 hexadecimal digits and a blank. Remote requests show length 0 and no
//   data. `decimalPoint` is the user's locale decimal separator.
QString traceLine(int channel, int kind, quint32 id, quint32 timeUs, int length, const quint8* data,
                  QChar decimalPoint = QLatin1Char('.'));

// The trace text with its bounds: when a line would bring the text to 65000 characters or
// more, the text is first cut to its last 16300 characters (the cut may fall inside a line:
// only the newest part matters, and the cut is one cheap step instead of a line search).
class TraceBuffer
{
public:
    static constexpr int kMaxLength = 65000;
    static constexpr int kKeepLength = 16300;

    // Other bounds serve texts of longer lines.
    explicit TraceBuffer(qsizetype maxLength = kMaxLength, qsizetype keepLength = kKeepLength)
        : m_maxLength(maxLength), m_keepLength(keepLength)
    {
    }
    void append(QStringView line) { append({line}); }
    // A line given in parts, which saves putting them together first.
    void append(std::initializer_list<QStringView> parts);
    void clear();
    const QString& text() const { return m_text; }
    // Changes since the last call: whether the text was cut or cleared (the view must take the
    // whole text), else how many characters were added at the end. A cut says how many
    // characters went from the front, so that a view keeps its reader's place in what is left.
    struct Change
    {
        bool replaced = false;
        bool cleared = false;
        qsizetype added = 0;
        qsizetype dropped = 0;
    };
    Change takeChange();

private:
    qsizetype m_maxLength;
    qsizetype m_keepLength;
    QString m_text;
    bool m_replaced = false;
    bool m_cleared = false;
    qsizetype m_dropped = 0;
    qsizetype m_shown = 0;
};

} // namespace tessel

#pragma once

#include "monitorconfig.h"

#include <QString>

#include <functional>

namespace tessel {

// A sequence is a text of blank-separated tokens: "Mn" sends transmit slot n (1 to 8), "Tx"
// waits x seconds (a decimal point allowed); letters in either case. "M1 T0.5 M2 T1" sends
// slot 1, waits 0.5 s, sends slot 2, waits 1 s, and starts again.
//
// The next token at `position` (1-based, as the row keeps it), which moves past it: blanks
// are skipped, then characters of "0123456789.MT" are taken. A character outside the set ends
// the token without being used, so "M1,M2" gives "M1" and then the empty token, with the
// position left on the comma. Past the end of the text the token is empty.
QString nextSequenceToken(const QString& text, int& position);

// What a row needs of its timer and clock: armed once for `ms` milliseconds, or stopped, and
// the time now in milliseconds. The window gives it a precise single-shot timer, tests a fake
// clock.
class RowTimer
{
public:
    virtual ~RowTimer() = default;
    virtual void start(int ms) = 0;
    virtual void stop() = 0;
    virtual qint64 nowMs() const = 0;
};

// One row of the sequencer, repeating its text while enabled. Each timer expiry takes tokens
// until a wait: slots named by consecutive "M" tokens go out back to back. At the end of each
// pass the row gives the event loop one turn (its timer at 0 ms) before going on, so a row of
// only "M" tokens runs endlessly yet the window stays responsive and other rows keep their
// times. A wait counts from the timer expiry that began the tokens before it, so the time the
// sends took does not stretch the period: "M1 T1" repeats once a second. "T0" arms no timer:
// the row waits until it is stopped.
class SequenceRow
{
public:
    static constexpr int kLongestWaitMs = 65535;
    // The monitor's transmit slots, M1 to M8.
    static constexpr int kSlots = MonitorSetup::kSlots;

    struct Hooks
    {
        // Sends slot 0..7 (anything else sends nothing); true when the send failed.
        std::function<bool(int slot)> sendSlot;
        // The row stopped by itself (a bad token, a slot that does not exist, a failed send, a
        // wait too long): the window clears its enable box and shows `message`; it is empty
        // when a blank text had nothing to repeat.
        std::function<void(const QString& message)> stopped;
    };

    SequenceRow(RowTimer* timer, Hooks hooks) : m_timer(timer), m_hooks(std::move(hooks)) {}

    void setText(const QString& text) { m_text = text; }
    const QString& text() const { return m_text; }
    // The enable box: ticking starts the sequence from its first token about 1 ms later;
    // clearing stops the row at once, also while it waits.
    void setEnabled(bool on);
    bool isEnabled() const { return m_enabled; }
    int position() const { return m_position; }
    // The row's timer expired.
    void onTimer();

private:
    // What to do with one token; false when the row stops or now waits.
    bool runToken(const QString& token);
    void stopRow(const QString& message);

    RowTimer* m_timer;
    Hooks m_hooks;
    QString m_text;
    int m_position = 1;
    bool m_enabled = false;
    // The last token of a pass, taken up after the event loop's turn.
    QString m_pending;
    bool m_passEnded = false;
    qint64 m_firedAt = 0; // when the expiry that began the current tokens came
    bool m_passSentOrWaited = false;
};

} // namespace tessel

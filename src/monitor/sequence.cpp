#include "sequence.h"

#include "numbers.h"

#include <algorithm>

namespace tessel {

QString nextSequenceToken(const QString& text, int& position)
{
    static const QString kTokenChars = QStringLiteral("0123456789.MT");
    const QString upper = text.toUpper();
    const int length = int(upper.size());
    while (position <= length && upper[position - 1] == QLatin1Char(' '))
        ++position;
    if (position > length)
        return {};
    const int start = position;
    while (position <= length && kTokenChars.contains(upper[position - 1]))
        ++position;
    return upper.mid(start - 1, position - start);
}

void SequenceRow::setEnabled(bool on)
{
    m_enabled = on;
    m_position = 1;
    m_passEnded = false;
    m_passSentOrWaited = false;
    m_pending.clear();
    if (on)
        m_timer->start(1);
    else
        m_timer->stop();
}

void SequenceRow::stopRow(const QString& message)
{
    setEnabled(false);
    if (m_hooks.stopped)
        m_hooks.stopped(message);
}

void SequenceRow::onTimer()
{
    m_timer->stop();
    if (!m_enabled)
        return;
    // The event loop's turn at the end of a pass belongs to the run of tokens it interrupted.
    if (!m_passEnded)
        m_firedAt = m_timer->nowMs();
    if (m_passEnded) {
        // The event loop had its turn after the last pass: go on with that pass's last token.
        m_passEnded = false;
        const QString token = m_pending;
        m_pending.clear();
        if (!token.isEmpty() && !runToken(token))
            return;
    }
    for (;;) {
        const QString token = nextSequenceToken(m_text, m_position);
        if (m_position > m_text.size()) {
            m_position = 1;
            if (!m_passSentOrWaited && token.isEmpty()) {
                // A blank text sends nothing and never waits: nothing to repeat.
                stopRow(QString());
                return;
            }
            m_passSentOrWaited = false;
            m_passEnded = true;
            m_pending = token;
            m_timer->start(0);
            return;
        }
        if (!runToken(token))
            return;
    }
}

bool SequenceRow::runToken(const QString& token)
{
    const QChar kind = token.isEmpty() ? QChar() : token[0];
    const double number = lenientValue(QStringView(token).mid(1));
    if (kind == QLatin1Char('M')) {
        m_passSentOrWaited = true;
        const int slot = roundToInt16(number - 1);
        if (slot < 0 || slot >= kSlots) {
            stopRow(QStringLiteral("Sequence stopped at \"%1\": there is no slot %2 (M1 to M%3).")
                        .arg(token)
                        .arg(slot + 1)
                        .arg(kSlots));
            return false;
        }
        if (m_hooks.sendSlot && m_hooks.sendSlot(slot)) {
            stopRow(QStringLiteral("Sequence stopped: slot %1 could not be sent.").arg(slot + 1));
            return false;
        }
        return true;
    }
    if (kind == QLatin1Char('T')) {
        m_passSentOrWaited = true;
        const qint32 ms = roundToInt32(number * 1000);
        if (ms > kLongestWaitMs) {
            stopRow(QStringLiteral("Sequence stopped: the wait %1 is longer than the longest "
                                   "wait, T65.535 (65535 ms).")
                        .arg(token));
            return false;
        }
        if (ms > 0)
            m_timer->start(int(std::clamp<qint64>(ms - (m_timer->nowMs() - m_firedAt), 0, ms)));
        // "T0" arms nothing: the row waits until its box is cleared.
        return false;
    }
    // Said with what stopped it: a row that stops without a word looks like a row that runs.
    const QString at = token.isEmpty() ? m_text.mid(m_position - 1, 12) : token;
    stopRow(QStringLiteral("Sequence stopped at \"%1\": a row holds Mn (send slot n, 1 to %2) "
                           "and Tx (wait x seconds), with blanks between them.")
                .arg(at)
                .arg(kSlots));
    return false;
}

} // namespace tessel

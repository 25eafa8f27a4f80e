#pragma once

#include <QHash>
#include <QString>

namespace tessel {

// Which messages are said. Tools that were all running when the server went each fail with the
// same words: the same text again, while it shows or within kRepeatMs of its answer, is said
// already. Times are the caller's clock, in milliseconds.
class MessageGate
{
public:
    static constexpr qint64 kRepeatMs = 2000;

    // Whether `text` is to be shown now; if so it counts as showing until answered().
    bool admit(const QString& text, qint64 nowMs);
    void answered(const QString& text, qint64 nowMs);

private:
    QHash<QString, qint64> m_recent; // answered at, or -1 while showing
};

} // namespace tessel

#pragma once

#include "canmsg.h"
#include "objectvalues.h"

#include <QByteArray>
#include <QList>

#include <array>
#include <functional>

namespace qorcalib {

// What the PDO engine needs of its node's object dictionary. The PDOs' communication and mapping
// parameters are entries of that dictionary too: their defaults come from the EDS, resets bring
// them back, and SDO reads and writes them like any entry (through PdoEngine::checkWrite).
class PdoDictionary : public ObjectValues
{
public:
    // An entry's size in bits when it may be mapped into a receive (RPDO) or a transmit PDO
    // (TPDO); 0 when it exists and may not be; -1 when there is no such entry. A received PDO's
    // share for a mapped entry comes through write.
    virtual int mappableBits(quint16 index, quint8 subIndex, bool receive) const = 0;
};

// The process data objects of a node (CiA 301): four receive PDOs (communication 1400-1403,
// mapping 1600-1603) and four transmit PDOs (1800-1803, 1A00-1A03). Frames in through onFrame
// and onSync, time through onTimer, frames out through the send hook; times in microseconds.
//
// Communication parameter: sub 1 COB-ID (bit 31 set: not valid; bit 30 set: no remote request;
// bit 29: extended frames, not supported), sub 2 transmission type, and for a TPDO sub 3 the
// inhibit time (100 us) and sub 5 the event timer (ms). Transmission types:
//   0        synchronous, acyclic: a TPDO goes out at the SYNC after one of its objects changed
//   1..240   synchronous: a TPDO goes out at every n-th SYNC
//   254, 255 event-driven: a TPDO goes out when one of its objects changes and when its event
//            timer expires, never twice within its inhibit time
// A synchronous RPDO takes effect at the next SYNC, an event-driven one at once.
// Mapping parameter: sub 0 the number of mapped entries (0..8), subs 1..8 each
// index << 16 | sub-index << 8 | length in bits; at most 64 bits in all.
//
// PDOs run only while the node is operational. An RPDO shorter than its mapping is not taken
// and reported (lengthError 8210); a longer one is taken from its first bytes and reported
// (8220).
class PdoEngine
{
public:
    static constexpr int kCount = 4;
    static constexpr int kMaxEntries = 8;
    static constexpr quint32 kNotValid = 0x80000000u;
    static constexpr quint32 kExtended = 0x20000000u;
    static constexpr quint16 kLengthShort = 0x8210;
    static constexpr quint16 kLengthLong = 0x8220;

    struct Hooks
    {
        std::function<void(const CanFrame&)> send;
        // An RPDO of the wrong length: the emergency error code to report.
        std::function<void(quint16 errorCode)> lengthError;
    };

    PdoEngine(PdoDictionary* dictionary, Hooks hooks);

    // Communication or mapping parameter of a PDO.
    static bool isParameter(quint16 index);
    // An SDO write to a PDO parameter, checked before the dictionary takes it: 0, or the abort
    // code (a COB-ID or inhibit time changed while the PDO is valid, a reserved transmission
    // type, a mapping changed while the PDO is valid or its sub 0 is not 0, an entry that does
    // not exist or cannot be mapped, a mapping longer than 64 bits).
    quint32 checkWrite(quint16 index, quint8 subIndex, const QByteArray& data) const;
    // After a parameter was written, or the dictionary's values were restored.
    void parametersChanged(qint64 nowUs);

    void setOperational(bool operational, qint64 nowUs);
    bool isOperational() const { return m_operational; }
    // A SYNC was consumed (counter 0 when it carries none).
    void onSync(quint8 counter, qint64 nowUs);
    // True when the frame was one of this node's RPDOs.
    bool onFrame(const CanFrame& frame, qint64 nowUs);
    // An application entry changed: acyclic and event-driven TPDOs that map it are due.
    void objectChanged(quint16 index, quint8 subIndex, qint64 nowUs);
    void onTimer(qint64 nowUs);
    // When onTimer wants to run next; -1 for never.
    qint64 nextDeadlineUs() const;

private:
    struct Mapped
    {
        quint16 index;
        quint8 subIndex;
        int bits;
    };
    struct Transmit
    {
        int syncCount = 0;        // SYNCs since the last synchronous transmission
        bool changed = false;     // an entry it maps changed since it last went out
        qint64 lastSentUs = -1;   // for the inhibit time
        qint64 eventDueUs = -1;   // event timer
        qint64 inhibitEndUs = -1; // a change waits for the inhibit time to pass
    };

    QList<Mapped> mapping(quint16 mappingIndex) const;
    bool valid(quint16 communicationIndex) const;
    quint16 cobId(quint16 communicationIndex) const;
    // A TPDO's inhibit time (sub 3, in 100 us).
    qint64 inhibitUs(quint16 communicationIndex) const;
    void sendTpdo(int i, qint64 nowUs);
    void takeRpdo(int i, const QByteArray& data);
    void armEventTimer(int i, qint64 nowUs);
    quint32 checkMappingWrite(quint16 index, quint8 subIndex, quint32 value) const;

    PdoDictionary* m_dictionary;
    Hooks m_hooks;
    bool m_operational = false;
    std::array<Transmit, kCount> m_tpdo{};
    // Synchronous RPDOs received since the last SYNC, taken at the next one.
    std::array<QByteArray, kCount> m_latched{};
    std::array<bool, kCount> m_hasLatched{};
};

} // namespace qorcalib

#pragma once

#include "canmsg.h"
#include "objectvalues.h"

#include <QList>

#include <functional>

namespace qorcalib {

// The emergency producer of a node (CiA 301) with its error register (1001) and pre-defined
// error field (1003: sub 0 the number of errors kept, subs 1..8 the newest first; writing 0 to
// sub 0 empties it). Frames out through the send hook, time through onTimer, in microseconds.
//
// EMCY frame, COB-ID from 1014 (bit 31 set: not sent), 8 bytes: error code (2 bytes, little
// endian), error register, 5 manufacturer-specific bytes. An error raised goes out at once; one
// that ends goes out as error code 0000 ("error reset or no error") with the register as it is
// then. No two EMCYs go out within the inhibit time (1015, 100 us): later ones wait in order.
class EmcyProducer
{
public:
    // Error register bits.
    static constexpr quint8 kGeneric = 0x01;
    static constexpr quint8 kCurrent = 0x02;
    static constexpr quint8 kVoltage = 0x04;
    static constexpr quint8 kTemperature = 0x08;
    static constexpr quint8 kCommunication = 0x10;
    static constexpr quint8 kProfile = 0x20;
    static constexpr quint8 kManufacturer = 0x80;
    static constexpr int kHistory = 8;

    EmcyProducer(ObjectValues* dictionary, std::function<void(const CanFrame&)> send);

    // Errors the node has now; a code already active is not raised twice.
    void raise(quint16 errorCode, quint8 registerBits, qint64 nowUs);
    void clear(quint16 errorCode, qint64 nowUs);
    bool isActive(quint16 errorCode) const;
    bool hasErrors() const { return !m_active.isEmpty(); }
    // Power loss or a reset of the node: no error active, nothing waiting.
    void reset();

    // Error field, register or EMCY parameters: an SDO write checked before the dictionary takes
    // it (0, or the abort code); a write taken.
    static bool isParameter(quint16 index);
    quint32 checkWrite(quint16 index, quint8 subIndex, const QByteArray& data) const;
    void written(quint16 index, quint8 subIndex);

    void onTimer(qint64 nowUs);
    qint64 nextDeadlineUs() const;

private:
    struct Active
    {
        quint16 code;
        quint8 bits;
    };
    quint8 errorRegister() const;
    void queue(quint16 errorCode, qint64 nowUs);
    void sendDue(qint64 nowUs);

    ObjectValues* m_dictionary;
    std::function<void(const CanFrame&)> m_send;
    QList<Active> m_active;
    QList<CanFrame> m_waiting;
    qint64 m_lastSentUs = -1;
};

} // namespace qorcalib

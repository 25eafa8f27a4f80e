#include "emcy.h"

#include "sdoabort.h"

#include <QtEndian>

namespace qorcalib {

namespace {

constexpr quint16 kRegister = 0x1001;
constexpr quint16 kErrorField = 0x1003;
constexpr quint16 kCobId = 0x1014;
constexpr quint16 kInhibit = 0x1015;
constexpr quint32 kNotValid = 0x80000000u;
constexpr quint32 kExtended = 0x20000000u;

QByteArray le32(quint32 value)
{
    QByteArray b(4, '\0');
    qToLittleEndian(value, b.data());
    return b;
}

} // namespace

EmcyProducer::EmcyProducer(ObjectValues* dictionary, std::function<void(const CanFrame&)> send)
    : m_dictionary(dictionary), m_send(std::move(send))
{
}

bool EmcyProducer::isParameter(quint16 index)
{
    return index == kErrorField || index == kCobId || index == kInhibit;
}

quint8 EmcyProducer::errorRegister() const
{
    quint8 bits = 0;
    for (const Active& a : m_active)
        bits |= a.bits | kGeneric;
    return bits;
}

bool EmcyProducer::isActive(quint16 errorCode) const
{
    for (const Active& a : m_active)
        if (a.code == errorCode)
            return true;
    return false;
}

void EmcyProducer::raise(quint16 errorCode, quint8 registerBits, qint64 nowUs)
{
    if (isActive(errorCode))
        return;
    m_active.append({errorCode, registerBits});
    // The error field: the newest first, the oldest falls out.
    const int kept = int(std::min<quint32>(m_dictionary->unsignedValue(kErrorField, 0), kHistory));
    for (int s = std::min(kept, kHistory - 1); s >= 1; --s)
        m_dictionary->write(kErrorField, quint8(s + 1),
                            m_dictionary->value(kErrorField, quint8(s)));
    m_dictionary->write(kErrorField, 1, le32(errorCode));
    m_dictionary->write(kErrorField, 0, QByteArray(1, char(std::min(kept + 1, kHistory))));
    m_dictionary->write(kRegister, 0, QByteArray(1, char(errorRegister())));
    queue(errorCode, nowUs);
}

void EmcyProducer::clear(quint16 errorCode, qint64 nowUs)
{
    if (!isActive(errorCode))
        return;
    m_active.removeIf([errorCode](const Active& a) { return a.code == errorCode; });
    m_dictionary->write(kRegister, 0, QByteArray(1, char(errorRegister())));
    queue(0x0000, nowUs);
}

void EmcyProducer::reset()
{
    m_active.clear();
    m_waiting.clear();
    m_lastSentUs = -1;
}

void EmcyProducer::queue(quint16 errorCode, qint64 nowUs)
{
    const quint32 cobId = m_dictionary->unsignedValue(kCobId, 0);
    if (cobId & kNotValid)
        return;
    CanFrame frame;
    frame.id = quint16(cobId & 0x7FF);
    frame.len = 8;
    frame.data[0] = quint8(errorCode);
    frame.data[1] = quint8(errorCode >> 8);
    frame.data[2] = errorRegister();
    m_waiting.append(frame);
    sendDue(nowUs);
}

void EmcyProducer::sendDue(qint64 nowUs)
{
    const qint64 inhibitUs = qint64(m_dictionary->unsignedValue(kInhibit, 0) & 0xFFFF) * 100;
    while (!m_waiting.isEmpty() &&
           (m_lastSentUs < 0 || inhibitUs == 0 || nowUs - m_lastSentUs >= inhibitUs)) {
        m_lastSentUs = nowUs;
        if (m_send)
            m_send(m_waiting.takeFirst());
        else
            m_waiting.removeFirst();
    }
}

quint32 EmcyProducer::checkWrite(quint16 index, quint8 subIndex, const QByteArray& data) const
{
    const quint32 value = unsignedOf(data);
    // Only 0 may be written to the error field's count: it empties the field.
    if (index == kErrorField)
        return subIndex == 0 && value != 0 ? quint32(SdoAbort::InvalidValue) : 0;
    if (index != kCobId)
        return 0;
    if (value & kExtended)
        return quint32(SdoAbort::InvalidValue);
    const quint32 now = m_dictionary->unsignedValue(kCobId, 0);
    // A valid EMCY keeps its CAN-ID: it is made not valid first.
    if (!(value & kNotValid) && !(now & kNotValid) && (value & 0x7FF) != (now & 0x7FF))
        return quint32(SdoAbort::InvalidValue);
    return 0;
}

void EmcyProducer::written(quint16 index, quint8 subIndex)
{
    if (index == kErrorField && subIndex == 0)
        for (int s = 1; s <= kHistory; ++s)
            m_dictionary->write(kErrorField, quint8(s), le32(0));
}

void EmcyProducer::onTimer(qint64 nowUs)
{
    sendDue(nowUs);
}

qint64 EmcyProducer::nextDeadlineUs() const
{
    if (m_waiting.isEmpty())
        return -1;
    const qint64 inhibitUs = qint64(m_dictionary->unsignedValue(kInhibit, 0) & 0xFFFF) * 100;
    return m_lastSentUs + inhibitUs;
}

} // namespace qorcalib

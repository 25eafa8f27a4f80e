#include "pdo.h"

#include "sdoabort.h"

namespace qorcalib {

namespace {

constexpr quint16 kRpdoCommunication = 0x1400;
constexpr quint16 kRpdoMapping = 0x1600;
constexpr quint16 kTpdoCommunication = 0x1800;
constexpr quint16 kTpdoMapping = 0x1A00;

bool inBlock(quint16 index, quint16 first)
{
    return index >= first && index < first + PdoEngine::kCount;
}

// CAN-IDs no PDO may use: NMT, SYNC/EMCY, TIME, SDO, LSS and error control, and 0x001-0x07F
// which the pre-defined set keeps free for high-priority use.
bool restrictedId(quint32 id)
{
    return id <= 0x07F || (id >= 0x101 && id <= 0x180) || (id >= 0x581 && id <= 0x5FF) ||
           (id >= 0x601 && id <= 0x67F) || (id >= 0x6E0 && id <= 0x6FF) || id >= 0x701;
}

} // namespace

PdoEngine::PdoEngine(PdoDictionary* dictionary, Hooks hooks)
    : m_dictionary(dictionary), m_hooks(std::move(hooks))
{
}

bool PdoEngine::isParameter(quint16 index)
{
    return inBlock(index, kRpdoCommunication) || inBlock(index, kRpdoMapping) ||
           inBlock(index, kTpdoCommunication) || inBlock(index, kTpdoMapping);
}

bool PdoEngine::valid(quint16 communicationIndex) const
{
    const QByteArray id = m_dictionary->value(communicationIndex, 1);
    return !id.isEmpty() && !(unsignedOf(id) & kNotValid);
}

qint64 PdoEngine::inhibitUs(quint16 communicationIndex) const
{
    return qint64(m_dictionary->unsignedValue(communicationIndex, 3) & 0xFFFF) * 100;
}

quint16 PdoEngine::cobId(quint16 communicationIndex) const
{
    return quint16(m_dictionary->unsignedValue(communicationIndex, 1) & 0x7FF);
}

QList<PdoEngine::Mapped> PdoEngine::mapping(quint16 mappingIndex) const
{
    QList<Mapped> out;
    const quint32 count = m_dictionary->unsignedValue(mappingIndex, 0);
    for (quint32 s = 1; s <= count && s <= quint32(kMaxEntries); ++s) {
        const quint32 entry = m_dictionary->unsignedValue(mappingIndex, quint8(s));
        out.append({quint16(entry >> 16), quint8(entry >> 8), int(entry & 0xFF)});
    }
    return out;
}

quint32 PdoEngine::checkMappingWrite(quint16 index, quint8 subIndex, quint32 value) const
{
    const bool receive = inBlock(index, kRpdoMapping);
    const quint16 communication = quint16(index - (receive ? kRpdoMapping : kTpdoMapping) +
                                          (receive ? kRpdoCommunication : kTpdoCommunication));
    // The mapping procedure: the PDO made not valid, sub 0 set to 0, the entries written, sub 0
    // set to their number, the PDO made valid again.
    if (valid(communication))
        return quint32(SdoAbort::UnsupportedAccess);
    if (subIndex == 0) {
        if (value > quint32(kMaxEntries))
            return quint32(SdoAbort::PdoTooLong);
        int bits = 0;
        for (quint32 s = 1; s <= value; ++s) {
            const quint32 entry = m_dictionary->unsignedValue(index, quint8(s));
            const int have =
                m_dictionary->mappableBits(quint16(entry >> 16), quint8(entry >> 8), receive);
            if (have < 0)
                return quint32(SdoAbort::NoObject);
            if (have == 0 || have != int(entry & 0xFF))
                return quint32(SdoAbort::CannotMap);
            bits += have;
        }
        return bits > 64 ? quint32(SdoAbort::PdoTooLong) : 0;
    }
    if (m_dictionary->unsignedValue(index, 0) != 0)
        return quint32(SdoAbort::UnsupportedAccess);
    const int have = m_dictionary->mappableBits(quint16(value >> 16), quint8(value >> 8), receive);
    if (have < 0)
        return quint32(SdoAbort::NoObject);
    // The length must be the entry's own: a part of an entry is not mapped.
    if (have == 0 || have != int(value & 0xFF))
        return quint32(SdoAbort::CannotMap);
    return 0;
}

quint32 PdoEngine::checkWrite(quint16 index, quint8 subIndex, const QByteArray& data) const
{
    const quint32 value = unsignedOf(data);
    if (inBlock(index, kRpdoMapping) || inBlock(index, kTpdoMapping))
        return checkMappingWrite(index, subIndex, value);
    if (!inBlock(index, kRpdoCommunication) && !inBlock(index, kTpdoCommunication))
        return 0;
    const bool receive = inBlock(index, kRpdoCommunication);
    switch (subIndex) {
    case 1: {
        if (value & kExtended)
            return quint32(SdoAbort::InvalidValue);
        const bool becomesValid = !(value & kNotValid);
        if (becomesValid && restrictedId(value & 0x7FF))
            return quint32(SdoAbort::InvalidValue);
        // A valid PDO keeps its CAN-ID: it is made not valid first.
        if (becomesValid && valid(index) && (value & 0x7FF) != cobId(index))
            return quint32(SdoAbort::InvalidValue);
        return 0;
    }
    case 2:
        if (value <= 240 || value == 254 || value == 255)
            return 0;
        // 241..251 are reserved; 252 and 253 are sent only on request, which this node's
        // PDOs are not.
        return quint32(SdoAbort::InvalidValue);
    case 3:
        return !receive && valid(index) && value != m_dictionary->unsignedValue(index, 3)
                   ? quint32(SdoAbort::InvalidValue)
                   : 0;
    default:
        return 0;
    }
}

void PdoEngine::parametersChanged(qint64 nowUs)
{
    for (int i = 0; i < kCount; ++i) {
        m_hasLatched[i] = false;
        m_tpdo[i].syncCount = 0;
        armEventTimer(i, nowUs);
    }
}

void PdoEngine::setOperational(bool operational, qint64 nowUs)
{
    if (operational == m_operational)
        return;
    m_operational = operational;
    for (int i = 0; i < kCount; ++i) {
        m_tpdo[i] = Transmit{};
        m_hasLatched[i] = false;
        if (operational)
            armEventTimer(i, nowUs);
    }
}

void PdoEngine::armEventTimer(int i, qint64 nowUs)
{
    const quint16 communication = quint16(kTpdoCommunication + i);
    const quint32 type = m_dictionary->unsignedValue(communication, 2);
    const quint32 periodMs = m_dictionary->unsignedValue(communication, 5) & 0xFFFF;
    m_tpdo[i].eventDueUs = m_operational && valid(communication) && type >= 254 && periodMs > 0
                               ? nowUs + qint64(periodMs) * 1000
                               : -1;
}

void PdoEngine::sendTpdo(int i, qint64 nowUs)
{
    const quint16 communication = quint16(kTpdoCommunication + i);
    QByteArray data;
    for (const Mapped& m : mapping(quint16(kTpdoMapping + i))) {
        QByteArray value = m_dictionary->value(m.index, m.subIndex);
        const int bytes = m.bits / 8;
        value = value.left(bytes);
        value.append(bytes - value.size(), '\0');
        data += value;
    }
    CanFrame frame;
    frame.id = cobId(communication);
    frame.len = quint8(std::min<qsizetype>(data.size(), 8));
    for (int b = 0; b < frame.len; ++b)
        frame.data[b] = quint8(data[b]);
    Transmit& t = m_tpdo[i];
    t.changed = false;
    t.lastSentUs = nowUs;
    t.inhibitEndUs = -1;
    armEventTimer(i, nowUs);
    if (m_hooks.send)
        m_hooks.send(frame);
}

void PdoEngine::onSync(quint8 counter, qint64 nowUs)
{
    Q_UNUSED(counter)
    if (!m_operational)
        return;
    for (int i = 0; i < kCount; ++i) {
        if (m_hasLatched[i]) {
            m_hasLatched[i] = false;
            takeRpdo(i, m_latched[i]);
        }
    }
    for (int i = 0; i < kCount; ++i) {
        const quint16 communication = quint16(kTpdoCommunication + i);
        if (!valid(communication))
            continue;
        const quint32 type = m_dictionary->unsignedValue(communication, 2);
        Transmit& t = m_tpdo[i];
        if (type == 0) {
            if (t.changed)
                sendTpdo(i, nowUs);
        } else if (type <= 240 && ++t.syncCount >= int(type)) {
            t.syncCount = 0;
            sendTpdo(i, nowUs);
        }
    }
}

void PdoEngine::takeRpdo(int i, const QByteArray& data)
{
    int at = 0;
    for (const Mapped& m : mapping(quint16(kRpdoMapping + i))) {
        const int bytes = m.bits / 8;
        // Dummy entries (data types 0001-0007) only take room.
        if (m.index >= 0x0020)
            m_dictionary->write(m.index, m.subIndex, data.mid(at, bytes));
        at += bytes;
    }
}

bool PdoEngine::onFrame(const CanFrame& frame, qint64 nowUs)
{
    Q_UNUSED(nowUs)
    if (frame.remote)
        return false;
    for (int i = 0; i < kCount; ++i) {
        const quint16 communication = quint16(kRpdoCommunication + i);
        if (!valid(communication) || frame.id != cobId(communication))
            continue;
        if (!m_operational)
            return true;
        int bits = 0;
        for (const Mapped& m : mapping(quint16(kRpdoMapping + i)))
            bits += m.bits;
        const int bytes = (bits + 7) / 8;
        if (frame.len < bytes) {
            if (m_hooks.lengthError)
                m_hooks.lengthError(kLengthShort);
            return true;
        }
        if (frame.len > bytes && m_hooks.lengthError)
            m_hooks.lengthError(kLengthLong);
        const QByteArray data(reinterpret_cast<const char*>(frame.data.data()), bytes);
        if (m_dictionary->unsignedValue(communication, 2) <= 240) {
            m_latched[i] = data;
            m_hasLatched[i] = true;
        } else {
            takeRpdo(i, data);
        }
        return true;
    }
    return false;
}

void PdoEngine::objectChanged(quint16 index, quint8 subIndex, qint64 nowUs)
{
    if (!m_operational)
        return;
    for (int i = 0; i < kCount; ++i) {
        const quint16 communication = quint16(kTpdoCommunication + i);
        if (!valid(communication))
            continue;
        bool maps = false;
        for (const Mapped& m : mapping(quint16(kTpdoMapping + i)))
            maps = maps || (m.index == index && m.subIndex == subIndex);
        if (!maps)
            continue;
        Transmit& t = m_tpdo[i];
        t.changed = true;
        if (m_dictionary->unsignedValue(communication, 2) < 254)
            continue;
        const qint64 inhibit = inhibitUs(communication);
        if (t.lastSentUs >= 0 && nowUs - t.lastSentUs < inhibit)
            t.inhibitEndUs = t.lastSentUs + inhibit;
        else
            sendTpdo(i, nowUs);
    }
}

void PdoEngine::onTimer(qint64 nowUs)
{
    if (!m_operational)
        return;
    for (int i = 0; i < kCount; ++i) {
        Transmit& t = m_tpdo[i];
        if (t.inhibitEndUs >= 0 && nowUs >= t.inhibitEndUs)
            sendTpdo(i, nowUs);
        else if (t.eventDueUs >= 0 && nowUs >= t.eventDueUs) {
            const quint16 communication = quint16(kTpdoCommunication + i);
            const qint64 inhibit = inhibitUs(communication);
            if (t.lastSentUs >= 0 && nowUs - t.lastSentUs < inhibit) {
                t.inhibitEndUs = t.lastSentUs + inhibit;
                t.eventDueUs = -1;
            } else {
                sendTpdo(i, nowUs);
            }
        }
    }
}

qint64 PdoEngine::nextDeadlineUs() const
{
    if (!m_operational)
        return -1;
    qint64 next = -1;
    for (const Transmit& t : m_tpdo)
        for (const qint64 d : {t.inhibitEndUs, t.eventDueUs})
            if (d >= 0 && (next < 0 || d < next))
                next = d;
    return next;
}

} // namespace qorcalib

#include "canopendecoder.h"

#include "decimal.h"
#include "sdoabort.h"

#include <QDate>
#include <QtEndian>

#include <utility>

namespace tessel {

QString hexBytes(const QByteArray& data)
{
    return QString::fromLatin1(data.toHex(' ').toUpper());
}

namespace {

quint32 le(const QByteArray& data, int at, int bytes)
{
    quint32 value = 0;
    for (int i = 0; i < bytes && at + i < data.size(); ++i)
        value |= quint32(quint8(data[at + i])) << (8 * i);
    return value;
}

QString hex(quint32 value, int digits)
{
    static constexpr char table[] = "0123456789ABCDEF";
    QString text(digits, Qt::Uninitialized);
    for (int i = digits - 1; i >= 0; --i, value >>= 4)
        text[i] = QLatin1Char(table[value & 0xF]);
    return text;
}

DecodedFrame malformed(const QString& service, int node, const QString& why)
{
    return {service, node, why, true};
}

QString nmtCommand(quint8 command)
{
    switch (command) {
    case 0x01:
        return QStringLiteral("start");
    case 0x02:
        return QStringLiteral("stop");
    case 0x80:
        return QStringLiteral("enter pre-operational");
    case 0x81:
        return QStringLiteral("reset node");
    case 0x82:
        return QStringLiteral("reset communication");
    default:
        return {};
    }
}

// CiA 301's TIME: milliseconds after midnight (28 bits) and days since 1 January 1984.
QString timeOfDay(const QByteArray& data)
{
    const quint32 ms = le(data, 0, 4) & 0x0FFFFFFF;
    const QDate day = QDate(1984, 1, 1).addDays(le(data, 4, 2));
    return QStringLiteral("%1 %2:%3:%4.%5")
        .arg(day.toString(Qt::ISODate))
        .arg(ms / 3600000, 2, 10, QLatin1Char('0'))
        .arg(ms / 60000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms / 1000 % 60, 2, 10, QLatin1Char('0'))
        .arg(ms % 1000, 3, 10, QLatin1Char('0'));
}

QString lssCommand(quint8 cs, bool fromMaster)
{
    if (!fromMaster) {
        switch (cs) {
        case 0x44:
            return QStringLiteral("switch state selective: answered");
        case 0x4F:
            return QStringLiteral("identify remote slave: answered");
        case 0x50:
            return QStringLiteral("identify non-configured slave: answered");
        case 0x11:
            return QStringLiteral("configure node-ID: confirmed");
        case 0x13:
            return QStringLiteral("configure bit timing: confirmed");
        case 0x17:
            return QStringLiteral("store configuration: confirmed");
        case 0x5A:
        case 0x5B:
        case 0x5C:
        case 0x5D:
            return QStringLiteral("inquire identity: answered");
        case 0x5E:
            return QStringLiteral("inquire node-ID: answered");
        default:
            return {};
        }
    }
    switch (cs) {
    case 0x04:
        return QStringLiteral("switch state global");
    case 0x40:
    case 0x41:
    case 0x42:
    case 0x43:
        return QStringLiteral("switch state selective");
    case 0x11:
        return QStringLiteral("configure node-ID");
    case 0x13:
        return QStringLiteral("configure bit timing");
    case 0x15:
        return QStringLiteral("activate bit timing");
    case 0x17:
        return QStringLiteral("store configuration");
    case 0x46:
    case 0x47:
    case 0x48:
    case 0x49:
    case 0x4A:
    case 0x4B:
        return QStringLiteral("identify remote slave");
    case 0x4C:
        return QStringLiteral("identify non-configured slave");
    case 0x51:
        return QStringLiteral("Fastscan");
    case 0x5A:
        return QStringLiteral("inquire vendor-ID");
    case 0x5B:
        return QStringLiteral("inquire product code");
    case 0x5C:
        return QStringLiteral("inquire revision number");
    case 0x5D:
        return QStringLiteral("inquire serial number");
    case 0x5E:
        return QStringLiteral("inquire node-ID");
    default:
        return {};
    }
}

} // namespace

QString nmtStateText(quint8 state)
{
    switch (state) {
    case 0x00:
        return QStringLiteral("boot-up");
    case 0x04:
        return QStringLiteral("stopped");
    case 0x05:
        return QStringLiteral("operational");
    case 0x7F:
        return QStringLiteral("pre-operational");
    default:
        return {};
    }
}

QString errorRegisterText(quint8 bits)
{
    static const char* const names[] = {"generic",     "current",       "voltage",
                                        "temperature", "communication", "device profile",
                                        "reserved",    "manufacturer"};
    QStringList set;
    for (int b = 0; b < 8; ++b)
        if (bits & (1 << b))
            set << QLatin1String(names[b]);
    return set.isEmpty() ? QStringLiteral("no error") : set.join(QStringLiteral(", "));
}

QString emcyText(quint16 code)
{
    // Exact codes first (the drive profile's and CiA 301's), then the class of the code.
    static const QHash<quint16, const char*> exact{
        {0x0000, "error reset or no error"},
        {0x1000, "generic error"},
        {0x2310, "continuous over-current"},
        {0x2320, "short circuit at outputs"},
        {0x3210, "DC link over-voltage"},
        {0x3220, "DC link under-voltage"},
        {0x4210, "excess temperature device"},
        {0x4310, "excess temperature drive"},
        {0x5530, "data storage error"},
        {0x6100, "internal software error"},
        {0x7121, "motor blocked"},
        {0x7305, "incremental sensor 1 fault"},
        {0x8110, "CAN overrun (objects lost)"},
        {0x8120, "CAN in error passive mode"},
        {0x8130, "life guard error or heartbeat error"},
        {0x8140, "recovered from bus off"},
        {0x8150, "CAN-ID collision"},
        {0x8200, "protocol error"},
        {0x8210, "PDO not processed due to length error"},
        {0x8220, "PDO length exceeded"},
        {0x8230, "DAM MPDO not processed, destination object not available"},
        {0x8240, "unexpected SYNC data length"},
        {0x8250, "RPDO time-out"},
        {0x8611, "following error"},
        {0x8612, "reference limit"},
        {0x9000, "external error"},
        {0xF000, "additional functions"},
        {0xFF00, "device specific"},
    };
    if (const auto it = exact.constFind(code); it != exact.cend())
        return QLatin1String(it.value());
    static const QList<std::pair<quint16, const char*>> classes{
        {0x2100, "current, device input side"},
        {0x2200, "current inside the device"},
        {0x2300, "current, device output side"},
        {0x3100, "mains voltage"},
        {0x3200, "voltage inside the device"},
        {0x3300, "output voltage"},
        {0x4100, "ambient temperature"},
        {0x4200, "device temperature"},
        {0x4300, "drive temperature"},
        {0x5000, "device hardware"},
        {0x6000, "device software"},
        {0x7000, "additional modules"},
        {0x8100, "communication"},
        {0x8600, "positioning controller"},
        {0x8000, "monitoring"},
        {0x1000, "generic error"},
        {0x2000, "current"},
        {0x3000, "voltage"},
        {0x4000, "temperature"},
    };
    for (const auto& [prefix, text] : classes) {
        const quint16 mask = (prefix & 0x0F00) ? 0xFF00 : 0xF000;
        if ((code & mask) == prefix)
            return QStringLiteral("%1 (%2)").arg(QLatin1String(text), hex(code, 4));
    }
    return {};
}

std::optional<PdoIdentifier> pdoOfIdentifier(quint16 id)
{
    const int node = id & 0x7F;
    const int function = id & 0x780;
    if (node < 1 || function < 0x180 || function > 0x500)
        return std::nullopt;
    return PdoIdentifier{(function - 0x180) % 0x100 == 0, (function - 0x180) / 0x100, node};
}

quint64 bitField(const char* data, int first, int bits)
{
    quint64 raw = 0;
    for (int b = 0; b < bits && b < 64; ++b)
        if (quint8(data[(first + b) / 8]) >> ((first + b) % 8) & 1)
            raw |= quint64(1) << b;
    return raw;
}

qint64 signExtended(quint64 raw, int bits)
{
    if (bits > 0 && bits < 64 && (raw >> (bits - 1) & 1))
        return qint64(raw) - (qint64(1) << bits);
    return qint64(raw);
}

QString CanopenDecoder::text(const DecodedFrame& frame)
{
    // Written for every frame the monitor traces and every line a decode writes out: put
    // together in one allocation.
    QString text;
    text.reserve(frame.service.size() + 24 + frame.meaning.size());
    text += frame.service;
    if (frame.node > 0) {
        text += QLatin1String(" node ");
        char digits[21];
        text += QLatin1String(digits, qorcalib::writeDecimal(digits, frame.node) - digits);
    }
    text += QLatin1String(": ");
    if (frame.malformed)
        text += QLatin1String("malformed: ");
    text += frame.meaning;
    return text;
}

QString CanopenDecoder::entry(const Transfer& t) const
{
    if (!t.started)
        return QStringLiteral("a transfer whose start was not seen");
    const QString address = QStringLiteral("%1:%2").arg(hex(t.index, 4), hex(t.subIndex, 2));
    const QString name = m_dictionary ? m_dictionary->name(t.index, t.subIndex) : QString();
    return name.isEmpty() ? address : QStringLiteral("%1 (%2)").arg(address, name);
}

DecodedFrame CanopenDecoder::pdo(const QString& service, int node,
                                 const QList<DeviceDictionary::Field>& map,
                                 const QByteArray& data) const
{
    int bits = 0;
    for (const DeviceDictionary::Field& f : map)
        bits += f.bits;
    if (data.size() * 8 < bits)
        return {service, node,
                QStringLiteral("%1 bytes, its mapping takes %2: %3")
                    .arg(data.size())
                    .arg((bits + 7) / 8)
                    .arg(data.isEmpty() ? QStringLiteral("no data") : hexBytes(data)),
                true};
    QStringList values;
    int at = 0;
    for (const DeviceDictionary::Field& f : map) {
        const quint64 raw = bitField(data.constData(), at, f.bits);
        at += f.bits;
        const QString value =
            f.isSigned ? QString::number(signExtended(raw, f.bits)) : QString::number(raw);
        const QString name = m_dictionary->name(f.index, f.subIndex);
        values << QStringLiteral("%1 = %2").arg(
            name.isEmpty() ? QStringLiteral("%1:%2").arg(hex(f.index, 4), hex(f.subIndex, 2))
                           : name,
            value);
    }
    if (data.size() * 8 >= bits + 8)
        values << QStringLiteral("%1 bytes past the mapping").arg(data.size() - (bits + 7) / 8);
    return {service, node, values.join(QStringLiteral("; ")), false};
}

DecodedFrame CanopenDecoder::decode(quint16 id, bool remote, const QByteArray& data)
{
    const int len = int(data.size());
    if (id == 0x000) {
        if (remote || len != 2)
            return malformed(QStringLiteral("NMT"), 0,
                             QStringLiteral("%1 bytes (2 expected)").arg(len));
        const QString command = nmtCommand(quint8(data[0]));
        const int target = quint8(data[1]);
        if (command.isEmpty())
            return malformed(QStringLiteral("NMT"), target,
                             QStringLiteral("unknown command %1").arg(hex(quint8(data[0]), 2)));
        return {QStringLiteral("NMT"), target,
                target == 0 ? command + QStringLiteral(", all nodes") : command, false};
    }
    if (id == 0x080) {
        if (remote || len > 1)
            return malformed(QStringLiteral("SYNC"), 0,
                             QStringLiteral("%1 bytes (0, or 1 with a counter)").arg(len));
        return {QStringLiteral("SYNC"), 0,
                len == 0 ? QStringLiteral("no counter")
                         : QStringLiteral("counter %1").arg(quint8(data[0])),
                false};
    }
    if (id > 0x080 && id < 0x100) {
        const int node = id - 0x080;
        if (remote || len != 8)
            return malformed(QStringLiteral("EMCY"), node,
                             QStringLiteral("%1 bytes (8 expected)").arg(len));
        const quint16 code = quint16(le(data, 0, 2));
        const QString known = emcyText(code);
        return {QStringLiteral("EMCY"), node,
                QStringLiteral("%1 %2; register %3 (%4)")
                    .arg(hex(code, 4), known.isEmpty() ? QStringLiteral("(in no table)") : known,
                         hex(quint8(data[2]), 2), errorRegisterText(quint8(data[2]))),
                false};
    }
    if (id == 0x100) {
        if (remote || len != 6)
            return malformed(QStringLiteral("TIME"), 0,
                             QStringLiteral("%1 bytes (6 expected)").arg(len));
        return {QStringLiteral("TIME"), 0, timeOfDay(data), false};
    }
    const int node = id & 0x7F;
    const int function = id & 0x780;
    if (const auto p = pdoOfIdentifier(id)) {
        const QString service = QStringLiteral("%1%2").arg(p->transmit ? QStringLiteral("TPDO")
                                                                       : QStringLiteral("RPDO"),
                                                           QString::number(p->pdo + 1));
        if (!remote && m_dictionary && !m_dictionary->mapping(p->transmit, p->pdo).isEmpty())
            return pdo(service, node, m_dictionary->mapping(p->transmit, p->pdo), data);
        return {service, node,
                remote ? QStringLiteral("remote request")
                       : (len == 0 ? QStringLiteral("no data") : hexBytes(data)),
                false};
    }
    if (node >= 1 && (function == 0x580 || function == 0x600)) {
        const bool request = function == 0x600;
        const QString service =
            request ? QStringLiteral("SDO request") : QStringLiteral("SDO answer");
        if (remote || len != 8)
            return malformed(service, node, QStringLiteral("%1 bytes (8 expected)").arg(len));
        return sdo(node, request, data);
    }
    if (node >= 1 && function == 0x700) {
        if (remote)
            return {QStringLiteral("guarding"), node, QStringLiteral("request"), false};
        if (len != 1)
            return malformed(QStringLiteral("heartbeat"), node,
                             QStringLiteral("%1 bytes (1 expected)").arg(len));
        const quint8 b = quint8(data[0]);
        const QString state = nmtStateText(b & 0x7F);
        if (b == 0x00)
            return {QStringLiteral("boot-up"), node, QStringLiteral("started"), false};
        if (state.isEmpty())
            return malformed(QStringLiteral("heartbeat"), node,
                             QStringLiteral("state %1 is none").arg(hex(b, 2)));
        // Only a guarding answer sets the toggle bit; without it the two cannot be told apart.
        if (b & 0x80)
            return {QStringLiteral("guarding"), node,
                    QStringLiteral("answer: %1, toggle 1").arg(state), false};
        return {QStringLiteral("heartbeat"), node, state, false};
    }
    if (id == 0x7E5 || id == 0x7E4) {
        const bool master = id == 0x7E5;
        if (remote || len != 8)
            return malformed(QStringLiteral("LSS"), 0,
                             QStringLiteral("%1 bytes (8 expected)").arg(len));
        const QString what = lssCommand(quint8(data[0]), master);
        if (what.isEmpty())
            return malformed(QStringLiteral("LSS"), 0,
                             QStringLiteral("unknown command %1").arg(hex(quint8(data[0]), 2)));
        return {QStringLiteral("LSS"), 0,
                QStringLiteral("%1 %2: %3")
                    .arg(master ? QStringLiteral("master") : QStringLiteral("slave"), what,
                         hexBytes(data.mid(1))),
                false};
    }
    return {QStringLiteral("unknown"), 0,
            QStringLiteral("no CANopen service uses identifier %1").arg(hex(id, 3)), false};
}

DecodedFrame CanopenDecoder::sdo(int node, bool request, const QByteArray& data)
{
    const QString service = request ? QStringLiteral("SDO request") : QStringLiteral("SDO answer");
    const quint8 b0 = quint8(data[0]);
    const quint8 cs = b0 >> 5;
    const auto result = [&](const QString& meaning) {
        return DecodedFrame{service, node, meaning};
    };
    Transfer& t = m_transfers[node];
    const Transfer fromFrame{quint16(le(data, 1, 2)), quint8(data[3]), true};
    // A block's segments carry a sequence number where other frames have their command.
    if (t.blockData && request != t.upload) {
        const int seq = b0 & 0x7F;
        t.bytes += 7;
        if (b0 & 0x80) {
            t.blockData = false;
            t.lastBlock = true;
        }
        return result(QStringLiteral("block segment %1 of %2%3")
                          .arg(seq)
                          .arg(entry(t))
                          .arg(b0 & 0x80 ? QStringLiteral(", last") : QString()));
    }
    if (cs == 4) {
        const quint32 code = le(data, 4, 4);
        m_transfers.remove(node);
        return result(QStringLiteral("abort %1:%2 %3 (%4)")
                          .arg(hex(fromFrame.index, 4), hex(fromFrame.subIndex, 2), hex(code, 8),
                               qorcalib::sdoAbortText(code)));
    }
    if (request) {
        switch (cs) {
        case 1: { // initiate download
            t = fromFrame;
            if (b0 & 0x02) {
                const int n = (b0 & 0x01) ? 4 - ((b0 >> 2) & 0x03) : 4;
                return result(QStringLiteral("download %1, expedited: %2")
                                  .arg(entry(t), hexBytes(data.mid(4, n))));
            }
            return result(QStringLiteral("download %1, segmented%2")
                              .arg(entry(t), (b0 & 0x01)
                                                 ? QStringLiteral(", %1 bytes").arg(le(data, 4, 4))
                                                 : QString()));
        }
        case 0: { // download segment
            const int n = 7 - ((b0 >> 1) & 0x07);
            t.bytes += n;
            return result(QStringLiteral("download segment of %1, toggle %2: %3%4")
                              .arg(entry(t))
                              .arg((b0 >> 4) & 1)
                              .arg(hexBytes(data.mid(1, n)))
                              .arg((b0 & 0x01)
                                       ? QStringLiteral(", last (%1 bytes in all)").arg(t.bytes)
                                       : QString()));
        }
        case 2: // initiate upload
            t = fromFrame;
            t.upload = true;
            return result(QStringLiteral("upload %1").arg(entry(t)));
        case 3:
            return result(
                QStringLiteral("upload segment of %1, toggle %2").arg(entry(t)).arg((b0 >> 4) & 1));
        case 6: // block download
            if ((b0 & 0x01) == 0) {
                t = fromFrame;
                t.block = true;
                return result(
                    QStringLiteral("block download %1%2")
                        .arg(entry(t), (b0 & 0x02)
                                           ? QStringLiteral(", %1 bytes").arg(le(data, 4, 4))
                                           : QString()));
            }
            return result(
                QStringLiteral("block download of %1 ends, %2 bytes unused in its last segment")
                    .arg(entry(t))
                    .arg((b0 >> 2) & 0x07));
        case 5: // block upload
            if ((b0 & 0x03) == 0) {
                t = fromFrame;
                t.upload = t.block = true;
                return result(QStringLiteral("block upload %1, %2 segments a block")
                                  .arg(entry(t))
                                  .arg(quint8(data[4])));
            }
            if ((b0 & 0x03) == 3) {
                t.blockData = true;
                return result(QStringLiteral("block upload of %1: send").arg(entry(t)));
            }
            t.blockData = !t.lastBlock;
            return result(QStringLiteral("block upload of %1: %2 segments received")
                              .arg(entry(t))
                              .arg(quint8(data[1])));
        default:
            return malformed(service, node, QStringLiteral("unknown command %1").arg(hex(b0, 2)));
        }
    }
    switch (cs) {
    case 3:
        return result(QStringLiteral("download %1 accepted").arg(entry(fromFrame)));
    case 1:
        return result(QStringLiteral("download segment of %1 acknowledged, toggle %2")
                          .arg(entry(t))
                          .arg((b0 >> 4) & 1));
    case 2: {
        t.index = fromFrame.index;
        t.subIndex = fromFrame.subIndex;
        t.started = true;
        if (b0 & 0x02) {
            const int n = (b0 & 0x01) ? 4 - ((b0 >> 2) & 0x03) : 4;
            const QByteArray value = data.mid(4, n);
            return result(QStringLiteral("upload %1 = %2 (%3)")
                              .arg(entry(t), hexBytes(value))
                              .arg(le(value, 0, n)));
        }
        return result(QStringLiteral("upload %1, segmented%2")
                          .arg(entry(t), (b0 & 0x01)
                                             ? QStringLiteral(", %1 bytes").arg(le(data, 4, 4))
                                             : QString()));
    }
    case 0: {
        const int n = 7 - ((b0 >> 1) & 0x07);
        t.bytes += n;
        return result(QStringLiteral("upload segment of %1, toggle %2: %3%4")
                          .arg(entry(t))
                          .arg((b0 >> 4) & 1)
                          .arg(hexBytes(data.mid(1, n)))
                          .arg((b0 & 0x01) ? QStringLiteral(", last (%1 bytes in all)").arg(t.bytes)
                                           : QString()));
    }
    case 5: // block download answers
        if ((b0 & 0x03) == 0) {
            t.blockData = true;
            return result(QStringLiteral("block download %1 accepted, %2 segments a block")
                              .arg(entry(fromFrame))
                              .arg(quint8(data[4])));
        }
        if ((b0 & 0x03) == 2) {
            t.blockData = !t.lastBlock;
            return result(QStringLiteral("block of %1: %2 segments received")
                              .arg(entry(t))
                              .arg(quint8(data[1])));
        }
        return result(QStringLiteral("block download of %1 done").arg(entry(t)));
    case 6: // block upload answers
        if ((b0 & 0x01) == 0) {
            t.index = fromFrame.index;
            t.subIndex = fromFrame.subIndex;
            t.started = true;
            return result(QStringLiteral("block upload %1 accepted%2")
                              .arg(entry(t), (b0 & 0x02)
                                                 ? QStringLiteral(", %1 bytes").arg(le(data, 4, 4))
                                                 : QString()));
        }
        return result(QStringLiteral("block upload of %1 ends, %2 bytes unused in its last segment")
                          .arg(entry(t))
                          .arg((b0 >> 2) & 0x07));
    default:
        return malformed(service, node, QStringLiteral("unknown command %1").arg(hex(b0, 2)));
    }
}

} // namespace tessel

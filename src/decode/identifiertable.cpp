#include "identifiertable.h"

#include "bittiming.h"
#include "canmsg.h"

namespace tessel {

namespace {

QString milliseconds(qint64 us)
{
    return us < 0 ? QString() : QString::number(double(us) / 1000.0, 'f', 1);
}

} // namespace

IdentifierTable::IdentifierTable(QObject* parent) : QAbstractTableModel(parent)
{
    m_period.start();
}

void IdentifierTable::add(int controller, bool sent, quint16 id, bool remote, qint64 timeUs,
                          int length, const quint8* data, const DecodedFrame& decoded)
{
    if (controller < 0 || controller >= kControllers || length < 0 || length > 8)
        return;
    const quint32 key = quint32(controller) << 16 | (sent ? 0x4000u : 0u) |
                        (remote ? 0x8000u : 0u) | (id & 0x7FF);
    auto found = m_index.constFind(key);
    if (found == m_index.cend()) {
        found = m_index.insert(key, int(m_rows.size()));
        Row row;
        row.controller = controller;
        row.sent = sent;
        row.id = id & 0x7FF;
        row.remote = remote;
        m_rows.push_back(row);
    }
    Row& row = m_rows[size_t(*found)];
    if (row.lastUs >= 0 && timeUs >= row.lastUs) {
        row.cycleUs = timeUs - row.lastUs;
        row.minUs = row.minUs < 0 ? row.cycleUs : std::min(row.minUs, row.cycleUs);
        row.maxUs = std::max(row.maxUs, row.cycleUs);
    }
    row.lastUs = timeUs;
    ++row.count;
    row.length = length;
    if (data && !remote)
        std::copy(data, data + length, row.data.begin());
    row.service = decoded.service;
    row.meaning = (decoded.malformed ? QStringLiteral("malformed: ") : QString()) + decoded.meaning;
    m_changed = true;

    qorcalib::CanFrame frame;
    frame.id = row.id;
    frame.len = quint8(length);
    frame.remote = remote;
    if (data && !remote)
        std::copy(data, data + length, frame.data.begin());
    m_bits[size_t(controller)] += qorcalib::frameBitCount(frame);
}

void IdentifierTable::publish()
{
    if (int(m_rows.size()) > m_published) {
        beginInsertRows({}, m_published, int(m_rows.size()) - 1);
        m_published = int(m_rows.size());
        endInsertRows();
    }
    if (m_changed && m_published > 0)
        emit dataChanged(index(0, 0), index(m_published - 1, ColumnCount - 1));
    m_changed = false;
}

void IdentifierTable::clear()
{
    beginResetModel();
    m_rows.clear();
    m_index.clear();
    m_published = 0;
    m_changed = false;
    endResetModel();
}

void IdentifierTable::setBitRate(int controller, int bitsPerSecond)
{
    if (controller >= 0 && controller < kControllers)
        m_bitRate[size_t(controller)] = bitsPerSecond;
}

void IdentifierTable::setStatus(int controller, quint32 status)
{
    if (controller >= 0 && controller < kControllers)
        m_status[size_t(controller)] = status;
}

void IdentifierTable::setErrorCounters(int controller, qorcalib::ErrorCounters counters)
{
    if (controller >= 0 && controller < kControllers)
        m_counters[size_t(controller)] = counters;
}

void IdentifierTable::measureLoad()
{
    const qint64 elapsedUs = std::max<qint64>(1, m_period.nsecsElapsed() / 1000);
    m_period.restart();
    for (size_t c = 0; c < kControllers; ++c) {
        m_load[c] = m_bitRate[c] > 0 ? 100.0 * double(m_bits[c]) * 1e6 /
                                           (double(m_bitRate[c]) * double(elapsedUs))
                                     : -1;
        m_bits[c] = 0;
    }
}

QString IdentifierTable::loadText() const
{
    QStringList parts;
    for (int c = 0; c < kControllers; ++c) {
        if (m_load[size_t(c)] < 0)
            continue;
        const quint32 s = m_status[size_t(c)];
        const qorcalib::ErrorCounters& counters = m_counters[size_t(c)];
        parts << QStringLiteral("CAN %1: %2 %%3%4%5")
                     .arg(c)
                     .arg(m_load[size_t(c)], 0, 'f', 1)
                     .arg(s & qorcalib::StatusBusOff         ? QStringLiteral(" bus off")
                          : s & qorcalib::StatusErrorWarning ? QStringLiteral(" error warning")
                                                             : QString(),
                          s & qorcalib::StatusOverrun ? QStringLiteral(" overrun") : QString(),
                          counters.known() && (counters.transmit > 0 || counters.receive > 0)
                              ? QStringLiteral(" TEC %1 REC %2")
                                    .arg(counters.transmit)
                                    .arg(counters.receive)
                              : QString());
    }
    return parts.join(QStringLiteral("  "));
}

int IdentifierTable::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : m_published;
}

int IdentifierTable::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant IdentifierTable::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= m_published)
        return {};
    const Row& r = m_rows[size_t(index.row())];
    if (role == SortRole) {
        switch (index.column()) {
        case Controller:
            return r.controller << 1 | int(r.sent);
        case Identifier:
            return r.controller << 13 | r.id << 1 | int(r.sent);
        case Count:
            return r.count;
        case CycleLast:
            return r.cycleUs;
        case CycleMin:
            return r.minUs;
        case CycleMax:
            return r.maxUs;
        case Length:
            return r.length;
        default:
            break;
        }
        role = Qt::DisplayRole;
    }
    if (role == Qt::TextAlignmentRole)
        return index.column() >= Count && index.column() <= Length
                   ? QVariant(Qt::AlignRight | Qt::AlignVCenter)
                   : QVariant(Qt::AlignLeft | Qt::AlignVCenter);
    if (role != Qt::DisplayRole && role != Qt::ToolTipRole)
        return {};
    switch (index.column()) {
    case Controller:
        return r.sent ? QStringLiteral("%1 Tx").arg(r.controller) : QString::number(r.controller);
    case Identifier:
        return QStringLiteral("%1%2")
            .arg(r.id, 3, 16, QLatin1Char('0'))
            .toUpper()
            .arg(r.remote ? QStringLiteral(" R") : QString());
    case Service:
        return r.service;
    case Count:
        return r.count;
    case CycleLast:
        return milliseconds(r.cycleUs);
    case CycleMin:
        return milliseconds(r.minUs);
    case CycleMax:
        return milliseconds(r.maxUs);
    case Length:
        return r.length;
    case Data:
        return r.remote ? QStringLiteral("remote request")
                        : hexBytes(QByteArray::fromRawData(
                              reinterpret_cast<const char*>(r.data.data()), r.length));
    case Meaning:
        return r.meaning;
    default:
        return {};
    }
}

QVariant IdentifierTable::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal)
        return {};
    static const char* const names[ColumnCount] = {
        "CAN", "ID", "Service", "Count", "Cycle ms", "Min ms", "Max ms", "Len", "Meaning", "Data"};
    static const char* const tips[ColumnCount] = {
        "The controller; Tx: frames this program sent, timed as their reports came",
        "The COB-ID in hexadecimal; R: remote requests",
        "What the identifier is in CANopen's pre-defined connection set",
        "Frames seen since the table was cleared",
        "Time between the last two frames",
        "Shortest time between two frames",
        "Longest time between two frames",
        "Length of the last frame",
        "What the last frame said",
        "Data of the last frame"};
    if (section < 0 || section >= ColumnCount)
        return {};
    if (role == Qt::DisplayRole)
        return QString::fromLatin1(names[section]);
    if (role == Qt::ToolTipRole)
        return QString::fromLatin1(tips[section]);
    return {};
}

} // namespace tessel

#include "nodescan.h"

#include "sampling.h"
#include "sdoabort.h"

#include <QtEndian>

namespace tessel {

namespace {
quint32 u32(const CanLink::SdoResult& r)
{
    return r.error.isEmpty() && r.abortCode == 0 && r.data.size() == 4
               ? qFromLittleEndian<quint32>(r.data.constData())
               : 0u;
}
} // namespace

std::optional<NodeIdentity> NodeScan::read(int node, QString* error, ErrorKind* kind, bool withName)
{
    error->clear();
    const CanLink::SdoResult type = m_link->sdoTransfer(m_controller, true, node, 0x1000, 0);
    if (!type.error.isEmpty() && type.kind != ErrorKind::TimeOut) {
        *error = type.error;
        if (kind)
            *kind = type.kind;
        return std::nullopt;
    }
    if (!type.error.isEmpty() || type.abortCode != 0)
        return std::nullopt;
    NodeIdentity id;
    id.node = node;
    id.deviceType = u32(type);
    quint32* fields[4] = {&id.vendorId, &id.productCode, &id.revision, &id.serial};
    for (int sub = 1; sub <= 4; ++sub)
        *fields[sub - 1] = u32(m_link->sdoTransfer(m_controller, true, node, 0x1018, sub));
    if (withName) {
        const CanLink::SdoResult name = m_link->sdoTransfer(m_controller, true, node, 0x1008, 0);
        if (name.error.isEmpty() && name.abortCode == 0)
            id.deviceName = QString::fromLatin1(name.data).trimmed();
    }
    return id;
}

std::optional<QList<quint32>> readPdoMapping(CanLink* link, int controller, int node, bool transmit,
                                             int pdo, QString* error)
{
    const int index = (transmit ? 0x1A00 : 0x1600) + pdo;
    const auto entry = [&](int sub) -> std::optional<quint32> {
        const CanLink::SdoResult r = link->sdoTransfer(controller, true, node, index, sub);
        QString why = r.error;
        if (why.isEmpty() && r.abortCode != 0)
            why = qorcalib::sdoAbortDescription(r.abortCode);
        std::optional<double> v;
        if (why.isEmpty())
            v = sampleValue(r.data, {}, &why);
        if (!v) {
            *error = QStringLiteral("%1 sub %2 of node %3: %4")
                         .arg(QString::number(index, 16).toUpper())
                         .arg(sub)
                         .arg(node)
                         .arg(why);
            return std::nullopt;
        }
        return quint32(*v);
    };
    const auto count = entry(0);
    if (!count)
        return std::nullopt;
    QList<quint32> mapping;
    for (int sub = 1; sub <= qMin<int>(int(*count), 64); ++sub) {
        const auto v = entry(sub);
        if (!v)
            return std::nullopt;
        mapping << *v;
    }
    return mapping;
}

} // namespace tessel

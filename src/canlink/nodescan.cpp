#include "nodescan.h"

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

} // namespace tessel

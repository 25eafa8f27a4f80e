#pragma once

#include "canlink.h"

#include <optional>

namespace tessel {

// What a node says about itself by SDO: its device type (1000) and identity (1018 sub 1 to 4).
struct NodeIdentity
{
    int node = 0;
    quint32 deviceType = 0;
    quint32 vendorId = 0;
    quint32 productCode = 0;
    quint32 revision = 0;
    quint32 serial = 0; // 0 where the node does not have the entry
    QString deviceName; // 1008, when asked for and the node has it
};

// Finding the nodes of a bus: each node is asked for its device type with the link's SDO
// time-out, which the caller keeps short; a node that answers is asked for its identity. Shared
// by the network window and tessel-cli scan.
class NodeScan
{
public:
    NodeScan(CanLink* link, int controller) : m_link(link), m_controller(controller) {}
    // The node's identity; nothing when it did not answer or refused. `error` is set (with its
    // kind) only when the link itself failed: then no other node will answer either.
    std::optional<NodeIdentity> read(int node, QString* error, ErrorKind* kind = nullptr,
                                     bool withName = false);

private:
    CanLink* m_link;
    int m_controller;
};

// A PDO's mapping as the node has it now (1600 + pdo for a receive PDO, 1A00 + pdo for a transmit
// PDO, pdo 0 to 3): its entries, each index << 16 | sub-index << 8 | bits; nothing, with the
// reason, when a read failed or the node holds no such mapping.
std::optional<QList<quint32>> readPdoMapping(CanLink* link, int controller, int node, bool transmit,
                                             int pdo, QString* error);

} // namespace tessel

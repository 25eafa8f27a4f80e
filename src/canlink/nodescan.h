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

} // namespace tessel

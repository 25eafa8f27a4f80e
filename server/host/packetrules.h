#pragma once

#include "remotecontract.h"

#include <QByteArray>
#include <QDataStream>
#include <QSet>
#include <QString>

namespace qorcalib {

// The remote objects protocol as it crosses a client's connection (Qt Remote Objects 6.4).
// Every packet is
//   quint32 size   bytes that follow (type and body), little-endian, as all numbers here
//   quint16 type   see PacketType
//   body
// with these bodies:
//   AddObject     QString name, bool dynamic
//   RemoveObject  QString name
//   Invoke        QString name, qint32 call (0: a method), qint32 method index,
//                 quint32 argument count, that many QVariants, qint32 serial, qint32 property
//   Ping / Pong   QString name
//   ObjectList    quint32 count, then count times QString name, QString type, QByteArray signature
// QString: quint32 length in bytes (0xFFFFFFFF: null) and UTF-16. QVariant: quint32 type id,
// qint8 null flag; a type of the program's own (id 65536) then its name (quint32 length with
// the terminating NUL, and the bytes); then the value. A record of the contract (CanMsg) is
// its properties in order, each as a QVariant.
namespace packet {
enum Type : quint16
{
    Handshake = 1,
    Init = 2,
    InitDynamic = 3,
    AddObject = 4,
    RemoveObject = 5,
    Invoke = 6,
    InvokeReply = 7,
    PropertyChange = 8,
    ObjectList = 9,
    Ping = 10,
    Pong = 11,
};
constexpr qsizetype kHeaderSize = 4; // the size field
// A stream over a packet as the protocol writes it: QDataStream::Qt_6_2, little-endian.
void prepare(QDataStream& stream);
} // namespace packet

// What one client connection may send, and what it is shown. A client reaches only its own
// session's objects ("<session>/<class>"), only with the methods and argument types of the
// contract, and only objects it has acquired; anything else ends the connection, because the
// remote objects node would take it on trust.
class PacketRules
{
public:
    PacketRules(const RemoteContract& contract, QString sessionName);

    // Checks one packet from the client: its type and body (the size field left off). Empty
    // when it may pass, else why not.
    QString checkIncoming(const QByteArray& packet);

    // A packet on its way to the client, size field included. The lists of objects that the
    // node announces name every session's objects: the client is shown its own only, and a
    // list that leaves nothing to show is not sent at all (returns an empty array).
    QByteArray filterOutgoing(const QByteArray& packet);

private:
    QString checkInvoke(QDataStream& in, const QString& name);
    QString classOf(const QString& name) const;

    const RemoteContract& m_contract;
    QString m_prefix; // "<session>/"
    QSet<QString> m_acquired;
    bool m_firstListSent = false;
};

} // namespace qorcalib

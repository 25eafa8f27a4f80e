#include "networkwatch.h"

namespace tessel {

namespace {
QString seconds(qint64 us)
{
    return QString::number(double(us) / 1e6, 'f', 1) + QStringLiteral(" s");
}
} // namespace

QList<NetworkWatch::Event> NetworkWatch::onFrame(quint16 id, bool remote, const QByteArray& data,
                                                 qint64 timeUs)
{
    QList<Event> events;
    const DecodedFrame d = m_decoder.decode(id, remote, data);
    if (d.malformed || d.node == 0)
        return events;
    if (d.service == QLatin1String("EMCY")) {
        m_nodes[d.node].lastEmergency = d.meaning;
        events.append({timeUs, d.node, Event::Emergency, QStringLiteral("EMCY ") + d.meaning});
        return events;
    }
    if (d.service == QLatin1String("boot-up")) {
        Node& n = m_nodes[d.node];
        // A node that starts again measures its period anew.
        n = Node{0x00, timeUs, 0, false, n.lastEmergency};
        events.append({timeUs, d.node, Event::BootUp, QStringLiteral("boot-up")});
        return events;
    }
    if (d.service == QLatin1String("SDO answer"))
        m_nodes[d.node]; // seen, its state not known yet
    if (d.service != QLatin1String("heartbeat"))
        return events;
    Node& n = m_nodes[d.node];
    const quint8 state = quint8(data[0]);
    if (n.missed) {
        n.missed = false;
        events.append({timeUs, d.node, Event::HeartbeatBack,
                       QStringLiteral("heartbeat back: %1").arg(d.meaning)});
    } else if (n.lastUs >= 0 && n.state != 0xFF && n.state != 0x00) {
        n.periodUs = timeUs - n.lastUs;
    }
    if (state != n.state) {
        const QString before = nmtStateText(n.state);
        events.append({timeUs, d.node, Event::StateChanged,
                       before.isEmpty() || n.state == 0x00
                           ? d.meaning
                           : QStringLiteral("%1 -> %2").arg(before, d.meaning)});
    }
    n.state = state;
    n.lastUs = timeUs;
    return events;
}

QList<NetworkWatch::Event> NetworkWatch::check(qint64 nowUs)
{
    QList<Event> events;
    for (auto it = m_nodes.begin(); it != m_nodes.end(); ++it) {
        Node& n = it.value();
        if (n.missed || n.periodUs <= 0 || nowUs - n.lastUs <= n.periodUs * 3 / 2)
            continue;
        n.missed = true;
        events.append({nowUs, it.key(), Event::HeartbeatMissed,
                       QStringLiteral("heartbeat missed: none for %1 (every %2 before)")
                           .arg(seconds(nowUs - n.lastUs), seconds(n.periodUs))});
    }
    return events;
}

} // namespace tessel

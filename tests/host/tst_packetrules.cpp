#include "datatable.h"
#include "packetrules.h"
#include "rep_qorcalibtypes_source.h"
#include "wire.h"

#include <QRandomGenerator>
#include <QTest>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

const QString kBus = QStringLiteral("session-7/QCSBus");
const QString kService = QStringLiteral("session-7/QCSService");

QVariant canMsg(int id, int len, const QByteArray& data)
{
    return QVariant::fromValue(CanMsg(id, len, data));
}

// A CanMsg whose Data is a list that claims two thousand million entries: a reader that trusted
// it would try to reserve them.
QByteArray canMsgWithHugeList()
{
    QByteArray b;
    QDataStream s(&b, QIODevice::WriteOnly);
    packet::prepare(s);
    s << kBus << qint32(0) << qint32(wire::Send) << quint32(3);
    s << QVariant(0);
    s << quint32(QMetaType::User) << qint8(0);
    s.writeBytes("CanMsg", 7); // the type name with its NUL
    s << QVariant(0x123) << QVariant(8);
    s << quint32(QMetaType::QVariantList) << qint8(0) << quint32(0x7FFFFFFF);
    s << QVariant(0) << qint32(1) << qint32(-1);
    return b;
}

} // namespace

class TstPacketRules : public QObject
{
    Q_OBJECT
private slots:
    void incoming_data()
    {
        // before: accepted first
        // packet: then this one
        // refusal: empty: accepted
        columns<QByteArrayList, QByteArray, QString>({"before", "packet", "refusal"});

        const QByteArray acquireBus = wire::addObject(kBus);
        const QByteArray acquireService = wire::addObject(kService);
        const QByteArray start = wire::invoke(kBus, wire::StartController, {0});

        row("acquire own object", QByteArrayList{}, acquireBus, "");
        row("acquire another session's object", QByteArrayList{},
            wire::addObject("session-1/QCSBus"), "not one of this session's");
        row("acquire an object the contract lacks", QByteArrayList{},
            wire::addObject("session-7/QCSShell"), "not one of this session's");
        row("call before acquiring", QByteArrayList{}, start, "not acquired");
        row("call", QByteArrayList{acquireBus}, start, "");
        row("call after releasing", QByteArrayList{acquireBus, wire::removeObject(kBus)}, start,
            "not acquired");
        row("StartController with no argument", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::StartController, {}), "takes 1 arguments, not 0");
        row("SdoDownload with one argument", QByteArrayList{acquireService},
            wire::invoke(kService, wire::SdoDownload, {0}), "takes 5 arguments, not 1");
        row("SdoDownload", QByteArrayList{acquireService},
            wire::invoke(kService, wire::SdoDownload, {0, 1, 0x2000, 0, QByteArray(300, 'x')}), "");
        row("argument count of 0x7FFFFFFF", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::StartController, {0}, 1, 0, 0x7FFFFFFF), "not 2147483647");
        row("text where a number belongs", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::StartController, {QString("0")}), "where int is expected");
        row("Send with a frame record", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::Send, {0, canMsg(0x123, 2, "\x01\x02"), 0}), "");
        row("Send with another record where the frame belongs", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::Send, {0, QVariant::fromValue(Reply("x", 0)), 0}),
            "where CanMsg is expected");
        row("frame record holding a huge list", QByteArrayList{acquireBus},
            wire::packet(6, canMsgWithHugeList()), "where QByteArray is expected");
        row("method index past the last", QByteArrayList{acquireBus},
            wire::invoke(kBus, wire::BusMethodCount, {}), "does not exist");
        row("negative method index", QByteArrayList{acquireBus}, wire::invoke(kBus, -1, {}),
            "does not exist");
        row("property write", QByteArrayList{acquireBus}, wire::invoke(kBus, 0, {0}, 1, 2),
            "call kind 2");
        row("bytes after the packet's contents", QByteArrayList{acquireBus},
            wire::packet(6, wire::body(start).mid(2) + "!"), "longer than its contents");
        row("cut short", QByteArrayList{acquireBus},
            wire::packet(6, wire::body(start).mid(2).chopped(5)), "cut short");
        row("name of odd length", QByteArrayList{},
            wire::packet(4, QByteArray::fromHex("03000000410042")), "cut short");
        row("handshake from a client", QByteArrayList{}, wire::packet(1, wire::string("QtRO 2.0")),
            "type 1");
        row("property change from a client", QByteArrayList{acquireBus},
            wire::packet(8, wire::string(kBus)), "type 8");
        row("object list from a client", QByteArrayList{}, wire::objectList({kBus}), "type 9");
        row("ping", QByteArrayList{acquireBus}, wire::packet(10, wire::string(kBus)), "");
    }

    void incoming()
    {
        auto [before, packet, refusal] =
            fetch<QByteArrayList, QByteArray, QString>("before", "packet", "refusal");
        PacketRules rules(RemoteContract::server(), QStringLiteral("session-7"));
        for (const QByteArray& p : before)
            QCOMPARE(rules.checkIncoming(wire::body(p)), QString());
        const QString verdict = rules.checkIncoming(wire::body(packet));
        if (refusal.isEmpty())
            QCOMPARE(verdict, QString());
        else
            QVERIFY2(verdict.contains(refusal), qPrintable(verdict));
    }

    void otherSessionsAreNotAnnounced()
    {
        PacketRules rules(RemoteContract::server(), QStringLiteral("session-7"));
        // The first list, on connecting, goes out even when nothing in it is this session's.
        const QByteArray first = rules.filterOutgoing(wire::objectList({"session-1/QCSBus"}));
        QCOMPARE(first, wire::objectList({}));
        QCOMPARE(rules.filterOutgoing(wire::objectList({"session-8/QCSBus"})), QByteArray());
        QCOMPARE(
            rules.filterOutgoing(wire::objectList({"session-70/QCSBus", kBus, "session-1/QCSBus"})),
            wire::objectList({kBus}));
        const QByteArray reply = wire::packet(7, wire::string(kBus) + QByteArray(12, '\1'));
        QCOMPARE(rules.filterOutgoing(reply), reply);
    }

    void mutatedPacketsNeverPassUnchecked()
    {
        // Valid packets, mutated: whatever comes of it must be judged without a crash, and under
        // the sanitizers without reading or allocating past what the packet holds.
        const QByteArrayList seeds{
            wire::addObject(kBus),
            wire::invoke(kBus, wire::StartController, {0}),
            wire::invoke(kBus, wire::Send, {0, canMsg(0x7FF, 8, QByteArray(8, '\xAA')), 0}),
            wire::invoke(kService, wire::SdoDownload, {0, 1, 0x1F50, 1, QByteArray(64, 'f')}),
            wire::packet(6, canMsgWithHugeList()),
        };
        const quint32 seed = QRandomGenerator::global()->generate();
        QRandomGenerator random(seed);
        int accepted = 0;
        constexpr int kInputs = 20000;
        for (int i = 0; i < kInputs; ++i) {
            QByteArray p = wire::body(seeds[random.bounded(int(seeds.size()))]);
            const int edits = 1 + random.bounded(4);
            for (int e = 0; e < edits && !p.isEmpty(); ++e) {
                const int at = random.bounded(int(p.size()));
                switch (random.bounded(5)) {
                case 0:
                    p[at] = char(random.generate());
                    break;
                case 1:
                    p.truncate(at);
                    break;
                case 2:
                    p.insert(at, p.mid(at, random.bounded(16)));
                    break;
                case 3: { // a count or length field at its extremes
                    const quint32 value = random.bounded(2) ? 0xFFFFFFFFu : 0x7FFFFFFFu;
                    p.replace(at, 4, QByteArray(reinterpret_cast<const char*>(&value), 4));
                    break;
                }
                default:
                    p.remove(at, random.bounded(8));
                }
            }
            PacketRules rules(RemoteContract::server(), QStringLiteral("session-7"));
            rules.checkIncoming(wire::body(wire::addObject(kBus)));
            rules.checkIncoming(wire::body(wire::addObject(kService)));
            if (rules.checkIncoming(p).isEmpty())
                ++accepted;
        }
        // Some mutations keep a packet valid (a changed argument value); most do not.
        QVERIFY2(accepted > 0 && accepted < kInputs / 2,
                 qPrintable(QStringLiteral("seed %1: %2 accepted").arg(seed).arg(accepted)));
    }
};

QTEST_GUILESS_MAIN(TstPacketRules)
#include "tst_packetrules.moc"

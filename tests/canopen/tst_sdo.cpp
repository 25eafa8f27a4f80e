#include "datatable.h"
#include "frametext.h"
#include "sdoclient.h"
#include "sdoserver.h"

#include <QMap>
#include <QTest>

#include <deque>
#include <optional>

using namespace tessel::test;

using namespace qorcalib;
using namespace qorcalib::test;

namespace {

// A dictionary for the server under test: entries by (index, sub), one read-only, one
// write-only, one with a fixed size.
class Store : public SdoObjectAccess
{
public:
    QMap<QPair<int, int>, QByteArray> values;
    quint32 upload(quint16 index, quint8 sub, QByteArray* data) override
    {
        if (index == 0x2020)
            return quint32(SdoAbort::WriteOnly);
        const auto it = values.find({index, sub});
        if (it == values.end())
            return quint32(SdoAbort::NoObject);
        *data = *it;
        return 0;
    }
    quint32 checkDownload(quint16 index, quint8, qint64 size) override
    {
        if (index == 0x1018)
            return quint32(SdoAbort::ReadOnly);
        if (index == 0x1017 && size > 2)
            return quint32(SdoAbort::TooLong);
        return 0;
    }
    quint32 download(quint16 index, quint8 sub, const QByteArray& data) override
    {
        if (index == 0x1017 && data.size() != 2)
            return quint32(SdoAbort::TooShort);
        values[{index, sub}] = data;
        return 0;
    }
};

// Client and server joined by a queue of frames, with a fake clock and a hand on the wire.
struct Link
{
    Link()
        : client([this](const CanFrame& f) {
              wire.push_back({true, f});
          }),
          server(&store, [this](const CanFrame& f) {
              wire.push_back({false, f});
          })
    {
        server.setNodeId(5);
        client.done = [this](const SdoClient::Result& r) { result = r; };
        client.progress = [this](double p) { progress.append(p); };
    }
    // Delivers frames until the wire is quiet; `tamper` may drop (false) or change a frame.
    void run(std::function<bool(bool toServer, CanFrame& f)> tamper = {})
    {
        while (!wire.empty()) {
            auto [toServer, f] = wire.front();
            wire.pop_front();
            log << (toServer ? "> " : "< ") + hexOf(f);
            if (tamper && !tamper(toServer, f))
                continue;
            if (toServer)
                server.onFrame(f, now);
            else
                client.onFrame(f, now);
        }
    }
    std::deque<std::pair<bool, CanFrame>> wire;
    Store store;
    SdoClient client;
    SdoServer server;
    std::optional<SdoClient::Result> result;
    QList<double> progress;
    QStringList log;
    qint64 now = 0;
};

QByteArray pattern(int size)
{
    QByteArray data(size, '\0');
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + 3) & 0xFF);
    return data;
}

} // namespace

class TstSdo : public QObject
{
    Q_OBJECT
private slots:
    void roundTrip_data()
    {
        columns<int, bool>({"size", "block"});
        for (bool block : {true, false})
            for (int size : {0, 1, 4, 5, 7, 8, 14, 15, 127 * 7, 127 * 7 + 1, 3000, 100 * 1024})
                QTest::addRow("%d bytes, %s", size, block ? "block" : "segmented") << size << block;
    }

    void roundTrip()
    {
        auto [size, block] = fetch<int, bool>("size", "block");
        Link link;
        link.client.setBlockTransfer(block);
        const QByteArray data = pattern(size);
        link.client.startDownload(5, 0x2040, 0, data, 0);
        link.run();
        QVERIFY(link.result);
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), data);
        QCOMPARE(link.server.state(), SdoServer::State::Idle);

        link.result.reset();
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run();
        QVERIFY(link.result);
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.result->data, data);
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
        QVERIFY(!link.client.isBusy());
        if (size > 7) {
            QVERIFY(!link.progress.isEmpty());
            QCOMPARE(link.progress.last(), 1.0);
        }
        // From 1 to 4 bytes every transfer is a single expedited exchange.
        if (size >= 1 && size <= 4)
            QCOMPARE(link.log.size(), 4);
    }

    void blockDownloadResendsALostSegment()
    {
        Link link;
        const QByteArray data = pattern(30); // 5 segments
        link.client.startDownload(5, 0x2040, 0, data, 0);
        bool dropped = false;
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && f.data[0] == 0x03 && !dropped) { // segment 3 is lost on the bus
                dropped = true;
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), data);
        const QStringList expected{
            "> 605:c6 40 20 00 1e 00 00 00", // block, CRC, size 30
            "< 585:a4 40 20 00 7f 00 00 00", // CRC, 127 segments a sub-block
            "> 605:01 03 0a 11 18 1f 26 2d", "> 605:02 34 3b 42 49 50 57 5e",
            "> 605:03 65 6c 73 7a 81 88 8f", // lost
            "> 605:04 96 9d a4 ab b2 b9 c0",
            "> 605:85 c7 ce 00 00 00 00 00", // last
            "< 585:a2 02 7f 00 00 00 00 00", // two taken
            "> 605:01 65 6c 73 7a 81 88 8f", // again from the third, numbered from 1
            "> 605:02 96 9d a4 ab b2 b9 c0", "> 605:83 c7 ce 00 00 00 00 00",
            "< 585:a2 03 7f 00 00 00 00 00",
        };
        QCOMPARE(link.log.mid(0, expected.size()), expected);
        const quint16 crc = sdoCrc(data);
        QCOMPARE(link.log.mid(expected.size()),
                 (QStringList{QStringLiteral("> 605:d5 %1 %2 00 00 00 00 00") // 5 bytes unused
                                  .arg(crc & 0xFF, 2, 16, QLatin1Char('0'))
                                  .arg(crc >> 8, 2, 16, QLatin1Char('0')),
                              "< 585:a1 00 00 00 00 00 00 00"}));
    }

    void blockUploadResendsALostSegment()
    {
        Link link;
        const QByteArray data = pattern(20);
        link.store.values[{0x2040, 0}] = data;
        link.client.startUpload(5, 0x2040, 0, 0);
        bool dropped = false;
        link.run([&](bool toServer, CanFrame& f) {
            if (!toServer && f.data[0] == 0x01 && !dropped &&
                link.client.state() == SdoClient::State::BlockUploadSegments) {
                dropped = true;
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.result->data, data);
        QVERIFY(link.log.contains("> 605:a2 00 7f 00 00 00 00 00")); // nothing taken: all again
    }

    void nodeWithoutBlockTransfer()
    {
        Link link;
        link.run();
        // A node that does not know block commands answers 05040001: the client goes plain.
        link.client.startDownload(5, 0x2040, 0, pattern(10), 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && (f.data[0] & 0xE0) == 0xC0) {
                link.wire.push_back({false, sdo::abortFrame(0x585, 0x2040, 0, 0x05040001)});
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->abortCode, 0u);
        QCOMPARE(link.store.values.value({0x2040, 0}), pattern(10));
        QVERIFY(link.log.contains("> 605:21 40 20 00 0a 00 00 00"));

        link.result.reset();
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer && (f.data[0] & 0xE3) == 0xA0) {
                link.wire.push_back({false, sdo::abortFrame(0x585, 0x2040, 0, 0x05040001)});
                return false;
            }
            return true;
        });
        QCOMPARE(link.result->data, pattern(10));
    }

    void aborts_data()
    {
        columns<bool, int, int, quint32>({"upload", "index", "size", "code"});
        row("missing object", true, 0x3000, 0, 0x06020000u);
        row("write-only", true, 0x2020, 0, 0x06010001u);
        row("read-only, expedited", false, 0x1018, 4, 0x06010002u);
        row("read-only, block", false, 0x1018, 40, 0x06010002u);
        row("too long, expedited", false, 0x1017, 3, 0x06070012u);
        row("too short, expedited", false, 0x1017, 1, 0x06070013u);
        row("too long, block", false, 0x1017, 20, 0x06070012u);
    }

    void aborts()
    {
        auto [upload, index, size] = fetch<bool, int, int>("upload", "index", "size");
        Link link;
        if (upload)
            link.client.startUpload(5, quint16(index), 0, 0);
        else
            link.client.startDownload(5, quint16(index), 0, pattern(size), 0);
        link.run();
        QVERIFY(link.result);
        QTEST(link.result->abortCode, "code");
        QVERIFY(link.result->data.isEmpty());
        QVERIFY(link.log.last().startsWith(QStringLiteral("< 585:80")));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void wrongToggleFromTheServer()
    {
        Link link;
        link.client.setBlockTransfer(false);
        link.store.values[{0x2040, 0}] = pattern(20);
        link.client.startUpload(5, 0x2040, 0, 0);
        link.run([](bool toServer, CanFrame& f) {
            if (!toServer && (f.data[0] & 0xE0) == 0x00 && (f.data[0] & 0x10)) // second segment
                f.data[0] &= ~0x10;
            return true;
        });
        QCOMPARE(link.result->abortCode, 0x05030000u);
        QVERIFY(link.log.contains("> 605:80 40 20 00 00 00 03 05"));
    }

    void corruptedBlockCrc_data()
    {
        QTest::addColumn<bool>("upload");
        row("download", false);
        row("upload", true);
    }

    void corruptedBlockCrc()
    {
        QFETCH(bool, upload);
        Link link;
        link.store.values[{0x2040, 0}] = pattern(50);
        if (upload)
            link.client.startUpload(5, 0x2040, 0, 0);
        else
            link.client.startDownload(5, 0x2041, 0, pattern(50), 0);
        link.run([&](bool toServer, CanFrame& f) {
            if (toServer != upload && (f.data[0] & 0xE3) == 0xC1) // the end frame with the CRC
                f.data[1] ^= 0x01;
            return true;
        });
        QCOMPARE(link.result->abortCode, 0x05040004u);
        QVERIFY(!link.store.values.contains({0x2041, 0}));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void nodeFallsSilentMidTransfer_data()
    {
        columns<bool, bool>({"upload", "block"});
        row("segmented upload", true, false);
        row("segmented download", false, false);
        row("block upload", true, true);
        row("block download", false, true);
    }

    void nodeFallsSilentMidTransfer()
    {
        auto [upload, block] = fetch<bool, bool>("upload", "block");
        Link link;
        link.client.setBlockTransfer(block);
        link.client.setTimeoutMs(300);
        link.store.values[{0x2040, 0}] = pattern(3000);
        if (upload)
            link.client.startUpload(5, 0x2040, 0, 0);
        else
            link.client.startDownload(5, 0x2040, 0, pattern(3000), 0);
        // The node answers a few times, then its power goes.
        int answers = 0;
        link.run([&](bool toServer, CanFrame&) { return toServer || ++answers <= 3; });
        QVERIFY(!link.result);
        QVERIFY(link.client.isBusy());
        link.now = 10'000; // last frame at time 0
        link.client.onTimer(link.client.nextDeadlineUs());
        QVERIFY(link.result);
        QCOMPARE(link.result->error, SdoClient::kTimeoutText);
        QVERIFY(link.result->data.isEmpty());
        QVERIFY(!link.client.isBusy());
    }

    void serverForgetsASilentClient()
    {
        Link link;
        link.client.setBlockTransfer(false);
        link.client.startDownload(5, 0x2040, 0, pattern(30), 0);
        link.run([&](bool toServer, CanFrame&) {
            return !(toServer && link.server.state() == SdoServer::State::DownloadSegments);
        });
        QCOMPARE(link.server.state(), SdoServer::State::DownloadSegments);
        link.server.onTimer(999'999);
        QVERIFY(link.wire.empty());
        link.server.onTimer(1'000'000);
        QCOMPARE(hexOf(link.wire.front().second), QStringLiteral("585:80 40 20 00 00 00 04 05"));
        QCOMPARE(link.server.state(), SdoServer::State::Idle);
    }

    void crcKnownValue()
    {
        // CRC-16/XMODEM check value.
        QCOMPARE(sdoCrc(QByteArray("123456789")), quint16(0x31C3));
        QCOMPARE(sdoCrc(QByteArray()), quint16(0));
        QCOMPARE(sdoAbortText(0x06020000),
                 QStringLiteral("Object does not exist in the object dictionary"));
    }

    void serverRefusesASegmentPastTheIndicatedSize()
    {
        Store store;
        QStringList answers;
        SdoServer server(&store, [&answers](const CanFrame& f) { answers << hexOf(f); });
        server.setNodeId(5);
        const auto request = [&server](const char* hex) { server.onFrame(fromHex(0x605, hex), 0); };
        request("2140200008000000"); // segmented, 8 bytes indicated
        request("0041424344454647"); // 7 bytes, t=0
        request("1041424344454647"); // 7 more, t=1, not last: 14 > 8
        QCOMPARE(answers, (QStringList{"585:60 40 20 00 00 00 00 00", "585:20 00 00 00 00 00 00 00",
                                       "585:80 40 20 00 12 00 07 06"}));
        QVERIFY(!store.values.contains({0x2040, 0}));
        // A frame of fewer than 8 bytes is no request of the protocol: no answer at all.
        answers.clear();
        CanFrame shortRequest = fromHex(0x605, "4018100100000000");
        shortRequest.len = 4;
        server.onFrame(shortRequest, 0);
        QCOMPARE(answers, QStringList());
    }

    // The client against a node written out by hand. Each client frame is followed by the frames
    // of one script step as they appear on the bus ("HEX" on 0x585 or "ID:HEX", several joined by
    // "|"; "-" for none, as for a block's segments): this transfer's answers, late answers of an
    // earlier one, answers to a frame sent by hand, another node's answers. What the transfer
    // then reports is its result; one still waiting when the script ends meets its time-out.
    void foreignNode_data()
    {
        // size: bytes to download; outcome: data as hex, "abort CODE" or "timeout"; last: the
        // client's last frame ("": not checked)
        columns<bool, bool, int, QStringList, QString, QString>(
            {"upload", "block", "size", "script", "outcome", "last"});

        row("upload answered first with another object's value", true, false, 0,
            QStringList{"43 41 20 00 11 22 33 44|43 40 20 00 aa bb cc dd"}, "aabbccdd", "");
        row("download confirmed only for another object", false, false, 4,
            QStringList{"60 00 10 00 00 00 00 00"}, "timeout", "");
        row("abort naming another object, then the answer", true, false, 0,
            QStringList{"80 41 20 00 00 00 02 06|4f 40 20 00 07 00 00 00"}, "07", "");
        row("abort naming the object ends the transfer", true, false, 0,
            QStringList{"80 40 20 00 00 00 02 06"}, "abort 06020000", "");
        row("another node's answer", true, false, 0,
            QStringList{"586:43 40 20 00 11 22 33 44|4b 40 20 00 34 12 00 00"}, "3412", "");
        row("late segment of a transfer that timed out", true, false, 0,
            QStringList{"00 61 62 63 64 65 66 67|4b 40 20 00 34 12 00 00"}, "3412", "");
        row("block upload offered for another object", true, true, 0,
            QStringList{"c6 41 20 00 1e 00 00 00"}, "timeout", "");
        row("block download accepted for another object", false, true, 30,
            QStringList{"a4 41 20 00 7f 00 00 00"}, "timeout", "");
        row("segmented upload announcing 16 MiB", true, false, 0,
            QStringList{"41 40 20 00 00 00 00 01"}, "abort 05040005", "");
        row("segment answer during the segments with the wrong command", false, false, 20,
            QStringList{"60 40 20 00 00 00 00 00", "60 40 20 00 00 00 00 00"}, "abort 05040001",
            "");
        row("download segment acknowledged with the wrong toggle", false, false, 20,
            QStringList{"6040200000000000", "3000000000000000"}, "abort 05030000",
            "605:80 40 20 00 00 00 03 05");
        row("upload that announces more than it sends", true, false, 0,
            QStringList{"4140200014000000", "0941424300000000"}, "abort 06070013",
            "605:80 40 20 00 13 00 07 06");
        row("upload that sends more than it announces", true, false, 0,
            QStringList{"4140200002000000", "0941424300000000"}, "abort 06070012",
            "605:80 40 20 00 12 00 07 06");
        row("upload that announces no bytes and sends some", true, false, 0,
            QStringList{"4140200000000000", "0941424300000000"}, "abort 06070012",
            "605:80 40 20 00 12 00 07 06");
        row("block size 0 offered", false, true, 30, QStringList{"a440200000000000"},
            "abort 05040002", "605:80 40 20 00 02 00 04 05");
        row("block size 128 offered", false, true, 30, QStringList{"a440200080000000"},
            "abort 05040002", "605:80 40 20 00 02 00 04 05");
        // 30 bytes are 5 segments; the node claims to have received 9.
        row("sequence number past the segments sent", false, true, 30,
            QStringList{"a44020007f000000", "-", "-", "-", "-", "a2097f0000000000"},
            "abort 05040003", "605:80 40 20 00 03 00 04 05");
        // What a node may leave out. An expedited answer with the unused bit 4 set still counts
        // its bytes from bits 2-3; a block upload that indicates no size gives what it carries.
        row("expedited answer with bit 4 set", true, false, 0, QStringList{"5340200041424344"},
            "41424344", "");
        row("block upload without a size", true, true, 0,
            QStringList{"c040200000000000", "8141424344454647", "c100000000000000"},
            "41424344454647", "");
    }

    void foreignNode()
    {
        auto [upload, block, size, script, outcome, last] =
            fetch<bool, bool, int, QStringList, QString, QString>("upload", "block", "size",
                                                                  "script", "outcome", "last");
        QList<CanFrame> sent;
        SdoClient client([&sent](const CanFrame& f) { sent << f; });
        client.setBlockTransfer(block);
        client.setTimeoutMs(500);
        std::optional<SdoClient::Result> result;
        client.done = [&result](const SdoClient::Result& r) { result = r; };
        qint64 now = 0;
        if (upload)
            client.startUpload(5, 0x2040, 0, now);
        else
            client.startDownload(5, 0x2040, 0, pattern(size), now);
        while (!sent.isEmpty() && !script.isEmpty() && !result) {
            sent.removeFirst();
            for (QString text : script.takeFirst().remove(' ').split('|')) {
                if (text == "-")
                    continue;
                const quint16 id =
                    text.contains(':') ? text.section(':', 0, 0).toUShort(nullptr, 16) : 0x585;
                now += 1000;
                client.onFrame(fromHex(id, text.section(':', -1).toLatin1().constData()), now);
                if (result)
                    break;
            }
        }
        if (!result) {
            QVERIFY(client.isBusy());
            client.onTimer(client.nextDeadlineUs());
        }
        QVERIFY(result);
        if (outcome == QLatin1String("timeout"))
            QCOMPARE(result->error, SdoClient::kTimeoutText);
        else if (outcome.startsWith(QLatin1String("abort ")))
            QCOMPARE(QString::number(result->abortCode, 16).rightJustified(8, '0'), outcome.mid(6));
        else
            QCOMPARE(result->data.toHex(), outcome.toLatin1());
        if (result->abortCode != 0 || !result->error.isEmpty())
            QCOMPARE(result->data, QByteArray());
        if (!last.isEmpty())
            QCOMPARE(hexOf(sent.last()), last);
        QVERIFY(!client.isBusy());
    }
};

QTEST_APPLESS_MAIN(TstSdo)
#include "tst_sdo.moc"

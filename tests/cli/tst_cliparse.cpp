// tessel-cli's parsing: addresses, frames in candump syntax, typed values.
#include "cliparse.h"
#include "datatable.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel::cli;

class TstCliParse : public QObject
{
    Q_OBJECT
private slots:
    void address_data()
    {
        // node: 0: refused
        columns<QString, int, int, int>({"text", "node", "index", "sub"});
        row("full", "1,1018,1", 1, 0x1018, 1);
        row("two fields: sub is the index's low byte", "1,1018", 1, 0x1018, 0x18);
        row("blanks", " 7F , 2000 , FF ", 0x7F, 0x2000, 0xFF);
        row("lower case", "a,1f50,1", 10, 0x1F50, 1);
        row("node 0", "0,1018,1", 0, 0, 0);
        row("node 80", "80,1018,1", 0, 0, 0);
        row("not hex", "1,10G8,1", 0, 0, 0);
        row("one field", "1", 0, 0, 0);
        row("four fields", "1,1018,1,2", 0, 0, 0);
        row("empty sub", "1,1018,", 0, 0, 0);
        row("index too long", "1,10180,1", 0, 0, 0);
        row("sub too long", "1,1018,100", 0, 0, 0);
    }

    void address()
    {
        auto [text, node] = fetch<QString, int>("text", "node");
        QString error;
        const auto a = parseAddress(text, &error);
        QCOMPARE(bool(a), node != 0);
        if (!a) {
            QVERIFY2(error.contains(text.trimmed().isEmpty() ? "address" : "'"), qPrintable(error));
            return;
        }
        QCOMPARE(a->node, node);
        QTEST(a->index, "index");
        QTEST(a->subIndex, "sub");
    }

    void frame_data()
    {
        // back: "": refused
        columns<QString, QString, QString>({"text", "back", "says"});
        row("data", "601#4018100100000000", "601#4018100100000000", "");
        row("dots", "123#11.22.33", "123#112233", "");
        row("empty data", "7FF#", "7FF#", "");
        row("short id", "5#AA", "005#AA", "");
        row("remote", "701#R", "701#R", "");
        row("remote with length", "701#r4", "701#R4", "");
        row("nine bytes", "123#001122334455667788", "", "9 data bytes");
        row("odd digits", "123#123", "", "not whole bytes");
        row("not hex", "123#ZZ", "", "not hexadecimal");
        row("extended", "12345678#00", "", "extended (29-bit)");
        row("fd", "123##1AA", "", "CAN FD");
        row("id beyond 7FF", "800#00", "", "000 to 7FF");
        row("no hash", "12300", "", "not ID#DATA");
        row("remote length 9", "123#R9", "", "remote length");
    }

    void frame()
    {
        auto [text, back, says] = fetch<QString, QString, QString>("text", "back", "says");
        QString error;
        const auto f = parseFrame(text, &error);
        QCOMPARE(bool(f), !back.isEmpty());
        if (!f) {
            QVERIFY2(error.startsWith("frame '" + text + "': "), qPrintable(error));
            QVERIFY2(error.contains(says), qPrintable(error));
            return;
        }
        QCOMPARE(frameText(f->id, f->data, f->remote, f->length), back);
    }

    void values_data()
    {
        // bytes: empty: refused
        columns<QString, QString, QByteArray, QString>({"type", "text", "bytes", "shown"});
        row("u8", "u8", "255", QByteArray("\xFF"), "255");
        row("u16", "u16", "500", QByteArray("\xF4\x01"), "500");
        row("u32 hex", "u32", "0x12345678", QByteArray("\x78\x56\x34\x12"), "305419896");
        row("i8 negative", "i8", "-1", QByteArray("\xFF"), "-1");
        row("i16 negative", "i16", "-300", QByteArray("\xD4\xFE"), "-300");
        row("i32 min", "i32", "-2147483648", QByteArray("\x00\x00\x00\x80", 4), "-2147483648");
        row("str", "str", "QD-300", QByteArray("QD-300"), "QD-300");
        row("hex", "hex", "0a0B", QByteArray("\x0A\x0B"), "0A0B");
        row("u8 too big", "u8", "256", QByteArray(), "");
        row("u16 negative", "u16", "-1", QByteArray(), "");
        row("i8 too small", "i8", "-129", QByteArray(), "");
        row("u32 words", "u32", "many", QByteArray(), "");
        row("hex odd", "hex", "ABC", QByteArray(), "");
        row("hex empty", "hex", "", QByteArray(), "");
    }

    void values()
    {
        auto [type, text, bytes] = fetch<QString, QString, QByteArray>("type", "text", "bytes");
        QString error;
        const auto encoded = encodeValue(type, text, &error);
        QCOMPARE(bool(encoded), !bytes.isEmpty());
        if (!encoded) {
            QVERIFY(error.contains("'" + text + "'"));
            return;
        }
        QCOMPARE(*encoded, bytes);
        QTEST(decodeValue(type, *encoded), "shown");
        QVERIFY(knownType(type));
        QVERIFY(!knownType("float"));
    }
};

QTEST_APPLESS_MAIN(TstCliParse)
#include "tst_cliparse.moc"

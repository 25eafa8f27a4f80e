#include "datatable.h"
#include "transmitslot.h"

#include <QTest>

using namespace tessel::test;

using namespace tessel;

Q_DECLARE_METATYPE(tessel::SlotTexts)

namespace {
SlotTexts slot(const QString& id, const QString& length, const QStringList& data = {},
               bool remote = false)
{
    SlotTexts s;
    s.id = id;
    s.length = length;
    s.remote = remote;
    for (int j = 0; j < data.size() && j < 8; ++j)
        s.data[j] = data[j];
    return s;
}
} // namespace

class TstTransmitSlot : public QObject
{
    Q_OBJECT
private slots:
    void frame_data()
    {
        columns<SlotTexts, int, QByteArray, bool, int>({"texts", "id", "data", "remote", "length"});
        row("start the drive", slot("000", "2", {"01", "00"}), 0, QByteArray("\x01\x00", 2), false,
            2);
        row("length 0 reads no box", slot("181", "0", {"zz"}), 0x181, QByteArray(), false, 0);
        row("length 8, empty boxes", slot("181", "8"), 0x181, QByteArray(8, '\0'), false, 8);
        row("boxes past the length unread", slot("181", "2", {"12", "34", "56"}), 0x181,
            QByteArray("\x12\x34", 2), false, 2);
        row("lower case id", slot("7e5", "0"), 0x7E5, QByteArray(), false, 0);
        row("id with blanks", slot(" 181 ", " 1 ", {"5"}), 0x181, QByteArray("\x05", 1), false, 1);
        row("remote reads no box", slot("181", "4", {"zz"}, true), 0x181, QByteArray(), true, 4);
        row("length 8.0", slot("181", "8.0"), 0x181, QByteArray(8, '\0'), false, 8);
    }

    void frame()
    {
        auto [texts, id, data, remote, length] =
            fetch<SlotTexts, int, QByteArray, bool, int>("texts", "id", "data", "remote", "length");
        QString error;
        const auto f = slotFrame(texts, 2, &error);
        QVERIFY2(f.has_value(), qPrintable(error));
        QCOMPARE(int(f->id), id);
        QCOMPARE(f->data, data);
        QCOMPARE(f->remote, remote);
        QCOMPARE(f->length, length);
    }

    void refused_data()
    {
        columns<SlotTexts, QString>({"texts", "message"});
        const QString invalid = QStringLiteral("Invalid message lenght");
        row("9", slot("181", "9"), invalid);
        row("-1", slot("181", "-1"), invalid);
        row("2.5", slot("181", "2.5"), invalid);
        row("1e3", slot("181", "1e3"), invalid);
        row("abc", slot("181", "abc"),
            QStringLiteral("The length of slot 3 is \"abc\", not a number: "
                           "nothing sent."));
        row("empty", slot("181", ""),
            QStringLiteral("The length of slot 3 is \"\", not a number: nothing "
                           "sent."));
        row("remote 9", slot("181", "9", {}, true), invalid);
        row("id 800", slot("800", "0"),
            QStringLiteral("The identifier 800 of slot 3 is not an 11-bit CAN "
                           "identifier (0 to 7FF): nothing sent."));
        // A typo is no value: not 0 (the NMT identifier), not the digits before it, not the low
        // byte of a longer number.
        row("id xyz", slot("xyz", "0"),
            QStringLiteral("The identifier \"xyz\" of slot 3 is not "
                           "hexadecimal: nothing sent."));
        row("1FF", slot("181", "2", {"01", "1FF"}),
            QStringLiteral("D1 of slot 3 holds \"1FF\", not a byte (00 to FF): "
                           "nothing sent."));
        row("1G", slot("181", "1", {"1G"}),
            QStringLiteral("D0 of slot 3 holds \"1G\", not a byte (00 to FF): "
                           "nothing sent."));
        row("id FFFFFFFF", slot("FFFFFFFF", "0"),
            QStringLiteral("The identifier FFFFFFFF of slot 3 is not an 11-bit CAN identifier (0 "
                           "to 7FF): nothing sent."));
    }

    void refused()
    {
        QFETCH(SlotTexts, texts);
        QString error;
        QVERIFY(!slotFrame(texts, 2, &error).has_value());
        QTEST(error, "message");
    }
};

QTEST_APPLESS_MAIN(TstTransmitSlot)
#include "tst_transmitslot.moc"

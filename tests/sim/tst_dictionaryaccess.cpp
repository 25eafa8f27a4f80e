#include "datatable.h"
#include "dictionaryaccess.h"

#include <QTest>
#include <QtEndian>

using namespace tessel::test;

using namespace qorcalib;

namespace {

OdEntry entry(quint16 index, quint8 sub, OdType type, OdAccess access,
              std::optional<qint64> low = {}, std::optional<qint64> high = {})
{
    OdEntry e;
    e.index = index;
    e.subIndex = sub;
    e.dataType = quint16(type);
    e.access = access;
    const int size = odTypeSize(e.dataType);
    e.value = e.defaultValue = QByteArray(size > 0 ? size : 0, '\0');
    e.lowLimit = low;
    e.highLimit = high;
    return e;
}

QByteArray le(qint64 value, int size)
{
    QByteArray bytes(8, '\0');
    qToLittleEndian(quint64(value), bytes.data());
    return bytes.left(size);
}

ObjectDictionary dictionary()
{
    ObjectDictionary od;
    od.insert(entry(0x1000, 0, OdType::Unsigned32, OdAccess::ReadOnly));
    od.insert(entry(0x1008, 0, OdType::VisibleString, OdAccess::Const));
    od.insert(entry(0x2000, 0, OdType::Unsigned16, OdAccess::ReadWrite, 100, 5000));
    od.insert(entry(0x2001, 0, OdType::Integer16, OdAccess::ReadWrite, -300, 300));
    od.insert(entry(0x2002, 0, OdType::Unsigned32, OdAccess::WriteOnly));
    od.insert(entry(0x2003, 0, OdType::Boolean, OdAccess::ReadWrite));
    od.insert(entry(0x2004, 0, OdType::Integer8, OdAccess::ReadWrite, -128, 127));
    od.insert(entry(0x2005, 0, OdType::Unsigned64, OdAccess::ReadWrite));
    od.insert(entry(0x2100, 1, OdType::Unsigned8, OdAccess::ReadWrite));
    od.insert(entry(0x2040, 0, OdType::Domain, OdAccess::ReadWrite));
    od.insert(entry(0x2030, 0, OdType::VisibleString, OdAccess::ReadWrite));
    return od;
}

} // namespace

class TstDictionaryAccess : public QObject
{
    Q_OBJECT
private slots:
    void rules_data()
    {
        columns<bool, int, int, QByteArray, quint32>(
            {"upload", "index", "sub", "data", "abortCode"});

        row("read", true, 0x1000, 0, QByteArray(), 0u);
        row("no object", true, 0x3000, 0, QByteArray(), 0x06020000u);
        row("no sub-index", true, 0x2100, 2, QByteArray(), 0x06090011u);
        row("no object, download", false, 0x3000, 0, le(1, 4), 0x06020000u);
        row("no sub-index, download", false, 0x2100, 9, le(1, 1), 0x06090011u);
        row("read a write-only entry", true, 0x2002, 0, QByteArray(), 0x06010001u);
        row("write a read-only entry", false, 0x1000, 0, le(1, 4), 0x06010002u);
        row("write a constant", false, 0x1008, 0, QByteArray("x"), 0x06010002u);
        row("too long", false, 0x2000, 0, le(200, 4), 0x06070012u);
        row("too short", false, 0x2000, 0, le(200, 1), 0x06070013u);
        row("string too long", false, 0x2030, 0, QByteArray(256, 'x'), 0x06070012u);
        row("string at its limit", false, 0x2030, 0, QByteArray(255, 'x'), 0u);
        row("domain at its limit", false, 0x2040, 0, QByteArray(1024 * 1024, 'd'), 0u);
        row("domain past its limit", false, 0x2040, 0, QByteArray(1024 * 1024 + 1, 'd'),
            0x06070012u);
        // Limits, exactly at them and one beyond, unsigned and signed.
        row("unsigned at its low limit", false, 0x2000, 0, le(100, 2), 0u);
        row("unsigned below its low limit", false, 0x2000, 0, le(99, 2), 0x06090032u);
        row("unsigned at its high limit", false, 0x2000, 0, le(5000, 2), 0u);
        row("unsigned above its high limit", false, 0x2000, 0, le(5001, 2), 0x06090031u);
        row("signed at its low limit", false, 0x2001, 0, le(-300, 2), 0u);
        row("signed below its low limit", false, 0x2001, 0, le(-301, 2), 0x06090032u);
        row("signed at its high limit", false, 0x2001, 0, le(300, 2), 0u);
        row("signed above its high limit", false, 0x2001, 0, le(301, 2), 0x06090031u);
        row("signed byte -128", false, 0x2004, 0, le(-128, 1), 0u);
        row("highest unsigned 64", false, 0x2005, 0, le(-1, 8), 0u);
        row("boolean 1", false, 0x2003, 0, le(1, 1), 0u);
        row("boolean 2", false, 0x2003, 0, le(2, 1), 0x06090030u);
    }

    void rules()
    {
        auto [upload, index, sub, data, abortCode] = fetch<bool, int, int, QByteArray, quint32>(
            "upload", "index", "sub", "data", "abortCode");
        ObjectDictionary od = dictionary();
        DictionaryAccess access(&od);
        int written = 0;
        access.written = [&written](quint16, quint8) { ++written; };
        if (upload) {
            QByteArray value;
            QCOMPARE(access.upload(quint16(index), quint8(sub), &value), abortCode);
            return;
        }
        quint32 code = access.checkDownload(quint16(index), quint8(sub), data.size());
        if (code == 0)
            code = access.download(quint16(index), quint8(sub), data);
        QCOMPARE(code, abortCode);
        // Only an accepted value is stored, and only then is the node told.
        QCOMPARE(written, abortCode == 0 ? 1 : 0);
        if (abortCode == 0)
            QCOMPARE(od.find(quint16(index), quint8(sub))->value, data);
    }
};

QTEST_GUILESS_MAIN(TstDictionaryAccess)
#include "tst_dictionaryaccess.moc"

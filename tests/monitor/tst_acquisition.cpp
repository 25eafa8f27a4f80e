#include "acquisition.h"
#include "datatable.h"

#include <QtTest>

using namespace tessel::test;

using namespace tessel;

class TstAcquisition : public QObject
{
    Q_OBJECT
private slots:
    void lines_data()
    {
        columns<quint32, quint32, QByteArray, QByteArray>({"id", "time", "data", "line"});
        row("two bytes", 0x181u, 5123456u, QByteArray("\x12\x34", 2),
            QByteArray("385;5123456;2;18;52;\r\n"));
        row("no data", 0x701u, 0u, QByteArray(), QByteArray("1793;0;0;\r\n"));
        row("eight bytes", 0x7FFu, 1u, QByteArray("\x00\xFF\x01\x80\x7F\x10\x20\x30", 8),
            QByteArray("2047;1;8;0;255;1;128;127;16;32;48;\r\n"));
        // The time stamp is kept as 32 bits read signed: past 2^31 µs it reads negative.
        row("time past 2^31", 0x80u, 0x80000000u, QByteArray("\x05", 1),
            QByteArray("128;-2147483648;1;5;\r\n"));
        row("time 2^32-1", 0u, 0xFFFFFFFFu, QByteArray(), QByteArray("0;-1;0;\r\n"));
    }

    void lines()
    {
        auto [id, time, data] = fetch<quint32, quint32, QByteArray>("id", "time", "data");
        AcquisitionBuffer buffer;
        buffer.append(id, time, int(data.size()),
                      reinterpret_cast<const quint8*>(data.constData()));
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QVERIFY(buffer.writeTo(&out));
        QTEST(out.data(), "line");
        // Bytes past the length are 0 in the record, never stale.
        for (int i = int(data.size()); i < 8; ++i)
            QCOMPARE(buffer.at(0).data[i], quint8(0));
    }

    void fileFaultsKeepTheBuffer_data()
    {
        QTest::addColumn<QString>("where");
        row("missing folder", "missing/acq.csv");
        row("read-only folder", "readonly/acq.csv");
        row("a folder as file", "readonly");
        // Even root cannot create a file there.
        row("read-only file system", "/proc/acq.csv");
        row("no name", "");
    }

    void fileFaultsKeepTheBuffer()
    {
        QFETCH(QString, where);
        QTemporaryDir dir;
        QVERIFY(QDir(dir.path()).mkdir("readonly"));
        QFile::setPermissions(dir.filePath("readonly"), QFile::ReadOwner | QFile::ExeOwner);
        if (where.startsWith("readonly/") && QFileInfo(dir.filePath("readonly")).isWritable())
            QSKIP("running as a user who writes into read-only folders");
        AcquisitionBuffer buffer;
        const quint8 data[2] = {1, 2};
        for (int i = 0; i < 3; ++i)
            buffer.append(0x181, quint32(i), 2, data);
        const QString path = where.isEmpty() || where.startsWith('/') ? where : dir.filePath(where);
        QString error;
        QVERIFY(!buffer.writeFile(path, &error));
        QVERIFY2(where.isEmpty() || error.contains(path), qPrintable(error));
        QCOMPARE(buffer.count(), 3);
        // Written after the fault is mended.
        QVERIFY(buffer.writeFile(dir.filePath("acq.csv"), &error));
        QFile written(dir.filePath("acq.csv"));
        QVERIFY(written.open(QIODevice::ReadOnly));
        QCOMPARE(written.readAll(), QByteArray("385;0;2;1;2;\r\n385;1;2;1;2;\r\n385;2;2;1;2;\r\n"));
    }
};

QTEST_APPLESS_MAIN(TstAcquisition)
#include "tst_acquisition.moc"

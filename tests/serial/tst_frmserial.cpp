// The serial console against a pseudo-terminal standing for the device: received bytes shown,
// typed bytes sent without local echo, the settings text, bad settings and ports, a device that
// goes away.
#include "datatable.h"
#include "frmserial.h"
#include "pty.h"
#include "serialsettings.h"

#include <QtTest>
#include <QtWidgets>

using namespace tessel::test;

using namespace tessel;

class TstFrmSerial : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, m_settings.path());
    }

    void settingsText_data()
    {
        // baud: 0: refused
        columns<QString, int, int, int, int, QString>(
            {"text", "baud", "parity", "data", "stop", "says"});
        row("default", "115200,n,8,1", 115200, int(QSerialPort::NoParity), 8,
            int(QSerialPort::OneStop), "");
        row("even 7 2", "9600,E,7,2", 9600, int(QSerialPort::EvenParity), 7,
            int(QSerialPort::TwoStop), "");
        row("odd", "19200,o,8,1", 19200, int(QSerialPort::OddParity), 8, int(QSerialPort::OneStop),
            "");
        row("mark 5 1.5", "300,m,5,1.5", 300, int(QSerialPort::MarkParity), 5,
            int(QSerialPort::OneAndHalfStop), "");
        row("space, blanks", " 57600 , s , 6 , 1 ", 57600, int(QSerialPort::SpaceParity), 6,
            int(QSerialPort::OneStop), "");
        row("abc", "abc", 0, 0, 0, 0, "four fields");
        row("9600,x,9,3", "9600,x,9,3", 0, 0, 0, 0, "parity 'x'");
        row("data 9", "9600,n,9,1", 0, 0, 0, 0, "data bits '9'");
        row("stop 3", "9600,n,8,3", 0, 0, 0, 0, "stop bits '3'");
        row("baud 0", "0,n,8,1", 0, 0, 0, 0, "baud rate '0'");
        row("empty", "", 0, 0, 0, 0, "four fields");
    }

    void settingsText()
    {
        auto [text, baud, says] = fetch<QString, int, QString>("text", "baud", "says");
        QString error;
        const auto s = SerialLineSettings::parse(text, &error);
        QCOMPARE(bool(s), baud != 0);
        if (!s) {
            QVERIFY2(error.contains(says), qPrintable(error));
            QVERIFY(error.contains("115200,n,8,1"));
            return;
        }
        QCOMPARE(s->baud, baud);
        QTEST(int(s->parity), "parity");
        QTEST(int(s->dataBits), "data");
        QTEST(int(s->stopBits), "stop");
    }

    void deviceNames()
    {
        QCOMPARE(serialDeviceName("ttyUSB0"), QString("ttyUSB0"));
        QCOMPARE(serialDeviceName(" /dev/ttyS1 "), QString("/dev/ttyS1"));
        QCOMPARE(serialDeviceName("1"), QString("/dev/ttyS0"));
        QCOMPARE(serialDeviceName("4"), QString("/dev/ttyS3"));
        QCOMPARE(serialDeviceName("0"), QString("0"));
    }

    void receivesAndSendsWithoutEcho()
    {
        Pty device;
        QVERIFY(device.ok());
        Console c;
        c.open(device.device());
        QVERIFY2(c.window.isOpen(), qPrintable(c.messages.join('\n')));
        QVERIFY(device.send("boot 1.2\r\nready> "));
        QTRY_COMPARE(c.window.txtConsole->toPlainText(), QString("boot 1.2\nready> "));
        c.type("ver\r");
        QByteArray typed;
        QTRY_COMPARE(typed += device.received(), QByteArray("ver\r"));
        // No local echo: the console shows what the device sends back, and only that.
        QTest::qWait(100);
        QCOMPARE(c.window.txtConsole->toPlainText(), QString("boot 1.2\nready> "));
        QVERIFY(device.send("ver\r\nV2.1.7\r\n"));
        QTRY_VERIFY(c.window.txtConsole->toPlainText().endsWith("ready> ver\nV2.1.7\n"));
        // Bytes above 127 come as one character each.
        QVERIFY(device.send("\xB0"
                            "C\n"));
        QTRY_VERIFY(c.window.txtConsole->toPlainText().endsWith(QString::fromLatin1("\xB0"
                                                                                    "C\n")));
        // Cleared, the box closes the port: what the device sends no longer appears.
        c.window.chkEnable->setChecked(false);
        QVERIFY(!c.window.isOpen());
        const QString before = c.window.txtConsole->toPlainText();
        device.send("late");
        QTest::qWait(150);
        QCOMPARE(c.window.txtConsole->toPlainText(), before);
        QCOMPARE(c.messages, QStringList());
    }

    void badSettingsAndPorts_data()
    {
        columns<QString, QString, QString>({"port", "params", "says"});
        row("settings abc", "PTY", "abc", "line settings 'abc'");
        row("settings 9600,x,9,3", "PTY", "9600,x,9,3", "parity 'x'");
        row("no such port", "/dev/ttyNOTHERE7", "115200,n,8,1",
            "serial port /dev/ttyNOTHERE7 cannot be opened");
        row("no port named", "", "115200,n,8,1", "no serial port named");
    }

    void badSettingsAndPorts()
    {
        auto [port, params, says] = fetch<QString, QString, QString>("port", "params", "says");
        Pty device;
        Console c;
        c.open(port == "PTY" ? device.device() : port, params);
        QVERIFY(!c.window.isOpen());
        QVERIFY(!c.window.chkEnable->isChecked());
        QCOMPARE(c.messages.size(), 1);
        QVERIFY2(c.messages.first().contains(says), qPrintable(c.messages.first()));
    }

    void deviceGoesAway()
    {
        auto device = std::make_unique<Pty>();
        QVERIFY(device->ok());
        Console c;
        c.open(device->device());
        QVERIFY(c.window.isOpen());
        device->send("last words\n");
        QTRY_VERIFY(c.window.txtConsole->toPlainText().contains("last words"));
        device.reset();
        QTRY_VERIFY_WITH_TIMEOUT(!c.window.isOpen(), 3000);
        QVERIFY(!c.window.chkEnable->isChecked());
        QTest::qWait(200);
        QCOMPARE(c.messages.size(), 1);
        QVERIFY2(c.messages.first().contains("went away"), qPrintable(c.messages.first()));
        // What came before is kept; typing now goes nowhere.
        QVERIFY(c.window.txtConsole->toPlainText().contains("last words"));
        c.type("x");
    }

private:
    struct Console
    {
        FrmSerial window{nullptr, nullptr};
        QStringList messages;
        Console()
        {
            QObject::connect(&window, &FrmSerial::message,
                             [this](const QString& m) { messages << m; });
        }
        void open(const QString& device, const QString& params = "115200,n,8,1")
        {
            window.txtPort->setCurrentText(device);
            window.txtParams->setText(params);
            window.chkEnable->setChecked(true);
        }
        void type(const QString& text) { QTest::keyClicks(window.txtConsole, text); }
    };
    QTemporaryDir m_settings;
};

QTEST_MAIN(TstFrmSerial)
#include "tst_frmserial.moc"

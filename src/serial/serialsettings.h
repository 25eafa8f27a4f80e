#pragma once

#include <QSerialPort>
#include <QString>

#include <optional>

namespace tessel {

// The line settings of the serial console in the settings syntax of the bench's serial tools:
// "BAUD,PARITY,DATA,STOP", for example "115200,n,8,1". Parity n (none), e (even), o (odd),
// m (mark), s (space), any case; data bits 5 to 8; stop bits 1, 1.5 or 2.
struct SerialLineSettings
{
    qint32 baud = 115200;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;

    // nullopt with the reason when the text does not say a setting the port can take.
    static std::optional<SerialLineSettings> parse(const QString& text, QString* error);
    static inline const QString kDefault = QStringLiteral("115200,n,8,1");
};

// The device a port box names: "ttyUSB0" and "/dev/ttyS0" as they are; a plain number n, as the
// bench's older tools numbered their ports from 1, is /dev/ttyS(n-1).
QString serialDeviceName(const QString& text);

} // namespace tessel

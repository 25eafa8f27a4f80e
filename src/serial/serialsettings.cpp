#include "serialsettings.h"

#include <QStringList>

namespace tessel {

std::optional<SerialLineSettings> SerialLineSettings::parse(const QString& text, QString* error)
{
    const QStringList parts = text.split(QLatin1Char(','));
    const auto refuse = [&](const QString& why) {
        *error = QStringLiteral("line settings '%1': %2 (for example %3)").arg(text, why, kDefault);
        return std::nullopt;
    };
    if (parts.size() != 4)
        return refuse(QStringLiteral("four fields are needed: baud, parity, data bits, stop bits"));
    SerialLineSettings s;
    bool ok = false;
    s.baud = parts[0].trimmed().toInt(&ok);
    if (!ok || s.baud <= 0)
        return refuse(QStringLiteral("baud rate '%1' is not a positive number").arg(parts[0]));
    const QString parity = parts[1].trimmed().toLower();
    if (parity == QLatin1String("n"))
        s.parity = QSerialPort::NoParity;
    else if (parity == QLatin1String("e"))
        s.parity = QSerialPort::EvenParity;
    else if (parity == QLatin1String("o"))
        s.parity = QSerialPort::OddParity;
    else if (parity == QLatin1String("m"))
        s.parity = QSerialPort::MarkParity;
    else if (parity == QLatin1String("s"))
        s.parity = QSerialPort::SpaceParity;
    else
        return refuse(QStringLiteral("parity '%1' is not n, e, o, m or s").arg(parts[1]));
    const int data = parts[2].trimmed().toInt(&ok);
    if (!ok || data < 5 || data > 8)
        return refuse(QStringLiteral("data bits '%1' are not 5 to 8").arg(parts[2]));
    s.dataBits = QSerialPort::DataBits(data);
    const QString stop = parts[3].trimmed();
    if (stop == QLatin1String("1"))
        s.stopBits = QSerialPort::OneStop;
    else if (stop == QLatin1String("1.5"))
        s.stopBits = QSerialPort::OneAndHalfStop;
    else if (stop == QLatin1String("2"))
        s.stopBits = QSerialPort::TwoStop;
    else
        return refuse(QStringLiteral("stop bits '%1' are not 1, 1.5 or 2").arg(parts[3]));
    return s;
}

QString serialDeviceName(const QString& text)
{
    const QString name = text.trimmed();
    bool number = false;
    const int n = name.toInt(&number);
    if (number && n >= 1)
        return QStringLiteral("/dev/ttyS%1").arg(n - 1);
    return name;
}

} // namespace tessel

#include "lss.h"

#include <QtEndian>

namespace qorcalib::lss {

CanFrame frame(quint16 id, quint8 command, quint32 value, quint8 byte5, quint8 byte6, quint8 byte7)
{
    CanFrame f;
    f.id = id;
    f.len = 8;
    f.data[0] = command;
    qToLittleEndian(value, f.data.data() + 1);
    f.data[5] = byte5;
    f.data[6] = byte6;
    f.data[7] = byte7;
    return f;
}

CanFrame frameBytes(quint16 id, quint8 command, quint8 byte1, quint8 byte2)
{
    CanFrame f = frame(id, command);
    f.data[1] = byte1;
    f.data[2] = byte2;
    return f;
}

quint32 valueOf(const CanFrame& f)
{
    return qFromLittleEndian<quint32>(f.data.data() + 1);
}

QString errorText(quint8 command, quint8 code, quint8 specific)
{
    if (code == 0)
        return {};
    if (code == 0xFF)
        return QStringLiteral("LSS error FF: implementation specific error %1")
            .arg(QString::number(specific, 16).toUpper().rightJustified(2, QLatin1Char('0')));
    switch (command) {
    case ConfigureNodeId:
        if (code == 1)
            return QStringLiteral("LSS error 01: node-ID out of range");
        break;
    case ConfigureBitTiming:
        if (code == 1)
            return QStringLiteral("LSS error 01: bit timing not supported");
        break;
    case StoreConfiguration:
        if (code == 1)
            return QStringLiteral("LSS error 01: storing the configuration is not supported");
        if (code == 2)
            return QStringLiteral("LSS error 02: storage media access error");
        break;
    default:
        break;
    }
    return QStringLiteral("LSS error %1 (reserved)")
        .arg(QString::number(code, 16).toUpper().rightJustified(2, QLatin1Char('0')));
}

} // namespace qorcalib::lss

#include "sdo.h"

#include <QtEndian>

namespace qorcalib {

QString sdoAbortText(quint32 code)
{
    struct Entry
    {
        SdoAbort code;
        const char* text;
    };
    static constexpr Entry kTexts[] = {
        {SdoAbort::ToggleNotAlternated, "Toggle bit not alternated"},
        {SdoAbort::Timeout, "SDO protocol timed out"},
        {SdoAbort::InvalidCommand, "Client/server command specifier not valid or unknown"},
        {SdoAbort::InvalidBlockSize, "Invalid block size"},
        {SdoAbort::InvalidSequence, "Invalid sequence number"},
        {SdoAbort::CrcError, "CRC error"},
        {SdoAbort::OutOfMemory, "Out of memory"},
        {SdoAbort::UnsupportedAccess, "Unsupported access to an object"},
        {SdoAbort::WriteOnly, "Attempt to read a write only object"},
        {SdoAbort::ReadOnly, "Attempt to write a read only object"},
        {SdoAbort::NoObject, "Object does not exist in the object dictionary"},
        {SdoAbort::CannotMap, "Object cannot be mapped to the PDO"},
        {SdoAbort::PdoTooLong, "The number and length of the objects to be mapped would exceed "
                               "PDO length"},
        {SdoAbort::ParameterIncompatible, "General parameter incompatibility reason"},
        {SdoAbort::DeviceIncompatible, "General internal incompatibility in the device"},
        {SdoAbort::Hardware, "Access failed due to a hardware error"},
        {SdoAbort::TypeMismatch, "Data type does not match, length of service parameter does "
                                 "not match"},
        {SdoAbort::TooLong, "Data type does not match, length of service parameter too high"},
        {SdoAbort::TooShort, "Data type does not match, length of service parameter too low"},
        {SdoAbort::NoSubIndex, "Sub-index does not exist"},
        {SdoAbort::InvalidValue, "Invalid value for parameter (download only)"},
        {SdoAbort::ValueTooHigh, "Value of parameter written too high (download only)"},
        {SdoAbort::ValueTooLow, "Value of parameter written too low (download only)"},
        {SdoAbort::MaxBelowMin, "Maximum value is less than minimum value"},
        {SdoAbort::ResourceUnavailable, "Resource not available: SDO connection"},
        {SdoAbort::General, "General error"},
        {SdoAbort::DataTransfer, "Data cannot be transferred or stored to the application"},
        {SdoAbort::LocalControl, "Data cannot be transferred or stored to the application "
                                 "because of local control"},
        {SdoAbort::DeviceState, "Data cannot be transferred or stored to the application "
                                "because of the present device state"},
        {SdoAbort::NoDictionary, "Object dictionary dynamic generation fails or no object "
                                 "dictionary is present"},
        {SdoAbort::NoData, "No data available"},
    };
    for (const Entry& e : kTexts)
        if (quint32(e.code) == code)
            return QString::fromLatin1(e.text);
    return QStringLiteral("Unknown abort code");
}

quint16 sdoCrc(const char* data, qsizetype size, quint16 crc)
{
    for (qsizetype i = 0; i < size; ++i) {
        crc ^= quint16(quint8(data[i])) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? quint16((crc << 1) ^ 0x1021) : quint16(crc << 1);
    }
    return crc;
}

namespace sdo {

CanFrame frame(quint16 id, quint8 command, quint16 index, quint8 subIndex,
               const QByteArray& payload)
{
    CanFrame f;
    f.id = id;
    f.len = 8;
    f.data[0] = command;
    f.data[1] = quint8(index);
    f.data[2] = quint8(index >> 8);
    f.data[3] = subIndex;
    for (int i = 0; i < 4 && i < payload.size(); ++i)
        f.data[4 + i] = quint8(payload[i]);
    return f;
}

CanFrame commandFrame(quint16 id, quint8 command, quint8 byte1, quint8 byte2)
{
    CanFrame f;
    f.id = id;
    f.len = 8;
    f.data[0] = command;
    f.data[1] = byte1;
    f.data[2] = byte2;
    return f;
}

CanFrame abortFrame(quint16 id, quint16 index, quint8 subIndex, quint32 code)
{
    QByteArray payload(4, '\0');
    qToLittleEndian(code, payload.data());
    return frame(id, 0x80, index, subIndex, payload);
}

quint32 u32At(const CanFrame& f, int offset)
{
    return qFromLittleEndian<quint32>(f.data.data() + offset);
}

} // namespace sdo
} // namespace qorcalib

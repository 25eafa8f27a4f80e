#include "sdoabort.h"

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

QString sdoAbortDescription(quint32 code)
{
    return QStringLiteral("SDO abort %1 (%2)")
        .arg(QStringLiteral("%1").arg(code, 8, 16, QLatin1Char('0')).toUpper(), sdoAbortText(code));
}

} // namespace qorcalib

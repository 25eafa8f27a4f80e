#pragma once

#include <QString>

namespace qorcalib {

// SDO abort codes (CiA 301), with their standard texts in sdoAbortText: the server aborts
// with them, and clients show their meaning beside the code.
enum class SdoAbort : quint32 {
    None = 0,
    ToggleNotAlternated = 0x05030000,
    Timeout = 0x05040000,
    InvalidCommand = 0x05040001,
    InvalidBlockSize = 0x05040002,
    InvalidSequence = 0x05040003,
    CrcError = 0x05040004,
    OutOfMemory = 0x05040005,
    UnsupportedAccess = 0x06010000,
    WriteOnly = 0x06010001,
    ReadOnly = 0x06010002,
    NoObject = 0x06020000,
    CannotMap = 0x06040041,
    PdoTooLong = 0x06040042,
    ParameterIncompatible = 0x06040043,
    DeviceIncompatible = 0x06040047,
    Hardware = 0x06060000,
    TypeMismatch = 0x06070010,
    TooLong = 0x06070012,
    TooShort = 0x06070013,
    NoSubIndex = 0x06090011,
    InvalidValue = 0x06090030,
    ValueTooHigh = 0x06090031,
    ValueTooLow = 0x06090032,
    MaxBelowMin = 0x06090036,
    ResourceUnavailable = 0x060A0023,
    General = 0x08000000,
    DataTransfer = 0x08000020,
    LocalControl = 0x08000021,
    DeviceState = 0x08000022,
    NoDictionary = 0x08000023,
    NoData = 0x08000024,
};

QString sdoAbortText(quint32 code);
// "SDO abort 06020000 (Object does not exist in the object dictionary)"
QString sdoAbortDescription(quint32 code);

} // namespace qorcalib

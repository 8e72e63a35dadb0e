// Enumerations of CAN frame trace messages.
#pragma once

/// Kind of a CAN frame record.
enum canframe_t {
    CF_STANDARD = 0,
    CF_ERROR = 1,
    CF_TXMESSAGE = 2,
    CF_TXREQUEST = 3,
    CF_NUM = 4,  ///< count
};

/// Error state reported with a CAN frame (kept in the low nibble of the status byte).
enum canstaterr_t {
    CSE_NO = 0,
    CSE_STUFF = 1,
    CSE_FORMAT = 2,
    CSE_ACKNOWLEDGE = 3,
    CSE_BIT1 = 4,
    CSE_BIT0 = 5,
    CSE_CRC = 6,
    CSE_OVERRUN = 7,
    CSE_NUM = 8,  ///< count
};

/// Identifier width and frame format.
enum cantype_t {
    CT_STANDARD = 0,     ///< 11-bit identifier
    CT_EXTENDED = 1,     ///< 29-bit identifier
    CT_FD_STANDARD = 2,  ///< CAN FD, 11-bit identifier
    CT_FD_EXTENDED = 3,  ///< CAN FD, 29-bit identifier
};

/// The short name of a CAN type as trace messages print it: "STD", "EXT", "FD_STD", "FD_EXT";
/// null for a value outside the enumeration.
inline const char* cantypeName(cantype_t type) {
    switch (type) {
        case CT_STANDARD:
            return "STD";
        case CT_EXTENDED:
            return "EXT";
        case CT_FD_STANDARD:
            return "FD_STD";
        case CT_FD_EXTENDED:
            return "FD_EXT";
    }
    return nullptr;
}

// Identifiers of trace messages.
#pragma once

#include <cstdint>

/// The 16-bit identifier of a trace message. The CAN transport endpoint handles the CAN frame
/// identifiers and MSGID_CAN_TRANSPORT; every other value is an unknown message to it.
enum msgid_t : uint16_t {
    MSGID_MARKER = 0,
    MSGID_CAN = 1,                 ///< a received CAN frame (CANTraceMessage)
    MSGID_CAN_EXT = 11,            ///< a CAN frame (CANExtTraceMessage); also every frame sent
    MSGID_CAN_PROXY = 0x8012,      ///< a CAN frame reported by the CAN proxy (CANProxyTraceMessage)
    MSGID_CAN_TRANSPORT = 0x8014,  ///< one transport payload (CANTransportTraceMessage)
    MSGID_INVALID = 0xFFFF,        ///< no valid identifier
};

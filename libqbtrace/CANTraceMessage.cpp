#include "libqbtrace/CANTraceMessage.h"

CANTraceMessage::CANTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                                 canstaterr_t stateError, cantype_t canType,
                                 uint8_t numberOfDataBytes, uint32_t canId, const uint8_t* data)
    : CANTraceMessageBase(MSGID_CAN, ts, channel, frameKind, stateError, canType, numberOfDataBytes,
                          canId, data) {}

CANTraceMessage::~CANTraceMessage() = default;

MessageBase* CANTraceMessage::clone() const {
    return new CANTraceMessage(*this);
}

std::ostream& operator<<(std::ostream& os, const CANTraceMessage& msg) {
    return msg.print(os);
}

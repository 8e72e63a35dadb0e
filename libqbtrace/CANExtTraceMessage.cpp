#include "libqbtrace/CANExtTraceMessage.h"

CANExtTraceMessage::CANExtTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                                       canstaterr_t stateError, cantype_t canType,
                                       uint8_t numberOfDataBytes, uint32_t canId,
                                       const uint8_t* data)
    : CANTraceMessageBase(MSGID_CAN_EXT, ts, channel, frameKind, stateError, canType,
                          numberOfDataBytes, canId, data) {}

CANExtTraceMessage::~CANExtTraceMessage() = default;

MessageBase* CANExtTraceMessage::clone() const {
    return new CANExtTraceMessage(*this);
}

std::ostream& operator<<(std::ostream& os, const CANExtTraceMessage& msg) {
    return msg.print(os);
}

#include "libqbtrace/CANProxyTraceMessage.h"

CANProxyTraceMessage::CANProxyTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                                           canstaterr_t stateError, cantype_t canType,
                                           uint8_t numberOfDataBytes, uint32_t canId,
                                           const uint8_t* data)
    : CANTraceMessageBase(MSGID_CAN_PROXY, ts, channel, frameKind, stateError, canType,
                          numberOfDataBytes, canId, data) {}

CANProxyTraceMessage::~CANProxyTraceMessage() = default;

MessageBase* CANProxyTraceMessage::clone() const {
    return new CANProxyTraceMessage(*this);
}

std::ostream& operator<<(std::ostream& os, const CANProxyTraceMessage& msg) {
    return msg.print(os);
}

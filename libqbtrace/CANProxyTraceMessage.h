// Trace message MSGID_CAN_PROXY: a CAN frame reported by a CAN proxy.
#pragma once

#include <ostream>

#include "libqbtrace/CANTraceMessageBase.h"

/// Trace message MSGID_CAN_PROXY: a CAN frame reported by a CAN proxy.
/// The identifier is stored as fixCanId(canId, type); the data through setDataBytes().
class CANProxyTraceMessage : public CANTraceMessageBase {
  public:
    CANProxyTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                         canstaterr_t stateError, cantype_t canType, uint8_t numberOfDataBytes,
                         uint32_t canId, const uint8_t* data);
    ~CANProxyTraceMessage() override;
    MessageBase* clone() const override;
};

/// Writes the frame readably (CANTraceMessageBase::print).
std::ostream& operator<<(std::ostream& os, const CANProxyTraceMessage& msg);

// Trace message MSGID_CAN_EXT: a CAN frame; the transport endpoint sends every frame as one of
// these.
#pragma once

#include <ostream>

#include "libqbtrace/CANTraceMessageBase.h"

/// Trace message MSGID_CAN_EXT: a CAN frame; the transport endpoint sends every frame as one of
/// these. The identifier is stored as fixCanId(canId, type); the data through setDataBytes().
class CANExtTraceMessage : public CANTraceMessageBase {
  public:
    CANExtTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                       canstaterr_t stateError, cantype_t canType, uint8_t numberOfDataBytes,
                       uint32_t canId, const uint8_t* data);
    ~CANExtTraceMessage() override;
    MessageBase* clone() const override;
};

/// Writes the frame readably (CANTraceMessageBase::print).
std::ostream& operator<<(std::ostream& os, const CANExtTraceMessage& msg);

// Trace message MSGID_CAN: a CAN frame received from a CAN interface.
#pragma once

#include <ostream>

#include "libqbtrace/CANTraceMessageBase.h"

/// Trace message MSGID_CAN: a CAN frame received from a CAN interface.
/// The identifier is stored as fixCanId(canId, type); the data through setDataBytes().
class CANTraceMessage : public CANTraceMessageBase {
  public:
    CANTraceMessage(timeStamp_t ts, uint8_t channel, canframe_t frameKind, canstaterr_t stateError,
                    cantype_t canType, uint8_t numberOfDataBytes, uint32_t canId,
                    const uint8_t* data);
    ~CANTraceMessage() override;
    MessageBase* clone() const override;
};

/// Writes the frame readably (CANTraceMessageBase::print).
std::ostream& operator<<(std::ostream& os, const CANTraceMessage& msg);

// Trace message MSGID_CAN_TRANSPORT: one transport payload between an application and the CAN
// transport endpoint, in either direction.
#pragma once

#include <cstdint>
#include <ostream>

#include "libqbtrace/MessageBase.h"
#include "libqbtrace/constants_canmessage.h"

/// One transport payload. Fields, in order: `payload`, `canId`, `canType`.
/// Serialised body (docs/wire-format.md): CAN identifier (4 bytes, little-endian), CAN type
/// (1 byte), then the payload bytes (the rest of the body).
class CANTransportTraceMessage : public MessageBase {
  public:
    /// Copies [begin, end) into the payload.
    template <typename Iterator>
    CANTransportTraceMessage(timeStamp_t ts, uint32_t canId, Iterator begin, Iterator end,
                             cantype_t canType)
        : MessageBase(MSGID_CAN_TRANSPORT, ts),
          payload(begin, end),
          canId(canId),
          canType(canType) {}
    ~CANTransportTraceMessage() override;

    MessageBase* clone() const override;
    size_t getSize() const override;
    void appendBody(byteVec_t& out) const override;
    /// "CAN transport id 0x<id> <type> len <n> data xx xx ..." (at most 32 bytes shown, then
    /// " ...").
    std::ostream& print(std::ostream& os) const override;

    const byteVec_t& getPayload() const { return payload; }
    uint32_t getCanId() const { return canId; }
    cantype_t getCanType() const { return canType; }

  private:
    byteVec_t payload;
    uint32_t canId;
    cantype_t canType;
};

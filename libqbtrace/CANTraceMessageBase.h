// Base of the trace messages that carry one CAN or CAN FD frame.
#pragma once

#include <cstddef>
#include <cstdint>

#include "libqbtrace/MessageBase.h"
#include "libqbtrace/constants_canmessage.h"

/// One CAN frame as a trace message.
///
/// Fields, in order: `channel`, `frameKind`, `status`, `canType`, `numberOfDataBytes` (0 to
/// 64), `canId`, `dataBytes` (64 bytes). The status byte packs the error state in its low
/// nibble (CANSTATERR_MASK) and the two CAN FD flags in bit 6 (FD_BRS_MASK, bit-rate switch)
/// and bit 7 (FD_ESI_MASK, error-state indicator); bits 4 and 5 are 0.
///
/// Serialised body (docs/wire-format.md): channel, frame kind, status, CAN type (one byte each),
/// CAN identifier (4 bytes, little-endian), number of data bytes n (1 byte), n data bytes.
class CANTraceMessageBase : public MessageBase {
  public:
    ~CANTraceMessageBase() override;

    size_t getSize() const override;
    void appendBody(byteVec_t& out) const override;
    /// One line, lower-case hex, e.g. "CAN ch 0 id 0x7e0 STD dlc 8 len 8 data 02 10 03 00 00 00
    /// 00 00": "CAN ch <channel> id 0x<id> <STD|EXT|FD_STD|FD_EXT>", then " <ERROR|TX|TXREQ>"
    /// unless the kind is CF_STANDARD, " err <STUFF|FORMAT|ACK|BIT1|BIT0|CRC|OVERRUN>" unless the
    /// state is CSE_NO, " BRS" and " ESI" if set, " dlc <dlc> len <n>", and " data xx xx ..."
    /// if n > 0. Values without a name print as numbers ("kind 5", "err 12").
    std::ostream& print(std::ostream& os) const override;
    const CANTraceMessageBase* canFrame() const override { return this; }

    uint8_t getChannel() const { return channel; }
    uint32_t getCanId() const { return canId; }
    /// numDataBytes2dlc() of the number of data bytes.
    uint8_t getDlc() const;
    uint8_t getNumberOfDataBytes() const { return numberOfDataBytes; }
    canframe_t getFrameKind() const { return frameKind; }
    cantype_t getCanType() const { return canType; }
    uint8_t getStatus() const { return status; }
    canstaterr_t getStateError() const;
    bool getBitRateSwitch() const { return (status & FD_BRS_MASK) != 0; }
    bool getErrorStateIndicator() const { return (status & FD_ESI_MASK) != 0; }
    void setFdFlags(bool bitRateSwitch, bool errorStateIndicator);
    const uint8_t* getData() const { return dataBytes; }

    /// Copies the data bytes into `destinationBuffer`. Throws BufferMismatchException
    /// ("CANTraceMessageBase too long") if there are more than `destinationBufferSize` of them;
    /// writes exactly getNumberOfDataBytes() bytes otherwise.
    void getDataBytes(uint8_t* destinationBuffer, size_t destinationBufferSize) const;
    /// Stores min(n, 64) as the number of data bytes and copies that many (none for 0).
    void setDataBytes(const uint8_t* data, size_t n);

    /// Smallest data length code whose byte count is at least n; 15 above 64.
    static uint8_t numDataBytes2dlc(uint8_t n);
    /// Masks an identifier to its type's width: 11 bits for the standard types, 29 for the
    /// extended ones.
    static uint32_t fixCanId(uint32_t id, cantype_t type);

  protected:
    CANTraceMessageBase(msgid_t id, timeStamp_t ts, uint8_t channel, canframe_t frameKind,
                        canstaterr_t stateError, cantype_t canType, uint8_t numberOfDataBytes,
                        uint32_t canId, const uint8_t* data);
    CANTraceMessageBase(const CANTraceMessageBase&) = default;

    static const uint8_t FD_ESI_MASK = 0x80;
    static const uint8_t FD_BRS_MASK = 0x40;
    static const uint8_t CANSTATERR_MASK = 0x0F;
    /// Number of data bytes of each data length code (the CAN FD table).
    static const uint8_t numDlcBytes[16];

  private:
    uint8_t channel;
    canframe_t frameKind;
    uint8_t status;
    cantype_t canType;
    uint8_t numberOfDataBytes;
    uint32_t canId;
    uint8_t dataBytes[64];
};

// The CAN frames the transport protocol needs to carry one payload, and their time on the bus.
#pragma once

#include <cstdint>
#include <vector>

#include "libqbutil/utility.h"

/// The frames of one payload delivered without a failure, in their order on the bus, as the
/// endpoints build them (docs/protocol.md): a single frame and the receiver's acknowledgement
/// for up to 7 bytes; otherwise the first frame, the receiver's ready-to-receive, the
/// consecutive frames (sequence numbers from 0) and the acknowledgement. Every frame is a
/// standard frame of 8 data bytes, unused bytes 00.
///
/// bits() adds up their exact lengths on the wire, stuff bits included
/// (CanFrameTiming::frameBits), so the bus time of a payload follows from its real contents.
/// Pure functions; any thread.
class ProtocolFrames {
  public:
    struct Frame {
        uint16_t id;
        uint8_t data[8];
    };

    /// The pause an endpoint makes after an acknowledgement before it starts a payload that was
    /// already queued behind the acknowledged one.
    static constexpr double QUEUED_PAYLOAD_PAUSE_S = 0.010;

    /// The frames of `payload` (1 to 4095 bytes) sent with `senderId` and answered with
    /// `receiverId`.
    static std::vector<Frame> forPayload(const byteVec_t& payload, uint16_t senderId,
                                         uint16_t receiverId);
    /// The sum of the frames' lengths in bits.
    static uint64_t bits(const byteVec_t& payload, uint16_t senderId, uint16_t receiverId);
};

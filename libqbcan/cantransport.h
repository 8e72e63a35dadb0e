// The CAN transport frame: flow-control codes, the frame-kind predicates and the PCI parameter.
//
// A frame has 8 data bytes. The high nibble of DATA[0] is the frame kind:
//   0 single frame       DATA[0] = length L (0..7), DATA[1..L] payload, rest 0x00
//   1 first frame        DATA[0..1] = 0x1000 | (N & 0x0FFF) big-endian, DATA[2..7] payload 0..5
//   2 consecutive frame  DATA[0] = 0x20 | (SN & 0x0F), DATA[1..7] the next 7 payload bytes
//   3 flow control       DATA[0] = 0x30 | code, DATA[1..7] 0x00
// The first consecutive frame after a first frame has sequence number 0.
#pragma once

#include <cstdint>

/// Flow-control codes, the low nibble of a flow-control frame's DATA[0].
enum ctpFlowControl_t {
    CTP_FC_NOT_READY_TO_RECEIVE = 0,  ///< the receiver refused a frame
    CTP_FC_READY_TO_RECEIVE = 1,      ///< first frame taken: send the consecutive frames
    CTP_FC_NOT_ACKNOWLEDGE = 2,       ///< transfer failed (sequence, delivery or time-out)
    CTP_FC_ACKNOWLEDGE = 3,           ///< the whole payload was delivered
};

/// What a received frame is, by DATA[0] alone (see classifyFrame()).
enum ctpFrameKind_t {
    CTP_FRAME_INVALID = 0,
    CTP_FRAME_SINGLE = 1,
    CTP_FRAME_FIRST = 2,
    CTP_FRAME_CONSECUTIVE = 3,
    CTP_FRAME_FLOW_CONTROL = 4,
};

inline bool isSingleFrame(uint8_t frameByte) { return (frameByte >> 4) == 0; }
inline bool isFirstFrame(uint8_t frameByte) { return (frameByte >> 4) == 1; }
inline bool isConsecutiveFrame(uint8_t frameByte) { return (frameByte >> 4) == 2; }
inline bool isFlowControlFrame(uint8_t frameByte) { return (frameByte >> 4) == 3; }

/// The PCI parameter of a frame. `frameData` holds DATA[0] in its low byte and DATA[1] in its
/// high byte (the two bytes as they lie in the frame record on a little-endian machine). After
/// swapping them into the big-endian PCI word W: a first frame gives its 12-bit length
/// W & 0x0FFF; every other kind gives the low nibble of DATA[0] (single-frame length,
/// sequence number, flow-control code). Callers other than the first-frame handler pass
/// DATA[0] alone.
inline uint16_t getFrameParam(uint16_t frameData) {
    const uint16_t word = static_cast<uint16_t>((frameData << 8) | (frameData >> 8));
    if ((word >> 12) == 1) {
        return word & 0x0FFF;
    }
    return (word >> 8) & 0x0F;
}

/// Classifies a received frame by DATA[0], the first test that holds deciding:
/// 0x00 is invalid; high nibble 3 is flow control; 0x01..0x0F a single frame; nibble 1 a first
/// frame; nibble 2 a consecutive frame; nibbles 4..15 invalid. The endpoint dispatches by this,
/// and so does every tool that decodes frames.
inline ctpFrameKind_t classifyFrame(uint8_t frameByte) {
    if (frameByte == 0x00) {
        return CTP_FRAME_INVALID;
    }
    if (isFlowControlFrame(frameByte)) {
        return CTP_FRAME_FLOW_CONTROL;
    }
    if (isSingleFrame(frameByte)) {
        return CTP_FRAME_SINGLE;
    }
    if (isFirstFrame(frameByte)) {
        return CTP_FRAME_FIRST;
    }
    if (isConsecutiveFrame(frameByte)) {
        return CTP_FRAME_CONSECUTIVE;
    }
    return CTP_FRAME_INVALID;
}

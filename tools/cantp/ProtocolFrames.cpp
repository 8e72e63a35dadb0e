#include "ProtocolFrames.h"

#include <algorithm>
#include <cstring>

#include "libqbcansim/CanFrameTiming.h"

namespace {

ProtocolFrames::Frame flowControl(uint16_t id, uint8_t code) {
    ProtocolFrames::Frame frame{id, {}};
    frame.data[0] = static_cast<uint8_t>(0x30 | code);
    return frame;
}

}  // namespace

std::vector<ProtocolFrames::Frame> ProtocolFrames::forPayload(const byteVec_t& payload,
                                                              uint16_t senderId,
                                                              uint16_t receiverId) {
    const size_t len = payload.size();
    std::vector<Frame> frames;
    if (len < 8) {
        Frame single{senderId, {}};
        single.data[0] = static_cast<uint8_t>(len);
        std::copy(payload.begin(), payload.end(), single.data + 1);
        frames.push_back(single);
        frames.push_back(flowControl(receiverId, 3));
        return frames;
    }
    frames.reserve(3 + (len - 6 + 6) / 7);
    Frame first{senderId, {}};
    first.data[0] = static_cast<uint8_t>(0x10 | ((len >> 8) & 0x0F));
    first.data[1] = static_cast<uint8_t>(len & 0xFF);
    std::copy(payload.begin(), payload.begin() + 6, first.data + 2);
    frames.push_back(first);
    frames.push_back(flowControl(receiverId, 1));
    unsigned sequence = 0;
    for (size_t at = 6; at < len; at += 7, ++sequence) {
        Frame consecutive{senderId, {}};
        consecutive.data[0] = static_cast<uint8_t>(0x20 | (sequence & 0x0F));
        const size_t count = std::min<size_t>(7, len - at);
        std::copy(payload.begin() + static_cast<std::ptrdiff_t>(at),
                  payload.begin() + static_cast<std::ptrdiff_t>(at + count), consecutive.data + 1);
        frames.push_back(consecutive);
    }
    frames.push_back(flowControl(receiverId, 3));
    return frames;
}

uint64_t ProtocolFrames::bits(const byteVec_t& payload, uint16_t senderId, uint16_t receiverId) {
    uint64_t total = 0;
    for (const Frame& frame : forPayload(payload, senderId, receiverId)) {
        total += CanFrameTiming::frameBits(frame.id, false, frame.data, 8);
    }
    return total;
}

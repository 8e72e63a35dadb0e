// Stand-ins for transport endpoints on the simulated bus: they write frames into a node's proxy
// descriptor as an endpoint does, and read what the bus delivers into their input pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/utility.h"

namespace simtest {

/// The serialised CANExtTraceMessage an endpoint writes for one frame.
inline byteVec_t frameMessage(uint32_t id, bool extended, const std::vector<uint8_t>& data,
                              uint8_t channel = 0) {
    const CANExtTraceMessage msg(0, channel, CF_STANDARD, CSE_NO,
                                 extended ? CT_EXTENDED : CT_STANDARD,
                                 static_cast<uint8_t>(data.size()), id, data.data());
    byteVec_t out;
    msg.createByteArray(out, true, false);
    return out;
}

/// One frame as a node received it.
struct Received {
    msgid_t msgId;
    uint8_t channel;
    canframe_t kind;
    canstaterr_t stateError;
    cantype_t type;
    uint32_t id;
    std::vector<uint8_t> data;
};

/// The input side of an endpoint: a pipe whose write end the bus writes into, read here.
class Endpoint {
  public:
    Endpoint() : input(true), reader(input.readEnd(), nullptr) {}

    int inputFd() const { return input.writeEnd(); }

    /// Reads and parses what has arrived; returns the number of frames received so far.
    size_t poll() {
        while (reader.read() > 0) {
        }
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(reader.getNextMessage());
            } catch (const std::exception&) {
                ++parseErrors;
                continue;
            }
            if (!msg) {
                break;
            }
            const auto* can = dynamic_cast<const CANTraceMessageBase*>(msg.get());
            if (can == nullptr) {
                others.push_back(std::move(msg));
                continue;
            }
            frames.push_back({msg->getMessageId(), can->getChannel(), can->getFrameKind(),
                              can->getStateError(), can->getCanType(), can->getCanId(),
                              std::vector<uint8_t>(can->getData(),
                                                   can->getData() + can->getNumberOfDataBytes())});
        }
        return frames.size();
    }

    /// Polls until `n` frames have been received or `timeout` has passed.
    bool waitForFrames(size_t n, std::chrono::milliseconds timeout) {
        return qbtest::waitUntil([&] { return poll() >= n; }, timeout);
    }

    std::vector<uint32_t> ids() const {
        std::vector<uint32_t> out;
        for (const auto& f : frames) {
            out.push_back(f.id);
        }
        return out;
    }

    qbtest::Pipe input;
    TraceMessageBuffer reader;
    std::vector<Received> frames;
    std::vector<std::unique_ptr<MessageBase>> others;
    int parseErrors = 0;
};

}  // namespace simtest

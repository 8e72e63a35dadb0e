// Trace messages built from fuzzer input, and the serialisation helpers of the fuzz targets.
// Everything goes through the public API of the trace messages (constructors, createByteArray,
// TraceMessageBuffer), so the targets follow the serialised format wherever it goes.
#pragma once

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANProxyTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbtrace/constants_canmessage.h"
#include "libqbtrace/messageID.h"

namespace qbfuzz {

using Bytes = std::vector<uint8_t>;

/// Largest payload makeMessage() builds: above the 12-bit length of the transport (4095) and
/// the largest transport message the endpoint can be handed.
constexpr size_t MAX_FUZZ_PAYLOAD = 4200;

/// The serialised form the endpoint writes and reads: createByteArray(out, true, false).
inline Bytes serialise(const MessageBase& msg) {
    Bytes out;
    msg.createByteArray(out, true, false);
    return out;
}

/// "id 0x... ts ...: <print>" for failure messages.
inline std::string describe(const MessageBase& msg) {
    std::ostringstream text;
    text << "id 0x" << std::hex << static_cast<unsigned>(msg.getMessageId()) << std::dec << " ts "
         << msg.getTimeStamp() << ": ";
    msg.print(text);
    return text.str();
}

/// One message of any kind the reader has a class for, or of an identifier it has none for,
/// with every field taken from the input.
inline std::unique_ptr<MessageBase> makeMessage(InputReader& in) {
    const uint8_t kind = in.u8() % 5;
    const timeStamp_t ts = in.u64();
    if (kind <= 2) {
        const uint8_t channel = in.u8();
        const auto frameKind = static_cast<canframe_t>(in.u8() % CF_NUM);
        const auto stateError = static_cast<canstaterr_t>(in.u8() % CSE_NUM);
        const auto canType = static_cast<cantype_t>(in.u8() % 4);
        const uint8_t flags = in.u8();
        const uint8_t count = static_cast<uint8_t>(in.u8() % 65);
        const uint32_t canId = in.u32();
        Bytes data = in.bytes(count);
        data.resize(64, 0);
        std::unique_ptr<CANTraceMessageBase> msg;
        if (kind == 0) {
            msg.reset(new CANTraceMessage(ts, channel, frameKind, stateError, canType, count, canId,
                                          data.data()));
        } else if (kind == 1) {
            msg.reset(new CANExtTraceMessage(ts, channel, frameKind, stateError, canType, count,
                                             canId, data.data()));
        } else {
            msg.reset(new CANProxyTraceMessage(ts, channel, frameKind, stateError, canType, count,
                                               canId, data.data()));
        }
        msg->setFdFlags((flags & 1) != 0, (flags & 2) != 0);
        return msg;
    }
    if (kind == 3) {
        const uint32_t canId = in.u32();
        const auto canType = static_cast<cantype_t>(in.u8() % 4);
        const size_t length = in.u16() % (MAX_FUZZ_PAYLOAD + 1);
        Bytes payload = in.bytes(length);
        // Short input: the rest of the payload counts up, so long payloads stay cheap to reach.
        for (size_t i = payload.size(); i < length; ++i) {
            payload.push_back(static_cast<uint8_t>(i));
        }
        return std::unique_ptr<MessageBase>(
            new CANTransportTraceMessage(ts, canId, payload.begin(), payload.end(), canType));
    }
    uint16_t id = in.u16();
    if (id == MSGID_CAN || id == MSGID_CAN_EXT || id == MSGID_CAN_PROXY ||
        id == MSGID_CAN_TRANSPORT) {
        // A raw message under a known identifier would parse back as that class.
        id = static_cast<uint16_t>(id ^ 0x4000);
    }
    const size_t length = in.u16() % 600;
    return std::unique_ptr<MessageBase>(
        new RawTraceMessage(static_cast<msgid_t>(id), ts, in.bytes(length)));
}

}  // namespace qbfuzz

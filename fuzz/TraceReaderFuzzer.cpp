// Fuzz target: the trace-message reader (TraceMessageBuffer) on arbitrary bytes fed in
// arbitrary chunks.
//
// Input: byte 0 selects the mode (bit 0) and the reader's handling of invalid bodies (bit 1);
// byte 1 sets the chunk sizes (0: everything at once; n: chunks of 1 to n bytes).
// - Raw mode (bit 0 clear): the rest of the input is the byte stream.
// - Message mode (bit 0 set): the rest describes pieces, each one of: a whole message, a run of
//   garbage bytes, a message cut short, a message with one byte changed. The messages are built
//   from the input (FuzzMessages.h) and serialised with createByteArray.
//
// Checked for every input: no crash or sanitizer report; every getNextMessage() that throws has
// dropped input (a caller that keeps calling always gets on), so there are never more
// exceptions than bytes; every message returned re-serialises to bytes that a fresh reader
// parses back into an equal message, with nothing left over.
// Checked in message mode: every whole message written is returned, in order, whatever came
// before it; and every other message returned consists of bytes that stand in the stream
// outside the whole messages, exactly as a message is written (the pieces around it happened to
// form one), so nothing damaged or cut short is returned, and no bytes from inside a message
// (a payload) are ever returned as a message of their own.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FuzzMessages.h"
#include "FuzzSupport.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

using qbfuzz::Bytes;
using qbfuzz::describe;
using qbfuzz::InputReader;
using qbfuzz::serialise;

namespace {

/// Most pieces read in message mode (keeps one run short).
constexpr size_t MAX_PIECES = 64;

/// Every message that `bytes` hold on their own, read by a fresh reader; exceptions (dropped
/// bytes) are counted in `exceptions`.
std::vector<std::unique_ptr<MessageBase>> readAll(const Bytes& bytes, size_t* exceptions) {
    TraceMessageBuffer reader(-1, nullptr);
    reader.feed(bytes.data(), bytes.size());
    std::vector<std::unique_ptr<MessageBase>> messages;
    size_t thrown = 0;
    for (;;) {
        std::unique_ptr<MessageBase> msg;
        try {
            msg.reset(reader.getNextMessage());
        } catch (const QBException&) {
            ++thrown;
            QB_FUZZ_CHECK(thrown <= bytes.size(), "the reader throws without dropping input");
            continue;
        }
        if (!msg) {
            break;
        }
        messages.push_back(std::move(msg));
    }
    if (exceptions != nullptr) {
        *exceptions = thrown;
    }
    return messages;
}

/// The message re-serialises to bytes that a fresh reader parses back into one equal message.
void checkRoundTrip(const MessageBase& msg) {
    const Bytes once = serialise(msg);
    size_t exceptions = 0;
    std::vector<std::unique_ptr<MessageBase>> back = readAll(once, &exceptions);
    QB_FUZZ_CHECK(exceptions == 0 && back.size() == 1,
                  "a returned message re-serialised does not parse back as one message ("
                      << back.size() << " messages, " << exceptions
                      << " exceptions): " << describe(msg) << "\n  bytes " << qbfuzz::hex(once));
    const Bytes twice = serialise(*back[0]);
    QB_FUZZ_CHECK(once == twice, "a returned message does not survive a round trip\n  first  "
                                     << describe(msg) << "\n  second " << describe(*back[0]));
    QB_FUZZ_CHECK(back[0]->getMessageId() == msg.getMessageId() &&
                      back[0]->getTimeStamp() == msg.getTimeStamp() &&
                      describe(*back[0]) == describe(msg),
                  "round trip changes the message\n  first  " << describe(msg) << "\n  second "
                                                              << describe(*back[0]));
}

/// Chunk sizes from one input byte: 0 feeds everything at once, n gives sizes of 1 to n bytes
/// from a small generator seeded by n.
class ChunkPlan {
  public:
    explicit ChunkPlan(uint8_t n) : maxChunk(n), state(0x9E3779B9u ^ n) {}
    size_t next(size_t left) {
        if (maxChunk == 0) {
            return left;
        }
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        return std::min<size_t>(left, 1 + state % maxChunk);
    }

  private:
    uint32_t maxChunk;
    uint32_t state;
};

/// Feeds the stream chunk by chunk, taking every message after each chunk as a caller would.
std::vector<Bytes> feedAndRead(const Bytes& stream, uint8_t chunkByte,
                               std::vector<Bytes>* raw = nullptr) {
    TraceMessageBuffer reader(-1, nullptr);
    ChunkPlan plan(chunkByte);
    std::vector<Bytes> returned;
    size_t fed = 0;
    size_t exceptions = 0;
    while (fed < stream.size()) {
        const size_t n = plan.next(stream.size() - fed);
        reader.feed(stream.data() + fed, n);
        fed += n;
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(reader.getNextMessage());
            } catch (const QBException&) {
                ++exceptions;
                QB_FUZZ_CHECK(exceptions <= fed, "more exceptions (" << exceptions
                                                                     << ") than bytes fed (" << fed
                                                                     << ")");
                continue;
            }
            if (!msg) {
                break;
            }
            checkRoundTrip(*msg);
            returned.push_back(serialise(*msg));
            if (raw != nullptr) {
                raw->push_back(msg->getRawBytes());
            }
        }
        // What the reader keeps is what it has not parsed yet, never more than was fed.
        QB_FUZZ_CHECK(reader.bufferedBytes() <= fed,
                      "the reader holds " << reader.bufferedBytes() << " bytes of " << fed);
    }
    return returned;
}

void runRaw(InputReader& in, uint8_t chunkByte) {
    const Bytes stream = in.rest();
    feedAndRead(stream, chunkByte);
}

/// True if `bytes` occur in `stream` somewhere that does not lie wholly inside one of the whole
/// messages written (`wholeAt`: begin and end of each in the stream).
bool occursOutsideWholeMessages(const Bytes& stream, const Bytes& bytes,
                                const std::vector<std::pair<size_t, size_t>>& wholeAt) {
    if (bytes.empty() || bytes.size() > stream.size()) {
        return false;
    }
    auto from = stream.begin();
    for (;;) {
        const auto found = std::search(from, stream.end(), bytes.begin(), bytes.end());
        if (found == stream.end()) {
            return false;
        }
        const size_t begin = static_cast<size_t>(found - stream.begin());
        const size_t end = begin + bytes.size();
        bool inside = false;
        for (const auto& w : wholeAt) {
            inside = inside || (begin >= w.first && end <= w.second);
        }
        if (!inside) {
            return true;
        }
        from = found + 1;
    }
}

void runMessages(InputReader& in, uint8_t chunkByte) {
    Bytes stream;
    std::vector<Bytes> whole;                        // the whole messages written, in order
    std::vector<std::pair<size_t, size_t>> wholeAt;  // where each lies in the stream
    for (size_t piece = 0; piece < MAX_PIECES && !in.empty(); ++piece) {
        const uint8_t op = in.u8() % 4;
        Bytes bytes;
        if (op == 1) {
            bytes = in.bytes(in.u8());  // garbage
        } else {
            bytes = serialise(*qbfuzz::makeMessage(in));
            if (op == 0) {
                whole.push_back(bytes);
                wholeAt.emplace_back(stream.size(), stream.size() + bytes.size());
            } else {
                const size_t at = in.u16() % bytes.size();
                if (op == 2) {
                    bytes.resize(at);  // cut short
                } else {
                    const uint8_t change = in.u8();
                    bytes[at] ^= change == 0 ? 0x01 : change;  // one byte damaged
                }
            }
        }
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    }

    std::vector<Bytes> raw;
    const std::vector<Bytes> returned = feedAndRead(stream, chunkByte, &raw);
    size_t next = 0;  // the next whole message expected
    for (size_t i = 0; i < returned.size(); ++i) {
        if (next < whole.size() && returned[i] == whole[next]) {
            ++next;
            continue;
        }
        // Not the next whole message: only bytes outside the whole messages may hold it, as
        // the exact bytes of a message (the pieces around it happened to form one: garbage
        // that holds a message, a message cut just before its end followed by a damaged byte
        // that ends it). Never bytes from inside a whole message.
        QB_FUZZ_CHECK(
            occursOutsideWholeMessages(stream, returned[i], wholeAt) ||
                occursOutsideWholeMessages(stream, raw[i], wholeAt),
            "message " << i << " returned was not written whole\n  returned "
                       << qbfuzz::hex(returned[i]) << "\n  next whole "
                       << (next < whole.size() ? qbfuzz::hex(whole[next]) : std::string("(none)")));
    }
    QB_FUZZ_CHECK(next == whole.size(), "whole message "
                                            << next << " of " << whole.size() << " not returned: "
                                            << qbfuzz::hex(whole[next < whole.size() ? next : 0]));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qbfuzz::silenceLogStreams();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    const uint8_t mode = in.u8();
    const uint8_t chunkByte = in.u8();
    const MessageBase::invalidMsgHandling_t saved = MessageBase::invalidHandling;
    MessageBase::invalidHandling =
        (mode & 2) != 0 ? MessageBase::IMH_RETURN_INVALID_MESSAGE : MessageBase::IMH_RETURN_NULL;
    if ((mode & 1) == 0) {
        runRaw(in, chunkByte);
    } else {
        runMessages(in, chunkByte);
    }
    MessageBase::invalidHandling = saved;
    return 0;
}

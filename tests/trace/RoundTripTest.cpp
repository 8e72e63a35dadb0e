// Every message class is written with createByteArray and read back through a
// TraceMessageBuffer on a real pipe, for many random contents: all fields must survive, and
// the bytes the reader keeps must be the bytes that were written.

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "common/Pipe.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANProxyTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "trace/TraceTestSupport.h"

namespace {

using MessagePtr = std::unique_ptr<MessageBase>;
using Generator = std::function<MessagePtr(std::mt19937&)>;

uint64_t randomTimeStamp(std::mt19937& rng) {
    switch (rng() % 4) {
        case 0:
            return 0;
        case 1:
            return ~0ull;
        default:
            return (static_cast<uint64_t>(rng()) << 32) | rng();
    }
}

std::vector<uint8_t> randomBytes(std::mt19937& rng, size_t n) {
    std::vector<uint8_t> bytes(n);
    for (auto& b : bytes) {
        b = static_cast<uint8_t>(rng());
    }
    return bytes;
}

// Random valid content for a CAN frame message of class M: every frame kind, error state, CAN
// type, FD flag combination, any identifier (the constructor masks it), 0 to 64 data bytes.
template <typename M>
MessagePtr randomCan(std::mt19937& rng) {
    const size_t n = rng() % 65;
    const std::vector<uint8_t> data = randomBytes(rng, n);
    std::unique_ptr<M> msg(
        new M(randomTimeStamp(rng), static_cast<uint8_t>(rng()),
              static_cast<canframe_t>(rng() % CF_NUM), static_cast<canstaterr_t>(rng() % CSE_NUM),
              static_cast<cantype_t>(rng() % 4), static_cast<uint8_t>(n), rng(), data.data()));
    msg->setFdFlags(rng() % 2 == 0, rng() % 2 == 0);
    return msg;
}

MessagePtr randomTransport(std::mt19937& rng) {
    // Mostly short payloads, some up to 5000 bytes.
    const size_t n = rng() % 4 == 0 ? rng() % 5001 : rng() % 100;
    const std::vector<uint8_t> payload = randomBytes(rng, n);
    return MessagePtr(new CANTransportTraceMessage(randomTimeStamp(rng), rng(), payload.begin(),
                                                   payload.end(),
                                                   static_cast<cantype_t>(rng() % 4)));
}

MessagePtr randomRaw(std::mt19937& rng) {
    // Identifiers that no class claims, including 0, 2 and the highest.
    static const uint16_t ids[] = {0, 2, 3, 10, 12, 0x8011, 0x8013, 0x8015, 0x1234, 0xFFFF};
    const size_t n = rng() % 4 == 0 ? rng() % 5001 : rng() % 64;
    return MessagePtr(new RawTraceMessage(static_cast<msgid_t>(ids[rng() % 10]),
                                          randomTimeStamp(rng), randomBytes(rng, n)));
}

// Writes each message alone through a non-blocking pipe and reads it back.
void roundTripOneByOne(const Generator& generate, uint32_t seed, int count) {
    std::mt19937 rng(seed);
    qbtest::Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    for (int i = 0; i < count; ++i) {
        const MessagePtr sent = generate(rng);
        for (bool withChecksum : {false, true}) {
            byteVec_t bytes;
            const size_t size = sent->createByteArray(bytes, true, withChecksum);
            ASSERT_EQ(bytes.size(), size);
            // Start and end bytes, header, body and CRC, plus one byte per escaped byte.
            ASSERT_LE(2 + MessageBase::HEADER_SIZE + sent->getSize() + MessageBase::CHECKSUM_SIZE,
                      size);
            ASSERT_GE(
                2 + 2 * (MessageBase::HEADER_SIZE + sent->getSize() + MessageBase::CHECKSUM_SIZE),
                size);
            ASSERT_TRUE(pipe.writeAll(bytes));
            ASSERT_EQ(static_cast<int>(bytes.size()), buffer.read());
            MessagePtr received(buffer.getNextMessage());
            ASSERT_NE(nullptr, received) << "message " << i;
            qbtest::expectSameMessage(*sent, *received);
            EXPECT_EQ(bytes, received->getRawBytes());
            EXPECT_TRUE(received->isValid());
            // Written again, the received message gives the same bytes.
            byteVec_t again;
            received->createByteArray(again, true, withChecksum);
            EXPECT_EQ(bytes, again);
            ASSERT_EQ(nullptr, buffer.getNextMessage());
            ASSERT_EQ(0u, buffer.bufferedBytes());
        }
    }
}

// Writes batches of messages of all classes, each batch with one write(), and reads them back.
void roundTripConcatenated(uint32_t seed, int batches) {
    const Generator generators[] = {randomCan<CANTraceMessage>, randomCan<CANExtTraceMessage>,
                                    randomCan<CANProxyTraceMessage>, randomTransport, randomRaw};
    std::mt19937 rng(seed);
    qbtest::Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    for (int b = 0; b < batches; ++b) {
        std::vector<MessagePtr> sent;
        std::vector<byteVec_t> written;
        byteVec_t stream;
        const int n = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < n; ++i) {
            sent.push_back(generators[rng() % 5](rng));
            byteVec_t bytes;
            sent.back()->createByteArray(bytes, true, rng() % 2 == 0);
            stream.insert(stream.end(), bytes.begin(), bytes.end());
            written.push_back(std::move(bytes));
        }
        // At most 8 messages of about 5 KiB: the pipe takes the batch without a reader.
        ASSERT_LT(stream.size(), 60000u);
        ASSERT_TRUE(pipe.writeAll(stream));
        ASSERT_EQ(static_cast<int>(stream.size()), buffer.read());
        for (int i = 0; i < n; ++i) {
            EXPECT_TRUE(buffer.hasUnparsedInput());
            MessagePtr received(buffer.getNextMessage());
            ASSERT_NE(nullptr, received) << "batch " << b << " message " << i;
            qbtest::expectSameMessage(*sent[i], *received);
            EXPECT_EQ(written[i], received->getRawBytes());
        }
        EXPECT_FALSE(buffer.hasUnparsedInput());
        ASSERT_EQ(nullptr, buffer.getNextMessage());
    }
}

}  // namespace

TEST(RoundTrip, CanTraceMessages) {
    roundTripOneByOne(randomCan<CANTraceMessage>, 1, 500);
}

TEST(RoundTrip, CanExtTraceMessages) {
    roundTripOneByOne(randomCan<CANExtTraceMessage>, 2, 500);
}

TEST(RoundTrip, CanProxyTraceMessages) {
    roundTripOneByOne(randomCan<CANProxyTraceMessage>, 3, 500);
}

TEST(RoundTrip, CanTransportTraceMessages) {
    roundTripOneByOne(randomTransport, 4, 300);
}

TEST(RoundTrip, RawTraceMessagesWithUnknownIdentifiers) {
    roundTripOneByOne(randomRaw, 5, 300);
}

TEST(RoundTrip, SeveralMessagesOfAllClassesInOneWrite) {
    roundTripConcatenated(6, 200);
}

TEST(RoundTrip, DataLengthsZeroAndSixtyFourAndEmptyPayload) {
    qbtest::Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    const std::vector<uint8_t> data = {0x11, 0x22};
    std::vector<uint8_t> full(64);
    for (size_t i = 0; i < full.size(); ++i) {
        full[i] = static_cast<uint8_t>(0xC0 + i);
    }
    const std::vector<uint8_t> none;
    std::vector<MessagePtr> sent;
    sent.emplace_back(
        new CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 0, 1, nullptr));
    sent.emplace_back(new CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_FD_EXTENDED, 64,
                                             0x1FFFFFFF, full.data()));
    sent.emplace_back(
        new CANTransportTraceMessage(0, 0x7E8, none.begin(), none.end(), CT_STANDARD));
    sent.emplace_back(new RawTraceMessage(static_cast<msgid_t>(2), 0, byteVec_t{}));
    for (const MessagePtr& msg : sent) {
        byteVec_t bytes;
        msg->createByteArray(bytes, true, false);
        ASSERT_TRUE(pipe.writeAll(bytes));
        ASSERT_EQ(static_cast<int>(bytes.size()), buffer.read());
        MessagePtr received(buffer.getNextMessage());
        ASSERT_NE(nullptr, received);
        qbtest::expectSameMessage(*msg, *received);
        EXPECT_EQ(bytes, received->getRawBytes());
    }
}

// The worked examples of docs/wire-format.md, copied from there byte by byte: the library must
// write exactly these bytes and read them back into the documented messages.

#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "common/Pipe.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

namespace {

const std::vector<uint8_t> canFrameExample = {0xc0, 0x02, 0x0b, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xe0, 0x07,
                                              0x00, 0x00, 0x08, 0x02, 0x10, 0x03, 0x00, 0x00, 0x00,
                                              0x00, 0x00, 0x59, 0x2b, 0xbb, 0x30, 0xc1};

const std::vector<uint8_t> transportExample = {0xc0, 0x02, 0x14, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00,
                                               0x00, 0x00, 0x00, 0xe8, 0x07, 0x00, 0x00, 0x00, 0x41,
                                               0x42, 0x43, 0x68, 0x55, 0x6b, 0xf8, 0xc1};

const std::vector<uint8_t> escapedPayloadExample = {
    0xc0, 0x02, 0x14, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xe8, 0x07,
    0x00, 0x00, 0x00, 0xf5, 0xe0, 0xf5, 0xe1, 0xf5, 0xd5, 0xee, 0xf9, 0x30, 0x2a, 0xc1};

CANExtTraceMessage canFrameMessage() {
    const uint8_t data[8] = {0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, data);
}

CANTransportTraceMessage transportMessage() {
    const std::vector<uint8_t> payload = {0x41, 0x42, 0x43};
    return CANTransportTraceMessage(0, 0x7E8, payload.begin(), payload.end(), CT_STANDARD);
}

CANTransportTraceMessage escapedPayloadMessage() {
    const std::vector<uint8_t> payload = {0xC0, 0xC1, 0xF5};
    return CANTransportTraceMessage(0, 0x7E8, payload.begin(), payload.end(), CT_STANDARD);
}

// Writes the bytes into a non-blocking pipe one at a time, reading after each; only the last
// byte may complete the message. Returns the message.
std::unique_ptr<MessageBase> decodeByteByByte(const std::vector<uint8_t>& bytes) {
    qbtest::Pipe pipe(true);
    TraceMessageBuffer buffer(pipe.readEnd(), nullptr);
    for (size_t i = 0; i < bytes.size(); ++i) {
        EXPECT_TRUE(pipe.writeAll({bytes[i]}));
        EXPECT_EQ(1, buffer.read()) << "byte " << i;
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        if (i + 1 < bytes.size()) {
            EXPECT_EQ(nullptr, msg) << "message complete after only " << (i + 1) << " bytes";
            EXPECT_FALSE(buffer.hasUnparsedInput()) << "byte " << i;
        } else {
            EXPECT_EQ(0u, buffer.bufferedBytes());
            EXPECT_EQ(0, buffer.read());
            EXPECT_EQ(nullptr, buffer.getNextMessage());
            return msg;
        }
    }
    return nullptr;
}

}  // namespace

TEST(WireFormatExample, CanFrameMessageIsWrittenAsDocumented) {
    byteVec_t out;
    EXPECT_EQ(34u, canFrameMessage().createByteArray(out, true, false));
    EXPECT_EQ(canFrameExample, out);
}

TEST(WireFormatExample, CanFrameMessageIsReadByteByByte) {
    std::unique_ptr<MessageBase> msg = decodeByteByByte(canFrameExample);
    ASSERT_NE(nullptr, msg);
    auto* can = dynamic_cast<CANExtTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, can);
    EXPECT_EQ(MSGID_CAN_EXT, can->getMessageId());
    EXPECT_EQ(0u, can->getTimeStamp());
    EXPECT_EQ(0, can->getChannel());
    EXPECT_EQ(CF_STANDARD, can->getFrameKind());
    EXPECT_EQ(CSE_NO, can->getStateError());
    EXPECT_EQ(0, can->getStatus());
    EXPECT_EQ(CT_STANDARD, can->getCanType());
    EXPECT_EQ(0x7E0u, can->getCanId());
    EXPECT_EQ(8, can->getNumberOfDataBytes());
    EXPECT_EQ(8, can->getDlc());
    uint8_t data[8];
    can->getDataBytes(data, sizeof data);
    EXPECT_EQ((std::vector<uint8_t>{0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00}),
              std::vector<uint8_t>(data, data + 8));
    EXPECT_TRUE(can->isValid());
    EXPECT_EQ(canFrameExample, can->getRawBytes());
}

TEST(WireFormatExample, TransportMessageIsWrittenAsDocumented) {
    byteVec_t out;
    EXPECT_EQ(25u, transportMessage().createByteArray(out, true, false));
    EXPECT_EQ(transportExample, out);
}

TEST(WireFormatExample, TransportMessageIsReadByteByByte) {
    std::unique_ptr<MessageBase> msg = decodeByteByByte(transportExample);
    ASSERT_NE(nullptr, msg);
    auto* tp = dynamic_cast<CANTransportTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, tp);
    EXPECT_EQ(MSGID_CAN_TRANSPORT, tp->getMessageId());
    EXPECT_EQ(0u, tp->getTimeStamp());
    EXPECT_EQ(0x7E8u, tp->getCanId());
    EXPECT_EQ(CT_STANDARD, tp->getCanType());
    EXPECT_EQ((std::vector<uint8_t>{0x41, 0x42, 0x43}), tp->getPayload());
    EXPECT_EQ(transportExample, tp->getRawBytes());
}

TEST(WireFormatExample, EscapedPayloadIsWrittenAsDocumented) {
    byteVec_t out;
    EXPECT_EQ(28u, escapedPayloadMessage().createByteArray(out, true, false));
    EXPECT_EQ(escapedPayloadExample, out);
    // The checksum flag changes nothing: every framed message carries its CRC.
    EXPECT_EQ(28u, escapedPayloadMessage().createByteArray(out, true, true));
    EXPECT_EQ(escapedPayloadExample, out);
}

TEST(WireFormatExample, EscapedPayloadIsReadByteByByte) {
    std::unique_ptr<MessageBase> msg = decodeByteByByte(escapedPayloadExample);
    ASSERT_NE(nullptr, msg);
    auto* tp = dynamic_cast<CANTransportTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, tp);
    EXPECT_EQ(0x7E8u, tp->getCanId());
    EXPECT_EQ(CT_STANDARD, tp->getCanType());
    EXPECT_EQ((std::vector<uint8_t>{0xC0, 0xC1, 0xF5}), tp->getPayload());
    EXPECT_EQ(escapedPayloadExample, tp->getRawBytes());
}

TEST(WireFormatExample, CutMessageThenWholeOneIsReadAsDocumented) {
    // The first 10 bytes of the transport example, then the CAN frame example.
    std::vector<uint8_t> stream(transportExample.begin(), transportExample.begin() + 10);
    stream.insert(stream.end(), canFrameExample.begin(), canFrameExample.end());
    TraceMessageBuffer buffer(-1, nullptr);
    buffer.feed(stream.data(), stream.size());
    try {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        ADD_FAILURE() << "no exception";
    } catch (const QBException& e) {
        EXPECT_EQ(
            "trace message stream: dropped 10 bytes: message cut short by the start of another",
            e.text());
    }
    std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(canFrameExample, msg->getRawBytes());
    EXPECT_EQ(nullptr, buffer.getNextMessage());
}

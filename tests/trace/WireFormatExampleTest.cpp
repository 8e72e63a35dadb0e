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

namespace {

const std::vector<uint8_t> canFrameExample = {
    0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x0b, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x11, 0x00, 0x00, 0x00, 0x3f, 0xe6, 0xbb, 0x5f, 0x00, 0x00, 0x00, 0x00,
    0xe0, 0x07, 0x00, 0x00, 0x08, 0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};

const std::vector<uint8_t> transportExample = {
    0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x14, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
    0x08, 0x00, 0x00, 0x00, 0xa7, 0x53, 0xe6, 0xe2, 0xe8, 0x07, 0x00, 0x00, 0x00, 0x41, 0x42, 0x43};

const std::vector<uint8_t> transportWithTrailerExample = {
    0x51, 0x42, 0x54, 0x4d, 0x01, 0x01, 0x14, 0x80, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x4f, 0x88, 0x1d, 0x5b,
    0xe8, 0x07, 0x00, 0x00, 0x00, 0x41, 0x42, 0x43, 0x6f, 0x1c, 0x85, 0xb2};

CANExtTraceMessage canFrameMessage() {
    const uint8_t data[8] = {0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, data);
}

CANTransportTraceMessage transportMessage() {
    const std::vector<uint8_t> payload = {0x41, 0x42, 0x43};
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
    EXPECT_EQ(41u, canFrameMessage().createByteArray(out, true, false));
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
    EXPECT_EQ(32u, transportMessage().createByteArray(out, true, false));
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

TEST(WireFormatExample, TransportMessageWithTrailerIsWrittenAsDocumented) {
    byteVec_t out;
    EXPECT_EQ(36u, transportMessage().createByteArray(out, true, true));
    EXPECT_EQ(transportWithTrailerExample, out);
}

TEST(WireFormatExample, TransportMessageWithTrailerIsReadByteByByte) {
    std::unique_ptr<MessageBase> msg = decodeByteByByte(transportWithTrailerExample);
    ASSERT_NE(nullptr, msg);
    auto* tp = dynamic_cast<CANTransportTraceMessage*>(msg.get());
    ASSERT_NE(nullptr, tp);
    EXPECT_EQ(0x7E8u, tp->getCanId());
    EXPECT_EQ(CT_STANDARD, tp->getCanType());
    EXPECT_EQ((std::vector<uint8_t>{0x41, 0x42, 0x43}), tp->getPayload());
    EXPECT_EQ(transportWithTrailerExample, tp->getRawBytes());
}

// Serialisation shared by all trace messages: the CRC-32, createByteArray's three forms, the
// body-size limit, and the printed forms of transport and raw messages.

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbutil/QBException.h"
#include "trace/TraceTestSupport.h"

namespace {

std::string printed(const MessageBase& msg) {
    std::ostringstream os;
    os << msg;
    return os.str();
}

}  // namespace

TEST(Crc32, MatchesTheStandardCheckValue) {
    const std::string text = "123456789";
    EXPECT_EQ(0xCBF43926u,
              MessageBase::crc32(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

TEST(Crc32, KnownValuesOfShortInputs) {
    EXPECT_EQ(0u, MessageBase::crc32(nullptr, 0));
    const uint8_t a[1] = {'a'};
    EXPECT_EQ(0xE8B7BE43u, MessageBase::crc32(a, 1));
    std::vector<uint8_t> all(256);
    for (int i = 0; i < 256; ++i) {
        all[i] = static_cast<uint8_t>(i);
    }
    EXPECT_EQ(0x29058C73u, MessageBase::crc32(all.data(), all.size()));
}

TEST(Crc32, ContinuesAPreviousResultLikeZlib) {
    const std::string text = "123456789";
    const uint8_t* p = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t split = 0; split <= text.size(); ++split) {
        const uint32_t first = MessageBase::crc32(p, split);
        EXPECT_EQ(0xCBF43926u, MessageBase::crc32(p + split, text.size() - split, first))
            << "split at " << split;
    }
}

TEST(Crc32, AgreesWithABitwiseReferenceOnLongInput) {
    std::vector<uint8_t> data(10000);
    uint32_t x = 12345;
    for (auto& b : data) {
        x = x * 1103515245u + 12345u;
        b = static_cast<uint8_t>(x >> 16);
    }
    EXPECT_EQ(qbtest::referenceCrc32(data.data(), data.size()),
              MessageBase::crc32(data.data(), data.size()));
}

TEST(CreateByteArray, BodyOnlyFormIgnoresTheChecksumFlag) {
    const uint8_t data[3] = {0xAA, 0xBB, 0xCC};
    const CANExtTraceMessage msg(99, 2, CF_TXMESSAGE, CSE_BIT1, CT_EXTENDED, 3, 0x12345678, data);
    const std::vector<uint8_t> expected = {0x02, 0x02, 0x04, 0x01, 0x78, 0x56,
                                           0x34, 0x12, 0x03, 0xAA, 0xBB, 0xCC};
    byteVec_t out = {1, 2, 3};  // replaced, not appended to
    EXPECT_EQ(12u, msg.createByteArray(out, false, false));
    EXPECT_EQ(expected, out);
    EXPECT_EQ(12u, msg.createByteArray(out, false, true));
    EXPECT_EQ(expected, out);
    EXPECT_EQ(msg.getSize(), out.size());
}

TEST(CreateByteArray, TransportBodyIsIdentifierTypeAndPayload) {
    const std::vector<uint8_t> payload = {0x10, 0x20};
    const CANTransportTraceMessage msg(1, 0xA1B2C3D4, payload.begin(), payload.end(),
                                       CT_FD_EXTENDED);
    byteVec_t out;
    EXPECT_EQ(7u, msg.createByteArray(out, false, false));
    const std::vector<uint8_t> expected = {0xD4, 0xC3, 0xB2, 0xA1, 0x03, 0x10, 0x20};
    EXPECT_EQ(expected, out);
}

TEST(CreateByteArray, RawMessageWithHeaderMatchesHandWrittenBytes) {
    // Identifier 2, time stamp 0, body "xy"; CRCs computed with zlib.
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t{'x', 'y'});
    const std::vector<uint8_t> plain = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00, 0x00,
                                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x00,
                                        0x00, 0x00, 0x0e, 0xe1, 0x41, 0xb3, 0x78, 0x79};
    const std::vector<uint8_t> checked = {
        0x51, 0x42, 0x54, 0x4d, 0x01, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x02, 0x00, 0x00, 0x00, 0xe6, 0x3a, 0xba, 0x0a, 0x78, 0x79, 0xc5, 0x9b, 0xfd, 0x7f};
    byteVec_t out;
    EXPECT_EQ(plain.size(), msg.createByteArray(out, true, false));
    EXPECT_EQ(plain, out);
    EXPECT_EQ(checked.size(), msg.createByteArray(out, true, true));
    EXPECT_EQ(checked, out);
}

TEST(CreateByteArray, EmptyRawMessageWithTimeStampMatchesHandWrittenBytes) {
    const RawTraceMessage msg(static_cast<msgid_t>(2), 5, byteVec_t{});
    const std::vector<uint8_t> expected = {0x51, 0x42, 0x54, 0x4d, 0x01, 0x00, 0x02, 0x00,
                                           0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x95, 0x5e, 0xeb, 0x81};
    byteVec_t out;
    EXPECT_EQ(24u, msg.createByteArray(out, true, false));
    EXPECT_EQ(expected, out);
}

TEST(CreateByteArray, HeaderFieldsAreLittleEndian) {
    const std::vector<uint8_t> payload(300, 0x5A);
    const CANTransportTraceMessage msg(0x0102030405060708ull, 0x7E8, payload.begin(), payload.end(),
                                       CT_STANDARD);
    byteVec_t out;
    msg.createByteArray(out, true, true);
    ASSERT_EQ(24u + 305u + 4u, out.size());
    const std::vector<uint8_t> timeStamp(out.begin() + 8, out.begin() + 16);
    EXPECT_EQ((std::vector<uint8_t>{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}), timeStamp);
    EXPECT_EQ(0x14, out[6]);
    EXPECT_EQ(0x80, out[7]);
    EXPECT_EQ((std::vector<uint8_t>{0x31, 0x01, 0x00, 0x00}),
              std::vector<uint8_t>(out.begin() + 16, out.begin() + 20));
    EXPECT_EQ(qbtest::referenceCrc32(out.data(), 20), qbtest::readLittleEndian(out, 20, 4));
    EXPECT_EQ(qbtest::referenceCrc32(out.data(), out.size() - 4),
              qbtest::readLittleEndian(out, out.size() - 4, 4));
}

TEST(CreateByteArray, BodyAtTheMaximumIsWritten) {
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t(MessageBase::MAX_BODY_SIZE, 7));
    byteVec_t out;
    EXPECT_EQ(24u + 1048576u, msg.createByteArray(out, true, false));
    EXPECT_EQ((std::vector<uint8_t>{0x00, 0x00, 0x10, 0x00}),
              std::vector<uint8_t>(out.begin() + 16, out.begin() + 20));
}

TEST(CreateByteArray, BodyAboveTheMaximumIsRefused) {
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0,
                              byteVec_t(MessageBase::MAX_BODY_SIZE + 1, 7));
    byteVec_t out = {1, 2, 3};
    try {
        msg.createByteArray(out, true, false);
        FAIL() << "no exception";
    } catch (const QBException& e) {
        EXPECT_EQ("trace message id 0x2: body of 1048577 bytes exceeds the maximum of 1048576",
                  e.text());
    }
    EXPECT_TRUE(out.empty());
    // The body alone has no length field and no limit.
    EXPECT_EQ(1048577u, msg.createByteArray(out, false, false));
}

TEST(TransportMessage, ConstructorCopiesTheRangeAndKeepsIdentifierAndType) {
    const std::vector<uint8_t> source = {1, 2, 3, 4, 5, 6};
    const CANTransportTraceMessage msg(42, 0x18DAF110, source.begin() + 1, source.end() - 1,
                                       CT_EXTENDED);
    EXPECT_EQ(MSGID_CAN_TRANSPORT, msg.getMessageId());
    EXPECT_EQ(42u, msg.getTimeStamp());
    EXPECT_EQ(0x18DAF110u, msg.getCanId());
    EXPECT_EQ(CT_EXTENDED, msg.getCanType());
    EXPECT_EQ((std::vector<uint8_t>{2, 3, 4, 5}), msg.getPayload());
    EXPECT_EQ(9u, msg.getSize());
    EXPECT_TRUE(msg.isValid());
    EXPECT_TRUE(msg.getRawBytes().empty());
}

TEST(TransportMessage, PrintShowsIdentifierTypeLengthAndData) {
    const std::vector<uint8_t> payload = {0x41, 0x42, 0x43};
    const CANTransportTraceMessage msg(0, 0x7E8, payload.begin(), payload.end(), CT_STANDARD);
    EXPECT_EQ("CAN transport id 0x7e8 STD len 3 data 41 42 43", printed(msg));
    const std::vector<uint8_t> none;
    const CANTransportTraceMessage empty(0, 0x1ABCDEF, none.begin(), none.end(), CT_FD_EXTENDED);
    EXPECT_EQ("CAN transport id 0x1abcdef FD_EXT len 0", printed(empty));
}

TEST(TransportMessage, PrintShowsAtMostThirtyTwoBytes) {
    std::vector<uint8_t> payload(33);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }
    const CANTransportTraceMessage msg(0, 0x10, payload.begin(), payload.end(), CT_EXTENDED);
    EXPECT_EQ(
        "CAN transport id 0x10 EXT len 33 data 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d "
        "0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f ...",
        printed(msg));
    const CANTransportTraceMessage exact(0, 0x10, payload.begin(), payload.end() - 1,
                                         CT_FD_STANDARD);
    EXPECT_EQ(
        "CAN transport id 0x10 FD_STD len 32 data 00 01 02 03 04 05 06 07 08 09 0a 0b 0c "
        "0d 0e 0f 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f",
        printed(exact));
}

TEST(TransportMessage, CloneIsEqual) {
    const std::vector<uint8_t> payload = {9, 8, 7};
    const CANTransportTraceMessage msg(3, 0x7E0, payload.begin(), payload.end(), CT_STANDARD);
    std::unique_ptr<MessageBase> copy(msg.clone());
    qbtest::expectSameMessage(msg, *copy);
}

TEST(RawMessage, KeepsIdentifierTimeStampAndBody) {
    const RawTraceMessage msg(static_cast<msgid_t>(0x1234), 77, byteVec_t{1, 2, 3});
    EXPECT_EQ(0x1234, msg.getMessageId());
    EXPECT_EQ(77u, msg.getTimeStamp());
    EXPECT_EQ((byteVec_t{1, 2, 3}), msg.getBody());
    EXPECT_EQ(3u, msg.getSize());
    EXPECT_TRUE(msg.isValid());
    std::unique_ptr<MessageBase> copy(msg.clone());
    qbtest::expectSameMessage(msg, *copy);
}

TEST(RawMessage, PrintShowsIdentifierLengthAndInvalidReason) {
    RawTraceMessage msg(static_cast<msgid_t>(0xABC), 0, byteVec_t(5, 0));
    EXPECT_EQ("trace message id 0xabc len 5", printed(msg));
    msg.setInvalidReason("broken");
    EXPECT_FALSE(msg.isValid());
    EXPECT_EQ("broken", msg.getInvalidReason());
    EXPECT_EQ("trace message id 0xabc len 5 invalid: broken", printed(msg));
}

TEST(RawMessage, StreamOperatorOnPointers) {
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t{});
    std::ostringstream os;
    const MessageBase* none = nullptr;
    os << none << " | " << static_cast<const MessageBase*>(&msg);
    EXPECT_EQ("(null) | trace message id 0x2 len 0", os.str());
}

TEST(RawMessage, SetRawBytesKeepsTheBytes) {
    RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t{});
    msg.setRawBytes(byteVec_t{0x51, 0x42});
    EXPECT_EQ((byteVec_t{0x51, 0x42}), msg.getRawBytes());
    std::unique_ptr<MessageBase> copy(msg.clone());
    EXPECT_EQ((byteVec_t{0x51, 0x42}), copy->getRawBytes());
}

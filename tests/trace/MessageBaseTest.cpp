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
    // Identifier 2, time stamp 0, body "xy"; CRC 0x4D2C5730 computed with zlib. Both values of
    // the checksum flag give the same frame: every framed message carries its CRC.
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t{'x', 'y'});
    const std::vector<uint8_t> expected = {0xc0, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x00, 0x78, 0x79,
                                           0x30, 0x57, 0x2c, 0x4d, 0xc1};
    byteVec_t out = {1, 2, 3};  // replaced, not appended to
    EXPECT_EQ(expected.size(), msg.createByteArray(out, true, false));
    EXPECT_EQ(expected, out);
    EXPECT_EQ(expected.size(), msg.createByteArray(out, true, true));
    EXPECT_EQ(expected, out);
}

TEST(CreateByteArray, EmptyRawMessageWithTimeStampMatchesHandWrittenBytes) {
    // CRC 0x7FFED674 computed with zlib.
    const RawTraceMessage msg(static_cast<msgid_t>(2), 5, byteVec_t{});
    const std::vector<uint8_t> expected = {0xc0, 0x02, 0x02, 0x00, 0x05, 0x00, 0x00, 0x00, 0x00,
                                           0x00, 0x00, 0x00, 0x74, 0xd6, 0xfe, 0x7f, 0xc1};
    byteVec_t out;
    EXPECT_EQ(17u, msg.createByteArray(out, true, false));
    EXPECT_EQ(expected, out);
}

TEST(CreateByteArray, ReservedBytesAreEscapedWhereverTheyOccur) {
    // Identifier 0xC1C0, time stamp 0x0807060504F5C0C1 and a body of the three reserved bytes:
    // each becomes 0xF5 and the byte XOR 0x20; the CRC (0x35612E2C, zlib) covers the bytes
    // before escaping.
    const RawTraceMessage msg(static_cast<msgid_t>(0xC1C0), 0x0807060504F5C0C1ull,
                              byteVec_t{0xC0, 0xC1, 0xF5, 0x00});
    byteVec_t out;
    msg.createByteArray(out, true, false);
    std::vector<uint8_t> content = {0x02, 0xC0, 0xC1, 0xC1, 0xC0, 0xF5, 0x04, 0x05,
                                    0x06, 0x07, 0x08, 0xC0, 0xC1, 0xF5, 0x00};
    const uint32_t crc = qbtest::referenceCrc32(content.data(), content.size());
    for (int i = 0; i < 4; ++i) {
        content.push_back(static_cast<uint8_t>(crc >> (8 * i)));
    }
    std::vector<uint8_t> expected = {0xC0};
    for (uint8_t b : content) {
        if (b == 0xC0 || b == 0xC1 || b == 0xF5) {
            expected.push_back(0xF5);
            expected.push_back(static_cast<uint8_t>(b ^ 0x20));
        } else {
            expected.push_back(b);
        }
    }
    expected.push_back(0xC1);
    EXPECT_EQ(expected, out);
    const std::vector<uint8_t> head = {0xc0, 0x02, 0xf5, 0xe0, 0xf5, 0xe1, 0xf5, 0xe1,
                                       0xf5, 0xe0, 0xf5, 0xd5, 0x04, 0x05, 0x06, 0x07,
                                       0x08, 0xf5, 0xe0, 0xf5, 0xe1, 0xf5, 0xd5, 0x00};
    EXPECT_EQ(head, std::vector<uint8_t>(out.begin(), out.begin() + 24));
}

TEST(CreateByteArray, HeaderFieldsAreLittleEndianAndTheCrcCoversThemAll) {
    const std::vector<uint8_t> payload(300, 0x5A);
    const CANTransportTraceMessage msg(0x0102030405060708ull, 0x7E8, payload.begin(), payload.end(),
                                       CT_STANDARD);
    byteVec_t out;
    msg.createByteArray(out, true, false);
    // No reserved byte in this message but perhaps in its CRC: decode the frame by hand.
    ASSERT_EQ(0xC0, out.front());
    ASSERT_EQ(0xC1, out.back());
    std::vector<uint8_t> content;
    for (size_t i = 1; i + 1 < out.size(); ++i) {
        if (out[i] == 0xF5) {
            content.push_back(static_cast<uint8_t>(out[++i] ^ 0x20));
        } else {
            content.push_back(out[i]);
        }
    }
    ASSERT_EQ(11u + 305u + 4u, content.size());
    EXPECT_EQ(0x02, content[0]);
    EXPECT_EQ(0x14, content[1]);
    EXPECT_EQ(0x80, content[2]);
    const std::vector<uint8_t> timeStamp(content.begin() + 3, content.begin() + 11);
    EXPECT_EQ((std::vector<uint8_t>{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}), timeStamp);
    EXPECT_EQ(qbtest::referenceCrc32(content.data(), content.size() - 4),
              qbtest::readLittleEndian(content, content.size() - 4, 4));
}

TEST(CreateByteArray, BodyAtTheMaximumIsWritten) {
    const RawTraceMessage msg(static_cast<msgid_t>(2), 0, byteVec_t(MessageBase::MAX_BODY_SIZE, 7));
    byteVec_t out;
    // Start, header, body, CRC and end; the CRC may hold reserved bytes.
    const size_t size = msg.createByteArray(out, true, false);
    EXPECT_GE(size, 1u + 11u + 1048576u + 4u + 1u);
    EXPECT_LE(size, 1u + 11u + 1048576u + 8u + 1u);
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
    // The body alone is not framed and has no limit.
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

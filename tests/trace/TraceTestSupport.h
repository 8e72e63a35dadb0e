// Helpers shared by the trace-message tests: field-by-field comparison of messages, a guard
// for the process-wide invalid-message setting, and an independent CRC-32.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/RawTraceMessage.h"

namespace qbtest {

/// Sets MessageBase::invalidHandling for one test and restores it afterwards (all tests of the
/// executable share the process when it is run by hand).
class InvalidHandlingGuard {
  public:
    explicit InvalidHandlingGuard(MessageBase::invalidMsgHandling_t mode)
        : saved(MessageBase::invalidHandling) {
        MessageBase::invalidHandling = mode;
    }
    ~InvalidHandlingGuard() { MessageBase::invalidHandling = saved; }
    InvalidHandlingGuard(const InvalidHandlingGuard&) = delete;
    InvalidHandlingGuard& operator=(const InvalidHandlingGuard&) = delete;

  private:
    MessageBase::invalidMsgHandling_t saved;
};

/// Bit-by-bit CRC-32 (reflected 0xEDB88320, zlib's), written separately from the library's
/// table-driven one so that the tests do not check the library against itself.
inline uint32_t referenceCrc32(const uint8_t* data, size_t len) {
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < len; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return crc ^ 0xFFFFFFFFu;
}

/// Reads a little-endian integer of `size` bytes (test-side decoding).
inline uint64_t readLittleEndian(const std::vector<uint8_t>& bytes, size_t offset, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= static_cast<uint64_t>(bytes.at(offset + i)) << (8 * i);
    }
    return value;
}

/// Compares every field of two messages of the same dynamic type (rawBytes excluded).
inline void expectSameMessage(const MessageBase& expected, const MessageBase& actual) {
    ASSERT_EQ(typeid(expected), typeid(actual));
    EXPECT_EQ(expected.getMessageId(), actual.getMessageId());
    EXPECT_EQ(expected.getTimeStamp(), actual.getTimeStamp());
    EXPECT_EQ(expected.isValid(), actual.isValid());
    EXPECT_EQ(expected.getInvalidReason(), actual.getInvalidReason());
    EXPECT_EQ(expected.getSize(), actual.getSize());
    if (auto e = dynamic_cast<const CANTraceMessageBase*>(&expected)) {
        auto a = dynamic_cast<const CANTraceMessageBase*>(&actual);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(e->getChannel(), a->getChannel());
        EXPECT_EQ(e->getFrameKind(), a->getFrameKind());
        EXPECT_EQ(e->getStatus(), a->getStatus());
        EXPECT_EQ(e->getCanType(), a->getCanType());
        EXPECT_EQ(e->getCanId(), a->getCanId());
        ASSERT_EQ(e->getNumberOfDataBytes(), a->getNumberOfDataBytes());
        EXPECT_EQ(std::vector<uint8_t>(e->getData(), e->getData() + e->getNumberOfDataBytes()),
                  std::vector<uint8_t>(a->getData(), a->getData() + a->getNumberOfDataBytes()));
    } else if (auto e = dynamic_cast<const CANTransportTraceMessage*>(&expected)) {
        auto a = dynamic_cast<const CANTransportTraceMessage*>(&actual);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(e->getCanId(), a->getCanId());
        EXPECT_EQ(e->getCanType(), a->getCanType());
        EXPECT_EQ(e->getPayload(), a->getPayload());
    } else if (auto e = dynamic_cast<const RawTraceMessage*>(&expected)) {
        auto a = dynamic_cast<const RawTraceMessage*>(&actual);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(e->getBody(), a->getBody());
    } else {
        ADD_FAILURE() << "unexpected message class";
    }
}

}  // namespace qbtest

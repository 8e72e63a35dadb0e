// PcapWriter: the bytes of a capture, compared with bytes written out by hand from the pcap
// file format and the Linux CAN frame layout (not with what PcapReader reads back).
#include "libqbcansim/PcapWriter.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "libqbcansim/CandumpLine.h"

namespace {

std::string bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values) {
        s += static_cast<char>(v);
    }
    return s;
}

// Magic a1b2c3d4 little-endian, version 2.4, zone 0, accuracy 0, snap length 16, link type 227.
const std::string FILE_HEADER = bytes({0xd4, 0xc3, 0xb2, 0xa1, 0x02, 0x00, 0x04, 0x00,  //
                                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                       0x10, 0x00, 0x00, 0x00, 0xe3, 0x00, 0x00, 0x00});

}  // namespace

TEST(PcapWriter, EmptyCaptureIsTheFileHeaderAlone) {
    std::ostringstream out;
    PcapWriter writer(out);
    EXPECT_EQ(out.str(), FILE_HEADER);
    EXPECT_EQ(writer.frames(), 0u);
}

TEST(PcapWriter, StandardFrameIsAHeaderAndSixteenBytesOfCanFrame) {
    std::ostringstream out;
    PcapWriter writer(out);
    const uint8_t data[8] = {0x10, 0x14, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05};
    // 1700000000 = 0x6553F100; 123456 us = 0x0001E240.
    writer.write(1700000000, 123456, 0x7E0, false, data, 8);
    EXPECT_EQ(out.str(), FILE_HEADER + bytes({0x00, 0xf1, 0x53, 0x65, 0x40, 0xe2, 0x01, 0x00,  //
                                              0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x07, 0xe0, 0x08, 0x00, 0x00, 0x00,  //
                                              0x10, 0x14, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}));
    EXPECT_EQ(writer.frames(), 1u);
}

TEST(PcapWriter, ExtendedFrameSetsBit31AndShortDataIsZeroFilled) {
    std::ostringstream out;
    PcapWriter writer(out);
    const uint8_t data[3] = {0xAA, 0xBB, 0xCC};
    writer.write(1, 999999, 0x18DAF110, true, data, 3);
    EXPECT_EQ(out.str(), FILE_HEADER + bytes({0x01, 0x00, 0x00, 0x00, 0x3f, 0x42, 0x0f, 0x00,  //
                                              0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                              0x98, 0xda, 0xf1, 0x10, 0x03, 0x00, 0x00, 0x00,  //
                                              0xaa, 0xbb, 0xcc, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(PcapWriter, FramesFollowEachOtherInTheOrderWritten) {
    std::ostringstream out;
    PcapWriter writer(out);
    CandumpLine a;
    std::string error;
    ASSERT_TRUE(CandumpLine::parse("(0000000002.000003) can0 7E8#30", a, error)) << error;
    CandumpLine b;
    ASSERT_TRUE(CandumpLine::parse("vcan1 001#", b, error)) << error;
    writer.write(a);
    writer.write(b);  // no time stamp: time 0
    EXPECT_EQ(out.str(), FILE_HEADER + bytes({0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  //
                                              0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x07, 0xe8, 0x01, 0x00, 0x00, 0x00,  //
                                              0x30, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                              0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(writer.frames(), 2u);
}

TEST(PcapWriter, RefusesWhatARecordCannotHoldAndWritesNothing) {
    std::ostringstream out;
    PcapWriter writer(out);
    const uint8_t data[9] = {};
    EXPECT_THROW(writer.write(-1, 0, 0x100, false, data, 1), std::invalid_argument);
    EXPECT_THROW(writer.write(0x100000000ll, 0, 0x100, false, data, 1), std::invalid_argument);
    EXPECT_THROW(writer.write(0, 1000000, 0x100, false, data, 1), std::invalid_argument);
    EXPECT_THROW(writer.write(0, 0, 0x100, false, data, 9), std::invalid_argument);
    EXPECT_THROW(writer.write(0, 0, 0x100, false, nullptr, 1), std::invalid_argument);
    EXPECT_THROW(writer.write(0, 0, 0x800, false, data, 1), std::invalid_argument);
    EXPECT_THROW(writer.write(0, 0, 0x20000000, true, data, 1), std::invalid_argument);
    EXPECT_EQ(out.str(), FILE_HEADER);
    EXPECT_EQ(writer.frames(), 0u);
}

TEST(PcapWriter, LargestTimeAndIdentifierFit) {
    std::ostringstream out;
    PcapWriter writer(out);
    writer.write(0xFFFFFFFFll, 0, 0x1FFFFFFF, true, nullptr, 0);
    EXPECT_EQ(out.str(), FILE_HEADER + bytes({0xff, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00,  //
                                              0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                              0x9f, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00,  //
                                              0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST(PcapWriter, AFailedStreamIsReported) {
    std::ostringstream out;
    PcapWriter writer(out);
    EXPECT_TRUE(writer.good());
    out.setstate(std::ios::badbit);
    const uint8_t data[1] = {1};
    writer.write(0, 0, 1, false, data, 1);
    EXPECT_FALSE(writer.good());
}

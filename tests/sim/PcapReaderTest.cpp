// PcapReader: captures written out byte by byte in each accepted form, and damaged or hostile
// files, each with the exact error expected.
#include "libqbcansim/PcapReader.h"

#include <sstream>
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

// Little-endian microsecond header, snap length 16, link type 227.
const std::string LE_HEADER = bytes({0xd4, 0xc3, 0xb2, 0xa1, 0x02, 0x00, 0x04, 0x00,  //
                                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                     0x10, 0x00, 0x00, 0x00, 0xe3, 0x00, 0x00, 0x00});

// One record at 1700000000.123456 of frame 7E0#1014000102030405, little-endian.
const std::string LE_RECORD = bytes({0x00, 0xf1, 0x53, 0x65, 0x40, 0xe2, 0x01, 0x00,  //
                                     0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                     0x00, 0x00, 0x07, 0xe0, 0x08, 0x00, 0x00, 0x00,  //
                                     0x10, 0x14, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05});

/// Reads `file` to its end; returns the records as candump lines on interface x, non-classic
/// records as "#N PROBLEM", and the end as "END" or "FAILED: error".
std::string readAll(const std::string& file) {
    std::istringstream in(file);
    PcapReader reader(in);
    PcapReader::Record record;
    std::string s;
    for (;;) {
        const PcapReader::Result r = reader.next(record);
        if (r == PcapReader::END) {
            return s + "END";
        }
        if (r == PcapReader::FAILED) {
            return s + "FAILED: " + reader.error();
        }
        if (record.isClassicDataFrame()) {
            s += record.toCandumpLine("x").toString() + "\n";
        } else {
            s += "#" + std::to_string(record.number) + " " + record.problem + "\n";
        }
    }
}

}  // namespace

TEST(PcapReader, ReadsLittleEndianMicrosecondCapture) {
    EXPECT_EQ(readAll(LE_HEADER + LE_RECORD), "(1700000000.123456) x 7E0#1014000102030405\nEND");
}

TEST(PcapReader, ReadsBigEndianCapture) {
    const std::string file = bytes({0xa1, 0xb2, 0xc3, 0xd4, 0x00, 0x02, 0x00, 0x04,  //
                                    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                    0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0xe3,  //
                                    0x65, 0x53, 0xf1, 0x00, 0x00, 0x01, 0xe2, 0x40,  //
                                    0x00, 0x00, 0x00, 0x0b, 0x00, 0x00, 0x00, 0x0b,  //
                                    0x80, 0x00, 0x01, 0x23, 0x03, 0x00, 0x00, 0x00,  //
                                    0x41, 0x42, 0x43});
    EXPECT_EQ(readAll(file), "(1700000000.123456) x 00000123#414243\nEND");
}

TEST(PcapReader, NanosecondTimeStampsAreCutToMicroseconds) {
    // Magic a1b23c4d little-endian; 999999999 ns = 0x3B9AC9FF.
    const std::string file = bytes({0x4d, 0x3c, 0xb2, 0xa1, 0x02, 0x00, 0x04, 0x00,  //
                                    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                    0x00, 0x00, 0x04, 0x00, 0xe3, 0x00, 0x00, 0x00,  //
                                    0x05, 0x00, 0x00, 0x00, 0xff, 0xc9, 0x9a, 0x3b,  //
                                    0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                    0x00, 0x00, 0x07, 0xe8, 0x01, 0x00, 0x00, 0x00,  //
                                    0x30, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(readAll(file), "(0000000005.999999) x 7E8#30\nEND");
}

TEST(PcapReader, HeaderAloneIsAnEmptyCapture) {
    EXPECT_EQ(readAll(LE_HEADER), "END");
}

TEST(PcapReader, RemoteErrorAndFdRecordsAreReturnedWithWhatTheyAre) {
    const std::string remote =
        bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0,  //
               0x40, 0x00, 0x07, 0xe0, 0x03, 0, 0, 0, 0,    0, 0, 0, 0,    0, 0, 0});
    const std::string error =
        bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0,  //
               0x20, 0x00, 0x00, 0x04, 0x08, 0, 0, 0, 0,    0, 0, 0, 0,    0, 0, 0});
    const std::string fd =
        bytes({0,    0,    0,    0,    0,    0,    0, 0, 0x0c, 0, 0, 0, 0x0c, 0, 0, 0,  //
               0x00, 0x00, 0x01, 0x00, 0x04, 0x04, 0, 0, 1,    2, 3, 4});
    const std::string tooLong =
        bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0,  //
               0x00, 0x00, 0x01, 0x00, 0x09, 0, 0, 0, 0,    0, 0, 0, 0,    0, 0, 0});
    const std::string cut =
        bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x0a, 0, 0, 0, 0x10, 0, 0, 0,  //
               0x00, 0x00, 0x01, 0x00, 0x08, 0, 0, 0, 1,    2});
    const std::string tiny =
        bytes({0,    0,    0,    0,   0, 0, 0, 0, 0x04, 0, 0, 0, 0x04, 0, 0, 0,  //
               0x00, 0x00, 0x01, 0x00});
    EXPECT_EQ(readAll(LE_HEADER + remote + error + fd + tooLong + cut + tiny + LE_RECORD),
              "#1 remote frame\n"
              "#2 error frame\n"
              "#3 CAN FD frame\n"
              "#4 classic frame with data length 9 (at most 8)\n"
              "#5 frame of 8 data bytes, 2 captured\n"
              "#6 record of 4 bytes, shorter than the 8-byte CAN header\n"
              "(1700000000.123456) x 7E0#1014000102030405\n"
              "END");
}

TEST(PcapReader, PcapngIsRefusedWithTheWayToConvertIt) {
    EXPECT_EQ(readAll(bytes({0x0a, 0x0d, 0x0d, 0x0a, 0x1c, 0, 0, 0})),
              "FAILED: a pcapng file, not pcap: convert it with 'editcap -F pcap IN OUT' (or save "
              "as \"Wireshark/tcpdump - pcap\")");
}

TEST(PcapReader, TextIsNotAPcapFile) {
    EXPECT_EQ(readAll("(1700000000.000000) can0 7E0#01\n"),
              "FAILED: not a pcap file (first bytes 28313730, expected the magic number a1b2c3d4 "
              "or a1b23c4d in either byte order)");
    EXPECT_EQ(readAll(""),
              "FAILED: not a pcap file (first bytes , expected the magic number a1b2c3d4 or "
              "a1b23c4d in either byte order)");
}

TEST(PcapReader, ShortFileHeaderIsAnError) {
    EXPECT_EQ(readAll(LE_HEADER.substr(0, 20)),
              "FAILED: pcap file header cut short: 20 of 24 bytes");
}

TEST(PcapReader, OtherLinkTypeIsRefused) {
    std::string header = LE_HEADER;
    header[20] = 1;  // Ethernet
    EXPECT_EQ(readAll(header + LE_RECORD),
              "FAILED: link type 1 is not 227 (LINKTYPE_CAN_SOCKETCAN): not a capture of a CAN "
              "interface");
}

TEST(PcapReader, OtherMajorVersionIsRefused) {
    std::string header = LE_HEADER;
    header[4] = 3;
    EXPECT_EQ(readAll(header), "FAILED: pcap version 3.4 is not read (2.x expected)");
}

TEST(PcapReader, RecordHeaderCutShortIsAnErrorAfterTheRecordsBefore) {
    EXPECT_EQ(readAll(LE_HEADER + LE_RECORD + LE_RECORD.substr(0, 10)),
              "(1700000000.123456) x 7E0#1014000102030405\n"
              "FAILED: record 2: record header cut short by the end of the file (10 of 16 bytes)");
}

TEST(PcapReader, RecordCutShortIsAnError) {
    EXPECT_EQ(readAll(LE_HEADER + LE_RECORD.substr(0, 29)),
              "FAILED: record 1: record cut short by the end of the file (13 of 16 bytes)");
}

TEST(PcapReader, CapturedLengthAboveTheSnapLengthIsAnError) {
    std::string record = LE_RECORD + std::string(1, '\0');
    record[8] = 17;
    record[12] = 17;
    EXPECT_EQ(readAll(LE_HEADER + record),
              "FAILED: record 1: captured length 17 is above the snap length 16");
}

TEST(PcapReader, HostileCapturedLengthIsRefusedBeforeAnythingIsRead) {
    std::string header = LE_HEADER;
    header[16] = 0;  // snap length 0: "no limit"
    std::string record = LE_RECORD;
    record[8] = 0;
    record[9] = 0;
    record[10] = 0;
    record[11] = 0x40;  // 0x40000000 bytes
    record[15] = 0x40;
    EXPECT_EQ(readAll(header + record),
              "FAILED: record 1: captured length 1073741824 is above 262144 bytes");
}

TEST(PcapReader, CapturedLengthAboveTheOriginalLengthIsAnError) {
    std::string record = LE_RECORD;
    record[12] = 15;
    EXPECT_EQ(readAll(LE_HEADER + record),
              "FAILED: record 1: captured length 16 is above the original length 15");
}

TEST(PcapReader, TimeStampFractionOfOneSecondOrMoreIsAnError) {
    std::string record = LE_RECORD;
    // 1000000 us = 0x000F4240.
    record[4] = 0x40;
    record[5] = 0x42;
    record[6] = 0x0f;
    record[7] = 0x00;
    EXPECT_EQ(readAll(LE_HEADER + record),
              "FAILED: record 1: time stamp fraction 1000000 is not below one second in "
              "microseconds");
}

TEST(PcapReader, LongRecordIsSkippedPastItsFirstBytes) {
    std::string header = LE_HEADER;
    header[16] = 0;
    header[17] = 0x10;  // snap length 4096
    std::string record =
        bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x00, 0x04, 0, 0, 0x00, 0x04, 0, 0,  //
               0x00, 0x00, 0x01, 0x00, 0x02, 0, 0, 0, 0x21, 0x22});
    record += std::string(1024 - 10, '\x55');
    EXPECT_EQ(readAll(header + record + LE_RECORD),
              "(0000000000.000000) x 100#2122\n"
              "(1700000000.123456) x 7E0#1014000102030405\n"
              "END");
}

TEST(PcapReader, AfterAFailureEveryCallFails) {
    std::istringstream in("not a capture");
    PcapReader reader(in);
    PcapReader::Record record;
    EXPECT_EQ(reader.next(record), PcapReader::FAILED);
    EXPECT_EQ(reader.next(record), PcapReader::FAILED);
}

TEST(PcapReader, DetectTellsTheFormatFromFourBytes) {
    EXPECT_EQ(PcapReader::detect("\xd4\xc3\xb2\xa1", 4), PcapReader::FORMAT_PCAP);
    EXPECT_EQ(PcapReader::detect("\xa1\xb2\xc3\xd4", 4), PcapReader::FORMAT_PCAP);
    EXPECT_EQ(PcapReader::detect("\x4d\x3c\xb2\xa1", 4), PcapReader::FORMAT_PCAP);
    EXPECT_EQ(PcapReader::detect("\xa1\xb2\x3c\x4d", 4), PcapReader::FORMAT_PCAP);
    EXPECT_EQ(PcapReader::detect("\x0a\x0d\x0d\x0a", 4), PcapReader::FORMAT_PCAPNG);
    EXPECT_EQ(PcapReader::detect("(170", 4), PcapReader::FORMAT_OTHER);
    EXPECT_EQ(PcapReader::detect("\xd4\xc3\xb2", 3), PcapReader::FORMAT_OTHER);
}

// Tests of `cantp decode`, run as a process on logs that the tests write.
//
// Every input log and every expected report below is written out by hand, frame by frame and
// byte by byte; nothing expected is computed by the decoder or by a helper. Frame lines have
// the columns TIME (17 wide), IFACE (5), ID (8), KIND (12) and PARAM, each followed by one blank.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/CantpRun.h"
#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

using RunResult = qbtest::CantpRun;

/// Writes `input`, closes standard input and waits for `cantp` to exit (at most 10 s), taking
/// all it wrote.
RunResult finish(Subprocess& process, const std::string& input = "") {
    return qbtest::finishCantp(process, input, 10s);
}

/// Runs `cantp` with `args` and `input` on its standard input to the end (at most 10 s).
RunResult runCantp(const std::vector<std::string>& args, const std::string& input = "") {
    return qbtest::runCantp(args, input, 10s);
}

/// `cantp` with `args` and `input` to the end; expects exit status 0 and no diagnostics, and
/// returns the report.
std::string decodeOutput(const std::vector<std::string>& args, const std::string& input = "") {
    const RunResult r = runCantp(args, input);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    return r.out;
}

/// A temporary directory for the logs of one test, removed with what the test put into it.
class DecodeCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/cantp-decode-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        ASSERT_NE(::mkdtemp(buffer.data()), nullptr) << std::strerror(errno);
        dir = buffer.data();
    }

    void TearDown() override {
        for (const std::string& file : files) {
            ::unlink(file.c_str());
        }
        if (!dir.empty()) {
            ::rmdir(dir.c_str());
        }
    }

    /// Writes `text` to a file `name` in the directory; returns its path.
    std::string writeLog(const std::string& name, const std::string& text) {
        const std::string path = dir + "/" + name;
        std::ofstream file(path, std::ios::binary);
        file << text;
        file.close();
        EXPECT_TRUE(file) << "cannot write " << path;
        files.push_back(path);
        return path;
    }

    /// `cantp decode FILE` on a log holding `text`; expects exit status 0 and no diagnostics.
    std::string decodeLog(const std::string& text) {
        return decodeOutput({"decode", writeLog("trace.log", text)});
    }

    std::string dir;
    std::vector<std::string> files;
};

// ---- Payloads ------------------------------------------------------------------------------

TEST_F(DecodeCommand, SingleFrameDeliversItsPayloadAtOnce) {
    EXPECT_EQ(decodeLog("(1700000000.100000) can0 7E8#0341424300000000\n"),
              "1700000000.100000 can0  7E8      single       len=3\n"
              "payload can0 7E8 len=3 414243\n"
              "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=3 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SingleFrameOfSevenBytesFillsTheFrame) {
    EXPECT_EQ(decodeLog("can0 7E8#07A1A2A3A4A5A6A7\n"),
              "-                 can0  7E8      single       len=7\n"
              "payload can0 7E8 len=7 A1A2A3A4A5A6A7\n"
              "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=7 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SegmentedPayloadOfTwentyBytesWithFlowControlFromThePeer) {
    EXPECT_EQ(decodeLog("(1700000000.200000) can0 7E0#1014000102030405\n"
                        "(1700000000.201000) can0 7E8#3100000000000000\n"
                        "(1700000000.202000) can0 7E0#20060708090A0B0C\n"
                        "(1700000000.203000) can0 7E0#210D0E0F10111213\n"
                        "(1700000000.204000) can0 7E8#3300000000000000\n"),
              "1700000000.200000 can0  7E0      first        len=20\n"
              "1700000000.201000 can0  7E8      flow-control CTP_FC_READY_TO_RECEIVE\n"
              "1700000000.202000 can0  7E0      consecutive  sn=0\n"
              "1700000000.203000 can0  7E0      consecutive  sn=1\n"
              "payload can0 7E0 len=20 000102030405060708090A0B0C0D0E0F10111213\n"
              "1700000000.204000 can0  7E8      flow-control CTP_FC_ACKNOWLEDGE\n"
              "summary frames=5 single=0 first=1 consecutive=2 flow-control=2 invalid=0\n"
              "summary payloads=1 bytes=20 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, PaddingAfterTheAnnouncedLengthIsNotTaken) {
    EXPECT_EQ(decodeLog("can0 7E0#100AA0A1A2A3A4A5\n"
                        "can0 7E0#20A6A7A8A9000000\n"),
              "-                 can0  7E0      first        len=10\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=10 A0A1A2A3A4A5A6A7A8A9\n"
              "summary frames=2 single=0 first=1 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=10 errors=0 unparsable=0 incomplete=0\n");
}

// 125 bytes = 6 in the first frame + 17 consecutive frames of 7: SN 0..15, then 0 again.
const char LONG_TRANSFER_HEAD[] =
    "can0 7E0#107D000102030405\n"
    "can0 7E0#20060708090A0B0C\n"
    "can0 7E0#210D0E0F10111213\n"
    "can0 7E0#221415161718191A\n"
    "can0 7E0#231B1C1D1E1F2021\n"
    "can0 7E0#2422232425262728\n"
    "can0 7E0#25292A2B2C2D2E2F\n"
    "can0 7E0#2630313233343536\n"
    "can0 7E0#273738393A3B3C3D\n"
    "can0 7E0#283E3F4041424344\n"
    "can0 7E0#2945464748494A4B\n"
    "can0 7E0#2A4C4D4E4F505152\n"
    "can0 7E0#2B53545556575859\n"
    "can0 7E0#2C5A5B5C5D5E5F60\n"
    "can0 7E0#2D61626364656667\n"
    "can0 7E0#2E68696A6B6C6D6E\n"
    "can0 7E0#2F6F707172737475\n";

const char LONG_TRANSFER_HEAD_REPORT[] =
    "-                 can0  7E0      first        len=125\n"
    "-                 can0  7E0      consecutive  sn=0\n"
    "-                 can0  7E0      consecutive  sn=1\n"
    "-                 can0  7E0      consecutive  sn=2\n"
    "-                 can0  7E0      consecutive  sn=3\n"
    "-                 can0  7E0      consecutive  sn=4\n"
    "-                 can0  7E0      consecutive  sn=5\n"
    "-                 can0  7E0      consecutive  sn=6\n"
    "-                 can0  7E0      consecutive  sn=7\n"
    "-                 can0  7E0      consecutive  sn=8\n"
    "-                 can0  7E0      consecutive  sn=9\n"
    "-                 can0  7E0      consecutive  sn=10\n"
    "-                 can0  7E0      consecutive  sn=11\n"
    "-                 can0  7E0      consecutive  sn=12\n"
    "-                 can0  7E0      consecutive  sn=13\n"
    "-                 can0  7E0      consecutive  sn=14\n"
    "-                 can0  7E0      consecutive  sn=15\n";

TEST_F(DecodeCommand, SequenceNumberWrapsToZeroAfterFifteen) {
    EXPECT_EQ(decodeLog(std::string(LONG_TRANSFER_HEAD) + "can0 7E0#20767778797A7B7C\n"),
              std::string(LONG_TRANSFER_HEAD_REPORT) +
                  "-                 can0  7E0      consecutive  sn=0\n"
                  "payload can0 7E0 len=125 "
                  "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F"
                  "202122232425262728292A2B2C2D2E2F303132333435363738393A3B3C3D3E3F"
                  "404142434445464748494A4B4C4D4E4F505152535455565758595A5B5C5D5E5F"
                  "606162636465666768696A6B6C6D6E6F707172737475767778797A7B7C\n"
                  "summary frames=18 single=0 first=1 consecutive=17 flow-control=0 invalid=0\n"
                  "summary payloads=1 bytes=125 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SequenceNumberSixteenIsNotAccepted) {
    // After SN 15 only 0 is right; 1 (what 16 would be without the wrap) is wrong.
    EXPECT_EQ(decodeLog(std::string(LONG_TRANSFER_HEAD) + "can0 7E0#21767778797A7B7C\n"),
              std::string(LONG_TRANSFER_HEAD_REPORT) +
                  "-                 can0  7E0      consecutive  sn=1\n"
                  "error can0 7E0: wrong sequence number: got 1, expected 0 "
                  "(118 of 125 bytes dropped)\n"
                  "summary frames=18 single=0 first=1 consecutive=17 flow-control=0 invalid=0\n"
                  "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, TransfersOfTwoIdentifiersInterleavedAreKeptApart) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can0 7E8#1009202122232425\n"
                        "can0 7E8#2026272829000000\n"
                        "can0 7E0#2016170000000000\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can0  7E8      first        len=9\n"
              "-                 can0  7E8      consecutive  sn=0\n"
              "payload can0 7E8 len=9 202122232425262728\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=4 single=0 first=2 consecutive=2 flow-control=0 invalid=0\n"
              "summary payloads=2 bytes=17 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SameIdentifierOnTwoInterfacesIsTwoTransfers) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can1 7E0#2030313233343536\n"
                        "can0 7E0#2016170000000000\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can1  7E0      consecutive  sn=0\n"
              "error can1 7E0: consecutive frame out of place (no first frame)\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=3 single=0 first=1 consecutive=2 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=8 errors=1 unparsable=0 incomplete=0\n");
}

// ---- Frame forms ---------------------------------------------------------------------------

TEST_F(DecodeCommand, BareFormAndExtendedIdentifiers) {
    // "00000123" is extended although its value fits 11 bits: a different identifier from 123.
    EXPECT_EQ(decodeLog("vcan0 18DA10F1#100B000102030405\n"
                        "vcan0 00000123#1008A0A1A2A3A4A5\n"
                        "vcan0 123#20B6B70000000000\n"
                        "vcan0 18da10f1#20060708090a0000\n"
                        "vcan0 00000123#20A6A7\n"),
              "-                 vcan0 18DA10F1 first        len=11\n"
              "-                 vcan0 00000123 first        len=8\n"
              "-                 vcan0 123      consecutive  sn=0\n"
              "error vcan0 123: consecutive frame out of place (no first frame)\n"
              "-                 vcan0 18DA10F1 consecutive  sn=0\n"
              "payload vcan0 18DA10F1 len=11 000102030405060708090A\n"
              "-                 vcan0 00000123 consecutive  sn=0\n"
              "payload vcan0 00000123 len=8 A0A1A2A3A4A5A6A7\n"
              "summary frames=5 single=0 first=2 consecutive=3 flow-control=0 invalid=0\n"
              "summary payloads=2 bytes=19 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, TimeStampIsShownAsWritten) {
    EXPECT_EQ(decodeLog("(0000000001.000000) can0 7E8#0111\n"
                        "(1.000001) can0 7E8#0122\n"
                        "(17000000001.999999) can0 7E8#0133 R\n"
                        "  (1.500000)\tcan0   7E8#01.44  \r\n"),
              "0000000001.000000 can0  7E8      single       len=1\n"
              "payload can0 7E8 len=1 11\n"
              "1.000001          can0  7E8      single       len=1\n"
              "payload can0 7E8 len=1 22\n"
              "17000000001.999999 can0  7E8      single       len=1\n"
              "payload can0 7E8 len=1 33\n"
              "1.500000          can0  7E8      single       len=1\n"
              "payload can0 7E8 len=1 44\n"
              "summary frames=4 single=4 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=4 bytes=4 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, LongInterfaceNameWidensItsLineOnly) {
    EXPECT_EQ(decodeLog("(1.000000) vcan10 7E8#0111\n"),
              "1.000000          vcan10 7E8      single       len=1\n"
              "payload vcan10 7E8 len=1 11\n"
              "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=1 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FlowControlCodesByName) {
    EXPECT_EQ(decodeLog("can0 7E8#3000000000000000\n"
                        "can0 7E8#31\n"
                        "can0 7E8#3200000000000000\n"
                        "can0 7E8#3300000000000000\n"
                        "can0 7E8#3400000000000000\n"
                        "can0 7E8#3F\n"),
              "-                 can0  7E8      flow-control CTP_FC_NOT_READY_TO_RECEIVE\n"
              "-                 can0  7E8      flow-control CTP_FC_READY_TO_RECEIVE\n"
              "-                 can0  7E8      flow-control CTP_FC_NOT_ACKNOWLEDGE\n"
              "-                 can0  7E8      flow-control CTP_FC_ACKNOWLEDGE\n"
              "-                 can0  7E8      flow-control code=4 (unknown)\n"
              "-                 can0  7E8      flow-control code=15 (unknown)\n"
              "summary frames=6 single=0 first=0 consecutive=0 flow-control=6 invalid=0\n"
              "summary payloads=0 bytes=0 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FlowControlDoesNotTouchAnOpenTransferOfTheSameIdentifier) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can0 7E0#3100000000000000\n"
                        "can0 7E0#2016170000000000\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can0  7E0      flow-control CTP_FC_READY_TO_RECEIVE\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=3 single=0 first=1 consecutive=1 flow-control=1 invalid=0\n"
              "summary payloads=1 bytes=8 errors=0 unparsable=0 incomplete=0\n");
}

// ---- Protocol errors -----------------------------------------------------------------------

TEST_F(DecodeCommand, ConsecutiveFrameWithoutFirstFrameIsOutOfPlace) {
    EXPECT_EQ(decodeLog("can0 7E0#2011223344556677\n"),
              "-                 can0  7E0      consecutive  sn=0\n"
              "error can0 7E0: consecutive frame out of place (no first frame)\n"
              "summary frames=1 single=0 first=0 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, WrongSequenceNumberDropsTheTransfer) {
    EXPECT_EQ(decodeLog("(1.000000) can0 7E0#1014000102030405\n"
                        "(1.000100) can0 7E0#20060708090A0B0C\n"
                        "(1.000200) can0 7E0#220D0E0F10111213\n"
                        "(1.000300) can0 7E0#210D0E0F10111213\n"),
              "1.000000          can0  7E0      first        len=20\n"
              "1.000100          can0  7E0      consecutive  sn=0\n"
              "1.000200          can0  7E0      consecutive  sn=2\n"
              "error can0 7E0: wrong sequence number: got 2, expected 1 (13 of 20 bytes "
              "dropped)\n"
              "1.000300          can0  7E0      consecutive  sn=1\n"
              "error can0 7E0: consecutive frame out of place (no first frame)\n"
              "summary frames=4 single=0 first=1 consecutive=3 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FirstConsecutiveFrameMustCarrySequenceNumberZero) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can0 7E0#2116170000000000\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can0  7E0      consecutive  sn=1\n"
              "error can0 7E0: wrong sequence number: got 1, expected 0 (6 of 8 bytes dropped)\n"
              "summary frames=2 single=0 first=1 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, UnknownFrameKindIsInvalid) {
    EXPECT_EQ(decodeLog("can0 7E0#4500000000000000\n"
                        "can0 7E0#F0\n"),
              "-                 can0  7E0      invalid      unknown kind 0x4\n"
              "error can0 7E0: unknown frame kind 0x4\n"
              "-                 can0  7E0      invalid      unknown kind 0xF\n"
              "error can0 7E0: unknown frame kind 0xF\n"
              "summary frames=2 single=0 first=0 consecutive=0 flow-control=0 invalid=2\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FirstByteZeroIsInvalid) {
    // An empty payload would be sent exactly like this, and is still refused.
    EXPECT_EQ(decodeLog("can0 7E0#0000000000000000\n"),
              "-                 can0  7E0      invalid      DATA[0]=0x00\n"
              "error can0 7E0: invalid frame: DATA[0]=0x00\n"
              "summary frames=1 single=0 first=0 consecutive=0 flow-control=0 invalid=1\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, InvalidFrameLeavesAnOpenTransferAlone) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can0 7E0#00\n"
                        "can0 7E0#2016170000000000\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can0  7E0      invalid      DATA[0]=0x00\n"
              "error can0 7E0: invalid frame: DATA[0]=0x00\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=3 single=0 first=1 consecutive=1 flow-control=0 invalid=1\n"
              "summary payloads=1 bytes=8 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FrameWithoutDataByteIsInvalid) {
    EXPECT_EQ(decodeLog("can0 7E0#\n"),
              "-                 can0  7E0      invalid      no data byte\n"
              "error can0 7E0: frame without data byte\n"
              "summary frames=1 single=0 first=0 consecutive=0 flow-control=0 invalid=1\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FirstFrameOfOneByteIsInvalid) {
    EXPECT_EQ(decodeLog("can0 7E0#10\n"),
              "-                 can0  7E0      invalid      1 byte, PCI needs 2\n"
              "error can0 7E0: first frame of 1 byte: its PCI needs 2\n"
              "summary frames=1 single=0 first=0 consecutive=0 flow-control=0 invalid=1\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FirstFrameDuringAnOpenTransferStartsANewOne) {
    EXPECT_EQ(decodeLog("can0 7E0#1014000102030405\n"
                        "can0 7E0#20060708090A0B0C\n"
                        "can0 7E0#1008101112131415\n"
                        "can0 7E0#2016170000000000\n"),
              "-                 can0  7E0      first        len=20\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "-                 can0  7E0      first        len=8\n"
              "error can0 7E0: first frame while a transfer is open (13 of 20 bytes dropped)\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=4 single=0 first=2 consecutive=2 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=8 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SingleFrameDuringAnOpenTransferIsDeliveredAndTheTransferDropped) {
    EXPECT_EQ(decodeLog("can0 7E0#1014000102030405\n"
                        "can0 7E0#02AABB0000000000\n"
                        "can0 7E0#20060708090A0B0C\n"),
              "-                 can0  7E0      first        len=20\n"
              "-                 can0  7E0      single       len=2\n"
              "error can0 7E0: single frame while a transfer is open (6 of 20 bytes dropped)\n"
              "payload can0 7E0 len=2 AABB\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "error can0 7E0: consecutive frame out of place (no first frame)\n"
              "summary frames=3 single=1 first=1 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=2 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, TransfersOpenAtTheEndAreReportedInTheOrderTheyStarted) {
    EXPECT_EQ(decodeLog("can0 7E8#1014000102030405\n"
                        "can0 7E0#1009A0A1A2A3A4A5\n"
                        "can0 7E8#20060708090A0B0C\n"),
              "-                 can0  7E8      first        len=20\n"
              "-                 can0  7E0      first        len=9\n"
              "-                 can0  7E8      consecutive  sn=0\n"
              "error can0 7E8: transfer incomplete at end of log (13 of 20 bytes)\n"
              "error can0 7E0: transfer incomplete at end of log (6 of 9 bytes)\n"
              "summary frames=3 single=0 first=2 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=2\n");
}

TEST_F(DecodeCommand, SingleFrameAnnouncingMoreThanSevenBytesDeliversNothing) {
    EXPECT_EQ(decodeLog("can0 7E0#0911223344556677\n"
                        "can0 7E0#0F11223344556677\n"),
              "-                 can0  7E0      single       len=9\n"
              "error can0 7E0: single frame announces 9 bytes, carries 7\n"
              "-                 can0  7E0      single       len=15\n"
              "error can0 7E0: single frame announces 15 bytes, carries 7\n"
              "summary frames=2 single=2 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, SingleFrameShorterThanItsLengthDeliversNothing) {
    EXPECT_EQ(decodeLog("can0 7E0#0511\n"
                        "can0 7E0#01\n"),
              "-                 can0  7E0      single       len=5\n"
              "error can0 7E0: single frame announces 5 bytes, carries 1\n"
              "-                 can0  7E0      single       len=1\n"
              "error can0 7E0: single frame announces 1 byte, carries 0\n"
              "summary frames=2 single=2 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, FirstFrameAnnouncingFewerThanEightBytesStartsNothing) {
    EXPECT_EQ(decodeLog("can0 7E0#1007000102030405\n"
                        "can0 7E0#1000000102030405\n"
                        "can0 7E0#2006000000000000\n"),
              "-                 can0  7E0      first        len=7\n"
              "error can0 7E0: first frame announces 7 bytes: a first frame starts a payload of "
              "8 bytes or more\n"
              "-                 can0  7E0      first        len=0\n"
              "error can0 7E0: first frame announces 0 bytes: a first frame starts a payload of "
              "8 bytes or more\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "error can0 7E0: consecutive frame out of place (no first frame)\n"
              "summary frames=3 single=0 first=2 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=3 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, LongestAnnouncedLengthIsRead) {
    // 0x1F 0xFF: 4095 bytes; only the first frame is in the log.
    EXPECT_EQ(decodeLog("can0 7E0#1FFF000102030405\n"),
              "-                 can0  7E0      first        len=4095\n"
              "error can0 7E0: transfer incomplete at end of log (6 of 4095 bytes)\n"
              "summary frames=1 single=0 first=1 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=1\n");
}

TEST_F(DecodeCommand, FirstFrameWithFewerThanSixPayloadBytesStartsNothing) {
    EXPECT_EQ(decodeLog("can0 7E0#1014AABB\n"
                        "can0 7E0#1014\n"),
              "-                 can0  7E0      first        len=20\n"
              "error can0 7E0: first frame carries 2 payload bytes, needs 6\n"
              "-                 can0  7E0      first        len=20\n"
              "error can0 7E0: first frame carries 0 payload bytes, needs 6\n"
              "summary frames=2 single=0 first=2 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=2 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, ShortConsecutiveFrameDropsTheTransfer) {
    EXPECT_EQ(decodeLog("can0 7E0#1014000102030405\n"
                        "can0 7E0#2006\n"),
              "-                 can0  7E0      first        len=20\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "error can0 7E0: consecutive frame carries 1 payload byte, needs 7 (6 of 20 bytes "
              "dropped)\n"
              "summary frames=2 single=0 first=1 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, LastConsecutiveFrameNeedsOnlyTheMissingBytes) {
    EXPECT_EQ(decodeLog("can0 7E0#1008101112131415\n"
                        "can0 7E0#201617\n"),
              "-                 can0  7E0      first        len=8\n"
              "-                 can0  7E0      consecutive  sn=0\n"
              "payload can0 7E0 len=8 1011121314151617\n"
              "summary frames=2 single=0 first=1 consecutive=1 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=8 errors=0 unparsable=0 incomplete=0\n");
}

// ---- Lines that are not frames -------------------------------------------------------------

TEST_F(DecodeCommand, UnparsableLinesAreReportedWithTheirNumberAndSkipped) {
    // Blank and comment lines count for the line numbers.
    EXPECT_EQ(decodeLog("# trace of the bench\n"
                        "\n"
                        "garbage\n"
                        "can0 7E0#123\n"
                        "   \t\n"
                        "can0 7E0#0111\n"),
              "line 3: error: expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got "
              "\"garbage\"\n"
              "line 4: error: data \"123\" has an odd number of hex digits\n"
              "-                 can0  7E0      single       len=1\n"
              "payload can0 7E0 len=1 11\n"
              "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=1 errors=0 unparsable=2 incomplete=0\n");
}

TEST_F(DecodeCommand, RemoteAndFdFramesAreRefused) {
    EXPECT_EQ(decodeLog("(1700000000.000001) can0 7E0#R\n"
                        "can0 7E0#R5\n"
                        "can0 7E0##1112233\n"),
              "line 1: error: \"7E0#R\" is a remote frame, not a classic CAN data frame\n"
              "line 2: error: \"7E0#R5\" is a remote frame, not a classic CAN data frame\n"
              "line 3: error: \"7E0##1112233\" is a CAN FD frame, not a classic CAN data frame\n"
              "summary frames=0 single=0 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=0 unparsable=3 incomplete=0\n");
}

TEST_F(DecodeCommand, OverlongLineIsReportedWithoutBeingKept) {
    const std::string longLine(5000, 'A');
    EXPECT_EQ(decodeLog(longLine + "\ncan0 7E0#0111\n" + longLine),
              "line 1: error: line longer than 4096 characters\n"
              "-                 can0  7E0      single       len=1\n"
              "payload can0 7E0 len=1 11\n"
              "line 3: error: line longer than 4096 characters\n"
              "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=1 bytes=1 errors=0 unparsable=2 incomplete=0\n");
}

TEST_F(DecodeCommand, LastLineWithoutLineEndAndCarriageReturnsAreRead) {
    EXPECT_EQ(decodeLog("can0 7E0#0111\r\n\r\ncan0 7E0#0122"),
              "-                 can0  7E0      single       len=1\n"
              "payload can0 7E0 len=1 11\n"
              "-                 can0  7E0      single       len=1\n"
              "payload can0 7E0 len=1 22\n"
              "summary frames=2 single=2 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=2 bytes=2 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(DecodeCommand, EmptyLogGivesOnlyTheSummary) {
    EXPECT_EQ(decodeLog(""),
              "summary frames=0 single=0 first=0 consecutive=0 flow-control=0 invalid=0\n"
              "summary payloads=0 bytes=0 errors=0 unparsable=0 incomplete=0\n");
}

// ---- Input source and command line ---------------------------------------------------------

const char STDIN_LOG[] =
    "(1700000000.000000) can0 7E0#1008101112131415\n"
    "(1700000000.000500) can0 7E0#2016170000000000\n";

const char STDIN_REPORT[] =
    "1700000000.000000 can0  7E0      first        len=8\n"
    "1700000000.000500 can0  7E0      consecutive  sn=0\n"
    "payload can0 7E0 len=8 1011121314151617\n"
    "summary frames=2 single=0 first=1 consecutive=1 flow-control=0 invalid=0\n"
    "summary payloads=1 bytes=8 errors=0 unparsable=0 incomplete=0\n";

TEST_F(DecodeCommand, ReadsStandardInputForDash) {
    EXPECT_EQ(decodeOutput({"decode", "-"}, STDIN_LOG), STDIN_REPORT);
}

TEST_F(DecodeCommand, ReadsStandardInputWithoutFile) {
    EXPECT_EQ(decodeOutput({"decode"}, STDIN_LOG), STDIN_REPORT);
}

TEST_F(DecodeCommand, EachLineIsReportedBeforeTheInputEnds) {
    // The way `candump -L can0 | cantp decode` is used: output must not wait for the end.
    Subprocess process(qbtest::cantpPath(), {"decode"});
    EXPECT_TRUE(process.write("(1700000000.000000) can0 7E0#1008101112131415\n") &&
                process.waitForOutText("first        len=8\n", 5s));
    EXPECT_TRUE(process.write("(1700000000.000500) can0 7E0#2016170000000000\n") &&
                process.waitForOutText("payload can0 7E0 len=8 1011121314151617\n", 5s));
    const RunResult r = finish(process);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, STDIN_REPORT);
    EXPECT_EQ(r.err, "");
}

TEST_F(DecodeCommand, DoubleDashEndsTheOptions) {
    EXPECT_EQ(decodeOutput({"decode", "--", writeLog("trace.log", STDIN_LOG)}), STDIN_REPORT);
}

TEST_F(DecodeCommand, HelpPrintsUsageAndExitsZero) {
    for (const char* option : {"--help", "-h"}) {
        const RunResult r = runCantp({"decode", option});
        EXPECT_EQ(r.status, 0) << option;
        EXPECT_EQ(r.out.substr(0, r.out.find('\n') + 1), "Usage: cantp decode [FILE]\n") << option;
        EXPECT_NE(r.out.find("\nExamples:\n  cantp decode trace.log\n"), std::string::npos)
            << option;
        EXPECT_EQ(r.err, "") << option;
    }
}

TEST_F(DecodeCommand, UnknownOptionIsAUsageError) {
    const RunResult r = runCantp({"decode", "--bogus"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "cantp decode: unknown option '--bogus'\n"
              "Try 'cantp decode --help'.\n");
}

TEST_F(DecodeCommand, TwoFilesAreAUsageError) {
    const RunResult r = runCantp({"decode", "a.log", "b.log"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err,
              "cantp decode: more than one FILE ('a.log', 'b.log')\n"
              "Try 'cantp decode --help'.\n");
}

TEST_F(DecodeCommand, MissingFileExitsOne) {
    const std::string path = dir + "/no-such.log";
    const RunResult r = runCantp({"decode", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "cantp decode: cannot open " + path + ": No such file or directory\n");
}

TEST_F(DecodeCommand, FailedWriteOfTheReportExitsOne) {
    Subprocess process(qbtest::cantpPath(), {"decode", writeLog("trace.log", STDIN_LOG)},
                       "/dev/full");
    const RunResult r = finish(process);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp decode: cannot write standard output\n");
}

TEST_F(DecodeCommand, DirectoryExitsOne) {
    const RunResult r = runCantp({"decode", dir});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "cantp decode: cannot read " + dir + ": Is a directory\n");
}

}  // namespace

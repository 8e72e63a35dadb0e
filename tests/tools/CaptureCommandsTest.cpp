// Tests of the pcap side of the cantp tool: `cantp convert`, `cantp decode` on pcap captures and
// with --fields and --ids, and `cantp demo --pcap`. Logs, capture bytes and expected reports
// are written out by hand.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/CantpRun.h"
#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

using RunResult = qbtest::CantpRun;
using qbtest::runCantp;

std::string bytes(std::initializer_list<int> values) {
    std::string s;
    for (int v : values) {
        s += static_cast<char>(v);
    }
    return s;
}

const std::string PCAP_HEADER = bytes({0xd4, 0xc3, 0xb2, 0xa1, 0x02, 0x00, 0x04, 0x00,  //
                                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
                                       0x10, 0x00, 0x00, 0x00, 0xe3, 0x00, 0x00, 0x00});

// (1700000000.123456) 7E0#1014000102030405
const std::string RECORD_FIRST = bytes({0x00, 0xf1, 0x53, 0x65, 0x40, 0xe2, 0x01, 0x00,  //
                                        0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                        0x00, 0x00, 0x07, 0xe0, 0x08, 0x00, 0x00, 0x00,  //
                                        0x10, 0x14, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05});
// (1700000000.123457) 7E8#31
const std::string RECORD_FC = bytes({0x00, 0xf1, 0x53, 0x65, 0x41, 0xe2, 0x01, 0x00,  //
                                     0x10, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x00,  //
                                     0x00, 0x00, 0x07, 0xe8, 0x01, 0x00, 0x00, 0x00,  //
                                     0x31, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
// (0000000000.000000) 7E0#R3: a remote frame
const std::string RECORD_REMOTE =
    bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0,  //
           0x40, 0x00, 0x07, 0xe0, 0x03, 0, 0, 0,                                //
           0,    0,    0,    0,    0,    0, 0, 0});

class CaptureCommands : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/cantp-capture-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        ASSERT_NE(::mkdtemp(buffer.data()), nullptr) << std::strerror(errno);
        dir = buffer.data();
    }

    void TearDown() override {
        for (const char* name : {"in.log", "out.log", "in.pcap", "out.pcap", "out.bin", "demo.log",
                                 "demo.pcap", "back.log"}) {
            ::unlink(path(name).c_str());
        }
        ::rmdir(dir.c_str());
    }

    std::string path(const std::string& name) const { return dir + "/" + name; }

    std::string writeFile(const std::string& name, const std::string& content) {
        std::ofstream file(path(name), std::ios::binary);
        file << content;
        file.close();
        EXPECT_TRUE(file) << "cannot write " << path(name);
        return path(name);
    }

    std::string readFile(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }

    bool exists(const std::string& name) const {
        struct stat st {};
        return ::stat(path(name).c_str(), &st) == 0;
    }

    std::string dir;
};

}  // namespace

// ---- cantp convert ---------------------------------------------------------------------------

TEST_F(CaptureCommands, ConvertWritesCandumpLinesAsPcapRecords) {
    writeFile("in.log",
              "(1700000000.123456) can0 7E0#1014000102030405\n"
              "(1700000000.123457) can0 7E8#31\n");
    const RunResult r = runCantp({"convert", path("in.log"), path("out.pcap")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(readFile("out.pcap"), PCAP_HEADER + RECORD_FIRST + RECORD_FC);
}

TEST_F(CaptureCommands, ConvertWritesPcapRecordsAsCandumpLines) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_FIRST + RECORD_FC);
    const RunResult r = runCantp({"convert", path("in.pcap"), path("out.log")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(readFile("out.log"),
              "(1700000000.123456) can0 7E0#1014000102030405\n"
              "(1700000000.123457) can0 7E8#31\n");
}

TEST_F(CaptureCommands, ConvertRoundTripCandumpPcapCandumpIsByteIdentical) {
    const std::string log =
        "(1700000000.000000) vcan0 7E0#1014000102030405\n"
        "(1700000000.000765) vcan0 7E8#3100000000000000\n"
        "(1700000000.001230) vcan0 7E0#20060708090A0B0C\n"
        "(1700000000.999999) vcan0 18DAF110#0341424300000000\n"
        "(1700000001.000000) vcan0 00000001#\n"
        "(1700000001.500000) vcan0 000#FF\n"
        "(4294967295.999999) vcan0 7FF#0102030405060708\n"
        "(0000000000.000000) vcan0 1FFFFFFF#A5\n";
    writeFile("in.log", log);
    ASSERT_EQ(runCantp({"convert", path("in.log"), path("out.pcap")}).status, 0);
    const RunResult r =
        runCantp({"convert", "--iface", "vcan0", path("out.pcap"), path("back.log")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(readFile("back.log"), log);
}

TEST_F(CaptureCommands, ConvertOutputFormatComesFromToThenExtensionThenTheOtherFormat) {
    writeFile("in.log", "(1700000000.123456) can0 7E0#1014000102030405\n");
    // Extension .bin says nothing: the other format than IN's, pcap.
    ASSERT_EQ(runCantp({"convert", path("in.log"), path("out.bin")}).status, 0);
    EXPECT_EQ(readFile("out.bin"), PCAP_HEADER + RECORD_FIRST);
    // --to wins over the extension.
    ASSERT_EQ(runCantp({"convert", "--to", "candump", path("in.log"), path("out.pcap")}).status, 0);
    EXPECT_EQ(readFile("out.pcap"), "(1700000000.123456) can0 7E0#1014000102030405\n");
    // Standard input and output, candump from pcap.
    const RunResult r = runCantp({"convert", "-", "-"}, PCAP_HEADER + RECORD_FC);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "(1700000000.123457) can0 7E8#31\n");
}

TEST_F(CaptureCommands, ConvertRefusesSeveralInterfacesForPcapAndRemovesOut) {
    writeFile("in.log",
              "(1700000000.000000) can0 7E0#01\n"
              "(1700000000.000001) can1 7E0#02\n");
    const RunResult r = runCantp({"convert", path("in.log"), path("out.pcap")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp convert: " + path("in.log") +
                         ": line 2: interface can1 after can0: a pcap capture (link type 227) "
                         "has no interface name, so one file holds one interface (split the "
                         "log first, e.g. with grep)\n");
    EXPECT_FALSE(exists("out.pcap"));
}

TEST_F(CaptureCommands, ConvertStopsAtAnUnreadableLine) {
    writeFile("in.log",
              "# a comment\n"
              "(1700000000.000000) can0 7E0#01\n"
              "(1700000000.000001) can0 7E0#R\n");
    const RunResult r = runCantp({"convert", path("in.log"), path("out.pcap")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp convert: " + path("in.log") +
                         ": line 3: \"7E0#R\" is a remote frame, not a classic CAN data frame\n");
    EXPECT_FALSE(exists("out.pcap"));
}

TEST_F(CaptureCommands, ConvertCountsWhatPcapCannotHold) {
    const RunResult r = runCantp({"convert", "--to", "pcap", "-", path("out.pcap")},
                                 "can0 7E8#31\n(1700000000.123457) can0 7E8#31 R\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "cantp convert: 1 line(s) without a time stamp written at time 0.000000\n"
              "cantp convert: the direction (R/T) of 1 line(s) dropped: pcap has no field for "
              "it\n");
    EXPECT_EQ(readFile("out.pcap"),
              PCAP_HEADER +
                  bytes({0,    0,    0,    0,    0,    0, 0, 0, 0x10, 0, 0, 0, 0x10, 0, 0, 0,  //
                         0x00, 0x00, 0x07, 0xe8, 0x01, 0, 0, 0, 0x31, 0, 0, 0, 0,    0, 0, 0}) +
                  RECORD_FC);
}

TEST_F(CaptureCommands, ConvertSkipsAndCountsRecordsThatAreNotClassicDataFrames) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_REMOTE + RECORD_FC);
    const RunResult r = runCantp({"convert", path("in.pcap"), path("out.log")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err,
              "cantp convert: 1 record(s) that are not classic CAN data frames skipped (first: "
              "record 1, a remote frame)\n");
    EXPECT_EQ(readFile("out.log"), "(1700000000.123457) can0 7E8#31\n");
}

TEST_F(CaptureCommands, ConvertFailsOnADamagedCaptureAndRemovesOut) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_FIRST + RECORD_FC.substr(0, 20));
    const RunResult r = runCantp({"convert", path("in.pcap"), path("out.log")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp convert: " + path("in.pcap") +
                         ": record 2: record cut short by the end of the file (4 of 16 bytes)\n");
    EXPECT_FALSE(exists("out.log"));
}

TEST_F(CaptureCommands, ConvertRefusesPcapngAndWritingOverIn) {
    writeFile("in.pcap", bytes({0x0a, 0x0d, 0x0d, 0x0a, 0x1c, 0, 0, 0}));
    RunResult r = runCantp({"convert", path("in.pcap"), path("out.log")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp convert: " + path("in.pcap") +
                         ": a pcapng file, not pcap: convert it with 'editcap -F pcap IN OUT'\n");
    writeFile("in.log", "(1700000000.000000) can0 7E0#01\n");
    r = runCantp({"convert", "--to", "candump", path("in.log"), path("in.log")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp convert: " + path("in.log") +
                         " is IN itself: writing it would destroy what is read\n");
    EXPECT_EQ(readFile("in.log"), "(1700000000.000000) can0 7E0#01\n");
}

TEST_F(CaptureCommands, ConvertUsageErrorsExitTwo) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"convert"}, "cantp convert: IN and OUT missing"},
        {{"convert", "a.log"}, "cantp convert: OUT missing"},
        {{"convert", "a", "b", "c"}, "cantp convert: more than IN and OUT ('c')"},
        {{"convert", "--to", "pcapng", "a", "b"},
         "cantp convert: --to must be pcap or candump, not 'pcapng'"},
        {{"convert", "--iface", "", "a", "b"},
         "cantp convert: --iface needs a name without blanks"},
        {{"convert", "--frob", "a", "b"}, "cantp convert: unknown option '--frob'"},
    };
    for (const auto& c : cases) {
        const RunResult r = runCantp(c.first);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err, c.second + "\nTry 'cantp convert --help'.\n");
    }
    const RunResult help = runCantp({"convert", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: cantp convert [options] IN OUT\n", 0), 0u);
}

// ---- cantp decode on pcap --------------------------------------------------------------------

TEST_F(CaptureCommands, DecodeReadsAPcapCaptureAsItReadsTheLog) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_FIRST + RECORD_FC);
    const std::string expected =
        "1700000000.123456 can0  7E0      first        len=20\n"
        "1700000000.123457 can0  7E8      flow-control CTP_FC_READY_TO_RECEIVE\n"
        "error can0 7E0: transfer incomplete at end of log (6 of 20 bytes)\n"
        "summary frames=2 single=0 first=1 consecutive=0 flow-control=1 invalid=0\n"
        "summary payloads=0 bytes=0 errors=1 unparsable=0 incomplete=1\n";
    RunResult r = runCantp({"decode", path("in.pcap")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, expected);
    r = runCantp({"decode"}, PCAP_HEADER + RECORD_FIRST + RECORD_FC);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, expected);
}

TEST_F(CaptureCommands, DecodeReportsRecordsThatAreNotDataFramesAndNamesTheInterface) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_REMOTE + RECORD_FC);
    const RunResult r = runCantp({"decode", "--iface", "vcan7", path("in.pcap")});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "record 1: error: remote frame, not a classic CAN data frame\n"
              "1700000000.123457 vcan7 7E8      flow-control CTP_FC_READY_TO_RECEIVE\n"
              "summary frames=1 single=0 first=0 consecutive=0 flow-control=1 invalid=0\n"
              "summary payloads=0 bytes=0 errors=0 unparsable=1 incomplete=0\n");
}

TEST_F(CaptureCommands, DecodeOfADamagedCaptureReportsWhatCameBeforeAndFails) {
    writeFile("in.pcap", PCAP_HEADER + RECORD_FC + RECORD_FIRST.substr(0, 8));
    const RunResult r = runCantp({"decode", path("in.pcap")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out,
              "1700000000.123457 can0  7E8      flow-control CTP_FC_READY_TO_RECEIVE\n"
              "summary frames=1 single=0 first=0 consecutive=0 flow-control=1 invalid=0\n"
              "summary payloads=0 bytes=0 errors=0 unparsable=0 incomplete=0\n");
    EXPECT_EQ(r.err, "cantp decode: " + path("in.pcap") +
                         ": record 2: record header cut short by the end of the file (8 of 16 "
                         "bytes)\n");
}

TEST_F(CaptureCommands, DecodeFieldsGivesOneTabSeparatedLinePerFrame) {
    const RunResult r = runCantp({"decode", "--fields"},
                                 "(1700000000.000001) can0 7E8#03414243AA\n"
                                 "(1700000000.000002) can0 7E0#100A000102030405\n"
                                 "not a frame\n"
                                 "(1700000000.000003) can0 7E8#3100000000000000\n"
                                 "(1700000000.000004) can0 7E0#2006070809000000\n"
                                 "(1700000000.000005) can0 7E0#2106\n"
                                 "(1700000000.000006) can0 18DAF110#5A\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "1\t2024\t0\t0\t3\t\t\taa\t\t3\t414243\t1\n"
              "2\t2016\t0\t1\t10\t\t\t\t\t\t\t\n"
              "# line 3: error: expected \"(SEC.USEC) IFACE ID#DATA\" or \"IFACE ID#DATA\", got "
              "\"not a frame\"\n"
              "4\t2024\t0\t3\t\t\t1\t00000000000000\t\t\t\t\n"
              "5\t2016\t0\t2\t\t0\t\t000000\t\t10\t00010203040506070809\t2|5\n"
              "6\t2016\t0\t2\t\t1\t\t\tconsecutive frame out of place (no first frame)\t\t\t\n"
              "7\t417001744\t1\t5\t\t\t\t\tunknown frame kind 0x5\t\t\t\n"
              "# summary frames=6 single=1 first=1 consecutive=2 flow-control=1 invalid=1\n"
              "# summary payloads=2 bytes=13 errors=2 unparsable=1 incomplete=0\n");
}

TEST_F(CaptureCommands, DecodeIdsLeavesOtherIdentifiersAlone) {
    const RunResult r = runCantp({"decode", "--ids", "0x7E0, 2024", "-"},
                                 "can0 123#2155555555555555\n"
                                 "can0 7E8#0211220000000000\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out,
              "-                 can0  123      other        -\n"
              "-                 can0  7E8      single       len=2\n"
              "payload can0 7E8 len=2 1122\n"
              "summary frames=2 single=1 first=0 consecutive=0 flow-control=0 invalid=0 "
              "other=1\n"
              "summary payloads=1 bytes=2 errors=0 unparsable=0 incomplete=0\n");
}

TEST_F(CaptureCommands, DecodeIdsTakesRangesAndRefusesNonsense) {
    RunResult r = runCantp({"decode", "--ids", "0x700-0x7FF", "-"}, "can0 7E8#0111\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("payload can0 7E8 len=1 11\n"), std::string::npos) << r.out;
    for (const char* bad : {"", "0x7E0,", "7E0", "0x800-0x700", "0x20000000", "1-2-3"}) {
        r = runCantp({"decode", "--ids", bad, "-"});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_EQ(r.err.rfind("cantp decode: --ids: ", 0), 0u) << r.err;
    }
}

// ---- cantp demo --pcap -----------------------------------------------------------------------

TEST_F(CaptureCommands, DemoPcapHoldsTheSameFramesAndTimesAsItsCandumpLog) {
    const RunResult demo =
        runCantp({"demo", "--fast", "--payloads", "4", "--max-size", "60", "--seed", "5", "--log",
                  path("demo.log"), "--pcap", path("demo.pcap")});
    ASSERT_EQ(demo.status, 0) << demo.out << demo.err;
    const std::string log = readFile("demo.log");
    // Four requests and four responses of 1 to 60 bytes: at least 8 frames.
    ASSERT_GE(std::count(log.begin(), log.end(), '\n'), 8);
    const RunResult back = runCantp({"convert", path("demo.pcap"), path("back.log")});
    ASSERT_EQ(back.status, 0) << back.err;
    EXPECT_EQ(readFile("back.log"), log);
    const RunResult fromPcap = runCantp({"decode", path("demo.pcap")});
    const RunResult fromLog = runCantp({"decode", path("demo.log")});
    EXPECT_EQ(fromPcap.out, fromLog.out);
    EXPECT_NE(fromPcap.out.find("summary payloads=8 "), std::string::npos) << fromPcap.out;
}

TEST_F(CaptureCommands, DemoPcapThatCannotBeOpenedExitsOne) {
    const RunResult r =
        runCantp({"demo", "--fast", "--payloads", "1", "--pcap", path("no/such/dir/demo.pcap")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp demo: cannot open " + path("no/such/dir/demo.pcap") +
                         ": No such file or directory\n");
}

TEST_F(CaptureCommands, DemoLogThatCannotBeOpenedExitsOneAndWritesNoCapture) {
    const RunResult r = runCantp({"demo", "--fast", "--payloads", "1", "--pcap", path("demo.pcap"),
                                  "--log", path("no/such/dir/demo.log")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cantp demo: cannot open " + path("no/such/dir/demo.log") +
                         ": No such file or directory\n");
    EXPECT_EQ(r.out, "");
    // The log is opened first: the run stops before the capture is created.
    EXPECT_FALSE(std::ifstream(path("demo.pcap")).good());
}

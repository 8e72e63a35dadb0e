// The Wireshark dissector (tools/wireshark/cantp.lua) run by tshark against `cantp decode`: on
// captures written by the demo's pcap tap and on hand-written captures, tshark's fields
// (`-T fields -e frame.number -e can.id ... -e cantp.payload.frame`) and `cantp decode
// --fields` must agree on every frame and every reassembled payload.
//
// Needs tshark on PATH (Debian: apt-get install --no-install-recommends tshark). Without it the
// tests are skipped, unless QB_REQUIRE_TSHARK is set (the CI stage "wireshark" sets it), when
// they fail.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

const char* const DISSECTOR = QB_DISSECTOR_PATH;

/// The fields in the order `cantp decode --fields` writes them.
const std::vector<std::string> FIELDS = {
    "frame.number",      "can.id",        "can.flags.xtd",
    "cantp.kind",        "cantp.len",     "cantp.sn",
    "cantp.fc",          "cantp.padding", "cantp.error",
    "cantp.payload.len", "cantp.payload", "cantp.payload.frame"};

std::string findTshark() {
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        const std::string candidate = (dir.empty() ? "." : dir) + "/tshark";
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::string();
}

struct ProcessResult {
    int status = -1;
    std::string out;
    std::string err;
};

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args) {
    Subprocess process(program, args);
    process.closeInput();
    ProcessResult r;
    r.status = process.wait(120s);
    r.out = process.outText();
    r.err = process.errText();
    return r;
}

std::vector<std::string> lines(const std::string& text, bool dropComments) {
    std::vector<std::string> result;
    std::stringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!(dropComments && !line.empty() && line[0] == '#')) {
            result.push_back(line);
        }
    }
    return result;
}

/// Column `index` (0-based) of a tab-separated line.
std::string column(const std::string& line, size_t index) {
    std::stringstream in(line);
    std::string field;
    for (size_t i = 0; i <= index; ++i) {
        if (!std::getline(in, field, '\t')) {
            return std::string();
        }
    }
    return field;
}

class DissectorAgreement : public ::testing::Test {
  protected:
    void SetUp() override {
        tshark = findTshark();
        if (tshark.empty()) {
            if (std::getenv("QB_REQUIRE_TSHARK") != nullptr) {
                FAIL() << "tshark not found on PATH, and QB_REQUIRE_TSHARK is set";
            }
            GTEST_SKIP() << "tshark not found on PATH (apt-get install tshark)";
        }
        const char* base = std::getenv("TMPDIR");
        std::string pattern =
            std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/cantp-ws-XXXXXX";
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        ASSERT_NE(::mkdtemp(buffer.data()), nullptr) << std::strerror(errno);
        dir = buffer.data();
    }

    void TearDown() override {
        if (dir.empty()) {
            return;
        }
        for (const char* name : {"capture.pcap", "capture.log"}) {
            ::unlink((dir + "/" + name).c_str());
        }
        ::rmdir(dir.c_str());
    }

    std::string capture() const { return dir + "/capture.pcap"; }

    /// Writes `log` (candump -L text) and converts it into capture().
    void captureFromLog(const std::string& log) {
        const std::string logPath = dir + "/capture.log";
        std::ofstream file(logPath);
        file << log;
        file.close();
        ASSERT_TRUE(file);
        const ProcessResult r = runProcess(qbtest::cantpPath(), {"convert", logPath, capture()});
        ASSERT_EQ(r.status, 0) << r.err;
    }

    /// Runs `cantp demo` with `args` and --pcap capture(). The demo's exit status is not looked
    /// at: with loss or both directions at once not every payload arrives, by design.
    void captureFromDemo(std::vector<std::string> args) {
        args.insert(args.begin(), "demo");
        args.push_back("--pcap");
        args.push_back(capture());
        const ProcessResult r = runProcess(qbtest::cantpPath(), args);
        ASSERT_TRUE(r.status == 0 || r.status == 1) << r.out << r.err;
    }

    /// tshark's field lines for capture() with the dissector, identifiers `ids`.
    std::vector<std::string> tsharkFields(const std::string& ids,
                                          const std::vector<std::string>& extra = {}) {
        std::vector<std::string> args = {
            "-r", capture(),          "-X", "lua_script:" + std::string(DISSECTOR),
            "-o", "cantp.ids:" + ids, "-T", "fields",
            "-E", "separator=/t",     "-E", "occurrence=a",
            "-E", "aggregator=|"};
        args.insert(args.end(), extra.begin(), extra.end());
        for (const std::string& field : FIELDS) {
            args.push_back("-e");
            args.push_back(field);
        }
        const ProcessResult r = runProcess(tshark, args);
        EXPECT_EQ(r.status, 0) << r.err;
        // tshark run as root says so on standard error; a Lua error would show there too.
        EXPECT_EQ(r.err.find("Lua"), std::string::npos) << r.err;
        return lines(r.out, false);
    }

    /// `cantp decode --fields` of capture() with identifiers `ids`.
    std::vector<std::string> decodeFields(const std::string& ids) {
        const ProcessResult r =
            runProcess(qbtest::cantpPath(), {"decode", "--fields", "--ids", ids, capture()});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        decodeSummary = r.out.substr(r.out.find("# summary"));
        return lines(r.out, true);
    }

    /// tshark's column `field` (one per frame) with a display filter, as "N: value" lines
    /// (tshark takes one character as separator).
    std::vector<std::string> tsharkColumn(const std::string& ids, const std::string& field,
                                          const std::string& filter = std::string()) {
        std::vector<std::string> args = {"-r", capture(),
                                         "-X", "lua_script:" + std::string(DISSECTOR),
                                         "-o", "cantp.ids:" + ids,
                                         "-T", "fields",
                                         "-E", "separator=/t",
                                         "-e", "frame.number",
                                         "-e", field};
        if (!filter.empty()) {
            args.push_back("-Y");
            args.push_back(filter);
        }
        const ProcessResult r = runProcess(tshark, args);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<std::string> result = lines(r.out, false);
        for (std::string& line : result) {
            const size_t tab = line.find('\t');
            if (tab != std::string::npos) {
                line.replace(tab, 1, ": ");
            }
        }
        return result;
    }

    /// Compares the two views line by line and returns the number of frames compared.
    size_t expectAgreement(const std::string& ids) {
        const std::vector<std::string> fromTshark = tsharkFields(ids);
        const std::vector<std::string> fromDecode = decodeFields(ids);
        EXPECT_EQ(fromTshark.size(), fromDecode.size());
        const size_t n = std::min(fromTshark.size(), fromDecode.size());
        size_t differences = 0;
        for (size_t i = 0; i < n && differences < 10; ++i) {
            if (fromTshark[i] != fromDecode[i]) {
                ++differences;
                ADD_FAILURE() << "frame " << i + 1 << " differs:\n  tshark: " << fromTshark[i]
                              << "\n  decode: " << fromDecode[i];
            }
        }
        return n;
    }

    /// Lines (of either view) with a payload, and with an error.
    static size_t countColumn(const std::vector<std::string>& view, size_t index) {
        size_t count = 0;
        for (const std::string& line : view) {
            count += column(line, index).empty() ? 0 : 1;
        }
        return count;
    }

    std::string tshark;
    std::string dir;
    std::string decodeSummary;
};

const size_t ERROR_COLUMN = 8;
const size_t PAYLOAD_COLUMN = 10;

// A segmented transfer, a wrong sequence number answered with a refusal, and the sender's retry
// from the first frame.
const std::string RETRY_LOG =
    "(1700000000.000000) can0 7E0#1014000102030405\n"
    "(1700000000.000400) can0 7E8#3100000000000000\n"
    "(1700000000.000700) can0 7E0#20060708090A0B0C\n"
    "(1700000000.000900) can0 7E0#220D0E0F10111213\n"
    "(1700000000.001200) can0 7E8#3200000000000000\n"
    "(1700000000.011500) can0 7E0#1014000102030405\n"
    "(1700000000.011900) can0 7E8#3100000000000000\n"
    "(1700000000.012200) can0 7E0#20060708090A0B0C\n"
    "(1700000000.012400) can0 7E0#210D0E0F10111213\n"
    "(1700000000.012700) can0 7E8#3300000000000000\n";

// Every protocol error the decoder and the dissector name, with traffic of identifiers 0x123
// and 0x7E1 mixed in (not the transport's: left alone) and an extended transport identifier.
const std::string ERRORS_LOG =
    "(1700000000.000001) can0 7E0#2155555555555555\n"  // consecutive frame out of place
    "(1700000000.000002) can0 123#2100000000000000\n"  // other traffic
    "(1700000000.000003) can0 7E0#1014000102030405\n"
    "(1700000000.000004) can0 7E8#3100000000000000\n"
    "(1700000000.000005) can0 7E1#1014000102030405\n"  // other traffic, looks like the transport
    "(1700000000.000006) can0 7E0#20060708090A0B0C\n"
    "(1700000000.000007) can0 7E0#220D0E0F10111213\n"  // wrong sequence number
    "(1700000000.000008) can0 7E8#3200000000000000\n"
    "(1700000000.000009) can0 7E0#1014000102030405\n"
    "(1700000000.000010) can0 7E0#1014000102030405\n"  // first frame during a transfer
    "(1700000000.000011) can0 7E0#20060708090A0B0C\n"
    "(1700000000.000012) can0 7E0#0311223300000000\n"  // single frame during a transfer
    "(1700000000.000013) can0 7E0#4500000000000000\n"  // unknown kind
    "(1700000000.000014) can0 7E0#F0\n"                // unknown kind
    "(1700000000.000015) can0 7E0#0000000000000000\n"  // DATA[0] 0x00
    "(1700000000.000016) can0 7E0#\n"                  // no data byte
    "(1700000000.000017) can0 7E0#10\n"                // first frame of 1 byte
    "(1700000000.000018) can0 7E0#1005AABBCCDDEEFF\n"  // first frame announcing 5
    "(1700000000.000019) can0 7E0#100AAABBCC\n"        // first frame too short
    "(1700000000.000020) can0 7E0#0511\n"              // single frame too short
    "(1700000000.000021) can0 7E0#100A000102030405\n"
    "(1700000000.000022) can0 7E0#200607\n"            // consecutive frame too short
    "(1700000000.000023) can0 7E8#3F00000000000000\n"  // unknown flow-control code
    "(1700000000.000024) can0 7E8#30\n"                // not ready to receive, short
    "(1700000000.000025) can0 000007E0#0341424300\n"   // extended identifier 0x7E0
    "(1700000000.000026) can0 7E0#1010000102030405\n"
    "(1700000000.000027) can0 7E0#2006070809101112\n"
    "(1700000000.000028) can0 7E0#21131415\n"
    "(1700000000.000029) can0 7E8#3300000000000000\n"
    "(1700000000.000030) can0 7E0#1009000102030405\n";  // left open at the end

}  // namespace

TEST_F(DissectorAgreement, DemoRequestResponseCaptureAgreesFrameByFrame) {
    captureFromDemo({"--fast", "--payloads", "20", "--max-size", "300", "--seed", "11"});
    const size_t frames = expectAgreement("0x7E0,0x7E8");
    EXPECT_GE(frames, 40u);
    // 20 requests and 20 responses, every one reassembled by both.
    EXPECT_EQ(countColumn(tsharkFields("0x7E0,0x7E8"), PAYLOAD_COLUMN), 40u);
}

TEST_F(DissectorAgreement, DemoCaptureWithLossAgreesFrameByFrame) {
    // Every lost frame costs the endpoints a time-out of up to a second: few payloads.
    captureFromDemo(
        {"--fast", "--payloads", "8", "--max-size", "120", "--seed", "3", "--loss", "0.05"});
    const size_t frames = expectAgreement("0x7E0,0x7E8");
    EXPECT_GE(frames, 16u);
    // Lost frames leave transfers with gaps: the views must agree on those errors too.
    EXPECT_GT(countColumn(decodeFields("0x7E0,0x7E8"), ERROR_COLUMN), 0u) << decodeSummary;
}

TEST_F(DissectorAgreement, DemoCaptureOfBothDirectionsAtOnceAgreesFrameByFrame) {
    captureFromDemo({"--fast", "--duplex", "--payloads", "15", "--max-size", "200", "--seed", "2"});
    const size_t frames = expectAgreement("0x7E0,0x7E8");
    EXPECT_GE(frames, 30u);
    EXPECT_GT(countColumn(decodeFields("0x7E0,0x7E8"), PAYLOAD_COLUMN), 0u);
}

TEST_F(DissectorAgreement, EveryProtocolErrorWithOtherTrafficMixedInAgreesFrameByFrame) {
    captureFromLog(ERRORS_LOG);
    EXPECT_EQ(expectAgreement("0x7E0,0x7E8"), 30u);
    const std::vector<std::string> errors =
        tsharkColumn("0x7E0,0x7E8", "cantp.error", "cantp.error");
    const std::vector<std::string> expected = {
        "1: consecutive frame out of place (no first frame)",
        "7: wrong sequence number: got 2, expected 1 (13 of 20 bytes dropped)",
        "10: first frame while a transfer is open (6 of 20 bytes dropped)",
        "12: single frame while a transfer is open (13 of 20 bytes dropped)",
        "13: unknown frame kind 0x4",
        "14: unknown frame kind 0xF",
        "15: invalid frame: DATA[0]=0x00",
        "16: frame without data byte",
        "17: first frame of 1 byte: its PCI needs 2",
        "18: first frame announces 5 bytes: a first frame starts a payload of 8 bytes or more",
        "19: first frame carries 3 payload bytes, needs 6",
        "20: single frame announces 5 bytes, carries 1",
        "22: consecutive frame carries 2 payload bytes, needs 4 (6 of 10 bytes dropped)",
    };
    EXPECT_EQ(errors, expected);
}

TEST_F(DissectorAgreement, OtherIdentifiersAreLeftToTheCanDissector) {
    captureFromLog(ERRORS_LOG);
    // Frames 2 (0x123) and 5 (0x7E1) carry no transport field.
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.kind", "frame.number == 2 || frame.number == 5"),
              (std::vector<std::string>{"2: ", "5: "}));
    // With the preference on 0x7E1 only frame 5 is the transport's, a first frame.
    EXPECT_EQ(tsharkColumn("0x7E1", "cantp.kind", "cantp"), (std::vector<std::string>{"5: 1"}));
    EXPECT_EQ(expectAgreement("0x7E1"), 30u);
    // A range and every identifier.
    EXPECT_EQ(expectAgreement("0x700-0x7FF"), 30u);
    EXPECT_EQ(expectAgreement("0-0x1FFFFFFF"), 30u);
}

TEST_F(DissectorAgreement, InfoColumnAndFiltersShowTheRefusalAndTheRetry) {
    captureFromLog(RETRY_LOG);
    EXPECT_EQ(expectAgreement("0x7E0,0x7E8"), 10u);
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "_ws.col.Info"),
              (std::vector<std::string>{
                  "1: 7E0 first len=20",
                  "2: 7E8 FC ready-to-receive",
                  "3: 7E0 CF sn=0",
                  "4: 7E0 CF sn=2 [wrong sequence number: got 2, expected 1 (13 of 20 bytes "
                  "dropped)]",
                  "5: 7E8 FC not-acknowledge",
                  "6: 7E0 first len=20",
                  "7: 7E8 FC ready-to-receive",
                  "8: 7E0 CF sn=0",
                  "9: 7E0 CF sn=1; payload 20 bytes complete",
                  "10: 7E8 FC acknowledge",
              }));
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.payload", "cantp.payload.len == 20"),
              (std::vector<std::string>{"9: 000102030405060708090a0b0c0d0e0f10111213"}));
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.payload.frame", "cantp.payload"),
              (std::vector<std::string>{"9: 6,8,9"}));
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.fc", "cantp.fc == 2"),
              (std::vector<std::string>{"5: 2"}));
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.sn", "cantp.expert.sequence"),
              (std::vector<std::string>{"4: 2"}));
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.len", "cantp.kind == 1"),
              (std::vector<std::string>{"1: 20", "6: 20"}));
}

TEST_F(DissectorAgreement, SecondPassShowsWhatTheFirstComputed) {
    captureFromLog(ERRORS_LOG);
    EXPECT_EQ(tsharkFields("0x7E0,0x7E8", {"-2"}), tsharkFields("0x7E0,0x7E8"));
    // A display filter that keeps only the last frames must not change their view.
    const std::vector<std::string> all = tsharkFields("0x7E0,0x7E8");
    const std::vector<std::string> filtered =
        tsharkFields("0x7E0,0x7E8", {"-2", "-Y", "frame.number >= 26"});
    ASSERT_EQ(all.size(), 30u);
    EXPECT_EQ(filtered, std::vector<std::string>(all.begin() + 25, all.end()));
}

TEST_F(DissectorAgreement, CanFdAndRemoteFramesAreLeftAlone) {
    // Little-endian pcap, snap length 72, link type 227; then a CAN FD frame of 4 bytes (flags
    // byte 0x04, a 72-byte record), a classic single frame 7E0#0378797A and a remote frame 7E0.
    std::string file = {'\xd4', '\xc3', '\xb2', '\xa1', 2,  0, 4, 0, 0,      0, 0, 0,
                        0,      0,      0,      0,      72, 0, 0, 0, '\xe3', 0, 0, 0};
    const std::string fdHeader = {0, 0, 0, 0, 0, 0,      0, 0, 72, 0, 0, 0,   72,  0,
                                  0, 0, 0, 0, 7, '\xe0', 4, 4, 0,  0, 3, 'a', 'b', 'c'};
    file += fdHeader + std::string(72 - 12, '\0');
    file += std::string{1, 0, 0, 0,      0, 0, 0, 0, 16, 0,   0,   0,   16, 0, 0, 0,
                        0, 0, 7, '\xe0', 8, 0, 0, 0, 3,  'x', 'y', 'z', 0,  0, 0, 0};
    file += std::string{2,      0, 0, 0,      0, 0, 0, 0, 16, 0, 0, 0, 16, 0, 0, 0,
                        '\x40', 0, 7, '\xe0', 3, 0, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0};
    std::ofstream out(capture(), std::ios::binary);
    out << file;
    out.close();
    ASSERT_TRUE(out);
    EXPECT_EQ(expectAgreement("0x7E0,0x7E8"), 3u);
    EXPECT_EQ(tsharkColumn("0x7E0,0x7E8", "cantp.payload", "cantp"),
              (std::vector<std::string>{"2: 78797a"}));
}

// Every numeric limit of the cantp command lines and of cantp endpoint's input lines, each tested
// on both sides: the last value accepted and the first refused, with the exact error text.
//
// A demo option is shown accepted by giving it before --help: options are read in order, each
// value is checked as it is read, and --help then ends the command with status 0 before anything
// runs. A refused value ends the command with status 2 before --help is reached.
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/CantpRun.h"
#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

using RunResult = qbtest::CantpRun;

/// Runs cantp with `args`, writes `input`, closes standard input and waits (at most 20 s).
RunResult runCantp(const std::vector<std::string>& args, const std::string& input = "") {
    return qbtest::runCantp(args, input, 20s);
}

/// The option value is accepted: given before --help, the command prints its help and exits 0.
void expectAccepted(const std::string& command, const std::string& option,
                    const std::string& value) {
    const RunResult r = runCantp({command, option, value, "--help"});
    EXPECT_EQ(0, r.status) << option << " " << value << ": " << r.err;
    EXPECT_EQ(0u, r.out.find("Usage: cantp " + command)) << option << " " << value;
    EXPECT_EQ("", r.err);
}

/// The value is refused with exactly `message` and exit status 2.
void expectRefused(const std::vector<std::string>& args, const std::string& message) {
    const RunResult r = runCantp(args);
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("cantp " + args[0] + ": " + message + "\nTry 'cantp " + args[0] + " --help'.\n",
              r.err);
}

std::string unsignedRange(const std::string& what, const std::string& max,
                          const std::string& text) {
    return what + " must be a number from 0 to " + max +
           " (decimal, or hexadecimal with 0x), not '" + text + "'";
}

std::string intRange(const std::string& what, const std::string& text) {
    return what + " must be a number from -1000 to 1000, not '" + text + "'";
}

/// Lines of `text` that begin with `prefix`.
std::vector<std::string> linesStarting(const std::string& text, const std::string& prefix) {
    std::vector<std::string> lines;
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string line = text.substr(begin, end - begin);
        if (line.compare(0, prefix.size(), prefix) == 0) {
            lines.push_back(line);
        }
        begin = end + 1;
    }
    return lines;
}

}  // namespace

// --- cantp endpoint: the command line --------------------------------------------------------

TEST(CantpEndpointLimits, IdUpToFFFFIsSentWithItsLowElevenBits) {
    // A single frame from the peer is acknowledged with the endpoint's identifier: 0xFFFF goes
    // on the bus as 7FF.
    const RunResult r = runCantp({"endpoint", "--id", "0xFFFF"}, "can0 7E8#0141\n");
    EXPECT_EQ(0, r.status);
    const std::vector<std::string> frames = linesStarting(r.out, "(");
    ASSERT_EQ(1u, frames.size()) << r.out;
    EXPECT_NE(std::string::npos, frames[0].find(" can0 7FF#3300000000000000")) << frames[0];
    EXPECT_EQ((std::vector<std::string>{"recv 7E8 41"}), linesStarting(r.out, "recv"));
    expectAccepted("endpoint", "--id", "65535");
}

TEST(CantpEndpointLimits, IdAboveFFFFIsRefused) {
    expectRefused({"endpoint", "--id", "0x10000"}, unsignedRange("--id", "65535", "0x10000"));
    expectRefused({"endpoint", "--id", "65536"}, unsignedRange("--id", "65535", "65536"));
}

TEST(CantpEndpointLimits, DebugLevelFromMinusThousandToThousand) {
    expectAccepted("endpoint", "--debug", "1000");
    expectAccepted("endpoint", "--debug", "-1000");
    expectRefused({"endpoint", "--debug", "1001"}, intRange("--debug", "1001"));
    expectRefused({"endpoint", "--debug", "-1001"}, intRange("--debug", "-1001"));
}

// --- cantp endpoint: the input lines ---------------------------------------------------------

TEST(CantpEndpointLimits, InputDebugLevelFromMinusThousandToThousand) {
    const RunResult r =
        runCantp({"endpoint"}, "debug 1000\ndebug -1000\ndebug 1001\ndebug -1001\ndebug 0\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(
        "error: debug level must be a number from -1000 to 1000, not '1001': debug 1001\n"
        "error: debug level must be a number from -1000 to 1000, not '-1001': debug -1001\n",
        r.err);
}

TEST(CantpEndpointLimits, InputFrameIdentifiersUpToTheirWidth) {
    const RunResult r = runCantp(
        {"endpoint"}, "can0 7FF#0141\ncan0 800#0142\ncan0 1FFFFFFF#0143\ncan0 20000000#0144\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ((std::vector<std::string>{"recv 7FF 41", "recv FFFF 43"}),
              linesStarting(r.out, "recv"));
    EXPECT_EQ(
        "error: standard identifier \"800\" is above 7FF: can0 800#0142\n"
        "error: extended identifier \"20000000\" is above 1FFFFFFF: can0 20000000#0144\n",
        r.err);
}

TEST(CantpEndpointLimits, InputFrameTakesEightBytesButNotNine) {
    const RunResult r =
        runCantp({"endpoint"}, "can0 7E8#0741424344454647\ncan0 7E8#074142434445464748\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ((std::vector<std::string>{"recv 7E8 41424344454647"}), linesStarting(r.out, "recv"));
    EXPECT_EQ(
        "error: data \"074142434445464748\" has 9 bytes: a classic CAN frame has at most 8: "
        "can0 7E8#074142434445464748\n",
        r.err);
}

TEST(CantpEndpointLimits, InputTimeStampTakesEighteenSecondDigitsButNotNineteen) {
    const RunResult r = runCantp({"endpoint"},
                                 "(100000000000000000.000000) can0 7E8#0141\n"
                                 "(1000000000000000000.000000) can0 7E8#0142\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ((std::vector<std::string>{"recv 7E8 41"}), linesStarting(r.out, "recv"));
    EXPECT_EQ(
        "error: time stamp \"(1000000000000000000.000000)\" is not \"(SEC.USEC)\" with 1 to 18 "
        "digits of seconds and 6 of microseconds: (1000000000000000000.000000) can0 7E8#0142\n",
        r.err);
}

TEST(CantpEndpointLimits, CarriageReturnBeforeHashIsStillAComment) {
    // A stray CR is a blank like the others: the line stays a comment and is not read as a frame
    // on an interface named "#...".
    const RunResult r = runCantp({"endpoint"}, " \r# 7E8#0141\n\r\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ("", r.err);
    EXPECT_TRUE(linesStarting(r.out, "recv").empty()) << r.out;
    EXPECT_TRUE(linesStarting(r.out, "(").empty()) << r.out;
}

// --- cantp demo --------------------------------------------------------------------------

TEST(CantpDemoLimits, PayloadsFromOneToAMillion) {
    expectAccepted("demo", "--payloads", "1000000");
    expectRefused({"demo", "--payloads", "1000001"},
                  unsignedRange("--payloads", "1000000", "1000001"));
    expectRefused({"demo", "--payloads", "0"}, "--payloads must be at least 1");
}

TEST(CantpDemoLimits, SmallestRunOfOnePayloadOfOneByteAtOneKilobit) {
    // The lower limits of --payloads, --max-size, --min-size and --bitrate together, run.
    const RunResult r = runCantp({"demo", "--fast", "--payloads", "1", "--max-size", "1",
                                  "--min-size", "1", "--bitrate", "1000", "--seed", "1"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ((std::vector<std::string>{"result    every payload verified"}),
              linesStarting(r.out, "result"));
}

TEST(CantpDemoLimits, MaxSizeFromOneTo4095) {
    expectAccepted("demo", "--max-size", "4095");
    expectRefused({"demo", "--max-size", "4096"}, unsignedRange("--max-size", "4095", "4096"));
    expectRefused({"demo", "--max-size", "0"},
                  "--max-size must be at least 1 (an empty payload cannot be delivered)");
}

TEST(CantpDemoLimits, MinSizeFromOneToMaxSize) {
    const RunResult r = runCantp({"demo", "--fast", "--payloads", "1", "--max-size", "20",
                                  "--min-size", "20", "--seed", "1"});
    EXPECT_EQ(0, r.status) << r.err;
    expectRefused({"demo", "--max-size", "20", "--min-size", "21"},
                  "--min-size must be from 1 to --max-size (20)");
    expectRefused({"demo", "--min-size", "0"}, "--min-size must be from 1 to --max-size (4095)");
    expectAccepted("demo", "--min-size", "4095");
    expectRefused({"demo", "--min-size", "4096"}, unsignedRange("--min-size", "4095", "4096"));
}

TEST(CantpDemoLimits, BitRateFromThousandToAMillion) {
    expectAccepted("demo", "--bitrate", "1000000");
    expectRefused({"demo", "--bitrate", "1000001"},
                  unsignedRange("--bitrate", "1000000", "1000001"));
    expectRefused({"demo", "--bitrate", "999"}, "--bitrate must be at least 1000 bit/s");
}

TEST(CantpDemoLimits, LossFromZeroToOneInclusive) {
    expectAccepted("demo", "--loss", "0");
    expectAccepted("demo", "--loss", "1");
    const std::string range = "--loss must be a number from 0.000000 to 1.000000, not '";
    expectRefused({"demo", "--loss", "1.0000001"}, range + "1.0000001'");
    expectRefused({"demo", "--loss", "-0.0000001"}, range + "-0.0000001'");
    expectRefused({"demo", "--loss", "nan"}, range + "nan'");
}

TEST(CantpDemoLimits, SeedTakesEverySixtyFourBitValue) {
    expectAccepted("demo", "--seed", "18446744073709551615");
    expectAccepted("demo", "--seed", "0xFFFFFFFFFFFFFFFF");
    expectRefused({"demo", "--seed", "18446744073709551616"},
                  unsignedRange("--seed", "18446744073709551615", "18446744073709551616"));
}

TEST(CantpDemoLimits, DebugLevelFromMinusThousandToThousand) {
    expectAccepted("demo", "--debug", "1000");
    expectAccepted("demo", "--debug", "-1000");
    expectRefused({"demo", "--debug", "1001"}, intRange("--debug", "1001"));
    expectRefused({"demo", "--debug", "-1001"}, intRange("--debug", "-1001"));
}

// --- cantp decode --------------------------------------------------------------------------

TEST(CantpDecodeLimits, LinesUpTo4096CharactersAreReadAndLongerOnesAreNot) {
    // A frame line padded with blanks to exactly 4096 characters is still read as a frame; one
    // character more and the line is reported as too long.
    std::string atLimit = "can0 7E0#0111";
    atLimit.resize(4096, ' ');
    std::string overLimit = atLimit + " ";
    const RunResult r = runCantp({"decode"}, atLimit + "\n" + overLimit + "\n");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(
        "-                 can0  7E0      single       len=1\n"
        "payload can0 7E0 len=1 11\n"
        "line 2: error: line longer than 4096 characters\n"
        "summary frames=1 single=1 first=0 consecutive=0 flow-control=0 invalid=0\n"
        "summary payloads=1 bytes=1 errors=0 unparsable=1 incomplete=0\n",
        r.out);
}

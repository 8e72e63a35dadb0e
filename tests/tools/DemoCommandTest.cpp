// cantp demo, run as a process: the summary it prints and the candump log it writes.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/CantpRun.h"
#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

// The summary line that starts with `key`, or "" if there is none.
std::string summaryLine(const std::vector<std::string>& lines, const std::string& key) {
    return qbtest::lineStartingWith(lines, key);
}

std::string tempDir() {
    char pattern[] = "/tmp/cantp-demo-XXXXXX";
    const char* dir = ::mkdtemp(pattern);
    return dir != nullptr ? dir : "/tmp";
}

}  // namespace

TEST(CantpDemo, FastRunVerifiesEveryPayloadAndExitsZero) {
    Subprocess demo(qbtest::cantpPath(), {"demo", "--fast", "--payloads", "50", "--seed", "3"});
    ASSERT_EQ(demo.wait(60s), 0);
    const std::vector<std::string> out = demo.outLines();
    EXPECT_EQ(out.front(),
              "cantp demo: request/response, 50 requests, sizes 1 to 4095 bytes, 500000 bit/s "
              "(fast mode, no timing), loss 0, seed 3");
    EXPECT_EQ(summaryLine(out, "payloads"),
              "payloads  sent 100, delivered 100, verified 100, failed 0, delivered wrong 0, "
              "delivered twice 0");
    EXPECT_EQ(summaryLine(out, "retries"), "retries   0");
    EXPECT_EQ(summaryLine(out, "status"),
              "status    0x7E0 CTT_ACKNOWLEDGED 50; 0x7E0 CTT_CONNECTED 1; 0x7E8 CTT_ACKNOWLEDGED "
              "50; 0x7E8 CTT_CONNECTED 1;");
    EXPECT_EQ(summaryLine(out, "result"), "result    every payload verified");
    EXPECT_TRUE(demo.errLines().empty());
}

TEST(CantpDemo, FastRunReportsRatesAndCpuPerFrameInsteadOfBusLoad) {
    Subprocess demo(qbtest::cantpPath(), {"demo", "--fast", "--payloads", "30", "--seed", "3"});
    ASSERT_EQ(demo.wait(60s), 0);
    const std::vector<std::string> out = demo.outLines();

    // No bus time is simulated: neither a bus load nor a share of the bus's capacity.
    EXPECT_EQ(summaryLine(out, "bus load"), "");
    EXPECT_EQ(summaryLine(out, "goodput"), "");
    for (const std::string& line : out) {
        EXPECT_EQ(line.find('%'), std::string::npos) << line;
    }

    std::smatch frames;
    const std::string framesLine = summaryLine(out, "frames");
    ASSERT_TRUE(
        std::regex_search(framesLine, frames, std::regex(R"(^frames    ([0-9,]+) carried)")))
        << framesLine;
    std::string carried = frames[1];
    carried.erase(std::remove(carried.begin(), carried.end(), ','), carried.end());

    const std::string rate = summaryLine(out, "rate");
    std::smatch r;
    ASSERT_TRUE(std::regex_match(rate, r,
                                 std::regex(R"(rate      ([0-9]+) frames/s, ([0-9]+) payload B/s )"
                                            R"(in ([0-9]+\.[0-9]{2}) s \(fast mode: no bus time )"
                                            R"(to compare with\))")))
        << rate;
    const double framesPerSecond = std::stod(r[1]);
    const double bytesPerSecond = std::stod(r[2]);
    const double seconds = std::stod(r[3]);
    EXPECT_GT(framesPerSecond, 0);
    EXPECT_GT(bytesPerSecond, 0);
    // The rates are the run's counts over its time (printed to 10 ms).
    const std::string bytesLine = summaryLine(out, "bytes");
    std::smatch b;
    ASSERT_TRUE(std::regex_search(bytesLine, b, std::regex(R"(verified ([0-9,]+))"))) << bytesLine;
    std::string verified = b[1];
    verified.erase(std::remove(verified.begin(), verified.end(), ','), verified.end());
    if (seconds >= 0.05) {
        EXPECT_NEAR(framesPerSecond * seconds, std::stod(carried), 0.2 * std::stod(carried));
        EXPECT_NEAR(bytesPerSecond * seconds, std::stod(verified), 0.2 * std::stod(verified));
    }

    const std::string cpu = summaryLine(out, "cpu");
    std::smatch c;
    ASSERT_TRUE(std::regex_match(cpu, c,
                                 std::regex(R"(cpu       ([0-9]+\.[0-9]{2}) us per frame \(user )"
                                            R"(\+ system time of the whole process ([0-9.]+) s )"
                                            R"(over ([0-9]+) frames\))")))
        << cpu;
    EXPECT_EQ(c[3].str(), carried);
    const double cpuSeconds = std::stod(c[2]);
    EXPECT_GT(cpuSeconds, 0);
    // Printed to 0.01 us and 1 ms: the figure is the time over the frames within that rounding.
    const double frameCount = std::stod(carried);
    EXPECT_NEAR(std::stod(c[1]), cpuSeconds * 1e6 / frameCount, 0.006 + 0.0005 * 1e6 / frameCount);
}

TEST(CantpDemo, SameSeedGivesTheSameTrafficAndOtherSeedOther) {
    auto bytesLine = [](const std::vector<std::string>& args) {
        Subprocess demo(qbtest::cantpPath(), args);
        EXPECT_EQ(demo.wait(60s), 0);
        return summaryLine(demo.outLines(), "bytes");
    };
    const std::string a = bytesLine({"demo", "--fast", "--payloads", "10", "--seed", "11"});
    const std::string b = bytesLine({"demo", "--fast", "--payloads", "10", "--seed", "11"});
    const std::string c = bytesLine({"demo", "--fast", "--payloads", "10", "--seed", "12"});
    EXPECT_FALSE(a.empty());
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
}

TEST(CantpDemo, TimedRunWritesACandumpLogThatDecodesToTheSamePayloads) {
    const std::string dir = tempDir();
    const std::string log = dir + "/demo.log";
    Subprocess demo(qbtest::cantpPath(),
                    {"demo", "--payloads", "5", "--max-size", "300", "--log", log});
    ASSERT_EQ(demo.wait(60s), 0);
    const std::vector<std::string> out = demo.outLines();
    EXPECT_EQ(summaryLine(out, "result"), "result    every payload verified");
    // A timed bus has a bus time to compare with: the load and the share of its capacity.
    EXPECT_TRUE(std::regex_match(summaryLine(out, "bus load"),
                                 std::regex(R"(bus load  [0-9]+\.[0-9] % \(busy [0-9.]+ s of )"
                                            R"([0-9.]+ s\))")))
        << summaryLine(out, "bus load");
    EXPECT_TRUE(std::regex_match(summaryLine(out, "goodput"),
                                 std::regex(R"(goodput   [0-9]+ B/s in [0-9.]+ s = [0-9.]+ % of )"
                                            R"(the 31532 B/s of payload the bus could carry)")))
        << summaryLine(out, "goodput");
    EXPECT_EQ(summaryLine(out, "rate"), "");
    EXPECT_EQ(summaryLine(out, "cpu"), "");

    // Every line of the tap is a candump -L line of a standard frame with 8 data bytes.
    std::ifstream in(log);
    std::string line;
    size_t lines = 0;
    const std::regex candump(R"(\([0-9]{10}\.[0-9]{6}\) can0 7E[08]#[0-9A-F]{16})");
    while (std::getline(in, line)) {
        ++lines;
        ASSERT_TRUE(std::regex_match(line, candump)) << line;
    }
    // The summary counts the frames the bus carried; the log holds each of them.
    const std::string frames = summaryLine(out, "frames");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(frames, m, std::regex(R"(frames    ([0-9,]+) carried)")));
    std::string carried = m[1];
    carried.erase(std::remove(carried.begin(), carried.end(), ','), carried.end());
    EXPECT_EQ(lines, std::stoul(carried));

    // The decoder finds the ten payloads in it, without errors.
    Subprocess decode(qbtest::cantpPath(), {"decode", log});
    ASSERT_EQ(decode.wait(30s), 0);
    const std::vector<std::string> decoded = decode.outLines();
    ASSERT_FALSE(decoded.empty());
    EXPECT_TRUE(
        std::regex_match(decoded.back(), std::regex("summary payloads=10 bytes=[0-9]+ errors=0 "
                                                    "unparsable=0 incomplete=0")))
        << decoded.back();
    ::unlink(log.c_str());
    ::rmdir(dir.c_str());
}

TEST(CantpDemo, DuplexRunCompletesAndCountsEveryPayload) {
    Subprocess demo(qbtest::cantpPath(),
                    {"demo", "--duplex", "--fast", "--payloads", "20", "--seed", "5"});
    ASSERT_EQ(demo.wait(90s), 0);
    const std::vector<std::string> out = demo.outLines();
    const std::string payloads = summaryLine(out, "payloads");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(payloads, m,
                                 std::regex("payloads  sent 40, delivered ([0-9]+), verified "
                                            "([0-9]+), failed ([0-9]+), delivered wrong "
                                            "([0-9]+), delivered twice ([0-9]+)")))
        << payloads;
    // Every payload sent is either verified or counted as not delivered.
    EXPECT_EQ(std::stoul(m[2]) + std::stoul(m[3]), 40u);
    EXPECT_TRUE(
        std::regex_search(summaryLine(out, "result"), std::regex("^result    run completed")));
}

TEST(CantpDemo, UsageErrorsExitTwoWithAClearMessage) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"demo", "--payloads", "0"}, "cantp demo: --payloads must be at least 1"},
        {{"demo", "--max-size", "4096"},
         "cantp demo: --max-size must be a number from 0 to 4095 (decimal, or hexadecimal with "
         "0x), not '4096'"},
        {{"demo", "--loss", "1.5"},
         "cantp demo: --loss must be a number from 0.000000 to 1.000000, not '1.5'"},
        {{"demo", "--frobnicate"}, "cantp demo: unknown argument '--frobnicate'"},
    };
    for (const auto& c : cases) {
        Subprocess demo(qbtest::cantpPath(), c.first);
        EXPECT_EQ(demo.wait(10s), 2);
        const std::vector<std::string> err = demo.errLines();
        ASSERT_EQ(err.size(), 2u);
        EXPECT_EQ(err[0], c.second);
        EXPECT_EQ(err[1], "Try 'cantp demo --help'.");
    }
}

TEST(CantpDemo, HelpListsTheOptionsAndExitsZero) {
    Subprocess demo(qbtest::cantpPath(), {"demo", "--help"});
    EXPECT_EQ(demo.wait(10s), 0);
    const std::vector<std::string> out = demo.outLines();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0], "Usage: cantp demo [options]");
    for (const char* option : {"--payloads", "--max-size", "--bitrate", "--loss", "--seed",
                               "--fast", "--duplex", "--log", "--debug"}) {
        bool found = false;
        for (const std::string& line : out) {
            found = found || line.find(option) != std::string::npos;
        }
        EXPECT_TRUE(found) << option;
    }
}

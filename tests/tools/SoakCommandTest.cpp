// cantp soak, run as a process: its accounting of every payload and delivery, its limits and
// its usage errors.
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
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

// The numbers of a line, in order.
std::vector<unsigned long long> numbersOf(const std::string& line) {
    std::vector<unsigned long long> n;
    std::string digits;
    for (char c : line + " ") {
        if (c >= '0' && c <= '9') {
            digits += c;
        } else if (c != ',' || digits.empty()) {
            if (!digits.empty()) {
                n.push_back(std::stoull(digits));
            }
            digits.clear();
        }
    }
    return n;
}

}  // namespace

TEST(CantpSoak, LosslessRunDeliversEveryPayloadByteExactOnce) {
    Subprocess soak(qbtest::cantpPath(),
                    {"soak", "--payloads", "60", "--loss", "0", "--silence-every", "0",
                     "--max-size", "600", "--seed", "5"});
    ASSERT_EQ(soak.wait(60s), 0);
    const std::vector<std::string> out = soak.outLines();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.front(),
              "cantp soak: 60 payloads, 2 lanes (request/response and one-way streams), sizes 1 "
              "to 600 bytes, loss 0, silence never, seed 5, fast mode");
    EXPECT_TRUE(std::regex_match(
        summaryLine(out, "payloads"),
        std::regex(R"(payloads  handed over 60 \([0-9,]+ bytes\): acknowledged 60, failed 0 )"
                   R"(\(reported through the status callback 0, dropped without a report 0\), )"
                   R"(unresolved 0)")))
        << summaryLine(out, "payloads");
    EXPECT_TRUE(
        std::regex_match(summaryLine(out, "delivered"),
                         std::regex(R"(delivered 60: byte-exact 60 \([0-9,]+ bytes\), )"
                                    R"(duplicates 0, partial 0, corrupted 0, unparsable 0)")))
        << summaryLine(out, "delivered");
    EXPECT_EQ(summaryLine(out, "checks"),
              "checks    acknowledged but never delivered 0, failed but delivered 0, "
              "acknowledgements with a wrong id 0, acknowledgements with nothing outstanding 0");
    // The endpoints' log lines, counted: each of the four endpoints started and heard its peer
    // once, and none reported an error.
    std::vector<std::string> logBlock;
    bool inBlock = false;
    for (const std::string& line : out) {
        if (line.compare(0, 6, "memory") == 0) {
            break;
        }
        if (inBlock) {
            logBlock.push_back(line);
        }
        inBlock = inBlock || line == "log lines";
    }
    EXPECT_EQ(logBlock,
              (std::vector<std::string>{
                  "         4  [INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
                  "         4  [INFO] CANTransportThread::threadCode() Start CANTransportThread"}));
    EXPECT_TRUE(std::regex_match(summaryLine(out, "memory"),
                                 std::regex(R"(memory    VmHWM [0-9]+ kB at the start, [0-9]+ kB )"
                                            R"(at the end; VmRSS [0-9]+ kB at the start, [0-9]+ )"
                                            R"(kB at the end)")))
        << summaryLine(out, "memory");
    EXPECT_EQ(summaryLine(out, "result"), "result    run completed");
    EXPECT_TRUE(soak.errLines().empty());
}

TEST(CantpSoak, LossyRunWithSilencesAccountsForEveryPayloadAndDelivery) {
    Subprocess soak(qbtest::cantpPath(),
                    {"soak", "--payloads", "60", "--loss", "0.02", "--silence-every", "1",
                     "--silence-for", "0.5", "--max-size", "100", "--seed", "11", "--lanes", "4"});
    ASSERT_EQ(soak.wait(120s), 0);
    const std::vector<std::string> out = soak.outLines();
    // handed over, bytes, acknowledged, failed, reported, silently, unresolved
    const std::vector<unsigned long long> p = numbersOf(summaryLine(out, "payloads"));
    ASSERT_EQ(p.size(), 7u) << summaryLine(out, "payloads");
    EXPECT_EQ(p[0], 60u);
    EXPECT_EQ(p[2] + p[3], 60u);
    EXPECT_EQ(p[4] + p[5], p[3]);
    EXPECT_EQ(p[6], 0u);
    // delivered, exact, bytes, duplicates, partial, corrupted, unparsable
    const std::vector<unsigned long long> d = numbersOf(summaryLine(out, "delivered"));
    ASSERT_EQ(d.size(), 7u) << summaryLine(out, "delivered");
    EXPECT_EQ(d[0], d[1] + d[3] + d[4] + d[5]);
    EXPECT_EQ(d[6], 0u);
    // frames carried, lost, silences
    const std::vector<unsigned long long> b = numbersOf(summaryLine(out, "bus"));
    ASSERT_EQ(b.size(), 3u) << summaryLine(out, "bus");
    EXPECT_GT(b[1], 0u);
    EXPECT_GE(b[2], 1u);
    EXPECT_EQ(summaryLine(out, "result"), "result    run completed");
}

// Every payload is accounted for; whether each is acknowledged depends on the machine's speed
// (a slow build, such as one under ThreadSanitizer, runs past the receiver's 1 s deadline for
// the 588 frames of a 4095-byte payload), so only the accounting is checked. Sanitizers also
// multiply the resident memory, hence the raised --max-growth.
TEST(CantpSoak, LimitsOfLanesBatchAndSizeAreAcceptedAtTheirEdges) {
    Subprocess soak(
        qbtest::cantpPath(),
        {"soak", "--payloads", "32", "--lanes", "16", "--batch", "14", "--min-size", "4095",
         "--max-size", "4095", "--loss", "0", "--silence-every", "0", "--max-growth", "65536"});
    ASSERT_EQ(soak.wait(120s), 0);
    const std::vector<std::string> out = soak.outLines();
    // handed over, bytes, acknowledged, failed, reported, silently, unresolved
    const std::vector<unsigned long long> p = numbersOf(summaryLine(out, "payloads"));
    ASSERT_EQ(p.size(), 7u) << summaryLine(out, "payloads");
    EXPECT_EQ(p[0], 32u);
    EXPECT_EQ(p[1], 32u * 4095u);
    EXPECT_EQ(p[2] + p[3], 32u);
    EXPECT_EQ(p[6], 0u);
    EXPECT_EQ(summaryLine(out, "result"), "result    run completed");
}

TEST(CantpSoak, IncidentsFileThatCannotBeOpenedExitsOne) {
    Subprocess soak(qbtest::cantpPath(),
                    {"soak", "--payloads", "1", "--incidents", "/nonexistent-dir/incidents.txt"});
    EXPECT_EQ(soak.wait(10s), 1);
    const std::vector<std::string> err = soak.errLines();
    ASSERT_EQ(err.size(), 1u);
    EXPECT_EQ(err[0],
              "cantp soak: cannot open /nonexistent-dir/incidents.txt: No such file or directory");
}

TEST(CantpSoak, UsageErrorsExitTwoWithAClearMessage) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"soak", "--payloads", "0"}, "cantp soak: --payloads must be at least 1"},
        {{"soak", "--max-size", "4096"},
         "cantp soak: --max-size must be a number from 0 to 4095 (decimal, or hexadecimal with "
         "0x), not '4096'"},
        {{"soak", "--min-size", "0"}, "cantp soak: --min-size must be from 1 to --max-size (4095)"},
        {{"soak", "--lanes", "17"},
         "cantp soak: --lanes must be a number from 0 to 16 (decimal, or hexadecimal with 0x), "
         "not '17'"},
        {{"soak", "--lanes", "0"}, "cantp soak: --lanes must be from 1 to 16"},
        {{"soak", "--batch", "15"},
         "cantp soak: --batch must be a number from 0 to 14 (decimal, or hexadecimal with 0x), "
         "not '15'"},
        {{"soak", "--batch", "0"}, "cantp soak: --batch must be from 1 to 14"},
        {{"soak", "--loss", "1.5"},
         "cantp soak: --loss must be a number from 0.000000 to 1.000000, not '1.5'"},
        {{"soak", "--silence-every", "2", "--silence-for", "2"},
         "cantp soak: --silence-for must be above 0 and below --silence-every"},
        {{"soak", "--silence-for", "0"},
         "cantp soak: --silence-for must be above 0 and below --silence-every"},
        {{"soak", "--bitrate", "999"}, "cantp soak: --bitrate must be at least 1000 bit/s"},
        {{"soak", "--frobnicate"}, "cantp soak: unknown argument '--frobnicate'"},
    };
    for (const auto& c : cases) {
        Subprocess soak(qbtest::cantpPath(), c.first);
        EXPECT_EQ(soak.wait(10s), 2);
        const std::vector<std::string> err = soak.errLines();
        ASSERT_EQ(err.size(), 2u) << c.second;
        EXPECT_EQ(err[0], c.second);
        EXPECT_EQ(err[1], "Try 'cantp soak --help'.");
    }
}

TEST(CantpSoak, HelpListsTheOptionsAndExitsZero) {
    Subprocess soak(qbtest::cantpPath(), {"soak", "--help"});
    EXPECT_EQ(soak.wait(10s), 0);
    const std::vector<std::string> out = soak.outLines();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0], "Usage: cantp soak [options]");
    for (const char* option : {"--payloads", "--max-size", "--min-size", "--loss",
                               "--silence-every", "--silence-for", "--seed", "--lanes", "--batch",
                               "--timed", "--bitrate", "--incidents", "--list", "--max-growth"}) {
        bool found = false;
        for (const std::string& line : out) {
            found = found || line.find(option) != std::string::npos;
        }
        EXPECT_TRUE(found) << option;
    }
}

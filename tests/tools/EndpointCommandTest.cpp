// cantp endpoint, run as a process and driven through its standard streams as a script would.
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

// A frame line the endpoint writes: "(SEC.USEC) can0 " and the frame text.
std::string frameLine(const std::string& frame) {
    return R"(\([0-9]{10}\.[0-9]{6}\) can0 )" + frame;
}

}  // namespace

TEST(CantpEndpoint, SingleFrameSendIsAcknowledgedByScriptedPeer) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--id", "0x7E0"});
    ASSERT_TRUE(endpoint.write("send 112233\n"));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#0311223300000000"), 5s));
    ASSERT_TRUE(endpoint.write("empty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty false", 5s));
    // The peer acknowledges: flow control 0x33 from 0x7E8, in candump -L form.
    ASSERT_TRUE(endpoint.write("(1700000000.000100) can0 7E8#3300000000000000\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("status CTT_CONNECTED 0", 5s));
    ASSERT_TRUE(endpoint.waitForOutLine("status CTT_ACKNOWLEDGED 17", 5s));
    ASSERT_TRUE(endpoint.write("empty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty true", 5s));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
    const std::vector<std::string> out = endpoint.outLines();
    const std::vector<std::string> expected = {
        "[INFO] CANTransportThread::threadCode() Start CANTransportThread",
        "empty false",
        "[INFO] CANTransportThread::handleCANData() CTT_CONNECTED",
        "status CTT_CONNECTED 0",
        "status CTT_ACKNOWLEDGED 17",
        "empty true",
    };
    // Every line but the frame line, in order.
    std::vector<std::string> withoutFrames;
    for (const std::string& line : out) {
        if (line.find(" can0 ") == std::string::npos) {
            withoutFrames.push_back(line);
        }
    }
    EXPECT_EQ(withoutFrames, expected);
    EXPECT_TRUE(endpoint.errLines().empty());
}

TEST(CantpEndpoint, SegmentedReceiveIsDeliveredAndAcknowledged) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--id", "2016"});
    // A 20-byte payload from 0x7E8: first frame, then two consecutive frames (cansend form).
    ASSERT_TRUE(endpoint.write("can0 7E8#1014414243444546\n"));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#3100000000000000"), 5s));
    ASSERT_TRUE(endpoint.write("can0 7E8#20.47.48.49.50.51.52.53\nvcan1 7e8#2154555657585960\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("recv 7E8 4142434445464748495051525354555657585960", 5s));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#3300000000000000"), 5s));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
}

TEST(CantpEndpoint, EmptySendPayloadPutsAllZeroSingleFrameOnTheBus) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("send\n"));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#0000000000000000"), 5s));
    endpoint.signal(SIGTERM);
    EXPECT_EQ(endpoint.wait(5s), 0);
}

TEST(CantpEndpoint, UnparsableLineGivesOneErrorLineAndTheEndpointGoesOn) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("send 123\n"));
    ASSERT_TRUE(endpoint.waitForErrLine("error: odd number of hex digits: send 123", 5s));
    ASSERT_TRUE(endpoint.write("send zz\n"));
    ASSERT_TRUE(endpoint.waitForErrLine("error: not a hex digit 'z': send zz", 5s));
    ASSERT_TRUE(endpoint.write("clear everything\n"));
    ASSERT_TRUE(
        endpoint.waitForErrLine("error: clear takes nothing or 'all': clear everything", 5s));
    ASSERT_TRUE(endpoint.write("debug many\n"));
    ASSERT_TRUE(endpoint.waitForErrLine(
        "error: debug level must be a number from -1000 to 1000, not 'many': debug many", 5s));
    ASSERT_TRUE(endpoint.write("can0 123#R\n"));
    ASSERT_TRUE(endpoint.waitForErrLine(
        "error: \"123#R\" is a remote frame, not a classic CAN data frame: can0 123#R", 5s));
    // Still alive and answering.
    ASSERT_TRUE(endpoint.write("empty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty true", 5s));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
    EXPECT_EQ(endpoint.errLines().size(), 5u);
}

TEST(CantpEndpoint, BlankAndCommentLinesAreIgnored) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("\n   \n# a comment\n  # indented comment\nempty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty true", 5s));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
    EXPECT_TRUE(endpoint.errLines().empty());
}

TEST(CantpEndpoint, DebugCommandChangesTheLevelOfTheRunningEndpoint) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--debug", "0"});
    ASSERT_TRUE(endpoint.write("debug 1\nsend 01\n"));
    ASSERT_TRUE(endpoint.waitForOutLine(
        "[DEBUG] CANTransportThread::prepareData() single frame:   0x000007e0 8  0x01 0x01 0x00 "
        "0x00 0x00 0x00 0x00 0x00",
        5s));
    endpoint.signal(SIGINT);
    EXPECT_EQ(endpoint.wait(5s), 0);
}

TEST(CantpEndpoint, ClearAllDropsTheQueueSoEndOfInputEndsAtOnce) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("send 0102\nsend 0304\n"));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#0201020000000000"), 5s));
    ASSERT_TRUE(endpoint.write("clear\nempty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty false", 5s));  // the payload in flight stays
    ASSERT_TRUE(endpoint.write("clear all\nempty\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("empty true", 5s));
    const auto start = std::chrono::steady_clock::now();
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
    // Nothing was left to wait for: no retries of the dropped payloads.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
    for (const std::string& line : endpoint.outLines()) {
        EXPECT_EQ(line.find("7E0#0203040000000000"), std::string::npos) << line;
    }
}

TEST(CantpEndpoint, EndOfInputWaitsUntilTheQueueIsEmpty) {
    // Nobody answers: the payload is tried five times, 1 s apart, then dropped with a report;
    // only then does the endpoint exit.
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--id", "0x123"});
    ASSERT_TRUE(endpoint.write("send AA\n"));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(15s), 0);
    int sent = 0;
    for (const std::string& line : endpoint.outLines()) {
        if (line.find(" can0 123#01AA000000000000") != std::string::npos) {
            ++sent;
        }
    }
    EXPECT_EQ(sent, 5);
    EXPECT_TRUE(endpoint.waitForOutLine("status CTT_SEND_TIMEOUT 0", 1s));
}

TEST(CantpEndpoint, SigtermStopsAtOnceWithExitZero) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("send AA\n"));  // leaves a payload waiting for flow control
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#01AA000000000000"), 5s));
    const auto start = std::chrono::steady_clock::now();
    endpoint.signal(SIGTERM);
    EXPECT_EQ(endpoint.wait(5s), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
}

TEST(CantpEndpoint, IdAboveSixteenBitsIsAUsageError) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--id", "0x10000"});
    EXPECT_EQ(endpoint.wait(5s), 2);
    const std::vector<std::string> expected = {
        "cantp endpoint: --id must be a number from 0 to 65535 (decimal, or hexadecimal with "
        "0x), not '0x10000'",
        "Try 'cantp endpoint --help'."};
    EXPECT_EQ(endpoint.errLines(), expected);
}

TEST(CantpEndpoint, UnknownOptionAndUnsupportedCanAreUsageErrors) {
    {
        Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--bogus"});
        EXPECT_EQ(endpoint.wait(5s), 2);
        ASSERT_FALSE(endpoint.errLines().empty());
        EXPECT_EQ(endpoint.errLines()[0], "cantp endpoint: unknown argument '--bogus'");
    }
    {
        Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--can", "vcan0"});
        EXPECT_EQ(endpoint.wait(5s), 2);
        ASSERT_FALSE(endpoint.errLines().empty());
        EXPECT_EQ(endpoint.errLines()[0],
                  "cantp endpoint: --can takes 'stdio' or 'socketcan:IFACE', not 'vcan0'");
    }
    {
        Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--id"});
        EXPECT_EQ(endpoint.wait(5s), 2);
        ASSERT_FALSE(endpoint.errLines().empty());
        EXPECT_EQ(endpoint.errLines()[0], "cantp endpoint: option --id needs a value");
    }
}

TEST(CantpEndpoint, HelpDescribesTheInterfaceAndExitsZero) {
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint", "--help"});
    EXPECT_EQ(endpoint.wait(5s), 0);
    const std::vector<std::string> out = endpoint.outLines();
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out[0], "Usage: cantp endpoint [--id ID] [--can stdio] [--debug N]");
}

TEST(CantpEndpoint, ExtendedFrameFromTheBusReachesTheEndpoint) {
    // An 8-digit identifier is an extended frame; the endpoint takes frames from any identifier
    // and delivers the payload under the low 16 bits of the identifier.
    Subprocess endpoint(qbtest::cantpPath(), {"endpoint"});
    ASSERT_TRUE(endpoint.write("can0 18DAF110#03010203\n"));
    ASSERT_TRUE(endpoint.waitForOutLine("recv F110 010203", 5s));
    ASSERT_TRUE(endpoint.waitForOutLineMatching(frameLine("7E0#3300000000000000"), 5s));
    endpoint.closeInput();
    EXPECT_EQ(endpoint.wait(10s), 0);
}

TEST(Cantp, NoCommandAndUnknownCommandAreUsageErrors) {
    {
        Subprocess tool(qbtest::cantpPath(), {});
        EXPECT_EQ(tool.wait(5s), 2);
    }
    {
        Subprocess tool(qbtest::cantpPath(), {"frobnicate"});
        EXPECT_EQ(tool.wait(5s), 2);
        ASSERT_FALSE(tool.errLines().empty());
        EXPECT_EQ(tool.errLines()[0], "cantp frobnicate: unknown command 'frobnicate'");
    }
    {
        Subprocess tool(qbtest::cantpPath(), {"--help"});
        EXPECT_EQ(tool.wait(5s), 0);
    }
}

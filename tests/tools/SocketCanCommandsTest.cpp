// The SocketCAN commands' command lines, run as a script would: usage errors and their exact
// messages and exit codes, help texts, payload-size refusals, and the error when the interface
// cannot be opened. None of this needs a kernel CAN stack; the run on a real interface is the
// kernel test's (docs/socketcan.md).

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Subprocess.h"

namespace {

using namespace std::chrono_literals;
using qbtest::Subprocess;

// An interface that exists on no machine, so the open fails everywhere: with "Address family
// not supported" where the kernel has no CAN support, with "no CAN interface" elsewhere.
const std::string NO_IFACE = "socketcan:qbnosuch0";

struct CommandResult {
    int status;
    std::vector<std::string> out;
    std::vector<std::string> err;
};

CommandResult run(const std::vector<std::string>& args, const std::string& input = std::string()) {
    Subprocess p(qbtest::cantpPath(), args);
    if (!input.empty()) {
        p.write(input);
    }
    p.closeInput();
    CommandResult r;
    r.status = p.wait(10s);
    r.out = p.outLines();
    r.err = p.errLines();
    return r;
}

void expectUsageError(const std::vector<std::string>& args, const std::string& message) {
    const CommandResult r = run(args);
    EXPECT_EQ(r.status, 2) << message;
    ASSERT_EQ(r.err.size(), 2u) << message;
    EXPECT_EQ(r.err[0], message);
    EXPECT_EQ(r.err[1], "Try 'cantp " + args[0] + " --help'.");
    EXPECT_TRUE(r.out.empty());
}

// ---- cantp send ---------------------------------------------------------------------------

TEST(CantpSend, RequiresCanIdAndPeerId) {
    expectUsageError({"send"}, "cantp send: --can socketcan:IFACE is required");
    expectUsageError({"send", "--can", "socketcan:vcan0", "--peer-id", "0x7E8"},
                     "cantp send: --id is required");
    expectUsageError({"send", "--can", "socketcan:vcan0", "--id", "0x7E0"},
                     "cantp send: --peer-id is required");
}

TEST(CantpSend, RefusesMalformedOptionValues) {
    expectUsageError({"send", "--can", "vcan0"},
                     "cantp send: --can takes socketcan:IFACE, not 'vcan0'");
    expectUsageError({"send", "--can", "socketcan:"},
                     "cantp send: --can socketcan: needs an interface name (socketcan:can0)");
    expectUsageError({"send", "--can", "socketcan:abcdefghijklmnop"},
                     "cantp send: --can interface name 'abcdefghijklmnop' is longer than 15 "
                     "characters");
    expectUsageError({"send", "--can", "socketcan:a/b"},
                     "cantp send: --can interface name 'a/b' contains '/', ':' or a blank");
    expectUsageError({"send", "--id", "0x800"},
                     "cantp send: --id must be a number from 0 to 2047 (decimal, or hexadecimal "
                     "with 0x), not '0x800'");
    expectUsageError({"send", "--peer-id", "0x20000000"},
                     "cantp send: --peer-id must be a number from 0 to 536870911 (decimal, or "
                     "hexadecimal with 0x), not '0x20000000'");
    expectUsageError({"send", "--peer-id", "0x7E8,"},
                     "cantp send: --peer-id has an empty identifier in '0x7E8,'");
    expectUsageError({"send", "--sndbuf", "12"},
                     "cantp send: --sndbuf must be a number of bytes from 1024 to 67108864, not "
                     "'12'");
    expectUsageError({"send", "--bogus"}, "cantp send: unknown option '--bogus'");
    expectUsageError({"send", "a", "b"}, "cantp send: one FILE only, not also 'b'");
    expectUsageError({"send", "--id"}, "cantp send: option --id needs a value");
}

TEST(CantpSend, RefusesAnEmptyPayloadWithExitTwo) {
    const CommandResult r =
        run({"send", "--can", "socketcan:vcan0", "--id", "0x7E0", "--peer-id", "0x7E8"});
    EXPECT_EQ(r.status, 2);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_EQ(r.err[0],
              "cantp send: refused: the payload is empty; every receiver refuses an empty "
              "payload and the sender would retry it until it gives up");
}

TEST(CantpSend, RefusesAPayloadOf4096BytesWithExitTwo) {
    const CommandResult r =
        run({"send", "--can", "socketcan:vcan0", "--id", "0x7E0", "--peer-id", "0x7E8", "-"},
            std::string(4096, 'x'));
    EXPECT_EQ(r.status, 2);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_EQ(r.err[0],
              "cantp send: refused: the payload has 4096 bytes; the 12-bit length of a first "
              "frame carries at most 4095 (it would announce 0)");
}

TEST(CantpSend, RefusesALargerFileSayingItsSize) {
    const std::string path = ::testing::TempDir() + "cantp_send_5000.bin";
    {
        std::ofstream f(path, std::ios::binary);
        f << std::string(5000, '\x55');
    }
    const CommandResult r =
        run({"send", "--can", "socketcan:vcan0", "--id", "0x7E0", "--peer-id", "0x7E8", path});
    EXPECT_EQ(r.status, 2);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_EQ(r.err[0],
              "cantp send: refused: the payload has 5000 bytes; the 12-bit length of a first "
              "frame carries at most 4095 (it would announce 904)");
}

TEST(CantpSend, AMissingFileIsExitOne) {
    const CommandResult r = run({"send", "--can", "socketcan:vcan0", "--id", "0x7E0", "--peer-id",
                                 "0x7E8", "/nonexistent/payload.bin"});
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_EQ(r.err[0],
              "cantp send: error: cannot open /nonexistent/payload.bin: No such file or directory");
}

TEST(CantpSend, AnInterfaceThatCannotBeOpenedIsExitOne) {
    const CommandResult r =
        run({"send", "--can", NO_IFACE, "--id", "0x7E0", "--peer-id", "0x7E8", "-"}, "abc");
    EXPECT_EQ(r.status, 1);
    ASSERT_FALSE(r.err.empty());
    const std::string last = r.err.back();
    EXPECT_TRUE(last.rfind("cantp send: error: QBException: cannot open a CAN_RAW socket for "
                           "qbnosuch0: ",
                           0) == 0 ||
                last.rfind("cantp send: error: QBException: no CAN interface qbnosuch0: ", 0) == 0)
        << last;
}

TEST(CantpSend, HelpExitsZero) {
    const CommandResult r = run({"send", "--help"});
    EXPECT_EQ(r.status, 0);
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(r.out[0],
              "Usage: cantp send --can socketcan:IFACE --id ID --peer-id ID [options] "
              "[FILE|-]");
}

// ---- cantp recv ---------------------------------------------------------------------------

TEST(CantpRecv, RequiresCanIdAndPeerId) {
    expectUsageError({"recv"}, "cantp recv: --can socketcan:IFACE is required");
    expectUsageError({"recv", "--can", "socketcan:vcan0", "--peer-id", "0x7E0"},
                     "cantp recv: --id is required");
    expectUsageError({"recv", "--can", "socketcan:vcan0", "--id", "0x7E8"},
                     "cantp recv: --peer-id is required");
}

TEST(CantpRecv, RefusesABadCountAndUnknownArguments) {
    expectUsageError({"recv", "--count", "0"}, "cantp recv: --count must be at least 1");
    expectUsageError({"recv", "--count", "x"},
                     "cantp recv: --count must be a number from 0 to 4294967295 (decimal, or "
                     "hexadecimal with 0x), not 'x'");
    expectUsageError({"recv", "file.bin"}, "cantp recv: unknown argument 'file.bin'");
}

TEST(CantpRecv, AnInterfaceThatCannotBeOpenedIsExitOneAndStandardOutputStaysEmpty) {
    const CommandResult r = run({"recv", "--can", NO_IFACE, "--id", "0x7E8", "--peer-id", "0x7E0"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.empty());
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.back().rfind("cantp recv: error: QBException: ", 0), 0u) << r.err.back();
}

TEST(CantpRecv, HelpExitsZero) {
    const CommandResult r = run({"recv", "-h"});
    EXPECT_EQ(r.status, 0);
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(r.out[0], "Usage: cantp recv --can socketcan:IFACE --id ID --peer-id ID [options]");
}

// ---- cantp dump ---------------------------------------------------------------------------

TEST(CantpDump, RequiresCanAndTakesOnlySocketCan) {
    expectUsageError({"dump"}, "cantp dump: --can socketcan:IFACE is required");
    expectUsageError({"dump", "--can", "stdio"},
                     "cantp dump: --can takes socketcan:IFACE, not 'stdio'");
    expectUsageError({"dump", "--can", "socketcan:vcan0", "--id", "0x7E0,,0x7E8"},
                     "cantp dump: --id has an empty identifier in '0x7E0,,0x7E8'");
    expectUsageError({"dump", "--can", "socketcan:vcan0", "extra"},
                     "cantp dump: unknown argument 'extra'");
}

TEST(CantpDump, PcapNeedsAFileName) {
    expectUsageError({"dump", "--can", "socketcan:vcan0", "--pcap", ""},
                     "cantp dump: --pcap needs a file name");
    expectUsageError({"dump", "--can", "socketcan:vcan0", "--pcap"},
                     "cantp dump: option --pcap needs a value");
}

TEST(CantpDump, AnInterfaceThatCannotBeOpenedLeavesNoCaptureFile) {
    const std::string path = ::testing::TempDir() + "cantp_dump_no_iface.pcap";
    std::remove(path.c_str());
    const CommandResult r = run({"dump", "--can", NO_IFACE, "--pcap", path});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.empty());
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.back().rfind("cantp dump: error: QBException: ", 0), 0u) << r.err.back();
    EXPECT_FALSE(std::ifstream(path).good()) << path << " was created";
}

TEST(CantpDump, AnInterfaceThatCannotBeOpenedIsExitOne) {
    const CommandResult r = run({"dump", "--can", NO_IFACE, "--id", "0x7E0", "--id", "0x7E8"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.out.empty());
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.back().rfind("cantp dump: error: QBException: ", 0), 0u) << r.err.back();
}

TEST(CantpDump, HelpExitsZero) {
    const CommandResult r = run({"dump", "--help"});
    EXPECT_EQ(r.status, 0);
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(r.out[0], "Usage: cantp dump --can socketcan:IFACE [--id ID...] [--pcap FILE]");
}

// ---- cantp endpoint with socketcan --------------------------------------------------------

TEST(CantpEndpointSocketCan, RequiresPeerIdWithSocketCan) {
    expectUsageError({"endpoint", "--can", "socketcan:vcan0"},
                     "cantp endpoint: --peer-id is required with --can socketcan:IFACE");
}

TEST(CantpEndpointSocketCan, RefusesSocketCanOptionsWithoutSocketCan) {
    expectUsageError({"endpoint", "--peer-id", "0x7E8"},
                     "cantp endpoint: --peer-id, --sndbuf, --rcvbuf and --stats need --can "
                     "socketcan:IFACE");
    expectUsageError({"endpoint", "--stats"},
                     "cantp endpoint: --peer-id, --sndbuf, --rcvbuf and --stats need --can "
                     "socketcan:IFACE");
}

TEST(CantpEndpointSocketCan, RefusesAnIdentifierWiderThanElevenBits) {
    expectUsageError(
        {"endpoint", "--can", "socketcan:vcan0", "--peer-id", "0x7E8", "--id", "0x800"},
        "cantp endpoint: --id must be from 0 to 0x7FF with socketcan (the endpoint "
        "sends standard frames and keeps only the low 11 bits), not '2048'");
}

TEST(CantpEndpointSocketCan, AnInterfaceThatCannotBeOpenedIsExitOne) {
    const CommandResult r = run({"endpoint", "--can", NO_IFACE, "--peer-id", "0x7E8"});
    EXPECT_EQ(r.status, 1);
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.back().rfind("cantp endpoint: error: QBException: ", 0), 0u) << r.err.back();
}

// ---- cantp demo --bus ---------------------------------------------------------------------

TEST(CantpDemoSocketCan, RefusesAnUnknownBusAndSimulatorOnlyOptions) {
    expectUsageError({"demo", "--bus", "vcan0"},
                     "cantp demo: --bus takes 'sim' or 'socketcan:IFACE', not 'vcan0'");
    expectUsageError({"demo", "--bus", "socketcan:vcan0", "--loss", "0.1"},
                     "cantp demo: --fast, --loss, --log and --pcap work on the simulated bus only "
                     "(record a SocketCAN interface with candump -L)");
    expectUsageError({"demo", "--bus", "socketcan:vcan0", "--fast"},
                     "cantp demo: --fast, --loss, --log and --pcap work on the simulated bus only "
                     "(record a SocketCAN interface with candump -L)");
    expectUsageError({"demo", "--bus", "socketcan:vcan0", "--pcap", "x.pcap"},
                     "cantp demo: --fast, --loss, --log and --pcap work on the simulated bus only "
                     "(record a SocketCAN interface with candump -L)");
}

TEST(CantpDemoSocketCan, AnInterfaceThatCannotBeOpenedIsExitOne) {
    const CommandResult r = run({"demo", "--bus", NO_IFACE, "--payloads", "1"});
    EXPECT_EQ(r.status, 1);
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.back().rfind("cantp demo: error: QBException: ", 0), 0u) << r.err.back();
}

TEST(CantpDemoSocketCan, BusSimIsTheSimulatedBus) {
    const CommandResult r =
        run({"demo", "--bus", "sim", "--fast", "--payloads", "3", "--max-size", "20"});
    EXPECT_EQ(r.status, 0);
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(r.out.back(), "result    every payload verified");
}

}  // namespace

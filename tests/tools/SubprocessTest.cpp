// How the tests start child processes: the project's programs the way CTest starts the test
// programs (directly, or under the emulator of a cross build), programs of the build machine
// always directly.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/Subprocess.h"

using namespace std::chrono_literals;
using qbtest::Subprocess;

namespace {

/// The emulator command of this build, as configured (CMAKE_CROSSCOMPILING_EMULATOR); empty in
/// a native build.
std::vector<std::string> configuredEmulator() {
#ifdef QB_TEST_EMULATOR
    return {QB_TEST_EMULATOR};
#else
    return {};
#endif
}

}  // namespace

TEST(Subprocess, ProjectProgramStartsThroughTheConfiguredEmulator) {
    EXPECT_EQ(qbtest::emulatedCommand(qbtest::cantpPath()), configuredEmulator());
    Subprocess tool(qbtest::cantpPath(), {"--help"});
    EXPECT_EQ(tool.wait(10s), 0);  // 127 would mean the program could not be executed
    EXPECT_FALSE(tool.outLines().empty());
}

TEST(Subprocess, BuildMachineProgramStartsDirectly) {
    EXPECT_TRUE(qbtest::emulatedCommand("/bin/sh").empty());
    Subprocess shell("/bin/sh", {"-c", "echo started; echo to-stderr >&2; exit 3"});
    EXPECT_EQ(shell.wait(10s), 3);
    EXPECT_EQ(shell.outLines(), std::vector<std::string>{"started"});
    EXPECT_EQ(shell.errLines(), std::vector<std::string>{"to-stderr"});
}

TEST(Subprocess, FileThatIsNotAProgramIsNotEmulated) {
    char path[] = "/tmp/qb-subprocess-XXXXXX";
    const int fd = ::mkstemp(path);
    ASSERT_GE(fd, 0);
    const std::string text = "#!/bin/sh\necho script\n";
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::close(fd);
    EXPECT_TRUE(qbtest::emulatedCommand(path).empty());
    EXPECT_TRUE(qbtest::emulatedCommand("/nonexistent/program").empty());
    ::unlink(path);
}

TEST(Subprocess, ProgramThatCannotBeExecutedExitsWith127) {
    Subprocess missing("/nonexistent/program", {});
    EXPECT_EQ(missing.wait(10s), 127);
}

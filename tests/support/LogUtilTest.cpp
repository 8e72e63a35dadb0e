// The log line: its shape, streams, debug gate, the system-error line, and whole lines under
// concurrent logging.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/OutputCapture.h"
#include "common/Wait.h"
#include "libqbio/LogUtil.h"

namespace {

using std::chrono::milliseconds;
const milliseconds kEventTimeout(5000);

// A class that logs the way the library's classes do: a logName() and an int debug level.
class TestLogger {
  public:
    explicit TestLogger(int debug) : debug(debug) {}

    static const char* logName() { return "TestLogger"; }

    void someFunction(int value) { QB_DEBUG(debug > 0, "message " << value); }

    void levelTwoOnly() { QB_DEBUG(debug > 1, "never written at level 1"); }

    void levels() {
        QB_DEBUG(debug > 0, "level one");
        QB_DEBUG(debug != 0, "level one, second form");
        QB_DEBUG(debug > 1, "level two");
        QB_DEBUG(debug > 2, "level three");
        QB_INFO("info line");
        QB_ERROR("reached end of vector - be confused :-/");
    }

    void openSomething() {
        errno = EMFILE;
        QB_SYSERROR("failed to open pipe: ");
    }

    // The pieces of the line change errno; the reported number must be the one from before.
    void clobberErrno() {
        errno = EMFILE;
        QB_SYSERROR("failed to " << resetErrno() << "read data: ");
    }

    // Counts how often the gate and the pieces of a debug line are evaluated.
    void gated(int& gateCalls, int& pieceCalls) {
        QB_DEBUG(countGate(gateCalls, debug > 2), "expensive " << countPiece(pieceCalls));
    }

    void repeated(const std::string& text, int count) {
        for (int i = 0; i < count; ++i) {
            QB_INFO(text << ' ' << i % 10);
        }
    }

    int debug;

  private:
    static const char* resetErrno() {
        errno = 0;
        return "";
    }
    static bool countGate(int& calls, bool value) {
        ++calls;
        return value;
    }
    static int countPiece(int& calls) {
        ++calls;
        return calls;
    }
};

const std::string kLevel1 = "[DEBUG] TestLogger::levels() level one";
const std::string kLevel1b = "[DEBUG] TestLogger::levels() level one, second form";
const std::string kLevel2 = "[DEBUG] TestLogger::levels() level two";
const std::string kLevel3 = "[DEBUG] TestLogger::levels() level three";
const std::string kInfo = "[INFO] TestLogger::levels() info line";
const std::string kError = "[ERROR] TestLogger::levels() reached end of vector - be confused :-/";

}  // namespace

TEST(LogUtil, DebugZeroWritesNoDebugLineButInfoAndError) {
    qbtest::OutputCapture capture;
    TestLogger(0).levels();
    const std::vector<std::string> expected{kInfo, kError};
    EXPECT_EQ(capture.outLines(), expected);
    EXPECT_EQ(capture.errText(), "");
}

TEST(LogUtil, DebugOneWritesOnlyLevelOneLines) {
    qbtest::OutputCapture capture;
    TestLogger(1).levels();
    const std::vector<std::string> expected{kLevel1, kLevel1b, kInfo, kError};
    EXPECT_EQ(capture.outLines(), expected);
}

TEST(LogUtil, DebugTwoWritesLevelsOneAndTwo) {
    qbtest::OutputCapture capture;
    TestLogger(2).levels();
    const std::vector<std::string> expected{kLevel1, kLevel1b, kLevel2, kInfo, kError};
    EXPECT_EQ(capture.outLines(), expected);
}

TEST(LogUtil, DebugThreeWritesAllLines) {
    qbtest::OutputCapture capture;
    TestLogger(3).levels();
    const std::vector<std::string> expected{kLevel1, kLevel1b, kLevel2, kLevel3, kInfo, kError};
    EXPECT_EQ(capture.outLines(), expected);
    EXPECT_EQ(capture.errText(), "");
}

TEST(LogUtil, NegativeDebugEnablesOnlyNotEqualZeroForm) {
    qbtest::OutputCapture capture;
    TestLogger(-1).levels();
    const std::vector<std::string> expected{kLevel1b, kInfo, kError};
    EXPECT_EQ(capture.outLines(), expected);
}

TEST(LogUtil, DebugLineHasExactShape) {
    qbtest::OutputCapture capture;
    TestLogger(1).someFunction(42);
    EXPECT_EQ(capture.outText(), "[DEBUG] TestLogger::someFunction() message 42\n");
}

TEST(LogUtil, SysErrorWritesLineAndErrnoTextToCerr) {
    qbtest::OutputCapture capture;
    TestLogger(0).openSomething();
    const std::vector<std::string> expected{
        "[ERROR] TestLogger::openSomething() failed to open pipe: ",
        "[ERROR] errno 24: Too many open files"};
    EXPECT_EQ(capture.errLines(), expected);
    EXPECT_EQ(capture.outText(), "");
}

TEST(LogUtil, SysErrorReportsErrnoSavedBeforeThePieces) {
    qbtest::OutputCapture capture;
    TestLogger(0).clobberErrno();
    const std::vector<std::string> expected{
        "[ERROR] TestLogger::clobberErrno() failed to read data: ",
        "[ERROR] errno 24: Too many open files"};
    EXPECT_EQ(capture.errLines(), expected);
}

TEST(LogUtil, PrintErrorWritesNumberAndText) {
    qbtest::OutputCapture capture;
    LogUtil::printError(ENOENT);
    LogUtil::printError(EAGAIN);
    EXPECT_EQ(capture.errText(),
              "[ERROR] errno 2: No such file or directory\n"
              "[ERROR] errno 11: Resource temporarily unavailable\n");
    EXPECT_EQ(capture.outText(), "");
}

TEST(LogUtil, PrintErrorOfUnknownNumberStillDescribesIt) {
    qbtest::OutputCapture capture;
    LogUtil::printError(98765);
    const std::vector<std::string> lines = capture.errLines();
    ASSERT_EQ(lines.size(), 1u);
    const std::string head = "[ERROR] errno 98765: ";
    ASSERT_GT(lines[0].size(), head.size());
    EXPECT_EQ(lines[0].substr(0, head.size()), head);
    EXPECT_NE(lines[0].find("98765", head.size()), std::string::npos) << lines[0];
}

TEST(LogUtil, ErrorTextNamesTheError) {
    EXPECT_EQ(LogUtil::errorText(EMFILE), "Too many open files");
    EXPECT_EQ(LogUtil::errorText(EPIPE), "Broken pipe");
}

TEST(LogUtil, PrintErrorDoesNotTakeLogMutex) {
    qbtest::OutputCapture capture;
    std::atomic<bool> done{false};
    std::thread writer;
    {
        std::lock_guard<std::mutex> held(LogUtil::logMutex);
        writer = std::thread([&] {
            LogUtil::printError(EMFILE);
            done.store(true);
        });
        EXPECT_TRUE(qbtest::waitUntil([&] { return done.load(); }, kEventTimeout))
            << "printError blocked on the log mutex";
    }
    writer.join();
    EXPECT_EQ(capture.errText(), "[ERROR] errno 24: Too many open files\n");
}

TEST(LogUtil, SuppressedDebugLineDoesNotTakeLogMutex) {
    qbtest::OutputCapture capture;
    std::atomic<bool> done{false};
    std::thread writer;
    {
        std::lock_guard<std::mutex> held(LogUtil::logMutex);
        writer = std::thread([&] {
            TestLogger(1).levelTwoOnly();
            done.store(true);
        });
        EXPECT_TRUE(qbtest::waitUntil([&] { return done.load(); }, kEventTimeout))
            << "a gated-off debug line waited for the log mutex";
    }
    writer.join();
    EXPECT_EQ(capture.outText(), "");
}

TEST(LogUtil, EnabledLineWaitsForLogMutex) {
    // The counterpart of the test above: an enabled line is written under the mutex.
    qbtest::OutputCapture capture;
    std::atomic<bool> started{false};
    std::atomic<bool> done{false};
    std::thread writer;
    {
        std::lock_guard<std::mutex> held(LogUtil::logMutex);
        writer = std::thread([&] {
            started.store(true);
            TestLogger(3).someFunction(7);
            done.store(true);
        });
        EXPECT_TRUE(qbtest::waitUntil([&] { return started.load(); }, kEventTimeout));
        EXPECT_FALSE(qbtest::waitUntil([&] { return done.load(); }, milliseconds(50)));
    }
    writer.join();
    EXPECT_TRUE(done.load());
    EXPECT_EQ(capture.outText(), "[DEBUG] TestLogger::someFunction() message 7\n");
}

TEST(LogUtil, GateEvaluatedOnceAndPiecesOnlyWhenEnabled) {
    qbtest::OutputCapture capture;
    int gateCalls = 0;
    int pieceCalls = 0;
    TestLogger off(2);
    off.gated(gateCalls, pieceCalls);
    EXPECT_EQ(gateCalls, 1);
    EXPECT_EQ(pieceCalls, 0);
    EXPECT_EQ(capture.outText(), "");

    TestLogger on(3);
    on.gated(gateCalls, pieceCalls);
    EXPECT_EQ(gateCalls, 2);
    EXPECT_EQ(pieceCalls, 1);
    EXPECT_EQ(capture.outText(), "[DEBUG] TestLogger::gated() expensive 1\n");
}

TEST(LogUtil, ConcurrentThreadsWriteOnlyWholeLines) {
    constexpr int kThreads = 4;
    constexpr int kLinesEach = 3000;
    const std::vector<std::string> texts{"alpha alpha alpha", "bravo", "charlie charlie",
                                         "delta delta delta delta delta delta"};
    std::map<std::string, int> expectedCounts;
    for (int t = 0; t < kThreads; ++t) {
        for (int d = 0; d < 10; ++d) {
            expectedCounts["[INFO] TestLogger::repeated() " + texts[t] + ' ' + std::to_string(d)] =
                kLinesEach / 10;
        }
    }

    qbtest::OutputCapture capture;
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&texts, t] { TestLogger(0).repeated(texts[t], kLinesEach); });
        }
        for (std::thread& th : threads) {
            th.join();
        }
    }

    const std::vector<std::string> lines = capture.outLines();
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kLinesEach));
    std::map<std::string, int> counts;
    size_t strangers = 0;
    for (const std::string& line : lines) {
        if (expectedCounts.count(line) == 0) {
            if (++strangers <= 5) {
                ADD_FAILURE() << "mixed or unexpected line: \"" << line << "\"";
            }
            continue;
        }
        ++counts[line];
    }
    EXPECT_EQ(strangers, 0u);
    EXPECT_EQ(counts, expectedCounts);
    EXPECT_EQ(capture.outText().back(), '\n');
}

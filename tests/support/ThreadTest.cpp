// The worker-thread base: start, stop at waitForInput(), join, and exceptions from the body.
#include <gtest/gtest.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Subprocess.h"
#include "common/Wait.h"
#include "libqbproc/Thread.h"
#include "libqbutil/QBException.h"

namespace {

using std::chrono::milliseconds;

const milliseconds kEventTimeout(5000);

// Sets a flag when destroyed; lets a test see that a stack was unwound.
class SetOnDestroy {
  public:
    explicit SetOnDestroy(std::atomic<bool>& flag) : flag(flag) {}
    ~SetOnDestroy() { flag.store(true); }
    SetOnDestroy(const SetOnDestroy&) = delete;
    SetOnDestroy& operator=(const SetOnDestroy&) = delete;

  private:
    std::atomic<bool>& flag;
};

// State shared between a test and its worker, owned by the test so that it outlives the worker.
struct WaitState {
    int fd = -1;
    std::atomic<bool> entered{false};
    std::atomic<bool> unwound{false};
    std::atomic<bool> leftWait{false};
};

// Waits forever for input on a descriptor that never gets any, as the idle transport loop does.
class BlockingWorker : public Thread {
  public:
    explicit BlockingWorker(WaitState& state) : state(&state) {}
    ~BlockingWorker() override { stop(); }

    void threadCode() override {
        WaitState* s = state;
        SetOnDestroy onUnwind(s->unwound);
        s->entered.store(true);
        for (;;) {
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(s->fd, &readSet);
            if (waitForInput(s->fd + 1, &readSet, nullptr, nullptr, nullptr) != 0) {
                s->leftWait.store(true);
                return;
            }
        }
    }

  private:
    WaitState* state;
};

}  // namespace

TEST(Thread, DestroyThroughBasePointerRunsDerivedDestructor) {
    struct Derived : Thread {
        explicit Derived(bool& destroyed) : destroyed(destroyed) {}
        ~Derived() override { destroyed = true; }
        bool& destroyed;
    };
    bool destroyed = false;
    Thread* base = new Derived(destroyed);
    delete base;
    EXPECT_TRUE(destroyed);
}

TEST(Thread, StartRunsThreadCodeOnceOnAnotherThread) {
    struct Recorder : Thread {
        ~Recorder() override { stop(); }
        void threadCode() override {
            calls.fetch_add(1);
            id = std::this_thread::get_id();
        }
        std::atomic<int> calls{0};
        std::thread::id id;
    };
    Recorder r;
    r.start();
    r.join();
    EXPECT_EQ(r.calls.load(), 1);
    EXPECT_NE(r.id, std::thread::id());
    EXPECT_NE(r.id, std::this_thread::get_id());
    EXPECT_FALSE(r.isRunning());
}

TEST(Thread, IsRunningFromStartUntilThreadCodeReturns) {
    struct Gate : Thread {
        ~Gate() override { stop(); }
        void threadCode() override {
            qbtest::waitUntil([this] { return release.load(); }, milliseconds(10000));
        }
        std::atomic<bool> release{false};
    };
    Gate g;
    EXPECT_FALSE(g.isRunning());
    g.start();
    EXPECT_TRUE(g.isRunning());
    g.release.store(true);
    EXPECT_TRUE(qbtest::waitUntil([&] { return !g.isRunning(); }, kEventTimeout));
    EXPECT_EQ(g.exitReason(), "");
    g.join();
    EXPECT_FALSE(g.isRunning());
}

TEST(Thread, DefaultThreadCodeReturnsAtOnce) {
    Thread t;
    t.start();
    t.join();
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(t.exitReason(), "");
}

TEST(Thread, StopEndsThreadBlockedInWaitForInput) {
    qbtest::Pipe pipe;
    WaitState state;
    state.fd = pipe.readEnd();
    BlockingWorker worker(state);
    worker.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return state.entered.load(); }, kEventTimeout));

    const auto before = std::chrono::steady_clock::now();
    worker.stop();
    const auto took = std::chrono::steady_clock::now() - before;
    const double tookMs = std::chrono::duration<double, std::milli>(took).count();
    std::cout << "stop() of a thread blocked in waitForInput() took " << tookMs << " ms"
              << std::endl;

    EXPECT_LT(tookMs, 1000.0);
    EXPECT_FALSE(worker.isRunning());
    EXPECT_TRUE(state.unwound.load()) << "cancellation must unwind the thread's stack";
    EXPECT_FALSE(state.leftWait.load());
    EXPECT_EQ(worker.exitReason(), "");
}

TEST(Thread, StopTakesEffectOnlyInWaitForInput) {
    // The worker first sleeps in a loop (nanosleep is a cancellation point of the C library),
    // then waits for input. A stop() issued during the sleeping phase must not end the thread
    // there: it ends only once the thread reaches waitForInput().
    struct TwoPhase : Thread {
        ~TwoPhase() override { stop(); }
        void threadCode() override {
            sleeping.store(true);
            while (!release.load()) {
                std::this_thread::sleep_for(milliseconds(1));
                sleeps.fetch_add(1);
            }
            passedSleep.store(true);
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(fd, &readSet);
            waitForInput(fd + 1, &readSet, nullptr, nullptr, nullptr);
            leftWait.store(true);
        }
        int fd = -1;
        std::atomic<bool> sleeping{false};
        std::atomic<bool> release{false};
        std::atomic<int> sleeps{0};
        std::atomic<bool> passedSleep{false};
        std::atomic<bool> leftWait{false};
    };
    qbtest::Pipe pipe;
    TwoPhase worker;
    worker.fd = pipe.readEnd();
    worker.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return worker.sleeping.load(); }, kEventTimeout));

    std::atomic<bool> stopping{false};
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        stopping.store(true);
        worker.stop();
        stopped.store(true);
    });
    ASSERT_TRUE(qbtest::waitUntil([&] { return stopping.load(); }, kEventTimeout));
    // Let the worker pass many cancellation points of its sleeping phase after the stop request.
    const int sleepsAtStop = worker.sleeps.load();
    EXPECT_TRUE(qbtest::waitUntil([&] { return worker.sleeps.load() >= sleepsAtStop + 20; },
                                  kEventTimeout));
    EXPECT_TRUE(worker.isRunning());
    EXPECT_FALSE(stopped.load());

    worker.release.store(true);
    EXPECT_TRUE(qbtest::waitUntil([&] { return stopped.load(); }, kEventTimeout));
    stopper.join();
    EXPECT_TRUE(worker.passedSleep.load());
    EXPECT_FALSE(worker.leftWait.load());
    EXPECT_FALSE(worker.isRunning());
}

TEST(Thread, WaitForInputReportsReadyDescriptorAndTimeout) {
    struct Prober : Thread {
        ~Prober() override { stop(); }
        void threadCode() override {
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(fd, &readSet);
            timeval shortWait{0, 1000};
            timeoutResult = waitForInput(fd + 1, &readSet, nullptr, nullptr, &shortWait);
            written.store(false);
            ready.store(true);
            qbtest::waitUntil([this] { return written.load(); }, milliseconds(10000));
            FD_ZERO(&readSet);
            FD_SET(fd, &readSet);
            timeval longWait{10, 0};
            readyResult = waitForInput(fd + 1, &readSet, nullptr, nullptr, &longWait);
            readySet = FD_ISSET(fd, &readSet) != 0;
        }
        int fd = -1;
        std::atomic<bool> ready{false};
        std::atomic<bool> written{false};
        int timeoutResult = -2;
        int readyResult = -2;
        bool readySet = false;
    };
    qbtest::Pipe pipe;
    Prober p;
    p.fd = pipe.readEnd();
    p.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return p.ready.load(); }, kEventTimeout));
    ASSERT_TRUE(pipe.writeAll({0x42}));
    p.written.store(true);
    p.join();
    EXPECT_EQ(p.timeoutResult, 0);
    EXPECT_EQ(p.readyResult, 1);
    EXPECT_TRUE(p.readySet);
}

TEST(Thread, WaitForInputKeepsErrnoOfSelect) {
    struct BadDescriptor : Thread {
        ~BadDescriptor() override { stop(); }
        void threadCode() override {
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(fd, &readSet);
            timeval wait{0, 0};
            result = waitForInput(fd + 1, &readSet, nullptr, nullptr, &wait);
            error = errno;
        }
        int fd = -1;
        int result = 0;
        int error = 0;
    };
    // A descriptor number that was open and is closed now.
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[0]);
    ::close(fds[1]);
    BadDescriptor b;
    b.fd = fds[0];
    b.start();
    b.join();
    EXPECT_EQ(b.result, -1);
    EXPECT_EQ(b.error, EBADF);
}

TEST(Thread, ExceptionFromThreadCodeIsLoggedAndEndsThread) {
    struct Thrower : Thread {
        ~Thrower() override { stop(); }
        void threadCode() override { throw std::runtime_error("boom"); }
    };
    qbtest::OutputCapture capture;
    Thrower t;
    t.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return !t.isRunning(); }, kEventTimeout));
    EXPECT_EQ(t.exitReason(), "boom");
    t.join();
    const std::vector<std::string> expected{
        "[ERROR] Thread::run() threadCode() ended by exception: boom"};
    // The line goes to standard output: standard error is for failed system calls only.
    EXPECT_EQ(capture.outLines(), expected);
    EXPECT_EQ(capture.errText(), "");
    EXPECT_EQ(t.exitReason(), "boom");
}

TEST(Thread, QBExceptionFromThreadCodeLogsItsText) {
    struct Thrower : Thread {
        ~Thrower() override { stop(); }
        void threadCode() override {
            QBException e;
            e << "pipe broke";
            throw e;
        }
    };
    qbtest::OutputCapture capture;
    Thrower t;
    t.start();
    t.join();
    const std::vector<std::string> expected{
        "[ERROR] Thread::run() threadCode() ended by exception: pipe broke"};
    EXPECT_EQ(capture.outLines(), expected);
    EXPECT_EQ(capture.errText(), "");
    EXPECT_EQ(t.exitReason(), "pipe broke");
}

TEST(Thread, NonStdExceptionLogsUnknownException) {
    struct Thrower : Thread {
        ~Thrower() override { stop(); }
        void threadCode() override { throw 42; }
    };
    qbtest::OutputCapture capture;
    Thrower t;
    t.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return !t.isRunning(); }, kEventTimeout));
    t.join();
    const std::vector<std::string> expected{
        "[ERROR] Thread::run() threadCode() ended by exception: unknown exception"};
    EXPECT_EQ(capture.outLines(), expected);
    EXPECT_EQ(capture.errText(), "");
    EXPECT_EQ(t.exitReason(), "unknown exception");
}

TEST(Thread, StartTwiceThrowsQBException) {
    qbtest::Pipe pipe;
    WaitState state;
    state.fd = pipe.readEnd();
    BlockingWorker worker(state);
    worker.start();
    EXPECT_THROW(worker.start(), QBException);
    EXPECT_TRUE(worker.isRunning());
    worker.stop();
    EXPECT_THROW(worker.start(), QBException);
}

TEST(Thread, StartAfterJoinThrowsQBExceptionWithText) {
    Thread t;
    t.start();
    t.join();
    try {
        t.start();
        FAIL() << "second start() did not throw";
    } catch (const QBException& e) {
        EXPECT_EQ(e.text(), "Thread::start: already started");
    }
}

TEST(Thread, StopAndJoinOnNeverStartedThreadAreNoOps) {
    Thread t;
    t.stop();
    t.join();
    t.stop();
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ(t.exitReason(), "");
    // Still startable afterwards.
    t.start();
    t.join();
    EXPECT_FALSE(t.isRunning());
}

TEST(Thread, StopAfterThreadEndedByItselfJoinsIt) {
    struct Quick : Thread {
        ~Quick() override { stop(); }
        void threadCode() override { done.store(true); }
        std::atomic<bool> done{false};
    };
    Quick q;
    q.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return !q.isRunning(); }, kEventTimeout));
    q.stop();
    q.stop();
    q.join();
    EXPECT_TRUE(q.done.load());
}

TEST(Thread, DestructorStopsRunningThread) {
    // The worker's body touches only the shared state owned by the test (copied to a local
    // pointer on entry), so the base destructor may stop it after the derived part is gone.
    struct Loose : Thread {
        explicit Loose(WaitState& s) : state(&s) {}
        void threadCode() override {
            WaitState* s = state;
            SetOnDestroy onUnwind(s->unwound);
            s->entered.store(true);
            for (;;) {
                fd_set readSet;
                FD_ZERO(&readSet);
                FD_SET(s->fd, &readSet);
                waitForInput(s->fd + 1, &readSet, nullptr, nullptr, nullptr);
                s->leftWait.store(true);
            }
        }
        WaitState* state;
    };
    qbtest::Pipe pipe;
    WaitState state;
    state.fd = pipe.readEnd();
    Thread* worker = new Loose(state);
    worker->start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return state.entered.load(); }, kEventTimeout));
    delete worker;  // returns only after the thread has been cancelled and joined
    EXPECT_TRUE(state.unwound.load());
    EXPECT_FALSE(state.leftWait.load());
}

TEST(Thread, StopUnwindsThroughNestedCallsRepeatedly) {
    // The wait sits in a helper with locals of its own, below a body with objects to destroy:
    // cancellation must unwind all of it, every time (also in the sanitizer builds).
    struct Nested : Thread {
        ~Nested() override { stop(); }
        __attribute__((noinline)) int waitOnce() {
            fd_set readSet;
            FD_ZERO(&readSet);
            FD_SET(fd, &readSet);
            timeval limit{100, 0};
            entered.store(true);
            return waitForInput(fd + 1, &readSet, nullptr, nullptr, &limit);
        }
        void threadCode() override {
            SetOnDestroy onUnwind(*unwound);
            std::string local(100, 'x');
            for (;;) {
                if (waitOnce() > 0) {
                    local += "y";
                }
            }
        }
        int fd = -1;
        std::atomic<bool>* unwound = nullptr;
        std::atomic<bool> entered{false};
    };
    for (int round = 0; round < 20; ++round) {
        qbtest::Pipe pipe;
        std::atomic<bool> unwound{false};
        Nested worker;
        worker.fd = pipe.readEnd();
        worker.unwound = &unwound;
        worker.start();
        ASSERT_TRUE(qbtest::waitUntil([&] { return worker.entered.load(); }, kEventTimeout));
        worker.stop();
        EXPECT_TRUE(unwound.load()) << "round " << round;
        EXPECT_FALSE(worker.isRunning());
    }
}

namespace {
// Fills a pipe nobody reads, then blocks in writeCancellable() on it.
class FullPipeWriter : public Thread {
  public:
    explicit FullPipeWriter(int fd) : fd(fd) {}
    ~FullPipeWriter() override { stop(); }
    void threadCode() override {
        std::vector<char> chunk(4096, 'x');
        for (;;) {
            if (writeCancellable(fd, chunk.data(), chunk.size()) > 0) {
                written += chunk.size();
            }
        }
    }
    std::atomic<size_t> written{0};

  private:
    int fd;
};
}  // namespace

TEST(Thread, StopEndsThreadBlockedInWriteCancellableOnFullPipe) {
    qbtest::Pipe pipe;
    FullPipeWriter writer(pipe.writeEnd());
    writer.start();
    // A pipe holds 64 KiB on Linux: once the writer stops making progress, it is blocked.
    size_t last = 0;
    ASSERT_TRUE(qbtest::waitUntil(
        [&] {
            const size_t now = writer.written.load();
            const bool stalled = now > 0 && now == last;
            last = now;
            return stalled && !qbtest::waitUntil([&] { return writer.written.load() != now; },
                                                 std::chrono::milliseconds(50));
        },
        std::chrono::seconds(5)));
    const auto start = std::chrono::steady_clock::now();
    writer.stop();
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_FALSE(writer.isRunning());
    std::printf("stop of a writer blocked on a full pipe took %.3f ms\n",
                std::chrono::duration<double, std::milli>(elapsed).count());
    EXPECT_LT(elapsed, std::chrono::seconds(1));
    EXPECT_GE(writer.written.load(), 4096u);
}

TEST(ThreadOnItself, StopRequestsTheEndAtTheNextWaitAndTheOwnerJoins) {
    struct SelfStopper : Thread {
        std::atomic<bool> stopReturned{false};
        std::atomic<bool> workDone{false};
        std::atomic<bool> passedTheWait{false};
        ~SelfStopper() override { stop(); }
        void threadCode() override {
            stop();  // cannot join itself: only requests the end
            stopReturned = true;
            // Work the thread still does after asking for its end.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            workDone = true;
            timeval tv = {5, 0};
            waitForInput(0, nullptr, nullptr, nullptr, &tv);
            passedTheWait = true;
        }
    };
    SelfStopper t;
    t.start();
    ASSERT_TRUE(qbtest::waitUntil([&] { return t.stopReturned.load(); }, kEventTimeout));
    t.stop();  // the owner's stop() still waits for the thread and joins it
    EXPECT_TRUE(t.workDone.load());
    EXPECT_FALSE(t.passedTheWait.load());
    EXPECT_FALSE(t.isRunning());
    EXPECT_EQ("", t.exitReason());
}

TEST(ThreadOnItself, JoinThrowsQBException) {
    struct SelfJoiner : Thread {
        std::string caught;
        ~SelfJoiner() override { stop(); }
        void threadCode() override {
            try {
                join();
            } catch (const QBException& e) {
                caught = e.text();
            }
        }
    };
    SelfJoiner t;
    t.start();
    t.join();
    EXPECT_EQ("Thread::join: called on the thread itself", t.caught);
}

TEST(ThreadOnItselfDeathTest, DestructionOnItsOwnThreadAbortsWithAClearError) {
    GTEST_FLAG_SET(death_test_style, qbtest::deathTestStyle());
    EXPECT_EXIT(
        {
            std::cout.rdbuf(std::cerr.rdbuf());  // the line goes to std::cout
            struct SelfDeleter : Thread {
                void threadCode() override { delete this; }
            };
            Thread* t = new SelfDeleter;
            t->start();
            std::this_thread::sleep_for(std::chrono::seconds(3));
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGABRT),
        "\\[ERROR\\] Thread::~Thread\\(\\) destroyed on its own thread: the thread would go on "
        "in freed memory; aborting");
}

// The endpoint's writes are whole (partial writes continued, interrupted writes resumed, a full
// non-blocking descriptor waited for), a stop() in a blocked write cuts only that message, the
// dump of an unknown message leaves the log mutex free, and stop() or destruction on the
// transport thread itself are handled.
#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "can/TransportHarness.h"
#include "common/Subprocess.h"
#include "common/Wait.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbutil/QBException.h"

using namespace qbtest;

namespace {

void ignoreSignal(int) {}

/// Installs a handler for SIGUSR1 without SA_RESTART, so that a blocked write() returns early.
class InterruptingSignal {
  public:
    InterruptingSignal() {
        struct sigaction action {};
        action.sa_handler = ignoreSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGUSR1, &action, &saved);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &saved, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

  private:
    struct sigaction saved {};
};

/// Bytes waiting in a pipe.
int waiting(int fd) {
    int n = -1;
    ::ioctl(fd, FIONREAD, &n);
    return n;
}

/// Writes the frames of a segmented payload from the peer into the endpoint's input: the first
/// frame and all consecutive frames at once (the endpoint's flow control is not waited for).
void sendSegmentedPayload(TransportHarness& h, const Bytes& payload) {
    const size_t len = payload.size();
    Bytes first = {static_cast<uint8_t>(0x10 | ((len >> 8) & 0x0F)),
                   static_cast<uint8_t>(len & 0xFF)};
    first.insert(first.end(), payload.begin(), payload.begin() + 6);
    Bytes input = canFrameMessage(first);
    uint8_t sn = 0;
    for (size_t pos = 6; pos < len; pos += 7) {
        Bytes cf = {static_cast<uint8_t>(0x20 | sn)};
        const size_t n = std::min<size_t>(7, len - pos);
        cf.insert(cf.end(), payload.begin() + static_cast<std::ptrdiff_t>(pos),
                  payload.begin() + static_cast<std::ptrdiff_t>(pos + n));
        cf.resize(8, 0);
        const Bytes msg = canFrameMessage(cf);
        input.insert(input.end(), msg.begin(), msg.end());
        sn = static_cast<uint8_t>((sn + 1) & 0x0F);
    }
    h.writeInput(input);
}

/// The payload of a transport message, or a text saying what else came.
std::string payloadOf(const MessageBase* msg) {
    if (msg == nullptr) {
        return "(no message)";
    }
    const auto* t = dynamic_cast<const CANTransportTraceMessage*>(msg);
    if (t == nullptr) {
        return "(not a payload)";
    }
    return hexText(t->getPayload());
}

}  // namespace

TEST(CompleteWrites, FullNonBlockingProxyDescriptorIsWaitedForAndTheFrameArrivesWhole) {
    TransportHarness h(0);
    ASSERT_EQ(4096, ::fcntl(h.proxy.writeEnd(), F_SETPIPE_SZ, 4096));
    const int flags = ::fcntl(h.proxy.writeEnd(), F_GETFL);
    ASSERT_EQ(0, ::fcntl(h.proxy.writeEnd(), F_SETFL, flags | O_NONBLOCK));
    // Fill the proxy pipe with whole frames until a frame no longer fits.
    const Bytes filler = canFrameMessage({0x05, 1, 2, 3, 4, 5, 0, 0}, 0x123);
    size_t fillers = 0;
    while (::write(h.proxy.writeEnd(), filler.data(), filler.size()) ==
           static_cast<ssize_t>(filler.size())) {
        ++fillers;
    }
    ASSERT_GT(fillers, 0u);
    h.start();
    h.sendPayload({0x22});
    ASSERT_TRUE(waitUntil(
        [&] { return (h.transport.state & TestableTransport::RCTS_SENDING) != 0; }, kEventWait));
    // The frame cannot be written yet: the endpoint waits in the write instead of dropping it
    // and going on to wait for flow control.
    EXPECT_FALSE(
        waitUntil([&] { return (h.transport.state & TestableTransport::RCTS_WAIT_FOR_FC) != 0; },
                  milliseconds(300)));
    for (size_t i = 0; i < fillers; ++i) {
        const std::optional<ProxyFrame> f = h.nextFrame(kEventWait);
        ASSERT_TRUE(f.has_value()) << "filler " << i;
        ASSERT_EQ(0x123u, f->canId);
    }
    EXPECT_TRUE(h.expectFrame({0x01, 0x22, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(
        waitUntil([&] { return (h.transport.state & TestableTransport::RCTS_WAIT_FOR_FC) != 0; },
                  kEventWait));
    EXPECT_EQ(h.errLines(), Lines{});
}

TEST(CompleteWrites, PayloadWriteInterruptedBySignalAfterPartOfItIsContinued) {
    InterruptingSignal signal;
    TransportHarness h(0);
    ASSERT_EQ(4096, ::fcntl(h.readFD, F_SETPIPE_SZ, 4096));
    h.start();
    const Bytes big = countingBytes(4095, 7);
    sendSegmentedPayload(h, big);
    // The delivered message (about 4.1 KiB) does not fit into the pipe: the endpoint blocks
    // in the write with the first 4096 bytes written.
    ASSERT_TRUE(waitUntil([&] { return waiting(h.readFD) == 4096; }, kEventWait));
    ASSERT_TRUE(h.transport.hasWorker());
    // The signal ends the blocked write() with the count written so far.
    ASSERT_EQ(0, pthread_kill(h.transport.worker(), SIGUSR1));
    h.sendFrame({0x03, 0xAA, 0xBB, 0xCC, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload(big, kPeerId & 0xFFFF));
    EXPECT_TRUE(h.expectPayload({0xAA, 0xBB, 0xCC}, kPeerId & 0xFFFF));
    EXPECT_EQ(h.errLines(), Lines{});
}

TEST(CompleteWrites, PartialWriteToANonBlockingOutputPipeIsContinued) {
    TransportHarness h(0);
    ASSERT_EQ(4096, ::fcntl(h.readFD, F_SETPIPE_SZ, 4096));
    // A non-blocking write end: a message larger than the free room is taken in part.
    const int flags = ::fcntl(h.transport.writePipe[1], F_GETFL);
    ASSERT_EQ(0, ::fcntl(h.transport.writePipe[1], F_SETFL, flags | O_NONBLOCK));
    h.start();
    const Bytes big = countingBytes(4095, 3);
    sendSegmentedPayload(h, big);
    ASSERT_TRUE(waitUntil([&] { return waiting(h.readFD) == 4096; }, kEventWait));
    h.sendFrame({0x02, 0xDD, 0xEE, 0, 0, 0, 0, 0});
    EXPECT_TRUE(h.expectPayload(big, kPeerId & 0xFFFF));
    EXPECT_TRUE(h.expectPayload({0xDD, 0xEE}, kPeerId & 0xFFFF));
    EXPECT_EQ(h.errLines(), Lines{});
}

TEST(CompleteWrites, StopDuringABlockedPayloadWriteCutsOnlyThatMessage) {
    TransportHarness h(0);
    ASSERT_EQ(4096, ::fcntl(h.readFD, F_SETPIPE_SZ, 4096));
    h.start();
    h.sendFrame({0x03, 0x01, 0x02, 0x03, 0, 0, 0, 0});  // payload A, left unread
    ASSERT_TRUE(waitUntil([&] { return waiting(h.readFD) > 0; }, kEventWait));
    const int sizeA = waiting(h.readFD);
    sendSegmentedPayload(h, countingBytes(4095, 9));  // payload B, does not fit
    // Part of B is in the pipe and the rest cannot follow: the endpoint blocks in the write.
    ASSERT_TRUE(waitUntil([&] { return waiting(h.readFD) > sizeA; }, kEventWait));
    h.transport.stop();  // ends the thread in the blocked write of B
    EXPECT_FALSE(h.transport.isRunning());
    const int cutB = waiting(h.readFD) - sizeA;
    // The next message in the stream, written by whoever writes next into the pipe.
    const Bytes c = payloadMessage({0x0C, 0x0C}, 0x7E8);
    std::thread writer([&] { writeAll(h.transport.writePipe[1], c); });

    TraceMessageBuffer reader(h.readFD, nullptr);
    std::vector<std::string> events;
    const auto deadline = std::chrono::steady_clock::now() + kEventWait;
    while (events.size() < 3 && std::chrono::steady_clock::now() < deadline) {
        if (waiting(h.readFD) > 0) {
            ASSERT_GT(reader.read(), 0);
        } else {
            std::this_thread::yield();
        }
        for (;;) {
            try {
                std::unique_ptr<MessageBase> msg(reader.getNextMessage());
                if (!msg) {
                    break;
                }
                events.push_back(payloadOf(msg.get()));
            } catch (const QBException& e) {
                events.push_back("!" + e.text());
            }
        }
    }
    writer.join();
    const std::vector<std::string> expected = {
        "01 02 03",
        "!trace message stream: dropped " + std::to_string(cutB) +
            " bytes: message cut short by the start of another",
        "0c 0c"};
    EXPECT_EQ(expected, events);
}

namespace {

/// A stream buffer for std::cerr that, at the first row of a dump, lets another thread log a
/// line and waits (with a deadline) until it has done so; it records whether that happened.
class DumpObserver : public std::streambuf {
  public:
    std::atomic<bool> dumpStarted{false};
    std::atomic<bool> otherLineWritten{false};
    std::atomic<bool> otherLineDuringDump{false};
    std::atomic<bool> waitOver{false};

    std::string text() {
        std::lock_guard<std::mutex> lock(mutex);
        return written;
    }

  protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        if (!dumpStarted.exchange(true)) {
            otherLineDuringDump = waitUntil([&] { return otherLineWritten.load(); }, kEventWait);
            waitOver = true;
        }
        std::lock_guard<std::mutex> lock(mutex);
        written.append(s, static_cast<size_t>(n));
        return n;
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        const char ch = traits_type::to_char_type(c);
        return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
    }

  private:
    std::mutex mutex;
    std::string written;
};

struct OtherLogger {
    static const char* logName() { return "OtherLogger"; }
    void log() { QB_INFO("line written during the dump"); }
};

}  // namespace

TEST(UnknownMessageDump, AnotherThreadCanLogWhileALargeDumpIsWritten) {
    DumpObserver observer;
    TransportHarness h(0);
    {
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        std::cerr.rdbuf(&observer);  // the harness's capture restores the original at the end
    }
    std::thread other([&] {
        if (waitUntil([&] { return observer.dumpStarted.load(); }, kEventWait)) {
            OtherLogger().log();
            observer.otherLineWritten = true;
        }
    });
    h.start();
    // An unknown identifier with a 64 KiB body: a dump of about 4100 rows.
    byteVec_t bytes;
    RawTraceMessage(static_cast<msgid_t>(2), 0, byteVec_t(65536, 0x41))
        .createByteArray(bytes, true, false);
    h.writeInput(bytes);
    other.join();
    ASSERT_TRUE(waitUntil([&] { return observer.waitOver.load(); }, kTimerWait));
    EXPECT_TRUE(observer.otherLineDuringDump.load());
    const size_t rows = (bytes.size() + 15) / 16;
    EXPECT_TRUE(waitUntil([&] { return splitLines(observer.text()).size() == rows; }, kEventWait));
    h.transport.stop();
    const std::vector<std::string> dump = splitLines(observer.text());
    ASSERT_EQ(rows, dump.size());
    for (const std::string& row : dump) {
        ASSERT_EQ(0u, row.find("[ERROR] CANTransportThread: ")) << row;
    }
    const Lines expectedOut = {
        "[ERROR] CANTransportThread::handleData() unknown trace-message id found.",
        "[INFO] OtherLogger::log() line written during the dump"};
    Lines out = h.outLines();
    out.erase(out.begin());  // "[INFO] CANTransportThread::threadCode() Start CANTransportThread"
    EXPECT_EQ(expectedOut, out);
}

TEST(OwnThread, StopFromTheStatusCallbackEndsTheThreadAndTheOwnerStillJoinsIt) {
    TransportHarness h(withoutCallback());
    std::atomic<bool> stopCalled{false};
    std::atomic<bool> callbackReturned{false};
    CANTransportThread::delstatus_t cb = [&](Status st, uint16_t) {
        if (st == CANTransportThread::CTT_CONNECTED) {
            h.transport.stop();  // on the transport thread: requests the end, returns at once
            stopCalled = true;
            // Work the callback still does after asking for the stop.
            std::this_thread::sleep_for(milliseconds(100));
            callbackReturned = true;
        }
    };
    h.transport.setDelegate(cb);
    h.start();
    h.sendFrame({0x01, 0x55, 0, 0, 0, 0, 0, 0});
    ASSERT_TRUE(waitUntil([&] { return stopCalled.load(); }, kEventWait));
    // The owner's stop() must wait for the thread to end, which is after the callback.
    h.transport.stop();
    EXPECT_TRUE(callbackReturned.load());
    EXPECT_FALSE(h.transport.isRunning());
    EXPECT_EQ("", h.transport.exitReason());
}

TEST(OwnThreadDeathTest, DestroyingTheEndpointFromTheStatusCallbackAbortsWithAClearError) {
    GTEST_FLAG_SET(death_test_style, qbtest::deathTestStyle());
    EXPECT_EXIT(
        {
            // The error line goes to std::cout; the death test matches standard error.
            std::cout.rdbuf(std::cerr.rdbuf());
            Pipe proxy(true);
            auto* endpoint = new CANTransportThread(0);
            CANTransportThread::delstatus_t cb = [&](Status, uint16_t) { delete endpoint; };
            endpoint->setDelegate(cb);
            int readFD = -1;
            int writeFD = -1;
            endpoint->open(readFD, writeFD);
            endpoint->setConnection(proxy.writeEnd());
            endpoint->start();
            writeAll(writeFD, canFrameMessage({0x01, 0x55, 0, 0, 0, 0, 0, 0}));
            std::this_thread::sleep_for(std::chrono::seconds(3));
            std::exit(0);
        },
        ::testing::KilledBySignal(SIGABRT),
        "\\[ERROR\\] CANTransportThread::~CANTransportThread\\(\\) destroyed on its own thread: "
        "the thread would go on in freed memory; aborting");
}

// EndpointCore: two cores whose frames a test thread carries between them, as the Python
// bridge does; payloads, outcomes, status events and close() with waiting callers.
#include "python/EndpointCore.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <dirent.h>
#include <atomic>
#include <thread>
#include <vector>

#include "common/OutputCapture.h"
#include "common/Wait.h"
#include "libqbutil/QBException.h"

namespace {

int openDescriptors() {
    int n = 0;
    DIR* d = ::opendir("/proc/self/fd");
    while (::readdir(d) != nullptr) {
        ++n;
    }
    ::closedir(d);
    return n;
}

/// Carries every frame one core sends into the other, on a thread of its own.
class Wire {
  public:
    Wire(EndpointCore& a, EndpointCore& b) : a(a), b(b), worker([this] { run(); }) {}
    ~Wire() {
        stop = true;
        worker.join();
    }

  private:
    void carry(EndpointCore& from, EndpointCore& to) {
        std::vector<EndpointCore::Frame> frames;
        if (from.takeFrames(frames, 1) == EndpointCore::Wait::READY) {
            for (const auto& f : frames) {
                to.feedFrame(f.id, false, f.data.data(), f.data.size(), 0);
            }
        }
    }
    void run() {
        while (!stop) {
            carry(a, b);
            carry(b, a);
        }
    }
    EndpointCore& a;
    EndpointCore& b;
    std::atomic<bool> stop{false};
    std::thread worker;
};

std::vector<uint8_t> payload(size_t n) {
    std::vector<uint8_t> p(n);
    for (size_t i = 0; i < n; ++i) {
        p[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    return p;
}

}  // namespace

TEST(EndpointCore, PayloadIsDeliveredAndItsTicketAcknowledged) {
    qbtest::OutputCapture capture;  // the endpoints' [INFO] lines
    EndpointCore a(0x7E0, 0, 100);
    EndpointCore b(0x7E8, 0, 100);
    Wire wire(a, b);
    const auto data = payload(4095);
    const uint64_t ticket = a.submit(data.data(), data.size());
    EXPECT_EQ(a.waitSent(ticket, 5000), SendTracker::ACKNOWLEDGED);
    EndpointCore::Payload got;
    ASSERT_EQ(b.recv(got, 5000), EndpointCore::Wait::READY);
    EXPECT_EQ(got.canId, 0x7E0u);
    EXPECT_EQ(got.data, data);
    StatusQueue::Event e{};
    ASSERT_EQ(a.nextStatus(e, false, 1000), EndpointCore::Wait::READY);
    EXPECT_EQ(e.status, CANTransportThread::CTT_CONNECTED);
    ASSERT_EQ(a.nextStatus(e, false, 1000), EndpointCore::Wait::READY);
    EXPECT_EQ(e.status, CANTransportThread::CTT_ACKNOWLEDGED);
    EXPECT_EQ(e.ackId, 0xFF);  // the low byte of the length 4095
}

TEST(EndpointCore, CloseEndsWaitingCallsAndReleasesEveryDescriptor) {
    qbtest::OutputCapture capture;
    const int before = openDescriptors();
    {
        EndpointCore a(0x7E0, 0, 100);
        EXPECT_EQ(openDescriptors(), before + 8);
        const auto data = payload(100);
        const uint64_t ticket = a.submit(data.data(), data.size());  // nobody answers
        SendTracker::Outcome outcome = SendTracker::PENDING;
        EndpointCore::Wait received = EndpointCore::Wait::NOTHING;
        std::thread sender([&] { outcome = a.waitSent(ticket, 10000); });
        std::thread receiver([&] {
            EndpointCore::Payload p;
            received = a.recv(p, 10000);
        });
        std::vector<EndpointCore::Frame> frames;
        ASSERT_EQ(a.takeFrames(frames, 2000), EndpointCore::Wait::READY);  // the first frame
        a.close();
        sender.join();
        receiver.join();
        EXPECT_EQ(outcome, SendTracker::CLOSED);
        EXPECT_EQ(received, EndpointCore::Wait::CLOSED);
        EXPECT_EQ(openDescriptors(), before);
        EXPECT_THROW(a.submit(data.data(), data.size()), QBException);
        EXPECT_FALSE(a.running());
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST(EndpointCore, CloseWhileAnotherThreadSubmitsEndsItsLoopWithAnError) {
    qbtest::OutputCapture capture;
    EndpointCore a(0x7E0, 0, 100);
    // Nobody answers: the payloads pile up in the endpoint's queue behind the first one.
    std::atomic<int> submitted{0};
    std::atomic<bool> failed{false};
    std::thread writer([&] {
        const auto data = payload(4095);
        try {
            for (;;) {
                a.submit(data.data(), data.size());
                ++submitted;
            }
        } catch (const QBException&) {
            failed = true;
        }
    });
    ASSERT_TRUE(qbtest::waitUntil([&] { return submitted >= 50; }, std::chrono::seconds(10)));
    a.close();
    writer.join();
    EXPECT_TRUE(failed);
    EXPECT_TRUE(a.sendQueueEmpty());  // reads true once closed
}

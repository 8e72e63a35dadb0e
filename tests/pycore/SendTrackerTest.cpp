// SendTracker: which payload each acknowledgement, give-up, clear and drain settles.
#include "python/SendTracker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

/// A tracker whose "endpoint queue" is a flag the test sets.
struct TrackerTest : ::testing::Test {
    std::atomic<bool> queueEmpty{false};
    SendTracker tracker{[this] { return queueEmpty.load(); }};

    uint64_t written() {
        const uint64_t t = tracker.add(true);
        tracker.written(t);
        return t;
    }
};

TEST_F(TrackerTest, AcknowledgementSettlesTheOldestOpenTicket) {
    const uint64_t first = written();
    const uint64_t second = written();
    tracker.onAcknowledged();
    EXPECT_EQ(tracker.wait(first, 0), SendTracker::ACKNOWLEDGED);
    EXPECT_EQ(tracker.wait(second, 0), SendTracker::PENDING);
    tracker.onAcknowledged();
    EXPECT_EQ(tracker.wait(second, 0), SendTracker::ACKNOWLEDGED);
    EXPECT_EQ(tracker.openTickets(), 0u);
}

TEST_F(TrackerTest, AcknowledgementSettlesATicketWhoseWriteIsNotMarkedYet) {
    const uint64_t t = tracker.add(true);
    tracker.onAcknowledged();
    EXPECT_EQ(tracker.wait(t, 0), SendTracker::ACKNOWLEDGED);
}

TEST_F(TrackerTest, GiveUpSettlesEveryWrittenTicketAndLeavesUnwrittenOnes) {
    const uint64_t a = written();
    const uint64_t b = written();
    const uint64_t unwritten = tracker.add(true);
    tracker.onGiveUp(SendTracker::DISCONNECTED);
    EXPECT_EQ(tracker.wait(a, 0), SendTracker::DISCONNECTED);
    EXPECT_EQ(tracker.wait(b, 0), SendTracker::DISCONNECTED);
    EXPECT_EQ(tracker.wait(unwritten, 0), SendTracker::PENDING);
    EXPECT_EQ(tracker.openTickets(), 1u);
}

TEST_F(TrackerTest, ClearAllSettlesEveryWrittenTicketCleared) {
    const uint64_t a = written();
    const uint64_t b = written();
    int cleared = 0;
    tracker.clear(true, [&] { ++cleared; });
    EXPECT_EQ(cleared, 1);
    EXPECT_EQ(tracker.wait(a, 0), SendTracker::CLEARED);
    EXPECT_EQ(tracker.wait(b, 0), SendTracker::CLEARED);
}

TEST_F(TrackerTest, ClearKeepsTheOldestTicketAsTheOneInFlight) {
    const uint64_t a = written();
    const uint64_t b = written();
    const uint64_t c = written();
    tracker.clear(false, [] {});
    EXPECT_EQ(tracker.wait(a, 0), SendTracker::PENDING);
    EXPECT_EQ(tracker.wait(b, 0), SendTracker::CLEARED);
    EXPECT_EQ(tracker.wait(c, 0), SendTracker::CLEARED);
    tracker.onAcknowledged();
    EXPECT_EQ(tracker.wait(a, 0), SendTracker::ACKNOWLEDGED);
}

TEST_F(TrackerTest, EmptyQueueWithoutAcknowledgementSettlesAsSilentSendTimeout) {
    tracker.start();
    const uint64_t t = written();
    queueEmpty = true;
    EXPECT_EQ(tracker.wait(t, 2000), SendTracker::SEND_TIMEOUT);
}

TEST_F(TrackerTest, DrainedTicketAfterAClearIsCleared) {
    const uint64_t t = written();
    tracker.clear(false, [] {});  // kept as the one in flight
    tracker.start();
    queueEmpty = true;  // ... but the endpoint had dropped it as well
    EXPECT_EQ(tracker.wait(t, 2000), SendTracker::CLEARED);
}

TEST_F(TrackerTest, NonEmptyQueueSettlesNothing) {
    tracker.start();
    const uint64_t t = written();
    EXPECT_EQ(tracker.wait(t, 100), SendTracker::PENDING);
}

TEST_F(TrackerTest, CloseSettlesOpenTicketsClosedAndWakesAWaiter) {
    tracker.start();
    const uint64_t t = written();
    SendTracker::Outcome seen = SendTracker::PENDING;
    std::thread waiter([&] { seen = tracker.wait(t, 5000); });
    tracker.close();
    waiter.join();
    EXPECT_EQ(seen, SendTracker::CLOSED);
    EXPECT_EQ(tracker.wait(12345, 0), SendTracker::CLOSED);
}

TEST_F(TrackerTest, TicketNotKeptLeavesNoOutcomeBehind) {
    const uint64_t t = tracker.add(false);
    tracker.written(t);
    tracker.onAcknowledged();
    EXPECT_EQ(tracker.wait(t, 0), SendTracker::PENDING);
    EXPECT_EQ(tracker.openTickets(), 0u);
}

}  // namespace

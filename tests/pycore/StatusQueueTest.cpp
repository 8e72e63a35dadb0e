// StatusQueue: bounded, order kept, disabled until enabled, woken by close().
#include "python/StatusQueue.h"

#include <gtest/gtest.h>

#include <thread>

TEST(StatusQueue, KeepsOrderAndDropsTheOldestWhenFull) {
    StatusQueue q(2, true);
    q.push({0, 0, 1.0});
    q.push({4, 0x22, 2.0});
    q.push({4, 0x33, 3.0});
    EXPECT_EQ(q.dropped(), 1u);
    StatusQueue::Event e{};
    ASSERT_TRUE(q.pop(e, 0));
    EXPECT_EQ(e.status, 4);
    EXPECT_EQ(e.ackId, 0x22);
    ASSERT_TRUE(q.pop(e, 0));
    EXPECT_EQ(e.ackId, 0x33);
    EXPECT_FALSE(q.pop(e, 0));
}

TEST(StatusQueue, IgnoresPushesWhileDisabled) {
    StatusQueue q(10, false);
    q.push({0, 0, 1.0});
    StatusQueue::Event e{};
    EXPECT_FALSE(q.pop(e, 0));
    q.enable();
    q.push({3, 0, 2.0});
    ASSERT_TRUE(q.pop(e, 0));
    EXPECT_EQ(e.status, 3);
}

TEST(StatusQueue, CloseWakesAWaitingPop) {
    StatusQueue q(10, true);
    bool got = true;
    std::thread waiter([&] {
        StatusQueue::Event e{};
        got = q.pop(e, 5000);
    });
    q.close();
    waiter.join();
    EXPECT_FALSE(got);
    EXPECT_TRUE(q.isClosed());
}

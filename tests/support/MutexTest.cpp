// The POSIX mutex owner: locking across threads, attributes, semaphore names, debug level.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "common/Wait.h"
#include "libqbproc/Mutex.h"

#if defined(__SANITIZE_THREAD__)
#define QB_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QB_TEST_TSAN 1
#endif
#endif

namespace {
using std::chrono::milliseconds;
const milliseconds kEventTimeout(5000);

// Runs `f` on a thread of its own and returns its result.
template <typename F>
auto onOtherThread(F f) -> decltype(f()) {
    decltype(f()) result{};
    std::thread t([&] { result = f(); });
    t.join();
    return result;
}
}  // namespace

TEST(Mutex, ObjectIsVtablePointerAndMutexOnly) {
    EXPECT_EQ(sizeof(Mutex), sizeof(void*) + sizeof(pthread_mutex_t));
}

TEST(Mutex, TrylockFailsInOtherThreadWhileLocked) {
    Mutex m;
    ASSERT_EQ(m.lock(), 0);
    EXPECT_FALSE(onOtherThread([&] { return m.trylock(); }));
    ASSERT_EQ(m.unlock(), 0);
    EXPECT_TRUE(onOtherThread([&] {
        const bool got = m.trylock();
        if (got) {
            m.unlock();
        }
        return got;
    }));
}

TEST(Mutex, LockWaitsUntilOtherThreadUnlocks) {
    Mutex m;
    ASSERT_EQ(m.lock(), 0);
    std::atomic<bool> waiting{false};
    std::atomic<bool> acquired{false};
    std::atomic<int> lockResult{-1};
    std::thread other([&] {
        waiting.store(true);
        lockResult.store(m.lock());
        acquired.store(true);
        m.unlock();
    });
    ASSERT_TRUE(qbtest::waitUntil([&] { return waiting.load(); }, kEventTimeout));
    // While this thread holds the mutex, the other one must not get it.
    EXPECT_FALSE(qbtest::waitUntil([&] { return acquired.load(); }, milliseconds(50)));
    EXPECT_EQ(m.unlock(), 0);
    EXPECT_TRUE(qbtest::waitUntil([&] { return acquired.load(); }, kEventTimeout));
    other.join();
    EXPECT_EQ(lockResult.load(), 0);
}

TEST(Mutex, TrylockSucceedsOnFreeMutexAndFailsOnOwnLockedDefaultMutex) {
    Mutex m;
    EXPECT_TRUE(m.trylock());
    EXPECT_FALSE(m.trylock());
    EXPECT_EQ(m.unlock(), 0);
}

TEST(Mutex, RecursiveAttrAllowsRelocking) {
    Mutex::Attr attr(PTHREAD_MUTEX_RECURSIVE);
    Mutex m(attr);
    EXPECT_EQ(m.lock(), 0);
    EXPECT_EQ(m.lock(), 0);
    EXPECT_TRUE(m.trylock());
    // Still owned by this thread until every lock is undone.
    EXPECT_FALSE(onOtherThread([&] { return m.trylock(); }));
    EXPECT_EQ(m.unlock(), 0);
    EXPECT_EQ(m.unlock(), 0);
    EXPECT_FALSE(onOtherThread([&] { return m.trylock(); }));
    EXPECT_EQ(m.unlock(), 0);
    EXPECT_TRUE(onOtherThread([&] {
        const bool got = m.trylock();
        if (got) {
            m.unlock();
        }
        return got;
    }));
}

TEST(Mutex, ErrorCheckAttrReportsRelock) {
    Mutex::Attr attr(PTHREAD_MUTEX_ERRORCHECK);
    Mutex m(attr);
    ASSERT_EQ(m.lock(), 0);
    EXPECT_EQ(m.lock(), EDEADLK);
    EXPECT_EQ(m.unlock(), 0);
}

TEST(Mutex, ErrorCheckAttrReportsForeignAndSurplusUnlock) {
#ifdef QB_TEST_TSAN
    GTEST_SKIP() << "the thread sanitizer reports these deliberate misuses itself";
#else
    Mutex::Attr attr(PTHREAD_MUTEX_ERRORCHECK);
    Mutex m(attr);
    ASSERT_EQ(m.lock(), 0);
    EXPECT_EQ(onOtherThread([&] { return m.unlock(); }), EPERM);
    EXPECT_EQ(m.unlock(), 0);
    EXPECT_EQ(m.unlock(), EPERM);
#endif
}

TEST(Mutex, AttrSetTypeReturnsPosixResult) {
    Mutex::Attr attr(PTHREAD_MUTEX_NORMAL);
    EXPECT_EQ(attr.setType(PTHREAD_MUTEX_RECURSIVE), 0);
    int type = -1;
    ASSERT_EQ(pthread_mutexattr_gettype(&attr.attr, &type), 0);
    EXPECT_EQ(type, PTHREAD_MUTEX_RECURSIVE);
    EXPECT_EQ(attr.setType(12345), EINVAL);
}

TEST(Mutex, SemaphoreNamesLockAndUnlock) {
    Mutex m;
    EXPECT_EQ(m.P(), 0);
    EXPECT_FALSE(onOtherThread([&] { return m.tryP(); }));
    EXPECT_EQ(m.V(), 0);
    EXPECT_TRUE(m.tryP());
    EXPECT_FALSE(onOtherThread([&] { return m.tryP(); }));
    EXPECT_EQ(m.V(), 0);
}

TEST(Mutex, CopyIsNewUnlockedMutex) {
    Mutex original;
    ASSERT_EQ(original.lock(), 0);
    Mutex copy(original);
    EXPECT_NE(&copy.getMutex(), &original.getMutex());
    EXPECT_TRUE(copy.trylock());
    EXPECT_EQ(copy.unlock(), 0);
    EXPECT_EQ(original.unlock(), 0);
}

TEST(Mutex, GetMutexIsTheWrappedMutex) {
    Mutex m;
    ASSERT_EQ(pthread_mutex_lock(&m.getMutex()), 0);
    EXPECT_FALSE(onOtherThread([&] { return m.trylock(); }));
    const Mutex& cm = m;
    EXPECT_EQ(&cm.getMutex(), &m.getMutex());
    EXPECT_EQ(m.unlock(), 0);
}

TEST(Mutex, DebugLevelIsSharedByAllObjects) {
    const unsigned int saved = Mutex::getDebug();
    Mutex::setDebug(3);
    EXPECT_EQ(Mutex::getDebug(), 3u);
    Mutex::setDebug(0);
    EXPECT_EQ(Mutex::getDebug(), 0u);
    Mutex::setDebug(saved);
}

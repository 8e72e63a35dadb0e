#include "libqbproc/Thread.h"

#include <cxxabi.h>
#include <poll.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <mutex>
#include <string>

#include "libqbio/LogUtil.h"
#include "libqbutil/QBException.h"

#if defined(__SANITIZE_ADDRESS__)
#define QB_THREAD_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QB_THREAD_ASAN 1
#endif
#endif

#ifdef QB_THREAD_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace {

#ifdef QB_THREAD_ASAN
// AddressSanitizer builds only.
//
// Cancellation unwinds the stack from inside select() and skips the epilogues of the frames
// that have no cleanup, so the red zones of their locals would stay poisoned on the stack. The
// next landing pad calls __asan_handle_no_return(), which is meant to clear such leftovers, but
// it first calls sigaltstack() through the sanitizer's checked wrapper with an output variable
// that lies in that stale region: a false report that aborts the process. So, as soon as the
// unwinding starts (in waitForInput(), while every frame above is still intact), the shadow of
// the whole thread stack up to run() is cleared. The thread is ending: nothing is lost but
// red-zone checks in the destructors that the unwinding runs.
thread_local char* asanStackTop = nullptr;  // the frame of Thread::run() of this thread

__attribute__((noinline, no_sanitize("address"))) void clearStackShadowForUnwind() {
    char* const here = static_cast<char*>(__builtin_frame_address(0));
    if (asanStackTop != nullptr && asanStackTop > here) {
        __asan_unpoison_memory_region(here, static_cast<size_t>(asanStackTop - here));
    }
}

// Lives in waitForInput(): its destructor runs without `returned` only when cancellation
// unwinds out of select().
struct UnwindShadowGuard {
    bool returned = false;
    ~UnwindShadowGuard() {
        if (!returned) {
            clearStackShadowForUnwind();
        }
    }
};
#endif

// Runs one blocking call with cancellation enabled just around it: the only places where a
// pending or arriving stop() can end the thread are such calls (select() and write() are
// cancellation points). The call's errno is kept across the restoring of the state.
template <typename Call>
auto inCancellationWindow(Call call) -> decltype(call()) {
    int previous = PTHREAD_CANCEL_DISABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
#ifdef QB_THREAD_ASAN
    UnwindShadowGuard shadowGuard;
#endif
    const auto result = call();
#ifdef QB_THREAD_ASAN
    shadowGuard.returned = true;
#endif
    const int savedErrno = errno;
    int ignored = 0;
    pthread_setcancelstate(previous, &ignored);
    errno = savedErrno;
    return result;
}

// Marks the thread as ended when the thread body is left by any road: a normal return, an
// absorbed exception, or the forced unwind of cancellation (which no catch clause may keep).
class EndGuard {
  public:
    explicit EndGuard(std::atomic<int>& state, int endedValue)
        : state(state), endedValue(endedValue) {}
    ~EndGuard() { state.store(endedValue, std::memory_order_release); }
    EndGuard(const EndGuard&) = delete;
    EndGuard& operator=(const EndGuard&) = delete;

  private:
    std::atomic<int>& state;
    const int endedValue;
};

// Calls threadCode() and reports whether it ended by an exception (whose text goes to
// `failure`). Cancellation unwinds the stack with abi::__forced_unwind, which must be rethrown,
// or the C library aborts the process; so it is caught first and passed on.
//
// no_sanitize("undefined"): UBSan's check of the reference bound by the __forced_unwind catch
// clause fires falsely (the forced-unwind exception has no C++ object behind it), which with
// -fno-sanitize-recover would kill the process on every stop().
__attribute__((no_sanitize("undefined"))) bool callThreadCode(Thread& thread,
                                                              std::string& failure) {
    try {
        thread.threadCode();
        return false;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const std::exception& e) {
        const char* what = e.what();
        failure = what != nullptr ? what : "";
        return true;
    } catch (...) {
        failure = "unknown exception";
        return true;
    }
}

// The Thread object whose threadCode() runs on the calling thread, if any.
thread_local const Thread* currentThread = nullptr;

bool isAllOnes(const pthread_t& h) {
    pthread_t allOnes;
    std::memset(&allOnes, 0xFF, sizeof allOnes);
    return std::memcmp(&h, &allOnes, sizeof h) == 0;
}

}  // namespace

Thread::~Thread() {
    refuseDestructionOnOwnThread(logName());
    stop();
}

bool Thread::isOwnThread() const {
    return currentThread == this;
}

void Thread::refuseDestructionOnOwnThread(const char* className) const {
    if (!isOwnThread()) {
        return;
    }
    {
        std::lock_guard<std::mutex> log_qb_locker(LogUtil::logMutex);
        std::cout << "[ERROR] " << className << "::~" << className
                  << "() destroyed on its own thread: the thread would go on in freed memory; "
                     "aborting"
                  << std::endl;
    }
    std::abort();
}

void Thread::threadCode() {}

void Thread::start() {
    if (runState.load(std::memory_order_acquire) != NOT_STARTED || joinable()) {
        QBException e;
        e << "Thread::start: already started";
        throw e;
    }
    // Running from here on, so that isRunning() is true as soon as start() has returned.
    runState.store(RUNNING, std::memory_order_release);
    const int rc = pthread_create(&handle, nullptr, &Thread::run, this);
    if (rc != 0) {
        invalidate(handle);
        runState.store(NOT_STARTED, std::memory_order_release);
        QBException e;
        e << "pthread_create failed: " << LogUtil::errorText(rc);
        e.setCode(static_cast<uint32_t>(rc));
        throw e;
    }
}

void Thread::stop() {
    if (isOwnThread()) {
        // A thread cannot join itself: the end is requested here and takes effect at the
        // thread's next cancellation window; the owner joins it later.
        pthread_cancel(pthread_self());
        return;
    }
    if (!joinable()) {
        return;
    }
    // A thread that has already ended by itself is only joined: cancelling it is harmless
    // (0 or ESRCH), so the result is not looked at.
    pthread_cancel(handle);
    pthread_join(handle, nullptr);
    invalidate(handle);
}

void Thread::join() {
    if (isOwnThread()) {
        QBException e;
        e << "Thread::join: called on the thread itself";
        throw e;
    }
    if (!joinable()) {
        return;
    }
    pthread_join(handle, nullptr);
    invalidate(handle);
}

std::string Thread::exitReason() const {
    // `reason` is written by the thread before its release store of ENDED; reading it only
    // after the acquire load has seen ENDED makes the read race-free.
    if (runState.load(std::memory_order_acquire) != ENDED) {
        return std::string();
    }
    return reason;
}

int Thread::waitForInput(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                         timeval* timeout) {
    return inCancellationWindow(
        [&] { return select(nfds, readfds, writefds, exceptfds, timeout); });
}

ssize_t Thread::writeCancellable(int fd, const void* data, size_t size) {
    return inCancellationWindow([&] { return ::write(fd, data, size); });
}

ssize_t Thread::writeAll(int fd, const void* data, size_t size, bool cancellable) {
    const char* p = static_cast<const char*>(data);
    size_t left = size;
    while (left > 0) {
        const ssize_t n = cancellable ? writeCancellable(fd, p, left) : ::write(fd, p, left);
        if (n > 0) {
            p += n;
            left -= static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            // write() of a positive count does not return 0 on pipes and sockets; should a
            // device do it, waiting for it to take more is all that can be done.
            errno = EAGAIN;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            return -1;
        }
        pollfd pfd = {fd, POLLOUT, 0};
        const int r = cancellable ? inCancellationWindow([&] { return ::poll(&pfd, 1, -1); })
                                  : ::poll(&pfd, 1, -1);
        if (r < 0 && errno != EINTR) {
            return -1;
        }
        // POLLERR or POLLHUP: the next write() reports the failure.
    }
    return static_cast<ssize_t>(size);
}

void Thread::invalidate(pthread_t& h) {
    std::memset(&h, 0xFF, sizeof h);
}

bool Thread::joinable() const {
    return !isAllOnes(handle);
}

void* Thread::run(void* self) {
    Thread* thread = static_cast<Thread*>(self);
#ifdef QB_THREAD_ASAN
    asanStackTop = static_cast<char*>(__builtin_frame_address(0));
#endif
    // Cancellation stays off except inside waitForInput(), so that stop() can never end the
    // thread in the middle of a log line, a write or a callback.
    int ignored = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
    currentThread = thread;

    EndGuard guard(thread->runState, ENDED);
    std::string failure;
    if (callThreadCode(*thread, failure)) {
        {
            std::lock_guard<std::mutex> log_qb_locker(LogUtil::logMutex);
            std::cout << "[ERROR] " << logName() << "::" << __func__
                      << "() threadCode() ended by exception: " << failure << std::endl;
        }
        thread->reason = failure;
    }
    return nullptr;
}

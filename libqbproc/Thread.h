// Base of every worker thread of the library family.
#pragma once

#include <pthread.h>
#include <sys/select.h>
#include <sys/types.h>

#include <atomic>
#include <string>

/// A worker thread: derive, override threadCode(), start().
///
/// Design
/// - start() creates one POSIX thread that calls threadCode() once. The thread runs with
///   cancellation disabled except inside waitForInput(), the select() that worker loops wait in,
///   and writeCancellable(), a write that may block on a full pipe.
///   stop() cancels the thread and joins it, so a loop that never returns by itself (the CAN
///   transport loop waits in select() without a time limit when idle) ends at its next wait,
///   and nowhere else: never in the middle of a log line, a write to a descriptor or a status
///   callback. Stack objects are destroyed on the way out (cancellation unwinds the stack).
/// - An exception that escapes threadCode() does not terminate the process. The thread writes
///   one line to std::cerr under LogUtil::logMutex,
///       "[ERROR] Thread::run() threadCode() ended by exception: <what>"
///   (`<what>` is what() of a std::exception, or "unknown exception" for any other type), records
///   that text (exitReason()) and ends. isRunning() then turns false; the owner still joins.
///
/// Fields beyond the POSIX handle: `runState` and `reason`. isRunning() and exitReason() must be
/// answered without joining and from other threads, and no POSIX call reports whether a thread
/// has returned without also joining it; so the thread records this itself.
///
/// Thread rules: start(), stop() and join() are called by the owner, from one thread at a time.
/// isRunning() and exitReason() may be called from any thread.
class Thread {
  public:
    Thread() : runState(NOT_STARTED) { invalidate(handle); }

    /// Stops and joins a thread that is still running (see stop()). A derived class whose
    /// threadCode() uses its own members must stop the thread in its own destructor: by the
    /// time this one runs, the derived part is gone.
    virtual ~Thread();

    /// The thread body. The default does nothing and returns.
    virtual void threadCode();

    /// Starts the thread. Throws QBException if it was started before or pthread_create fails.
    void start();

    /// Ends the thread at its next waitForInput() (at once if it waits there now) and joins it.
    /// Does nothing if the thread was never started or is already joined. Blocks until the
    /// thread has ended.
    void stop();

    /// Waits until the thread has ended by itself and joins it. Does nothing if it was never
    /// started or is already joined.
    void join();

    /// True from start() until threadCode() has returned, thrown or been cancelled.
    bool isRunning() const { return runState.load(std::memory_order_acquire) == RUNNING; }

    /// After the thread ended by an exception: the text of the "[ERROR] " line's `<what>`.
    /// Empty while running and after a normal end or a stop(). Read it after isRunning() is false.
    std::string exitReason() const;

    static const char* logName() { return "Thread"; }

  protected:
    /// select() for worker loops, and the only place where stop() can end the thread.
    /// Same arguments, result and errno as select().
    static int waitForInput(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                            timeval* timeout);

    /// write() for a worker that may block on a full pipe whose reader has stopped reading; the
    /// second place where stop() can end the thread, so that such a reader cannot keep stop()
    /// waiting. Same arguments, result and errno as write(). If stop() ends the thread while the
    /// write blocks, part of the bytes may have been written. Call it only where no lock other
    /// than scoped (RAII) ones is held: the stop unwinds the stack from here.
    static ssize_t writeCancellable(int fd, const void* data, size_t size);

  private:
    enum RunState { NOT_STARTED, RUNNING, ENDED };

    static void invalidate(pthread_t& h);
    static void* run(void* self);
    bool joinable() const;

    pthread_t handle;
    std::atomic<int> runState;
    std::string reason;  // written by the thread before runState becomes ENDED
};

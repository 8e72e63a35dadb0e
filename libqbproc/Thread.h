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
///   one line to std::cout (standard error is kept for failed system calls) under
///   LogUtil::logMutex,
///       "[ERROR] Thread::run() threadCode() ended by exception: <what>"
///   (<what> is what() of a std::exception, or "unknown exception" for any other type), records
///   that text (exitReason()) and ends. isRunning() then turns false; the owner still joins.
///
/// Fields beyond the POSIX handle: `runState` and `reason`. isRunning() and exitReason() must be
/// answered without joining and from other threads, and no POSIX call reports whether a thread
/// has returned without also joining it; so the thread records this itself.
///
/// Thread rules: start(), stop() and join() are called by the owner, from one thread at a time.
/// isRunning() and exitReason() may be called from any thread.
///
/// Called on the thread itself (for example from a callback that threadCode() runs):
/// - stop() cannot wait for its own end. It requests the end instead and returns at once; the
///   thread ends at its next waitForInput() or writeCancellable(), and the owner's next stop(),
///   join() or the destructor joins it.
/// - join() throws QBException: a thread cannot wait for itself.
/// - The destructor cannot be made safe: the thread would go on running in the memory being
///   freed. It writes the error line "[ERROR] <class>::~<class>() destroyed on its own thread:
///   the thread would go on in freed memory; aborting" to std::cout and aborts the process.
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
    /// thread has ended; on the thread itself it only requests the end (see above).
    void stop();

    /// Waits until the thread has ended by itself and joins it. Does nothing if it was never
    /// started or is already joined. Throws QBException on the thread itself.
    void join();

    /// True from start() until threadCode() has returned, thrown or been cancelled.
    bool isRunning() const { return runState.load(std::memory_order_acquire) == RUNNING; }

    /// After the thread ended by an exception: the text of the "[ERROR] " line's <what>.
    /// Empty while running and after a normal end or a stop(). Read it after isRunning() is false.
    std::string exitReason() const;

    static const char* logName() { return "Thread"; }

  protected:
    /// True when called on the thread that runs this object's threadCode().
    bool isOwnThread() const;

    /// For destructors: if called on the object's own thread, writes the error line (see above)
    /// for `className` and aborts the process; otherwise returns.
    void refuseDestructionOnOwnThread(const char* className) const;

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

    /// Writes all `size` bytes to `fd`: a partial write is continued, a write interrupted by a
    /// signal is resumed, and on a non-blocking descriptor that takes nothing now (EAGAIN) the
    /// call waits with poll() until it takes more. Returns `size`, or -1 with errno set if a
    /// write or the wait failed (bytes may have been written before the failure). With
    /// `cancellable`, the writes and the waits are points where stop() can end the thread (as
    /// writeCancellable(); the same rule on locks applies), and part of the bytes may then have
    /// been written; without it, the call may block for as long as the reader takes nothing.
    static ssize_t writeAll(int fd, const void* data, size_t size, bool cancellable);

  private:
    enum RunState { NOT_STARTED, RUNNING, ENDED };

    static void invalidate(pthread_t& h);
    static void* run(void* self);
    bool joinable() const;

    pthread_t handle;
    std::atomic<int> runState;
    std::string reason;  // written by the thread before runState becomes ENDED
};

// The one writer into a transport endpoint's input: whole messages, one writer at a time.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "libqbtrace/MessageBase.h"

/// Writes serialised trace messages into one descriptor, each message whole and never
/// interleaved with another.
///
/// Why it exists. A transport endpoint has one input: the application writes its payloads
/// (MSGID_CAN_TRANSPORT) into the same descriptor that the CAN proxy writes the received frames
/// into. A payload message of a few hundred bytes or more is larger than PIPE_BUF, so the pipe
/// does not write it atomically: a write() may return after part of it, or block half-way, and a
/// frame written meanwhile by another thread lands in the middle of the payload. The reader then
/// sees neither message intact (both are dropped, the stream resynchronises later). Every writer
/// into an endpoint's input therefore goes through one TraceMessageWriter for that descriptor:
/// the proxy thread (SocketCanProxy), the simulated bus (SimulatedCanBus::inputWriter()) and the
/// application's own payload writes share it.
///
/// Complete writes. A message is written under the writer's lock until its last byte is out:
/// a short write is continued, a write interrupted by a signal (EINTR) is resumed, and on a
/// non-blocking descriptor EAGAIN is waited out with poll(POLLOUT) without a time limit. On a
/// blocking descriptor the write itself blocks until the reader makes room. Any other failure
/// ends the write: the call returns false with errno set, and part of the message may have been
/// written (the reader's TraceMessageBuffer drops such a stump and resynchronises at the next
/// message). Logging the failure is the caller's business.
///
/// SIGPIPE. A write into a pipe or socket whose reader has gone fails with EPIPE and, under the
/// default disposition, would kill the process with SIGPIPE. During each write the writer blocks
/// SIGPIPE in the calling thread (pthread_sigmask); if the write raised one, it is taken off
/// again with sigtimedwait() before the mask is restored, so the caller only sees false with
/// errno EPIPE. A SIGPIPE that was already blocked in the thread before the call is left as the
/// thread's owner arranged it (pending or not). The process's signal disposition is not touched.
///
/// Blocking and stopping. write() blocks for as long as the reader does not read. A worker
/// thread of the family (libqbproc Thread) that must stay stoppable while it waits passes its
/// own SystemCalls (Thread::writeCancellable and a wait in Thread::waitForInput), so that stop()
/// can end it there; the lock is released by the unwinding, and part of a message may then have
/// been written.
///
/// Thread rules: any thread may call write() and writeBytes() at any time; callers are served
/// one whole message after the other, in the order they obtain the lock. The descriptor is not
/// owned (never closed) and must stay open while the writer is used; its flags are not changed.
/// Allocation: write() serialises into a per-call byte vector.
class TraceMessageWriter {
  public:
    /// The system calls the writer makes, replaceable for a stoppable worker thread and for
    /// tests (short writes, EINTR, EAGAIN, EPIPE).
    struct SystemCalls {
        /// Like write(2).
        ssize_t (*write)(int fd, const void* data, size_t size);
        /// Waits until `fd` may take more bytes; 0 (or more) when it may, -1 with errno on
        /// failure (EINTR makes the writer wait again).
        int (*waitWritable)(int fd);
    };

    /// write(2), and poll(POLLOUT) without a time limit.
    static const SystemCalls& defaultCalls();

    /// Writes into `fd`, which it does not own.
    explicit TraceMessageWriter(int fd);
    TraceMessageWriter(const TraceMessageWriter&) = delete;
    TraceMessageWriter& operator=(const TraceMessageWriter&) = delete;

    /// Serialises `msg` with createByteArray(out, true, false) and writes it whole under the
    /// lock. Returns false with errno set on failure (EMSGSIZE if the message cannot be
    /// serialised because its body is too large; nothing is written then).
    bool write(const MessageBase& msg);
    bool write(const MessageBase& msg, const SystemCalls& calls);

    /// Writes `size` bytes that are whole serialised messages (one or several) whole under the
    /// lock. Returns false with errno set on failure. A size of 0 writes nothing and succeeds.
    bool writeBytes(const uint8_t* data, size_t size);
    bool writeBytes(const uint8_t* data, size_t size, const SystemCalls& calls);

    int fd() const { return descriptor; }

  private:
    bool writeLocked(const uint8_t* data, size_t size, const SystemCalls& calls);

    const int descriptor;
    std::mutex lock;
};

// The C++ side of the Python module: one transport endpoint with its pipes, the shared input
// writer, the status queue and the bookkeeping of payloads handed over.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libqbcan/CANTransportThread.h"
#include "libqbsocketcan/SocketCanProxy.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "python/SendTracker.h"
#include "python/StatusQueue.h"

/// One running CAN transport endpoint, driven through the public interface of
/// CANTransportThread, for the Python module (qbcantp).
///
/// What it holds, all created by the constructor and released by close() (or the destructor):
/// - the CANTransportThread, opened and started, with a status callback that only queues;
/// - the CAN proxy pipe: the endpoint writes its frames into it, and takeFrames() hands them to
///   the Python bridge, which puts them on a python-can bus;
/// - one TraceMessageWriter on the endpoint's input, shared by submit() (payloads) and
///   feedFrame() (frames received from the bus), so that no frame ever lands inside a payload;
/// - a reader of the endpoint's output pipe for recv();
/// - the status queues (StatusQueue) and the bookkeeping of payloads handed over (SendTracker),
///   whose watcher is the only other C++ thread.
///
/// No Python. Nothing here touches the Python interpreter: the module's bindings release the GIL
/// around every call that may wait, and call the waiting functions in slices (`sliceMs`) so that
/// they can look for signals between slices. Every waiting function returns at once after
/// close().
///
/// Thread rules: every public function may be called from any thread, concurrently; close() may
/// run while other threads wait in this object: they return (with CLOSED or nothing) and close()
/// waits until every call has left before it releases anything. The destructor must not run
/// while calls are still in progress (the module keeps the object alive through its Python
/// reference while it is used).
///
/// Descriptors: the endpoint's four pipe ends (owned by CANTransportThread), the proxy pipe (two
/// ends) and a wake pipe (two ends). The endpoint's input end that this object writes into is
/// switched to non-blocking, so that a write into a full pipe waits in a poll that close() can
/// end. After close() none of the eight is open.
class EndpointCore {
  public:
    /// One CAN frame the endpoint sent: identifier and 0 to 8 data bytes.
    struct Frame {
        uint32_t id;
        std::vector<uint8_t> data;
    };

    /// One delivered payload.
    struct Payload {
        uint32_t canId;
        std::vector<uint8_t> data;
    };

    /// What a waiting call found.
    enum class Wait {
        READY,    ///< the result is there
        NOTHING,  ///< the slice ended without a result
        CLOSED,   ///< the endpoint is closed
    };

    /// Creates and starts the endpoint: frames are sent with `txId`, log lines are written at
    /// `debug`; each status queue keeps at most `statusQueueLimit` events (at least 1).
    /// Throws QBException (with the failed call) if a pipe cannot be created.
    EndpointCore(uint16_t txId, int debug, size_t statusQueueLimit);
    /// The same on the SocketCAN interface `interfaceName`, through the C++ SocketCanProxy
    /// (no Python on the frame path): only standard data frames of `peers` reach the endpoint.
    /// takeFrames() and feedFrame() are not used then. Throws QBException if the interface
    /// cannot be opened (logged by CanRawSocket).
    EndpointCore(uint16_t txId, int debug, size_t statusQueueLimit,
                 const std::string& interfaceName, const std::vector<uint32_t>& peers);
    /// close(), if that has not happened.
    ~EndpointCore();
    EndpointCore(const EndpointCore&) = delete;
    EndpointCore& operator=(const EndpointCore&) = delete;

    /// Hands one payload to the endpoint; returns its ticket for waitSent(). The caller has
    /// checked the length (1 to 4095 bytes). Throws QBException if the endpoint is closed or the
    /// write into its input fails. May block while the endpoint's input pipe is full.
    uint64_t submit(const uint8_t* data, size_t size);

    /// Waits up to `sliceMs` for the outcome of a ticket (SendTracker::Outcome); PENDING if it is
    /// not known yet. After close() every ticket not settled before reads CLOSED.
    SendTracker::Outcome waitSent(uint64_t ticket, int sliceMs);

    /// Waits up to `sliceMs` for the next payload the endpoint delivered.
    Wait recv(Payload& out, int sliceMs);

    /// Waits up to `sliceMs` for frames the endpoint wrote to its CAN proxy and appends all that
    /// are there to `out` (in order).
    Wait takeFrames(std::vector<Frame>& out, int sliceMs);

    /// Writes one received CAN frame into the endpoint (through the shared writer). `timeStampUs`
    /// becomes the trace message's time stamp. False if the endpoint is closed or the write
    /// failed (errno set).
    bool feedFrame(uint32_t id, bool extended, const uint8_t* data, size_t size,
                   uint64_t timeStampUs);

    /// Waits up to `sliceMs` for the next status event of the queue read by the application
    /// (`forCallback` false) or of the callback dispatcher (`forCallback` true; that queue is
    /// filled only after enableCallbackQueue()).
    Wait nextStatus(StatusQueue::Event& out, bool forCallback, int sliceMs);
    /// From now on every status event is also queued for the callback dispatcher.
    void enableCallbackQueue() { callbackEvents.enable(); }
    /// Events dropped because a queue was full (application queue, callback queue).
    uint64_t droppedStatusEvents(bool forCallback) const;

    /// Drops the kept outcome of a ticket whose sender stopped waiting (SendTracker::forget()).
    void forgetTicket(uint64_t ticket) { tracker.forget(ticket); }

    /// CANTransportThread::clear(), with the tickets of the payloads it drops settled CLEARED.
    void clear(bool all);
    /// CANTransportThread::sendQueueEmpty(); true once closed.
    bool sendQueueEmpty();
    /// CANTransportThread::setDebugLevel().
    void setDebugLevel(int level);

    /// True while the transport thread runs (false after close() or after it ended by an
    /// exception; then exitReason() says why).
    bool running();
    std::string exitReason();
    bool closed() const { return isClosed.load(); }

    /// Stops the transport thread and the watcher, settles every open ticket CLOSED, wakes every
    /// waiting call, waits until all calls have left, and releases every descriptor. Idempotent.
    void close();

  private:
    /// Counts a call in progress; false (and nothing counted) once closed.
    bool enter();
    void leave();
    struct CallScope;

    void setUp(uint16_t txId, int debug, const std::string* interfaceName,
               const std::vector<uint32_t>* peers);
    void onStatus(CANTransportThread::statuschange_t status, uint16_t arg);
    /// poll() on `fd` and the wake pipe; true if `fd` is readable (or at end of input).
    bool waitReadable(int fd, int sliceMs);

    std::unique_ptr<CANTransportThread> transport;
    std::unique_ptr<TraceMessageWriter> writer;
    std::unique_ptr<TraceMessageBuffer> payloadReader;
    std::unique_ptr<TraceMessageBuffer> frameReader;
    std::unique_ptr<SocketCanProxy> socketCan;  // null on a python-can bus
    SendTracker tracker;
    StatusQueue appEvents;
    StatusQueue callbackEvents;

    int appReadFd = -1;
    int appWriteFd = -1;
    int proxyPipe[2] = {-1, -1};
    int wakePipe[2] = {-1, -1};

    std::atomic<bool> isClosed{false};
    std::mutex callsLock;
    std::condition_variable callsDone;
    int callsInProgress = 0;

    std::mutex closeLock;   // one close() at a time
    std::mutex submitLock;  // a ticket and its write, in the order of the endpoint's input
    std::mutex recvLock;    // one reader of the payload pipe at a time
    std::mutex framesLock;  // one reader of the proxy pipe at a time
    std::string finalExitReason;
};

// The CAN proxy of a transport endpoint on a Linux SocketCAN interface.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "libqbproc/Thread.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"

struct can_frame;

/// Bridges one transport endpoint and one CAN_RAW socket, as one worker thread.
///
/// Endpoint to bus. The proxy creates a pipe; its write end, proxyFd(), is the endpoint's CAN
/// proxy descriptor (setConnection()). Each serialised CAN trace message the endpoint writes
/// there (MSGID_CAN_EXT; MSGID_CAN and MSGID_CAN_PROXY are taken too) becomes one struct
/// can_frame: a standard identifier (11 bits) for CT_STANDARD, an extended one (29 bits,
/// CAN_EFF_FLAG) for CT_EXTENDED, DLC = the message's number of data bytes. A message of
/// another kind, a CAN FD type, more than 8 data bytes or a frame kind other than CF_STANDARD
/// or CF_TXMESSAGE, and bytes that do not parse, are logged and counted (messagesRejected).
///
/// Transmit back-pressure. The socket is non-blocking. A frame is never dropped for lack of
/// room: when write() fails with EAGAIN (the socket's send buffer is full) the frame is kept and
/// the proxy waits until the socket is writable; when it fails with ENOBUFS (the interface's
/// transmit queue is full, which poll does not signal) it waits a back-off of
/// FIRST_BACKOFF_US, doubled at each further ENOBUFS up to MAX_BACKOFF_US, and tries again.
/// Every such failed attempt counts as a write retry. While a frame waits, the proxy reads
/// nothing more from the endpoint: the endpoint's further frames wait in the pipe (64 KiB, more
/// than one whole 4095-byte payload), and frames from the bus are still received.
///
/// Bus to endpoint. Each received classic data frame of a peer identifier becomes one
/// CANExtTraceMessage (MSGID_CAN_EXT, channel 0, CF_STANDARD, CSE_NO, CT_STANDARD or
/// CT_EXTENDED by the frame's identifier format, the frame's DLC as number of data bytes, at
/// most 8) whose time stamp is the kernel's receive time (SO_TIMESTAMPNS) in microseconds since
/// the Unix epoch (the time of reading if the kernel gave none). It is written whole into the
/// endpoint's input through `endpointInput`, the writer the application shares for its
/// payloads (TraceMessageWriter). A frame of another identifier (the socket's CAN_RAW_FILTER
/// normally keeps them off) counts as filtered out; remote frames and CAN FD frames are ignored
/// and counted.
///
/// Receive overflow. The kernel reports, with every frame, how many frames it dropped because
/// the socket's receive buffer was full (SO_RXQ_OVFL). Each increase is an error line
///     "[ERROR] SocketCanProxy::receiveFrames() receive buffer of IFACE overflowed: N frames
///     dropped by the kernel"
/// (one line) and counts as receive drops.
///
/// Error frames (CAN_RAW_ERR_FILTER, see CanRawSocket) are counted and logged as
///     "[ERROR] SocketCanProxy::handleFrame() error frame on IFACE: TEXT"
/// with CanErrorFrame::describe() as TEXT; the same text is logged at most once a second (the
/// count still takes every frame).
///
/// The interface going down or away. When the socket reports ENETDOWN, ENODEV or ENXIO (on
/// receive or send) the proxy writes one error line to std::cerr
///     "[ERROR] SocketCanProxy::FUNCTION() interface IFACE is down or gone, the proxy stops: "
/// followed by LogUtil::printError, records the reason (failure()) and its thread ends: no
/// retry, no spin. isRunning() turns false. The pipe stays open until destruction, so the
/// endpoint's writes of its last frames do not fail (they fill the pipe; it holds hundreds).
/// Any other failed socket call is logged to std::cerr and the proxy goes on (a failed write
/// drops that frame only after being logged; counted in sendFailures).
///
/// Stopping: stop() (Thread) ends the thread at its next wait; waits are select() through
/// Thread::waitForInput(), and writes into the endpoint's input use Thread::writeCancellable()
/// and the same wait, so an endpoint that has stopped reading cannot keep stop() waiting (part
/// of one message may then be left in its input). The destructor stops the thread, closes the
/// pipe and the socket. Stop the proxy before the endpoint, or together with it.
///
/// Thread rules: construction, setSocketCalls(), start(), stop() and destruction by the owner;
/// proxyFd(), statistics(), failed(), failure() and interfaceName() from any thread.
/// Memory: frames read from the endpoint wait in a queue that holds at most what one read of
/// the pipe brings (TraceMessageBuffer::READ_CHUNK_LIMIT bytes); nothing else grows.
class SocketCanProxy : public Thread {
  public:
    /// Counters since start. All counts are frames unless said otherwise.
    struct Statistics {
        /// Written to the socket (endpoint to bus).
        uint64_t framesSent = 0;
        /// Delivered to the endpoint (bus to endpoint).
        uint64_t framesReceived = 0;
        /// Data frames of identifiers that are not peers, dropped by the proxy.
        uint64_t framesFilteredOut = 0;
        /// Writes that failed with EAGAIN or ENOBUFS and were tried again.
        uint64_t writeRetries = 0;
        /// Of those, the ENOBUFS ones (the interface's transmit queue was full).
        uint64_t enobufs = 0;
        /// Frames the kernel dropped because the receive buffer was full (SO_RXQ_OVFL).
        uint64_t receiveDrops = 0;
        /// Error frames received.
        uint64_t errorFrames = 0;
        /// Remote frames and CAN FD frames received and ignored.
        uint64_t remoteFramesIgnored = 0;
        uint64_t fdFramesIgnored = 0;
        /// Messages from the endpoint that were not classic CAN frames (see above).
        uint64_t messagesRejected = 0;
        /// Frames whose write to the socket failed for good, and frames whose write into the
        /// endpoint's input failed.
        uint64_t sendFailures = 0;
        uint64_t deliveryFailures = 0;
    };

    /// The socket calls of the proxy, replaceable for tests that inject ENOBUFS, ENETDOWN and
    /// the like on a socketpair. Waiting is always select() on the real descriptor.
    struct SocketCalls {
        ssize_t (*write)(int fd, const void* data, size_t size);
        ssize_t (*recvmsg)(int fd, msghdr* msg, int flags);
    };

    static constexpr int FIRST_BACKOFF_US = 250;
    static constexpr int MAX_BACKOFF_US = 8000;

    /// Takes the socket; writes received frames through `endpointInput`, which must outlive
    /// the proxy. Creates the proxy pipe; throws QBException (after logging) if it cannot.
    /// `debugLevel` 1 and above: one debug line per frame each way.
    SocketCanProxy(CanRawSocket socket, TraceMessageWriter& endpointInput, int debugLevel = 0);
    ~SocketCanProxy() override;
    SocketCanProxy(const SocketCanProxy&) = delete;
    SocketCanProxy& operator=(const SocketCanProxy&) = delete;

    /// Replaces the socket calls; call before start().
    void setSocketCalls(const SocketCalls& calls);

    /// The endpoint's CAN proxy descriptor (the pipe's write end). Owned by the proxy.
    int proxyFd() const { return pipeWrite; }

    /// A consistent snapshot of the counters.
    Statistics statistics() const;

    /// True once the interface went down or away and the proxy stopped for it.
    bool failed() const;
    /// What failed ("interface vcan0 is down or gone: Network is down"); empty if nothing.
    std::string failure() const;

    const std::string& interfaceName() const { return socket.interfaceName(); }
    const CanRawSocket& canSocket() const { return socket; }

    static const char* logName() { return "SocketCanProxy"; }

  protected:
    void threadCode() override;

  private:
    /// Drains the endpoint's pipe into the transmit queue.
    void readEndpoint();
    /// Writes queued frames to the socket until it is empty or the socket is full.
    /// False if the interface failed.
    bool transmitFrames();
    /// Reads what the socket holds (at most a batch) and delivers it. False if the interface
    /// failed.
    bool receiveFrames();
    void handleFrame(const can_frame& frame, size_t bytes, uint64_t stampUs);
    void interfaceFailed(int err, const char* function);
    static int waitWritable(int fd);

    CanRawSocket socket;
    TraceMessageWriter& input;
    int debug;
    SocketCalls calls;
    int pipeRead = -1;
    int pipeWrite = -1;

    // Proxy thread only.
    std::unique_ptr<TraceMessageBuffer> reader;
    struct OutFrame {
        uint32_t canId;  // with CAN_EFF_FLAG for an extended identifier
        uint8_t length;
        uint8_t data[8];
    };
    std::deque<OutFrame> transmitQueue;
    bool waitingForRoom = false;  // EAGAIN: wait for the socket to become writable
    int backoffUs = 0;            // ENOBUFS: the current back-off, 0 if none
    int64_t backoffUntilNs = 0;
    uint32_t lastDropCount = 0;
    bool dropCountSeen = false;
    bool deliveryFailed = false;
    std::map<std::string, int64_t> lastErrorLineNs;  // error text -> monotonic time logged

    mutable std::mutex statsMutex;
    Statistics stats;         // guarded by statsMutex
    std::string failureText;  // guarded by statsMutex
};

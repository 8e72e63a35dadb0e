// A simulated classic CAN bus that connects transport endpoints through their descriptors.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "libqbcansim/PcapWriter.h"
#include "libqbproc/Thread.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "libqbutil/utility.h"

/// A classic CAN bus between endpoints, run as one worker thread.
///
/// Nodes. Each node stands for one CAN transport endpoint. addNode() takes the endpoint's input
/// descriptor (the application's writeFD, into which CAN frames received from the bus are
/// written) and creates a pipe whose write end, proxyFd(), the endpoint gets as its CAN proxy
/// descriptor. The bus reads each frame the endpoint writes there: one serialised
/// CANExtTraceMessage per frame. Any other message, a CAN FD frame, a classic frame with more
/// than 8 data bytes, or bytes that do not parse are logged, counted (messagesRejected) and
/// dropped.
///
/// The bus. Frames read from a node wait in that node's FIFO, so one node's frames go out in
/// the order it wrote them. The bus carries one frame at a time. When the frames at the heads of
/// several FIFOs wait, arbitration chooses the one whose arbitration field is lowest, bit by bit
/// as on the wire: between frames of one format the lowest identifier wins; a standard frame
/// wins over an extended frame with the same first 11 identifier bits (its RTR bit is dominant
/// where the extended frame's SRR is recessive); equal fields go to the lowest node index.
/// - Timed mode (Config::timed, the default): a frame occupies the bus for its exact length in
///   bits (CanFrameTiming::frameBits) at Config::bitrate and is delivered when its transmission
///   ends. Start and end times are absolute deadlines on the monotonic clock: a frame starts
///   when the previous one ended or, on an idle bus, when the bus read it; a late wake-up
///   therefore never stretches the total time.
/// - Fast mode (timed false): frames are delivered as soon as they are read, still one at a
///   time and in arbitration order among those waiting.
/// Delivery: to the input of every node except the sender, as one serialised CANExtTraceMessage
/// (MSGID_CAN_EXT, frame kind CF_STANDARD, no error, time stamp 0, the sender's channel,
/// identifier, type and data), as a CAN proxy reports a received frame.
///
/// Faults, reproducible from Config::seed (a std::mt19937_64 draws one number per frame put on
/// the bus, in the order of transmission):
/// - loss: each frame is lost with probability Config::lossProbability. A lost frame occupies
///   the bus and is counted as carried, but no node receives it (as if a corrupted frame were
///   not retransmitted).
/// - silence(node, d): for time d the node's frames are dropped before they reach the bus
///   (when read, and when they would enter arbitration) and frames of other nodes are not
///   delivered to it.
///
/// Tap: with Config::tap set, every frame put on the bus, lost frames included (a listener on
/// the wire sees them), is written as one candump log line "(SEC.USEC) IFACE ID#DATA\n"
/// (CandumpLine) and flushed. The time is the real time (CLOCK_REALTIME) of the end of the
/// transmission in timed mode, computed from its monotonic deadline, and of the delivery in fast
/// mode. Each line is written under LogUtil::logMutex, so the tap may be std::cout; a reader of
/// an in-memory tap stream takes that mutex while the bus runs. With Config::pcapTap set, every
/// such frame is also written, with the same time stamp, as one record of a pcap capture
/// (PcapWriter, link type 227) and flushed; the bus thread is then its only user while the bus
/// runs.
///
/// Descriptors. The bus owns the proxy pipes and closes them when destroyed. It does not own
/// the nodes' input descriptors. Everything written into a node's input goes through that
/// node's one TraceMessageWriter (inputWriter()), which writes each message whole under its lock
/// (short writes continued, EINTR resumed, a non-blocking descriptor waited for), so a payload
/// message longer than PIPE_BUF never interleaves with a frame. Applications must therefore not
/// write into a node's input descriptor directly while the bus runs: they write their payloads
/// through inputWriter(node) (or writeToInput(), which uses it). A write to an input whose
/// reader has gone fails with EPIPE, never with SIGPIPE (the bus thread blocks SIGPIPE, the
/// writer does so around each write); the bus logs it once for that node and counts
/// (deliveryFailures) every frame after.
///
/// Memory: per node a FIFO of at most about MAX_PENDING_FRAMES frames plus one read's worth
/// (TraceMessageBuffer::READ_CHUNK_LIMIT bytes); while a node's FIFO is full the bus stops
/// reading from it, and the endpoint's writes wait in the pipe. In fast mode, per node at most
/// DELIVERY_BATCH_LIMIT bytes of frames waiting to be written (see below).
///
/// Fast-mode delivery: the frames the bus carries in one pass (everything it has read when it
/// wakes) are written into each receiving node's input in one write, each still a whole
/// message, so that a burst of consecutive frames costs the receiver one wake-up instead of
/// one per frame. Frames are counted in the statistics once that write is done, as in timed
/// mode, where every frame is written when its transmission ends.
///
/// Thread rules. Construction, addNode(), start(), stop() and destruction: by the owner, and
/// addNode() only before start(). proxyFd(), nodeCount(), writeToInput(), inputWriter(), silence()
/// and statistics() may be called from any thread at any time after the nodes have been added. When
/// idle (no frame waiting or on the bus) the bus thread waits without a time limit. stop() (from
/// Thread) ends it at its next wait; the destructor stops it first.
class SimulatedCanBus : public Thread {
  public:
    struct Config {
        /// Bits per second; above 0.
        uint32_t bitrate = 500000;
        /// True: frames take their bit time on the bus. False: fast mode, no timing.
        bool timed = true;
        /// Probability (0 to 1) that a frame put on the bus is lost.
        double lossProbability = 0.0;
        /// Seed of the fault generator; equal seeds give equal faults for equal traffic.
        uint64_t seed = 1;
        /// Where to write candump lines of the traffic; null for none. Not owned: it must
        /// outlive the running bus.
        std::ostream* tap = nullptr;
        /// The interface name in the tap's lines.
        std::string tapInterface = "can0";
        /// Where to write the traffic as a pcap capture; null for none. Not owned: it must
        /// outlive the running bus, and nobody else may use it while the bus runs.
        PcapWriter* pcapTap = nullptr;
        /// Debug lines (one per frame) on std::cout at 1 and above.
        int debugLevel = 0;
    };

    /// Counters of one node.
    struct NodeStatistics {
        std::string name;
        /// Frames read from the node's proxy descriptor and accepted.
        uint64_t framesAccepted = 0;
        /// Of those, the frames waiting in its FIFO now.
        uint64_t framesPending = 0;
        /// Frames of this node put on the bus, lost ones included, and their bits.
        uint64_t framesSent = 0;
        uint64_t bitsSent = 0;
        /// Frames of this node dropped because it was silent.
        uint64_t framesDropped = 0;
        /// Frames of other nodes written into its input.
        uint64_t framesReceived = 0;
        /// Frames of other nodes not delivered to it because it was silent.
        uint64_t framesMissed = 0;
        /// Frames whose write into its input failed.
        uint64_t deliveryFailures = 0;
        /// Messages or bytes from it that were not classic CAN frames.
        uint64_t messagesRejected = 0;
    };

    /// A consistent snapshot. A frame is counted when its transmission has ended and it has
    /// been written to every receiver. framesAccepted of a node equals framesPending +
    /// framesSent + framesDropped, plus one while that node's frame is on the bus.
    struct Statistics {
        std::vector<NodeStatistics> nodes;
        /// Frames put on the bus (lost ones included) and their bits.
        uint64_t framesCarried = 0;
        uint64_t bitsCarried = 0;
        /// Of the frames carried, those lost.
        uint64_t framesLost = 0;
        /// Sum of the messagesRejected of all nodes.
        uint64_t messagesRejected = 0;
        /// Time the carried frames took on the bus: the sum of their bit times at the bit rate
        /// (in fast mode the time they would have taken).
        int64_t busyNs = 0;
        /// Monotonic time from the start of the bus thread to now, or to its end once it ended;
        /// 0 before it started.
        int64_t elapsedNs = 0;
        /// 100 * busyNs / elapsedNs (0 while elapsedNs is 0). In fast mode it may exceed 100.
        double loadPercent = 0.0;
        /// Index of the node whose frame is on the bus now, -1 if the bus is idle.
        int currentSender = -1;
        /// Fast mode: frames that have left the bus and are being written to their receivers,
        /// not yet in the counts above. A receiver may already hold such a frame, so the counts
        /// are complete for what the nodes have received only while this is 0.
        uint64_t framesBeingDelivered = 0;
    };

    /// Most frames a node's FIFO holds before the bus stops reading from that node.
    static constexpr size_t MAX_PENDING_FRAMES = 4096;
    /// Fast mode: most bytes of frames gathered for one node before they are written (PIPE_BUF
    /// on Linux: one batch is one atomic write into a pipe).
    static constexpr size_t DELIVERY_BATCH_LIMIT = 4096;

    /// A bus with the default Config.
    SimulatedCanBus();
    /// Throws std::invalid_argument for a bit rate of 0 or a loss probability outside 0..1.
    explicit SimulatedCanBus(const Config& config);
    /// Stops the thread, then closes the proxy pipes.
    ~SimulatedCanBus() override;
    SimulatedCanBus(const SimulatedCanBus&) = delete;
    SimulatedCanBus& operator=(const SimulatedCanBus&) = delete;

    /// Adds a node and returns its index (0, 1, ...). `inputFd` is the endpoint's input, not
    /// owned. Creates the node's proxy pipe (read end non-blocking). Throws std::invalid_argument
    /// for a negative descriptor, std::logic_error once the bus has been started, and
    /// QBException (after logging) if the pipe cannot be created.
    int addNode(int inputFd, const std::string& name);

    /// The write end of the node's proxy pipe, for the endpoint's setConnection(). Owned by the
    /// bus. Throws std::out_of_range for an unknown node.
    int proxyFd(int node) const;

    int nodeCount() const { return static_cast<int>(nodes.size()); }

    /// Writes `bytes` (typically one serialised trace message, of any size) whole into the
    /// node's input, never interleaved with a frame from the bus. Blocks until written (also on a
    /// non-blocking descriptor, by waiting for room). Returns false after logging if the write
    /// fails. Throws std::out_of_range for an unknown node.
    bool writeToInput(int node, const byteVec_t& bytes);

    /// The one writer into the node's input, shared by the bus (frames) and the application
    /// (payloads); see TraceMessageWriter. It lives as long as the bus. Throws std::out_of_range
    /// for an unknown node.
    TraceMessageWriter& inputWriter(int node);

    /// Silences the node for `duration` from now (replacing an earlier silence); 0 or less
    /// ends a silence. Throws std::out_of_range for an unknown node.
    void silence(int node, std::chrono::nanoseconds duration);

    /// A snapshot of the counters. Allocates the node vector.
    Statistics statistics() const;

    const Config& config() const { return cfg; }

    static const char* logName() { return "SimulatedCanBus"; }

  protected:
    void threadCode() override;

  private:
    struct Frame {
        uint32_t id;
        bool extended;
        uint8_t channel;
        uint8_t length;
        uint8_t data[8];
        uint32_t bits;
        int64_t readNs;  // monotonic time at which the bus read it
    };

    struct Node {
        std::string name;
        int inputFd = -1;
        int proxyRead = -1;
        int proxyWrite = -1;
        std::unique_ptr<TraceMessageBuffer> reader;
        std::deque<Frame> fifo;                      // bus thread only
        bool proxyClosed = false;                    // bus thread only
        std::unique_ptr<TraceMessageWriter> writer;  // every write into inputFd
        bool inputFailed = false;                    // bus thread only
        byteVec_t batch;                             // fast mode: frames to write, bus thread only
        size_t batchFrames = 0;                      // frames in `batch`
        int64_t silentUntilNs = 0;                   // guarded by stateMutex
        NodeStatistics stats;                        // guarded by stateMutex
    };

    struct Transmission {
        Frame frame;
        int sender;
        int64_t startNs;
        int64_t endNs;
    };

    void readNode(int index, int64_t now);
    void advance(int64_t now);
    bool startNext(int64_t now);
    void finish(const Transmission& tx, int64_t now);
    void writeTap(const Frame& frame, int64_t realNs);
    bool isSilent(const Node& node, int64_t now) const;  // caller holds stateMutex
    bool deliver(Node& node, const byteVec_t& bytes);
    /// Fast mode: writes every node's gathered frames and counts the frames they complete.
    void flushDeliveries();
    /// Counts a finished frame (caller holds stateMutex); `outcomes` has one entry per node.
    void countFrame(int sender, uint32_t bits, bool lost, const uint8_t* outcomes);
    static int waitWritable(int fd);
    void markEnded();

    static uint64_t arbitrationKey(const Frame& frame);
    static int64_t monotonicNs();
    static int64_t realtimeNs();

    Config cfg;
    std::vector<std::unique_ptr<Node>> nodes;

    // Bus thread only.
    std::mt19937_64 faults;
    bool transmitting = false;
    Transmission current{};
    int64_t lastEndNs = 0;
    int64_t realOffsetNs = 0;  // CLOCK_REALTIME minus CLOCK_MONOTONIC at thread start
    enum : uint8_t { OUTCOME_NONE, OUTCOME_RECEIVED, OUTCOME_MISSED, OUTCOME_FAILED };
    std::vector<uint8_t> outcome;  // per node, for the frame being finished
    byteVec_t frameBytes;          // the serialised frame being delivered
    /// Fast mode: frames finished but not yet written, in order: sender, bits, lost, and one
    /// outcome per node each.
    struct Finished {
        int sender;
        uint32_t bits;
        bool lost;
    };
    std::vector<Finished> finished;
    std::vector<uint8_t> finishedOutcomes;

    // Guarded by stateMutex.
    mutable std::mutex stateMutex;
    bool started = false;
    int64_t startNs = 0;
    int64_t endNs = 0;
    bool ended = false;
    int currentSender = -1;
    uint64_t framesBeingDelivered = 0;
    uint64_t framesCarried = 0;
    uint64_t bitsCarried = 0;
    uint64_t framesLost = 0;
    int64_t busyNs = 0;
};

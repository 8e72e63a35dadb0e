// Two CAN transport endpoints wired back to back, for end-to-end tests.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "common/Pipe.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbtrace/constants_canmessage.h"
#include "libqbutil/utility.h"

class MessageBase;
class TraceMessageBuffer;

namespace qbtest {

/// Endpoint A (frames sent with identifier 0x7E0) and endpoint B (0x7E8), each behind its own
/// pipes, with the CAN proxy descriptor of each feeding the input of the other.
///
/// Wiring:
/// - Each endpoint writes its frames into a pipe owned by this object (its CAN proxy
///   descriptor). One forwarder thread polls both pipes, parses every frame message and writes
///   it, serialised anew as a CANExtTraceMessage, into the input of the other endpoint.
/// - Every write into an endpoint's input (forwarded frames, and payloads handed over with
///   submit()) takes that endpoint's input mutex and writes the whole message before the mutex
///   is released, so that messages longer than PIPE_BUF never interleave. The input descriptor
///   is switched to non-blocking mode and the write loop waits with poll(), so a writer can be
///   released by stop() even when the endpoint no longer reads.
/// - One reader thread per endpoint reads the delivered payloads from its output descriptor.
/// - Status callbacks, deliveries and forwarded frames are recorded under one mutex, with the
///   time since start() from the monotonic clock.
///
/// Threads: submit() may be called from any thread, also from a delivery handler (which runs on
/// the reader thread of its endpoint). The queries may be called from any thread.
class EndToEndWiring {
  public:
    enum Side { A = 0, B = 1 };

    static constexpr uint16_t SEND_ID[2] = {0x7E0, 0x7E8};

    static Side other(Side side) { return side == A ? B : A; }
    static const char* name(Side side) { return side == A ? "A" : "B"; }

    /// One payload read from an endpoint's output.
    struct Delivery {
        byteVec_t payload;
        uint32_t canId;
        cantype_t canType;
        double time;
    };

    /// One call of an endpoint's status callback.
    struct StatusEvent {
        CANTransportThread::statuschange_t status;
        uint16_t id;
        double time;
    };

    /// One frame an endpoint wrote to its CAN proxy descriptor.
    struct Frame {
        uint32_t id;
        uint8_t length;
        std::array<uint8_t, 8> data;
    };

    /// The frames an endpoint wrote, counted by kind (high nibble of the first data byte).
    struct FrameCounts {
        size_t total = 0;
        size_t single = 0;            ///< first byte 0x01..0x0F
        size_t first = 0;             ///< high nibble 1
        size_t consecutive = 0;       ///< high nibble 2
        size_t flowControl[16] = {};  ///< high nibble 3, by code (low nibble)
        size_t other = 0;             ///< first byte 0x00 or high nibble 4..15
        size_t wrongShape = 0;        ///< not the sender's identifier, or not 8 data bytes
    };

    /// Called on the reader thread of `side` after the delivery with this index was recorded.
    typedef std::function<void(size_t index, const byteVec_t& payload)> deliveryHandler_t;

    explicit EndToEndWiring(int debugLevel = 0);
    ~EndToEndWiring();
    EndToEndWiring(const EndToEndWiring&) = delete;
    EndToEndWiring& operator=(const EndToEndWiring&) = delete;

    /// Before start(): keep a copy of every forwarded frame (frames()).
    void setRecordFrames(bool record) { recordFrames = record; }
    /// Before start().
    void setDeliveryHandler(Side side, deliveryHandler_t handler);

    /// Starts both endpoints, the forwarder and the readers. With `holdFrames` the forwarder
    /// reads no frame until releaseFrames(): payloads can then be handed over and queued before
    /// the peer hears anything.
    void start(bool holdFrames = false);
    void releaseFrames();
    /// Stops the endpoints and the helper threads; called by the destructor as well.
    void stop();

    /// Hands one payload to the endpoint (a CANTransportTraceMessage, time stamp 0, CT_STANDARD).
    bool submit(Side side, const byteVec_t& payload);
    /// Hands several payloads over in one write, with nothing else between them.
    bool submitAll(Side side, const std::vector<byteVec_t>& payloads);

    CANTransportThread& endpoint(Side side) { return *endpoints[side]; }

    std::vector<Delivery> deliveries(Side side) const;
    size_t deliveryCount(Side side) const;
    std::vector<StatusEvent> statuses(Side side) const;
    size_t statusCount(Side side, CANTransportThread::statuschange_t status) const;
    FrameCounts frameCounts(Side from) const;
    std::vector<Frame> frames(Side from) const;
    /// Messages on any descriptor that were not what the wiring expects there.
    size_t unexpectedInput() const;
    /// Writes into an endpoint's input that failed (other than being stopped).
    size_t failedWrites() const;
    /// Seconds since the last frame was forwarded (or since start()).
    double secondsSinceLastFrame() const;
    /// Seconds since start().
    double now() const;

    /// Waits until at least `n` payloads were delivered by `side`.
    bool waitForDeliveries(Side side, size_t n, std::chrono::milliseconds timeout) const;
    /// Waits until the callback of `side` was called at least `n` times with `status`.
    bool waitForStatus(Side side, CANTransportThread::statuschange_t status, size_t n,
                       std::chrono::milliseconds timeout) const;

  private:
    bool writeInput(Side side, const byteVec_t& bytes);
    void forwarderLoop();
    void forwardFrames(Side from);
    void readerLoop(Side side);
    /// Reads what is waiting into `buffer`; false (counted as unexpected) at end of input or on
    /// a read failure.
    bool readMore(TraceMessageBuffer& buffer);
    /// The next complete message in `buffer`, or null; bytes that do not parse are counted as
    /// unexpected and skipped.
    std::unique_ptr<MessageBase> nextMessage(TraceMessageBuffer& buffer);
    void countUnexpected();
    void onStatus(Side side, CANTransportThread::statuschange_t status, uint16_t id);
    template <typename Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds timeout) const;

    Pipe proxy[2];
    Pipe stopSignal;
    Pipe releaseSignal;
    std::unique_ptr<CANTransportThread> endpoints[2];
    int inputFD[2];
    int outputFD[2];
    std::mutex inputMutex[2];
    deliveryHandler_t handlers[2];
    bool recordFrames;

    mutable std::mutex dataMutex;
    mutable std::condition_variable dataChanged;
    std::vector<Delivery> delivered[2];
    std::vector<StatusEvent> statusEvents[2];
    FrameCounts counts[2];
    std::vector<Frame> frameLog[2];
    size_t unexpected;
    size_t writeFailures;
    double lastFrameTime;

    double startTime;
    std::atomic<bool> holding;
    std::atomic<bool> stopping;
    std::atomic<bool> exiting;
    bool started;
    bool stopped;
    std::thread forwarder;
    std::thread readers[2];
};

}  // namespace qbtest

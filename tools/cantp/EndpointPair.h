// Two started transport endpoints on one simulated CAN bus, for the measurements of cantp bench.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbutil/utility.h"

/// Endpoint A (side 0, sends with 0x7E0) and endpoint B (side 1, 0x7E8) on one SimulatedCanBus,
/// each with a thread that reads the payloads it delivers, and the counts of what both report.
///
/// Construction builds and starts everything: the bus (timed at `bitrate`, or fast), both
/// endpoints (debug level 0, so they write only their "[INFO]" start and connection lines) and
/// both output readers. Payloads are handed over with write(), through the bus's writer of that
/// endpoint's input. Every payload an endpoint delivers goes first to the delivery handler (on
/// that side's reader thread; it may write() the next payload) and is then counted. Every
/// CTT_ACKNOWLEDGED an endpoint reports is counted with the steady-clock time at which its status
/// callback ran; any other report except CTT_CONNECTED is counted as a failure.
///
/// The destructor stops the endpoints, then the bus, then the readers, and joins every thread it
/// started. Thread rules: write() and the queries from any thread; the handler must not destroy
/// the pair.
class EndpointPair {
  public:
    using Clock = std::chrono::steady_clock;
    /// Called with the delivering side (0: A delivered a payload B sent; 1: B delivered one of
    /// A's) and the payload.
    using DeliveryHandler = std::function<void(int side, const byteVec_t& payload)>;

    EndpointPair(bool timed, uint32_t bitrate, DeliveryHandler onDelivery = DeliveryHandler());
    ~EndpointPair();
    EndpointPair(const EndpointPair&) = delete;
    EndpointPair& operator=(const EndpointPair&) = delete;

    /// The identifier side 0 or 1 sends with.
    static uint16_t sendId(int side) { return side == 0 ? 0x7E0 : 0x7E8; }
    /// A payload as the serialised trace message an application writes into an endpoint's input.
    static byteVec_t payloadMessage(const byteVec_t& payload, uint16_t id);

    /// Hands a serialised payload message to endpoint `side`; false if the write failed.
    bool write(int side, const byteVec_t& message);

    /// Acknowledgements reported to endpoint `side` so far, and the time of the latest.
    uint64_t acknowledged(int side) const;
    Clock::time_point lastAcknowledgement(int side) const;
    /// Payloads endpoint `side` has delivered so far (after the handler returned).
    uint64_t delivered(int side) const;
    /// Reports other than CTT_CONNECTED and CTT_ACKNOWLEDGED, of both endpoints.
    uint64_t failures() const;

    /// Waits until `side` has `count` acknowledgements (and the same number of deliveries by
    /// the other side). False if `deadline` passed first, an endpoint reported a failure or an
    /// endpoint thread ended.
    bool waitTransferred(int side, uint64_t count, Clock::time_point deadline);

    SimulatedCanBus::Statistics busStatistics() const { return bus.statistics(); }
    /// The bus's statistics once no frame is on the bus, waiting to go on it or being written to
    /// its receivers, so that every frame already delivered is counted (the bus counts a frame
    /// just after writing it to its receivers). Waits at most one second for that, then returns
    /// what it has.
    SimulatedCanBus::Statistics settledBusStatistics() const;
    /// Empty while both endpoint threads run; otherwise why one ended.
    std::string failure() const;

  private:
    struct Side {
        std::unique_ptr<CANTransportThread> endpoint;
        int readFd = -1;
        int writeFd = -1;
        int node = -1;
        uint64_t acks = 0;  // the counts are guarded by the pair's mutex
        Clock::time_point lastAck;
        uint64_t deliveries = 0;
        std::thread reader;
    };

    void onStatus(int side, CANTransportThread::statuschange_t status);
    void readPayloads(int side);

    DeliveryHandler handler;
    SimulatedCanBus bus;
    Side sides[2];
    int stopPipe[2] = {-1, -1};
    mutable std::mutex mutex;
    std::condition_variable changed;
    uint64_t failed = 0;
};

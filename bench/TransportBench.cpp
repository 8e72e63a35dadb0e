// End-to-end payload transfer between two CAN transport endpoints on a simulated bus in fast
// mode (frames are delivered as soon as the bus reads them, without bit timing).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"
#include "libqbutil/utility.h"

namespace {

using Clock = std::chrono::steady_clock;

/// Longest a single payload may take before the benchmark gives up with an error.
constexpr std::chrono::seconds kDeadline{5};

SimulatedCanBus::Config fastBus() {
    SimulatedCanBus::Config cfg;
    cfg.timed = false;
    return cfg;
}

/// Endpoint A (sends with 0x7E0) and endpoint B (sends with 0x7E8) on one fast simulated bus.
/// Built on first use and shared by every benchmark of this file, so that the endpoints start
/// once; every benchmark leaves it idle (each payload delivered and acknowledged).
class TransportRig {
  public:
    static TransportRig& instance() {
        static TransportRig rig;
        return rig;
    }

    TransportRig(const TransportRig&) = delete;
    TransportRig& operator=(const TransportRig&) = delete;

    ~TransportRig() {
        a->stop();
        b->stop();
        bus.stop();
        a.reset();
        b.reset();
    }

    /// Hands a serialised payload message to A, as an application would.
    bool send(const byteVec_t& message) { return bus.writeToInput(nodeA, message); }

    /// Waits until B has delivered one payload of `size` bytes on its read descriptor.
    bool waitDelivered(size_t size, Clock::time_point deadline) {
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(bReader->getNextMessage());
            } catch (const QBException&) {
                return false;
            }
            if (msg) {
                const auto* p = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
                return p != nullptr && p->getPayload().size() == size;
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd pfd{bRead, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(left.count()) + 1) < 0 && errno != EINTR) {
                return false;
            }
            if (bReader->read() < 0) {
                return false;
            }
        }
    }

    /// Waits until A has reported `count` acknowledgements in total.
    bool waitAcks(uint64_t count, Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_until(lock, deadline, [&] { return acks >= count; });
    }

    uint64_t ackCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return acks;
    }

  private:
    TransportRig() : bus(fastBus()) {
        a.reset(new CANTransportThread(0));
        b.reset(new CANTransportThread(0));
        a->setSendCANid(0x7E0);
        b->setSendCANid(0x7E8);
        CANTransportThread::delstatus_t onStatus = [this](CANTransportThread::statuschange_t st,
                                                          uint16_t) {
            if (st == CANTransportThread::CTT_ACKNOWLEDGED) {
                std::lock_guard<std::mutex> lock(mutex);
                ++acks;
                cv.notify_all();
            }
        };
        a->setDelegate(onStatus);
        b->setDelegate(onStatus);
        int aWrite = -1;
        int bWrite = -1;
        a->open(aRead, aWrite);
        b->open(bRead, bWrite);
        // The application's end of B's output: read without blocking, after poll().
        ::fcntl(bRead, F_SETFL, ::fcntl(bRead, F_GETFL) | O_NONBLOCK);
        bReader.reset(new TraceMessageBuffer(bRead, nullptr));
        nodeA = bus.addNode(aWrite, "A");
        nodeB = bus.addNode(bWrite, "B");
        a->setConnection(bus.proxyFd(nodeA));
        b->setConnection(bus.proxyFd(nodeB));
        bus.start();
        a->start();
        b->start();
    }

    SimulatedCanBus bus;
    std::unique_ptr<CANTransportThread> a;
    std::unique_ptr<CANTransportThread> b;
    std::unique_ptr<TraceMessageBuffer> bReader;
    int aRead = -1;
    int bRead = -1;
    int nodeA = -1;
    int nodeB = -1;
    std::mutex mutex;
    std::condition_variable cv;
    uint64_t acks = 0;
};

byteVec_t payloadMessage(size_t size) {
    std::vector<uint8_t> payload(size);
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    const CANTransportTraceMessage msg(0, 0x7E0, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t bytes;
    msg.createByteArray(bytes, true, false);
    return bytes;
}

void setRates(benchmark::State& state, size_t payloadsPerIteration) {
    const auto payloads = static_cast<int64_t>(state.iterations() * payloadsPerIteration);
    state.SetItemsProcessed(payloads);
    state.SetBytesProcessed(payloads * state.range(0));
}

// Latency of one payload: from handing it to A until B has delivered it on its read
// descriptor (manual time). The acknowledgement travelling back to A is awaited after the
// clock stops, so that every payload meets an idle sender and no post-acknowledgement pause.
void BM_Transport_Delivery(benchmark::State& state) {
    TransportRig& rig = TransportRig::instance();
    const size_t size = static_cast<size_t>(state.range(0));
    const byteVec_t message = payloadMessage(size);
    uint64_t acked = rig.ackCount();
    for (auto _ : state) {
        const auto t0 = Clock::now();
        if (!rig.send(message) || !rig.waitDelivered(size, t0 + kDeadline)) {
            state.SkipWithError("payload not delivered");
            break;
        }
        const auto t1 = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        if (!rig.waitAcks(++acked, Clock::now() + kDeadline)) {
            state.SkipWithError("payload not acknowledged");
            break;
        }
    }
    setRates(state, 1);
}
BENCHMARK(BM_Transport_Delivery)
    ->Arg(7)
    ->Arg(64)
    ->Arg(512)
    ->Arg(4095)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.5);

// One payload handed over, delivered by B and acknowledged to A (wall-clock time of the whole
// round; the next payload starts only after the acknowledgement, so no pause is included).
void BM_Transport_DeliveredAndAcknowledged(benchmark::State& state) {
    TransportRig& rig = TransportRig::instance();
    const size_t size = static_cast<size_t>(state.range(0));
    const byteVec_t message = payloadMessage(size);
    uint64_t acked = rig.ackCount();
    for (auto _ : state) {
        const auto deadline = Clock::now() + kDeadline;
        if (!rig.send(message) || !rig.waitDelivered(size, deadline)) {
            state.SkipWithError("payload not delivered");
            break;
        }
        if (!rig.waitAcks(++acked, deadline)) {
            state.SkipWithError("payload not acknowledged");
            break;
        }
    }
    setRates(state, 1);
}
BENCHMARK(BM_Transport_DeliveredAndAcknowledged)
    ->Arg(7)
    ->Arg(64)
    ->Arg(512)
    ->Arg(4095)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.5);

// A batch of kBatch payloads handed to A at once; the iteration ends when B has delivered all
// of them and A has had all acknowledged. A payload queued behind another waits for the
// sender's 10 ms pause after each acknowledgement, which dominates this figure.
constexpr size_t kBatch = 10;

void BM_Transport_QueuedBatch(benchmark::State& state) {
    TransportRig& rig = TransportRig::instance();
    const size_t size = static_cast<size_t>(state.range(0));
    const byteVec_t message = payloadMessage(size);
    uint64_t acked = rig.ackCount();
    for (auto _ : state) {
        const auto deadline = Clock::now() + kDeadline;
        bool ok = true;
        for (size_t i = 0; i < kBatch && ok; ++i) {
            ok = rig.send(message);
        }
        for (size_t i = 0; i < kBatch && ok; ++i) {
            ok = rig.waitDelivered(size, deadline);
        }
        acked += kBatch;
        if (!ok || !rig.waitAcks(acked, deadline)) {
            state.SkipWithError("batch not delivered and acknowledged");
            break;
        }
    }
    setRates(state, kBatch);
}
BENCHMARK(BM_Transport_QueuedBatch)
    ->Arg(7)
    ->Arg(4095)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);

}  // namespace

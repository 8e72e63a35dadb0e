// Payload exchange between two C++ endpoints on a simulated bus in fast mode: one way and
// request/response, for 7, 100 and 4095 bytes. The same exchanges are measured for the Python
// module on python-can's virtual bus (bench/python/bench_endpoint.py); docs/python.md sets the
// two side by side.
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

constexpr std::chrono::seconds kDeadline{5};

/// One endpoint of the exchange with its output reader and its acknowledgement count.
struct Side {
    std::unique_ptr<CANTransportThread> endpoint;
    std::unique_ptr<TraceMessageBuffer> reader;
    int readFd = -1;
    int writeFd = -1;
    int node = -1;
    uint64_t acks = 0;  // guarded by ExchangeRig::mutex
};

/// Endpoint A (0x7E0) and B (0x7E8) on one fast simulated bus, built on first use.
class ExchangeRig {
  public:
    static ExchangeRig& instance() {
        static ExchangeRig rig;
        return rig;
    }

    ~ExchangeRig() {
        sides[0].endpoint->stop();
        sides[1].endpoint->stop();
        bus.stop();
    }

    bool send(int from, const byteVec_t& message) {
        return bus.writeToInput(sides[from].node, message);
    }

    /// Waits until side `to` has delivered one payload of `size` bytes.
    bool waitDelivered(int to, size_t size, Clock::time_point deadline) {
        Side& side = sides[to];
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(side.reader->getNextMessage());
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
            pollfd pfd{side.readFd, POLLIN, 0};
            if (::poll(&pfd, 1, static_cast<int>(left.count()) + 1) < 0 && errno != EINTR) {
                return false;
            }
            if (side.reader->read() < 0) {
                return false;
            }
        }
    }

    bool waitAcks(int side, uint64_t count, Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_until(lock, deadline, [&] { return sides[side].acks >= count; });
    }

    uint64_t ackCount(int side) {
        std::lock_guard<std::mutex> lock(mutex);
        return sides[side].acks;
    }

  private:
    ExchangeRig() : bus(fastBus()) {
        const uint16_t ids[2] = {0x7E0, 0x7E8};
        for (int i = 0; i < 2; ++i) {
            Side& side = sides[i];
            side.endpoint.reset(new CANTransportThread(0));
            side.endpoint->setSendCANid(ids[i]);
            CANTransportThread::delstatus_t onStatus =
                [this, i](CANTransportThread::statuschange_t st, uint16_t) {
                    if (st == CANTransportThread::CTT_ACKNOWLEDGED) {
                        std::lock_guard<std::mutex> lock(mutex);
                        ++sides[i].acks;
                        cv.notify_all();
                    }
                };
            side.endpoint->setDelegate(onStatus);
            side.endpoint->open(side.readFd, side.writeFd);
            ::fcntl(side.readFd, F_SETFL, ::fcntl(side.readFd, F_GETFL) | O_NONBLOCK);
            side.reader.reset(new TraceMessageBuffer(side.readFd, nullptr));
            side.node = bus.addNode(side.writeFd, i == 0 ? "A" : "B");
            side.endpoint->setConnection(bus.proxyFd(side.node));
        }
        bus.start();
        sides[0].endpoint->start();
        sides[1].endpoint->start();
    }

    static SimulatedCanBus::Config fastBus() {
        SimulatedCanBus::Config cfg;
        cfg.timed = false;
        return cfg;
    }

    SimulatedCanBus bus;
    Side sides[2];
    std::mutex mutex;
    std::condition_variable cv;
};

byteVec_t payloadMessage(size_t size, uint32_t id) {
    std::vector<uint8_t> payload(size);
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    const CANTransportTraceMessage msg(0, id, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t bytes;
    msg.createByteArray(bytes, true, false);
    return bytes;
}

/// One payload from `from` to the other side: handed over, delivered and acknowledged.
bool transfer(ExchangeRig& rig, int from, const byteVec_t& message, size_t size, uint64_t& acked) {
    const auto deadline = Clock::now() + kDeadline;
    return rig.send(from, message) && rig.waitDelivered(1 - from, size, deadline) &&
           rig.waitAcks(from, ++acked, deadline);
}

// A sends to B; each payload is delivered and acknowledged before the next is handed over (as
// send(wait=True) in a loop does in Python).
void BM_Exchange_OneWay(benchmark::State& state) {
    ExchangeRig& rig = ExchangeRig::instance();
    const size_t size = static_cast<size_t>(state.range(0));
    const byteVec_t message = payloadMessage(size, 0x7E0);
    uint64_t acked = rig.ackCount(0);
    for (auto _ : state) {
        if (!transfer(rig, 0, message, size, acked)) {
            state.SkipWithError("payload not delivered and acknowledged");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Exchange_OneWay)
    ->Arg(7)
    ->Arg(100)
    ->Arg(4095)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->UseRealTime();

// A sends a request to B, B answers with a response of the same size: one iteration is one
// round (two payloads, each delivered and acknowledged). Items/s are rounds per second; bytes/s
// count the payload bytes of both directions.
void BM_Exchange_RequestResponse(benchmark::State& state) {
    ExchangeRig& rig = ExchangeRig::instance();
    const size_t size = static_cast<size_t>(state.range(0));
    const byteVec_t request = payloadMessage(size, 0x7E0);
    const byteVec_t response = payloadMessage(size, 0x7E8);
    uint64_t ackedA = rig.ackCount(0);
    uint64_t ackedB = rig.ackCount(1);
    for (auto _ : state) {
        if (!transfer(rig, 0, request, size, ackedA) || !transfer(rig, 1, response, size, ackedB)) {
            state.SkipWithError("round not completed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * 2 * state.range(0));
}
BENCHMARK(BM_Exchange_RequestResponse)
    ->Arg(7)
    ->Arg(100)
    ->Arg(4095)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->UseRealTime();

}  // namespace

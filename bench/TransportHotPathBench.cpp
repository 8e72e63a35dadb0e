// The endpoint's own hot paths, called directly on the benchmark thread (no thread, no bus):
// cutting a payload into frames, and dispatching one received single, first or consecutive
// frame. See TransportProbe.h for how the endpoint is set up.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "TransportProbe.h"

namespace {

using Clock = std::chrono::steady_clock;
using TPCANMsg = CANTransportThread::TPCANMsg;

/// Identifier of the frames the peer sends to the probe.
constexpr uint32_t kPeerId = 0x7E8;

TPCANMsg frame(uint8_t b0, uint8_t b1, uint8_t first) {
    TPCANMsg m{};
    m.ID = kPeerId;
    m.LEN = 8;
    m.DATA[0] = b0;
    m.DATA[1] = b1;
    for (int i = 2; i < 8; ++i) {
        m.DATA[i] = static_cast<uint8_t>(first + i);
    }
    return m;
}

std::vector<uint8_t> countingPayload(size_t size) {
    std::vector<uint8_t> payload(size);
    for (size_t i = 0; i < size; ++i) {
        payload[i] = static_cast<uint8_t>(i * 13 + 5);
    }
    return payload;
}

/// Reads a non-blocking descriptor empty; returns the bytes read.
size_t drainFd(int fd) {
    uint8_t buf[4096];
    size_t total = 0;
    for (;;) {
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0) {
            return total;
        }
        total += static_cast<size_t>(n);
    }
}

/// Before a cutting benchmark: with a real pipe as the CAN proxy, prepareData() followed by
/// clear(true) must write a frame each of two times (the endpoint is idle again after clear()).
/// Leaves the probe connected to /dev/null.
bool writesFirstFrameEachTime(TransportProbe& probe, const std::vector<uint8_t>& payload) {
    int fds[2];
    if (::pipe(fds) != 0) {
        return false;
    }
    ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    probe.setConnection(fds[1]);
    bool ok = true;
    for (int i = 0; i < 2 && ok; ++i) {
        probe.prepareData(payload.data(), payload.size());
        probe.clear(true);
        ok = drainFd(fds[0]) > 0;
    }
    probe.setConnection(probe.nullDescriptor());
    ::close(fds[0]);
    ::close(fds[1]);
    return ok;
}

// Cutting one payload of state.range(0) bytes into CAN frames on an idle endpoint. One
// iteration is one prepareData() call (every frame built and the payload queued; the endpoint
// being idle, its first frame, the single frame or the first frame of a segmented payload, is
// serialised and written to /dev/null) followed by clear(true), which frees the queued payload
// and leaves the endpoint idle for the next iteration. Items/s are frames cut per second (1, 15
// and 586 frames for 7, 100 and 4095 bytes); bytes/s count payload bytes.
void BM_Cut_Payload(benchmark::State& state) {
    TransportProbe probe;
    const size_t size = static_cast<size_t>(state.range(0));
    const std::vector<uint8_t> payload = countingPayload(size);
    if (!probe.ready() || !writesFirstFrameEachTime(probe, payload)) {
        state.SkipWithError("the endpoint did not send a first frame for every payload");
        return;
    }
    for (auto _ : state) {
        probe.prepareData(payload.data(), payload.size());
        probe.clear(true);
    }
    if (!probe.sendQueueEmpty()) {
        state.SkipWithError("payloads left in the send queue");
        return;
    }
    const auto frames = static_cast<int64_t>(TransportProbe::framesFor(size));
    state.SetItemsProcessed(state.iterations() * frames);
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.counters["frames"] = static_cast<double>(frames);
}
BENCHMARK(BM_Cut_Payload)->Arg(7)->Arg(100)->Arg(4095)->MinTime(0.2);

// One received single frame with 7 payload bytes, dispatched: one handleCANData() call, which
// takes the payload, serialises it and writes it to the endpoint's output pipe, then serialises
// the acknowledgement flow control and writes it to /dev/null. Only that call is timed (manual
// time; the two clock reads around it are included). After each call, outside the clock, the
// output pipe is drained; the CPU column includes that read.
void BM_Dispatch_SingleFrame(benchmark::State& state) {
    TransportProbe probe;
    if (!probe.ready()) {
        state.SkipWithError("/dev/null could not be opened");
        return;
    }
    const TPCANMsg single = frame(0x07, 0x41, 0x40);
    for (auto _ : state) {
        TPCANMsg msg = single;
        const auto t0 = Clock::now();
        probe.handleCANData(msg);
        const auto t1 = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        if (probe.drainOutput() == 0) {
            state.SkipWithError("single frame not delivered");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Dispatch_SingleFrame)->UseManualTime()->MinTime(0.1);

// One received first frame dispatched: one handleCANData() call with a first frame announcing
// an 8-byte payload, which keeps its 6 bytes and serialises the ready-to-receive flow control
// and writes it to /dev/null. Only that call is timed (manual time; the two clock reads around
// it are included). After it, outside the clock, a consecutive frame with the last 2 bytes
// completes the payload (delivered to the output pipe and acknowledged), so that the endpoint
// expects a first frame again, and the output pipe is drained; the CPU column includes both.
void BM_Dispatch_FirstFrame(benchmark::State& state) {
    TransportProbe probe;
    if (!probe.ready()) {
        state.SkipWithError("/dev/null could not be opened");
        return;
    }
    const TPCANMsg first = frame(0x10, 0x08, 0x10);
    const TPCANMsg last = frame(0x20, 0x77, 0x20);
    for (auto _ : state) {
        TPCANMsg msg = first;
        const auto t0 = Clock::now();
        probe.handleCANData(msg);
        const auto t1 = Clock::now();
        state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
        TPCANMsg rest = last;
        probe.handleCANData(rest);
        if (probe.drainOutput() == 0) {
            state.SkipWithError("first frame not taken (its payload was not delivered)");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Dispatch_FirstFrame)->UseManualTime()->MinTime(0.1);

// One received consecutive frame dispatched, inside a 4095-byte payload: one handleCANData()
// call, which checks the sequence number (0 to 15 in turn) and appends 7 bytes. Every 585th
// call is the payload's last: it also serialises the 4095 bytes, writes them to the output
// pipe and writes the acknowledgement flow control to /dev/null; that cost is in the figure,
// spread over the 585 frames. Between payloads the clock is paused (once every 585 iterations)
// to drain the output pipe and dispatch the first frame of the next payload.
void BM_Dispatch_ConsecutiveFrame(benchmark::State& state) {
    constexpr size_t kPayload = 4095;
    const size_t perPayload = TransportProbe::framesFor(kPayload) - 1;  // 585
    TransportProbe probe;
    if (!probe.ready()) {
        state.SkipWithError("/dev/null could not be opened");
        return;
    }
    const TPCANMsg first = frame(0x1F, 0xFF, 0x30);
    TPCANMsg consecutive[16];
    for (int sn = 0; sn < 16; ++sn) {
        consecutive[sn] = frame(static_cast<uint8_t>(0x20 | sn), static_cast<uint8_t>(sn), 0x50);
    }
    TPCANMsg msg = first;
    probe.handleCANData(msg);
    size_t sent = 0;
    for (auto _ : state) {
        msg = consecutive[sent & 0x0F];
        probe.handleCANData(msg);
        if (++sent == perPayload) {
            state.PauseTiming();
            const size_t delivered = probe.drainOutput();
            msg = first;
            probe.handleCANData(msg);
            sent = 0;
            state.ResumeTiming();
            if (delivered <= kPayload) {
                state.SkipWithError("4095-byte payload not delivered");
                break;
            }
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Dispatch_ConsecutiveFrame)->MinTime(0.2);

}  // namespace

// Serialising trace messages and parsing streams of them, from memory and through a pipe.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/utility.h"

namespace {

const uint8_t kFrameData[8] = {0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};

CANExtTraceMessage makeFrame(uint32_t i) {
    uint8_t data[8];
    for (int k = 0; k < 8; ++k) {
        data[k] = static_cast<uint8_t>(i + static_cast<uint32_t>(k));
    }
    return CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, data);
}

/// N serialised 8-byte CAN frame messages back to back.
byteVec_t frameStream(size_t n) {
    byteVec_t stream;
    byteVec_t one;
    for (size_t i = 0; i < n; ++i) {
        makeFrame(static_cast<uint32_t>(i)).createByteArray(one, true, false);
        stream.insert(stream.end(), one.begin(), one.end());
    }
    return stream;
}

/// Takes every complete message off the buffer; returns how many there were.
size_t drain(TraceMessageBuffer& buffer) {
    size_t count = 0;
    for (;;) {
        std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
        if (!msg) {
            return count;
        }
        benchmark::DoNotOptimize(msg->getMessageId());
        ++count;
    }
}

// Serialising one CAN frame message (header and body, no checksum) into an output vector that
// is reused, so after the first iteration nothing is allocated. Items are messages; bytes are
// the bytes produced.
void BM_CreateByteArray_CanExtFrame(benchmark::State& state) {
    const CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, kFrameData);
    byteVec_t out;
    for (auto _ : state) {
        msg.createByteArray(out, true, false);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
    state.counters["msg_bytes"] = static_cast<double>(out.size());
}
BENCHMARK(BM_CreateByteArray_CanExtFrame)->MinTime(0.2);

// The same message serialised into a fresh output vector each time, as the endpoint does for
// every frame it sends: one iteration includes the vector's allocation and release. Items are
// messages; bytes are the bytes produced.
void BM_CreateByteArray_CanExtFrame_FreshBuffer(benchmark::State& state) {
    const CANExtTraceMessage msg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, 0x7E0, kFrameData);
    size_t bytes = 0;
    for (auto _ : state) {
        byteVec_t out;
        msg.createByteArray(out, true, false);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
        bytes = out.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["msg_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_CreateByteArray_CanExtFrame_FreshBuffer)->MinTime(0.2);

// Serialising one transport payload message of state.range(0) payload bytes, built once before
// the loop, into a reused output vector. Items are messages; bytes are the bytes produced
// (header, identifier, type and payload).
void BM_CreateByteArray_TransportPayload(benchmark::State& state) {
    std::vector<uint8_t> payload(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i);
    }
    const CANTransportTraceMessage msg(0, 0x7E8, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t out;
    for (auto _ : state) {
        msg.createByteArray(out, true, false);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * out.size()));
    state.counters["msg_bytes"] = static_cast<double>(out.size());
}
BENCHMARK(BM_CreateByteArray_TransportPayload)->Arg(7)->Arg(100)->Arg(4095)->MinTime(0.2);

// Building and serialising the message of a delivered payload of state.range(0) bytes, as the
// endpoint does when a payload is complete: one iteration copies the received bytes into a new
// CANTransportTraceMessage, serialises it into a fresh output vector and releases both. Items
// are payload messages; bytes are the bytes produced.
void BM_Serialise_DeliveredPayload(benchmark::State& state) {
    std::vector<uint8_t> received(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < received.size(); ++i) {
        received[i] = static_cast<uint8_t>(i * 3 + 1);
    }
    size_t bytes = 0;
    for (auto _ : state) {
        const CANTransportTraceMessage msg(0, 0x7E8, received.begin(), received.end(), CT_STANDARD);
        byteVec_t out;
        msg.createByteArray(out, true, false);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
        bytes = out.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.counters["msg_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_Serialise_DeliveredPayload)->Arg(7)->Arg(100)->Arg(4095)->MinTime(0.2);

// Parsing a stream of state.range(0) frame messages handed over with feed(); one buffer
// object is reused across iterations, as a reader keeps it.
void BM_TraceMessageBuffer_FeedParse(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const byteVec_t stream = frameStream(n);
    TraceMessageBuffer buffer(-1, nullptr);
    for (auto _ : state) {
        buffer.feed(stream.data(), stream.size());
        if (drain(buffer) != n) {
            state.SkipWithError("parsed a different number of messages");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_TraceMessageBuffer_FeedParse)->Arg(16)->Arg(1024)->MinTime(0.2);

// The same stream written into a real pipe whose read end is non-blocking, then read() and
// getNextMessage() until it is all parsed. The stream goes through in chunks of at most
// 16 KiB, each written and then read, so the writer never blocks; the time includes the
// write() calls.
void BM_TraceMessageBuffer_PipeReadParse(benchmark::State& state) {
    const size_t n = static_cast<size_t>(state.range(0));
    const byteVec_t stream = frameStream(n);
    int fds[2];
    if (::pipe(fds) != 0) {
        state.SkipWithError("pipe() failed");
        return;
    }
    ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    TraceMessageBuffer buffer(fds[0], nullptr);
    const size_t chunk = 16 * 1024;
    bool failed = false;
    for (auto _ : state) {
        size_t parsed = 0;
        size_t offset = 0;
        while (offset < stream.size() && !failed) {
            const size_t len = std::min(chunk, stream.size() - offset);
            const ssize_t w = ::write(fds[1], stream.data() + offset, len);
            if (w <= 0) {
                failed = errno != EINTR;
                continue;
            }
            offset += static_cast<size_t>(w);
            if (buffer.read() < 0) {
                failed = true;
            }
            parsed += drain(buffer);
        }
        if (failed || parsed != n) {
            state.SkipWithError("pipe transfer failed or parsed a different number");
            break;
        }
    }
    ::close(fds[0]);
    ::close(fds[1]);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * stream.size()));
}
BENCHMARK(BM_TraceMessageBuffer_PipeReadParse)->Arg(16)->Arg(1024)->MinTime(0.2);

}  // namespace

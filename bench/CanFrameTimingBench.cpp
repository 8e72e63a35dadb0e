// Bit length of a CAN frame, and the candump text form.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "libqbcansim/CanFrameTiming.h"
#include "libqbcansim/CandumpLine.h"

namespace {

const uint8_t kData[8] = {0x02, 0x10, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00};

// Exact wire length (CRC-15 and stuff bits) of a standard frame with 8 data bytes.
void BM_FrameBits_Standard8(benchmark::State& state) {
    uint32_t id = 0x7E0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(id);
        benchmark::DoNotOptimize(CanFrameTiming::frameBits(id, false, kData, 8));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FrameBits_Standard8)->MinTime(0.2);

// Parsing one candump log line of a standard 8-byte frame.
void BM_CandumpLine_Parse(benchmark::State& state) {
    const std::string line = "(1700000000.123456) can0 7E0#0210030000000000";
    CandumpLine out;
    std::string error;
    for (auto _ : state) {
        const bool ok = CandumpLine::parse(line, out, error);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(out.data.data());
        if (!ok) {
            state.SkipWithError("parse failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * line.size()));
}
BENCHMARK(BM_CandumpLine_Parse)->MinTime(0.2);

// Formatting one candump log line of a standard 8-byte frame.
void BM_CandumpLine_Format(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string s =
            CandumpLine::format(1700000000, 123456, "can0", 0x7E0, false, kData, 8);
        bytes += s.size();
        benchmark::DoNotOptimize(s.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_CandumpLine_Format)->MinTime(0.2);

}  // namespace

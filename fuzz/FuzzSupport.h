// Support shared by the fuzz targets: checks that abort with a message, an input reader that
// takes typed values off the front of the fuzzer's bytes, and quiet log streams.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace qbfuzz {

/// Writes the failed check to standard error and aborts: libFuzzer (and the replay program
/// under CTest) reports the abort as a crash and keeps the input.
[[noreturn]] inline void fail(const char* file, int line, const char* condition,
                              const std::string& detail) {
    std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n  %s\n", file, line, condition,
                 detail.c_str());
    std::fflush(stderr);
    std::abort();
}

/// Checks `condition`; `pieces` (stream insertions, e.g. "size " << n) describe the failure and
/// are evaluated only then.
#define QB_FUZZ_CHECK(condition, pieces)                                           \
    do {                                                                           \
        if (!(condition)) {                                                        \
            std::ostringstream qb_fuzz_detail_;                                    \
            qb_fuzz_detail_ << pieces;                                             \
            ::qbfuzz::fail(__FILE__, __LINE__, #condition, qb_fuzz_detail_.str()); \
        }                                                                          \
    } while (0)

/// Takes values off the front of the input. Reading past the end gives zeros (and empty byte
/// runs), so every input is a valid program for the target; empty() tells when to stop.
class InputReader {
  public:
    InputReader(const uint8_t* data, size_t size) : data(data), size(size) {}

    bool empty() const { return pos >= size; }
    size_t remaining() const { return pos < size ? size - pos : 0; }

    uint8_t u8() { return pos < size ? data[pos++] : 0; }
    uint16_t u16() {
        const uint16_t low = u8();
        return static_cast<uint16_t>(low | (u8() << 8));
    }
    uint32_t u32() {
        const uint32_t low = u16();
        return low | (static_cast<uint32_t>(u16()) << 16);
    }
    uint64_t u64() {
        const uint64_t low = u32();
        return low | (static_cast<uint64_t>(u32()) << 32);
    }
    /// Up to `count` bytes (fewer at the end of the input).
    std::vector<uint8_t> bytes(size_t count) {
        const size_t n = count < remaining() ? count : remaining();
        std::vector<uint8_t> out(data + pos, data + pos + n);
        pos += n;
        return out;
    }
    /// Everything that is left.
    std::vector<uint8_t> rest() { return bytes(remaining()); }

  private:
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
};

/// A stream buffer that takes everything and keeps nothing: log lines are still formatted (so
/// that code runs under the fuzzer) but cost no write.
class NullBuffer : public std::streambuf {
  protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

/// Sends std::cout and std::cerr to a NullBuffer for the life of the process, unless the
/// environment sets QB_FUZZ_VERBOSE (to see the endpoint's log lines while replaying one input).
/// libFuzzer's own reports use the C standard error stream and are not affected.
inline void silenceLogStreams() {
    if (std::getenv("QB_FUZZ_VERBOSE") != nullptr) {
        return;
    }
    // Never destroyed: the standard streams are flushed at exit, after static objects are gone.
    static NullBuffer* const sink = new NullBuffer;
    std::cout.rdbuf(sink);
    std::cerr.rdbuf(sink);
}

/// Hex text of bytes for failure messages ("0a 1b ..."), at most `limit` bytes.
inline std::string hex(const std::vector<uint8_t>& bytes, size_t limit = 64) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
        if (i > 0) {
            s += ' ';
        }
        s += digits[bytes[i] >> 4];
        s += digits[bytes[i] & 0x0F];
    }
    if (bytes.size() > limit) {
        s += " ...";
    }
    return s;
}

}  // namespace qbfuzz

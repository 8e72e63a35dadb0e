#include "libqbcansim/CanFrameTiming.h"

#include <stdexcept>
#include <string>

namespace {

void checkFrame(uint32_t id, bool extended, const uint8_t* data, uint8_t len) {
    if (len > CanFrameTiming::MAX_DATA_BYTES) {
        throw std::invalid_argument(
            "CanFrameTiming: a classic CAN frame has at most 8 data bytes, not " +
            std::to_string(len));
    }
    if (len > 0 && data == nullptr) {
        throw std::invalid_argument("CanFrameTiming: null data with a length of " +
                                    std::to_string(len));
    }
    const uint32_t maxId =
        extended ? CanFrameTiming::MAX_EXTENDED_ID : CanFrameTiming::MAX_STANDARD_ID;
    if (id > maxId) {
        throw std::invalid_argument(std::string("CanFrameTiming: identifier ") +
                                    std::to_string(id) + " is too wide for a " +
                                    (extended ? "29" : "11") + "-bit identifier");
    }
}

// Appends the `width` low bits of `value`, most significant first.
size_t putBits(uint8_t* bits, size_t at, uint32_t value, unsigned width) {
    for (unsigned i = width; i > 0; --i) {
        bits[at++] = static_cast<uint8_t>((value >> (i - 1)) & 1u);
    }
    return at;
}

}  // namespace

size_t CanFrameTiming::headBits(uint32_t id, bool extended, const uint8_t* data, uint8_t len,
                                uint8_t* bits) {
    checkFrame(id, extended, data, len);
    size_t n = 0;
    bits[n++] = 0;  // start of frame
    if (extended) {
        n = putBits(bits, n, id >> 18, 11);       // identifier A
        bits[n++] = 1;                            // SRR
        bits[n++] = 1;                            // IDE
        n = putBits(bits, n, id & 0x3FFFFu, 18);  // identifier B
        bits[n++] = 0;                            // RTR: data frame
        bits[n++] = 0;                            // r1
        bits[n++] = 0;                            // r0
    } else {
        n = putBits(bits, n, id, 11);
        bits[n++] = 0;  // RTR: data frame
        bits[n++] = 0;  // IDE: standard format
        bits[n++] = 0;  // r0
    }
    n = putBits(bits, n, len, 4);  // data length code
    for (uint8_t i = 0; i < len; ++i) {
        n = putBits(bits, n, data[i], 8);
    }
    return n;
}

uint16_t CanFrameTiming::crc15(const uint8_t* bits, size_t count) {
    uint16_t crc = 0;
    for (size_t i = 0; i < count; ++i) {
        const bool next = (bits[i] != 0) != (((crc >> 14) & 1u) != 0);
        crc = static_cast<uint16_t>((static_cast<unsigned>(crc) << 1) & 0x7FFFu);
        if (next) {
            crc ^= CRC15_POLYNOMIAL;
        }
    }
    return crc;
}

uint16_t CanFrameTiming::crc15(uint32_t id, bool extended, const uint8_t* data, uint8_t len) {
    uint8_t bits[MAX_HEAD_BITS];
    const size_t n = headBits(id, extended, data, len, bits);
    return crc15(bits, n);
}

uint32_t CanFrameTiming::stuffBitCount(const uint8_t* bits, size_t count) {
    uint32_t stuffed = 0;
    unsigned run = 0;
    bool level = false;
    for (size_t i = 0; i < count; ++i) {
        const bool bit = bits[i] != 0;
        if (run > 0 && bit == level) {
            ++run;
        } else {
            level = bit;
            run = 1;
        }
        if (run == 5) {
            // The inserted bit has the opposite level and starts the next run.
            ++stuffed;
            level = !level;
            run = 1;
        }
    }
    return stuffed;
}

uint32_t CanFrameTiming::stuffBitCount(uint32_t id, bool extended, const uint8_t* data,
                                       uint8_t len) {
    uint8_t bits[MAX_HEAD_BITS + 15];
    size_t n = headBits(id, extended, data, len, bits);
    n = putBits(bits, n, crc15(bits, n), 15);
    return stuffBitCount(bits, n);
}

uint32_t CanFrameTiming::frameBits(uint32_t id, bool extended, const uint8_t* data, uint8_t len) {
    uint8_t bits[MAX_HEAD_BITS + 15];
    size_t n = headBits(id, extended, data, len, bits);
    n = putBits(bits, n, crc15(bits, n), 15);
    return static_cast<uint32_t>(n) + stuffBitCount(bits, n) + TRAILER_BITS;
}

int64_t CanFrameTiming::frameTimeNs(uint32_t bits, uint32_t bitrate) {
    if (bitrate == 0) {
        throw std::invalid_argument("CanFrameTiming: the bit rate must be above 0");
    }
    // 2^32 bits * 10^9 stays below 2^64, so this cannot overflow.
    const uint64_t ns = (static_cast<uint64_t>(bits) * 1000000000u + bitrate / 2) / bitrate;
    return static_cast<int64_t>(ns);
}

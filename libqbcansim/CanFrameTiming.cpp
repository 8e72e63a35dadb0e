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

// The bits of a frame packed eight to a byte, most significant first, for the counting of
// frameBits(): it works a byte at a time where the bit-per-byte functions work a bit at a time.
struct PackedBits {
    uint8_t bytes[(CanFrameTiming::MAX_HEAD_BITS + 15 + 7) / 8] = {};
    size_t count = 0;

    void put(uint32_t value, unsigned width) {
        for (unsigned i = width; i > 0; --i) {
            if (((value >> (i - 1)) & 1u) != 0) {
                bytes[count / 8] = static_cast<uint8_t>(bytes[count / 8] | (0x80u >> (count % 8)));
            }
            ++count;
        }
    }
    // Appends a whole byte, at any bit position.
    void putByte(uint8_t value) {
        const unsigned shift = count % 8;
        bytes[count / 8] = static_cast<uint8_t>(bytes[count / 8] | (value >> shift));
        if (shift != 0) {
            bytes[count / 8 + 1] = static_cast<uint8_t>(value << (8 - shift));
        }
        count += 8;
    }
    bool bit(size_t i) const { return ((bytes[i / 8] >> (7 - i % 8)) & 1u) != 0; }
};

// CRC-15 of eight bits at once: the register after shifting in the byte `i` from a register
// whose top eight bits were zero.
struct Crc15Table {
    uint16_t entry[256];
    Crc15Table() : entry() {
        for (unsigned i = 0; i < 256; ++i) {
            uint16_t crc = static_cast<uint16_t>(i << 7);
            for (int b = 0; b < 8; ++b) {
                const bool top = ((crc >> 14) & 1u) != 0;
                crc = static_cast<uint16_t>((static_cast<unsigned>(crc) << 1) & 0x7FFFu);
                if (top) {
                    crc ^= CanFrameTiming::CRC15_POLYNOMIAL;
                }
            }
            entry[i] = crc;
        }
    }
};

// The stuffing rule, one bit at a time: after five equal bits the transmitter inserts a bit of
// the opposite level, which starts the next run. The state is the level of the current run and
// its length (0: no bit yet).
struct StuffCounter {
    unsigned run = 0;
    bool level = false;
    uint32_t stuffed = 0;

    // State `s` of StuffTable: 0 no run, else 1 + 4 * level + (length - 1).
    static StuffCounter fromState(unsigned s) {
        StuffCounter c;
        c.run = s == 0 ? 0 : (s - 1) % 4 + 1;
        c.level = s != 0 && (s - 1) / 4 == 1;
        return c;
    }
    unsigned state() const { return run == 0 ? 0 : 1 + 4 * (level ? 1 : 0) + (run - 1); }

    void push(bool bit) {
        if (run > 0 && bit == level) {
            ++run;
        } else {
            level = bit;
            run = 1;
        }
        if (run == 5) {
            ++stuffed;
            level = !level;
            run = 1;
        }
    }
};

// Stuff-bit counting eight bits at once. The state between bits is the level of the current
// run and its length (1 to 4; a run of 5 inserts a bit of the other level, which starts a new
// run of 1), or "no run yet": state 0 is no run, 1 + 4 * level + (length - 1) the others.
struct StuffTable {
    static constexpr unsigned STATES = 9;
    uint8_t next[STATES][256];
    uint8_t stuffed[STATES][256];
    StuffTable() : next(), stuffed() {
        for (unsigned s = 0; s < STATES; ++s) {
            for (unsigned byte = 0; byte < 256; ++byte) {
                StuffCounter c = StuffCounter::fromState(s);
                for (int b = 7; b >= 0; --b) {
                    c.push(((byte >> b) & 1u) != 0);
                }
                next[s][byte] = static_cast<uint8_t>(c.state());
                stuffed[s][byte] = static_cast<uint8_t>(c.stuffed);
            }
        }
    }
};

const Crc15Table& crc15Table() {
    static const Crc15Table table;
    return table;
}

const StuffTable& stuffTable() {
    static const StuffTable table;
    return table;
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
    StuffCounter c;
    for (size_t i = 0; i < count; ++i) {
        c.push(bits[i] != 0);
    }
    return c.stuffed;
}

uint32_t CanFrameTiming::stuffBitCount(uint32_t id, bool extended, const uint8_t* data,
                                       uint8_t len) {
    uint8_t bits[MAX_HEAD_BITS + 15];
    size_t n = headBits(id, extended, data, len, bits);
    n = putBits(bits, n, crc15(bits, n), 15);
    return stuffBitCount(bits, n);
}

uint32_t CanFrameTiming::frameBits(uint32_t id, bool extended, const uint8_t* data, uint8_t len) {
    // The same count as headBits(), crc15() and stuffBitCount() give (the simulated bus calls
    // this for every frame, so it works on packed bytes through tables instead of bit by bit).
    checkFrame(id, extended, data, len);
    PackedBits bits;
    bits.put(0, 1);  // start of frame
    if (extended) {
        bits.put(id >> 18, 11);
        bits.put(0x3, 2);  // SRR, IDE
        bits.put(id & 0x3FFFFu, 18);
        bits.put(0, 3);  // RTR, r1, r0
    } else {
        bits.put(id, 11);
        bits.put(0, 3);  // RTR, IDE, r0
    }
    bits.put(len, 4);
    for (uint8_t i = 0; i < len; ++i) {
        bits.putByte(data[i]);
    }

    const size_t head = bits.count;
    const Crc15Table& crcTable = crc15Table();
    uint16_t crc = 0;
    size_t i = 0;
    for (; i + 8 <= head; i += 8) {
        crc = static_cast<uint16_t>(((static_cast<unsigned>(crc) << 8) & 0x7FFFu) ^
                                    crcTable.entry[((crc >> 7) ^ bits.bytes[i / 8]) & 0xFFu]);
    }
    for (; i < head; ++i) {
        const bool next = bits.bit(i) != (((crc >> 14) & 1u) != 0);
        crc = static_cast<uint16_t>((static_cast<unsigned>(crc) << 1) & 0x7FFFu);
        if (next) {
            crc ^= CRC15_POLYNOMIAL;
        }
    }
    bits.put(crc, 15);

    const size_t n = bits.count;
    const StuffTable& stuff = stuffTable();
    unsigned state = 0;
    uint32_t stuffed = 0;
    size_t k = 0;
    for (; k + 8 <= n; k += 8) {
        const uint8_t byte = bits.bytes[k / 8];
        stuffed += stuff.stuffed[state][byte];
        state = stuff.next[state][byte];
    }
    StuffCounter tail = StuffCounter::fromState(state);
    for (; k < n; ++k) {
        tail.push(bits.bit(k));
    }
    stuffed += tail.stuffed;
    return static_cast<uint32_t>(n) + stuffed + TRAILER_BITS;
}

int64_t CanFrameTiming::frameTimeNs(uint32_t bits, uint32_t bitrate) {
    if (bitrate == 0) {
        throw std::invalid_argument("CanFrameTiming: the bit rate must be above 0");
    }
    // 2^32 bits * 10^9 stays below 2^64, so this cannot overflow.
    const uint64_t ns = (static_cast<uint64_t>(bits) * 1000000000u + bitrate / 2) / bitrate;
    return static_cast<int64_t>(ns);
}

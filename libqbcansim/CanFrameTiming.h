// Length on the wire, and so transmission time, of a classic CAN data frame.
#pragma once

#include <cstddef>
#include <cstdint>

/// The exact number of bits a classic CAN data frame occupies on the bus, and its time at a
/// bit rate.
///
/// A data frame is, in order:
/// - start of frame: 1 dominant bit;
/// - arbitration field: 11-bit identifier and RTR (standard); or identifier A (11 bits), SRR,
///   IDE, identifier B (18 bits) and RTR (extended); SRR and IDE are recessive, RTR dominant;
/// - control field: IDE, r0 and the 4-bit data length code (standard); r1, r0 and the data
///   length code (extended); all reserved bits dominant;
/// - data field: 8 bits per data byte, most significant bit first;
/// - CRC sequence: CAN CRC-15 (polynomial 0x4599, initial value 0) over the unstuffed bits
///   from start of frame through the last data bit;
/// - stuff bits: from start of frame through the CRC sequence, after five equal bits the
///   transmitter inserts one bit of the opposite level; the inserted bit counts as the first
///   of the next run;
/// - CRC delimiter 1, ACK slot 1, ACK delimiter 1, end of frame 7, intermission 3
///   (TRAILER_BITS = 13), never stuffed.
///
/// Without stuff bits a standard frame has 47 + 8 * len bits and an extended one 67 + 8 * len.
///
/// Bit values are given as one byte per bit, 0 for dominant and 1 for recessive.
///
/// All functions are pure, thread-safe, allocate nothing and take O(frame length) time.
/// Bad arguments (more than 8 data bytes, a null data pointer with a non-zero length, an
/// identifier wider than its format, a zero bit rate) throw std::invalid_argument.
class CanFrameTiming {
  public:
    static constexpr uint8_t MAX_DATA_BYTES = 8;
    static constexpr uint32_t MAX_STANDARD_ID = 0x7FF;
    static constexpr uint32_t MAX_EXTENDED_ID = 0x1FFFFFFF;
    /// The generator polynomial of CRC-15 without its x^15 term.
    static constexpr uint16_t CRC15_POLYNOMIAL = 0x4599;
    /// CRC delimiter, ACK slot, ACK delimiter, end of frame and intermission.
    static constexpr uint32_t TRAILER_BITS = 13;
    /// Most bits from start of frame through the last data bit (extended, 8 data bytes).
    static constexpr size_t MAX_HEAD_BITS = 1 + 32 + 6 + 64;

    /// Writes the unstuffed bits from start of frame through the last data bit into `bits`
    /// (room for MAX_HEAD_BITS) and returns their number: 19 + 8 * len (standard) or
    /// 39 + 8 * len (extended).
    static size_t headBits(uint32_t id, bool extended, const uint8_t* data, uint8_t len,
                           uint8_t* bits);

    /// CRC-15 of `count` bits (one byte per bit, any non-zero byte is a 1).
    static uint16_t crc15(const uint8_t* bits, size_t count);
    /// CRC-15 of a frame: over its unstuffed bits from start of frame through the data.
    static uint16_t crc15(uint32_t id, bool extended, const uint8_t* data, uint8_t len);

    /// Number of stuff bits a transmitter inserts into `count` bits.
    static uint32_t stuffBitCount(const uint8_t* bits, size_t count);
    /// Number of stuff bits of a frame, counted from start of frame through the CRC sequence.
    static uint32_t stuffBitCount(uint32_t id, bool extended, const uint8_t* data, uint8_t len);

    /// Length of the whole frame on the wire, stuff bits and the 3 intermission bits included.
    static uint32_t frameBits(uint32_t id, bool extended, const uint8_t* data, uint8_t len);

    /// Time of `bits` bits at `bitrate` bits per second, in nanoseconds rounded to the nearest.
    static int64_t frameTimeNs(uint32_t bits, uint32_t bitrate);
};

// Writing classic CAN frames as a pcap capture file (link type 227, LINKTYPE_CAN_SOCKETCAN).
#pragma once

#include <cstdint>
#include <ostream>

class CandumpLine;

/// Writes a pcap capture of classic CAN frames to a stream, in the form that Wireshark, tshark,
/// tcpdump and PcapReader read.
///
/// File layout, every multi-byte number little-endian (whatever the host's byte order, so that a
/// capture is the same file on every machine):
///
///     file header, 24 bytes: magic a1b2c3d4 (bytes d4 c3 b2 a1: microsecond time stamps),
///         version 2.4, time zone 0, accuracy 0, snap length 16, link type 227
///     per frame, 16 + 16 bytes:
///         record header: seconds, microseconds, captured length 16, original length 16
///         CAN header: identifier and flags as one 32-bit number in network byte order (big
///             endian), bit 31 (0x80000000) set for an extended (29-bit) identifier; the data
///             length; three bytes 0
///         8 data bytes: the frame's data, zero-filled after its length
///
/// 16 bytes per frame is the Linux `struct can_frame`, which is also what a capture of a
/// SocketCAN interface holds. Remote and error frames are never written: the family carries
/// classic data frames only.
///
/// Thread rules: not thread-safe; one thread writes at a time. The stream is not owned and must
/// outlive the writer. Memory: nothing grows; every frame goes to the stream at once.
class PcapWriter {
  public:
    /// Link type of a SocketCAN capture.
    static constexpr uint32_t LINKTYPE_CAN_SOCKETCAN = 227;
    /// Bytes of the CAN header (identifier, length, padding) and of the data area per frame.
    static constexpr uint32_t FRAME_BYTES = 16;
    /// Bit 31 of the identifier word: an extended (29-bit) identifier. Named apart from
    /// <linux/can.h>'s CAN_EFF_FLAG macro, which a user of both headers also sees.
    static constexpr uint32_t EXTENDED_ID_FLAG = 0x80000000u;

    /// Writes the file header to `out` at once.
    explicit PcapWriter(std::ostream& out);
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    /// Writes one frame. Throws std::invalid_argument (and writes nothing) for seconds outside
    /// 0 to 4294967295 (the 32-bit field of a pcap record), microseconds above 999999, more than
    /// 8 data bytes, null data with a non-zero length, or an identifier wider than its format
    /// (0x7FF standard, 0x1FFFFFFF extended).
    void write(int64_t seconds, uint32_t microseconds, uint32_t canId, bool extended,
               const uint8_t* data, uint8_t length);
    /// The frame of a candump line; a line without a time stamp is written at time 0.
    void write(const CandumpLine& frame);

    /// Flushes the stream.
    void flush();
    /// False once a write to the stream has failed (a full disk, a closed file).
    bool good() const;
    /// Frames written.
    uint64_t frames() const { return written; }

  private:
    std::ostream& out;
    uint64_t written = 0;
};

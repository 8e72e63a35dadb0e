// Reading CAN frames from a pcap capture file (link type 227, LINKTYPE_CAN_SOCKETCAN).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>

class CandumpLine;

/// Reads the records of a pcap capture of a CAN interface from a stream, one at a time.
///
/// Accepted files: the classic pcap format with either byte order (magic a1b2c3d4 written by a
/// little- or a big-endian machine) and either time resolution (magic a1b2c3d4 microseconds,
/// a1b23c4d nanoseconds; nanoseconds are cut to microseconds), version 2.x, link type 227.
/// Each record holds the Linux CAN header (identifier and flags in network byte order, the data
/// length, a flags byte and two reserved bytes) and the data.
///
/// Errors that end the reading (next() returns FAILED, error() says why, with the record number
/// where there is one): a file shorter than its header; a pcapng file (Wireshark's default
/// format; `editcap -F pcap IN OUT` converts it) or any other magic; a version other than 2;
/// another link type; a record header or record cut short by the end of the file; a captured
/// length above the snap length, above the original length, or above MAX_RECORD_BYTES; a time
/// stamp fraction beyond one second. After FAILED every further call returns FAILED.
///
/// Records that are well formed but not classic CAN data frames (remote, error, CAN FD and CAN
/// XL frames, a classic frame with a length above 8, a record too short for its frame) are
/// returned with Record::problem saying what they are, so that a caller can report them and go
/// on.
///
/// Memory: a record is read into a fixed buffer; bytes of a record beyond the 8-byte header and
/// 64 data bytes are skipped, never stored, so a hostile length costs no memory.
/// Thread rules: not thread-safe; one reader per stream. The stream is not owned.
class PcapReader {
  public:
    /// Largest captured length of a record accepted (libpcap's largest snap length).
    static constexpr uint32_t MAX_RECORD_BYTES = 262144;
    static constexpr uint32_t LINKTYPE_CAN_SOCKETCAN = 227;

    /// What the first bytes of a file say it is.
    enum Format { FORMAT_PCAP, FORMAT_PCAPNG, FORMAT_OTHER };
    /// Looks at up to the first 4 bytes of a file. Fewer than 4 bytes: FORMAT_OTHER.
    static Format detect(const char* bytes, size_t length);

    struct Record {
        /// 1 for the first record of the file (Wireshark's frame number).
        uint64_t number = 0;
        int64_t seconds = 0;
        uint32_t microseconds = 0;
        /// True if canId and extended mean something: the record holds a CAN header and is not
        /// an error frame (whose identifier field holds error classes).
        bool identified = false;
        /// The identifier without flag bits.
        uint32_t canId = 0;
        bool extended = false;
        /// The data length as the record states it; data holds the first min(length, 64) bytes
        /// that the record carries (zero after them).
        uint8_t length = 0;
        std::array<uint8_t, 64> data{};
        /// Empty for a classic CAN data frame; otherwise what the record is, e.g. "remote
        /// frame", "error frame", "CAN FD frame".
        std::string problem;

        bool isClassicDataFrame() const { return problem.empty(); }
        /// The frame as a candump line with time stamp and `interfaceName`. Only for a classic
        /// data frame (throws std::logic_error otherwise).
        CandumpLine toCandumpLine(const std::string& interfaceName) const;
    };

    enum Result { RECORD, END, FAILED };

    explicit PcapReader(std::istream& in);
    PcapReader(const PcapReader&) = delete;
    PcapReader& operator=(const PcapReader&) = delete;

    /// The next record (RECORD), END after the last one, or FAILED (see error()). The file
    /// header is read by the first call. A file of only a header has no record and is valid.
    Result next(Record& record);

    /// Why next() returned FAILED; empty before.
    const std::string& error() const { return failure; }

    /// What the file header said; valid once next() has returned RECORD or END.
    bool bigEndian() const { return swapped; }
    bool nanosecondResolution() const { return nanoseconds; }
    uint32_t snapLength() const { return snap; }

  private:
    bool readHeader();
    Result fail(const std::string& message);
    /// Reads exactly `n` bytes; returns the number read (less at the end of the stream).
    size_t readBytes(uint8_t* buffer, size_t n);
    uint32_t number32(const uint8_t* p) const;

    std::istream& in;
    bool headerRead = false;
    bool failed = false;
    bool swapped = false;
    bool nanoseconds = false;
    uint32_t snap = 0;
    uint64_t records = 0;
    std::string failure;
};

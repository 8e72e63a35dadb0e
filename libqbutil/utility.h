// Small helpers shared by the whole library family: the byte-vector type, the hex dump used
// by diagnostic lines, a millisecond sleep and the printed form of a timeval.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

/// The serialised form of a trace message and the payload type of transport messages.
typedef std::vector<uint8_t> byteVec_t;

/// What hexdump() writes at the start of each row, after the text prefix.
enum hexdumpPrefix_t {
    HEXDUMP_PREFIX_NONE = 0,     ///< nothing
    HEXDUMP_PREFIX_ADDRESS = 1,  ///< the address of the row's first byte, "0x" and 16 hex digits
    HEXDUMP_PREFIX_OFFSET = 2,   ///< the row's offset from `begin`, 8 hex digits
};

namespace qbutil {
/// Formats one hexdump row; see hexdump(). Exposed for the template below only.
std::string hexdumpRow(const char* prefix, hexdumpPrefix_t rowPrefix, const void* address,
                       size_t offset, const uint8_t* bytes, size_t count, size_t bytesPerRow,
                       bool withText);
}  // namespace qbutil

/// Writes the bytes of [begin, end) to `os` as rows of hexadecimal byte values.
///
/// Each row is one line: `prefix`, then what `rowPrefix` selects followed by ": " (nothing for
/// HEXDUMP_PREFIX_NONE), then " xx" for each of up to `bytesPerRow` bytes (lower-case hex).
/// With `withText` true the row ends with two blanks and the bytes as text between '|' marks,
/// printable ASCII as itself and every other byte as '.'; a short last row is padded so that
/// the text column lines up. A `bytesPerRow` of 0 is taken as 16. An empty range writes
/// nothing. Each row is formatted first and inserted into `os` as one piece.
///
/// Thread rules: takes no lock; a caller that shares `os` with other threads holds the lock
/// that guards it. Allocates one string per row.
template <typename Iterator>
void hexdump(std::ostream& os, Iterator begin, Iterator end, const char* prefix,
             unsigned int bytesPerRow, hexdumpPrefix_t rowPrefix, bool withText) {
    const size_t perRow = bytesPerRow == 0 ? 16 : bytesPerRow;
    std::vector<uint8_t> row;
    row.reserve(perRow);
    size_t offset = 0;
    const void* rowAddress = nullptr;
    for (Iterator it = begin; it != end; ++it) {
        if (row.empty()) {
            rowAddress = static_cast<const void*>(&*it);
        }
        row.push_back(static_cast<uint8_t>(*it));
        if (row.size() == perRow) {
            os << qbutil::hexdumpRow(prefix, rowPrefix, rowAddress, offset, row.data(), row.size(),
                                     perRow, withText);
            offset += row.size();
            row.clear();
        }
    }
    if (!row.empty()) {
        os << qbutil::hexdumpRow(prefix, rowPrefix, rowAddress, offset, row.data(), row.size(),
                                 perRow, withText);
    }
}

/// Blocks the calling thread for `milliseconds` ms (resuming after signals until the whole time
/// has passed). Zero or a negative value returns at once.
void millisleep(int milliseconds);

/// Writes a timeval as seconds and six digits of microseconds, e.g. "1.000000" or "0.010000".
/// The stream's flags, fill and width are left as they were found.
std::ostream& operator<<(std::ostream& os, const timeval& tv);

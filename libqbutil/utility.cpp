#include "libqbutil/utility.h"

#include <cerrno>
#include <cstdint>
#include <ctime>

namespace qbutil {

namespace {
const char kHexDigits[] = "0123456789abcdef";

void appendHex(std::string& out, uint64_t value, int digits) {
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) {
        out += kHexDigits[(value >> shift) & 0xFu];
    }
}

bool isPrintableAscii(uint8_t byte) {
    return byte >= 0x20 && byte <= 0x7e;
}
}  // namespace

std::string hexdumpRow(const char* prefix, hexdumpPrefix_t rowPrefix, const void* address,
                       size_t offset, const uint8_t* bytes, size_t count, size_t bytesPerRow,
                       bool withText) {
    std::string row;
    row.reserve(64 + bytesPerRow * 4);
    if (prefix != nullptr) {
        row += prefix;
    }
    switch (rowPrefix) {
        case HEXDUMP_PREFIX_ADDRESS:
            row += "0x";
            appendHex(row, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(address)), 16);
            row += ": ";
            break;
        case HEXDUMP_PREFIX_OFFSET:
            appendHex(row, static_cast<uint64_t>(offset), 8);
            row += ": ";
            break;
        case HEXDUMP_PREFIX_NONE:
        default:
            break;
    }
    for (size_t i = 0; i < count; ++i) {
        row += ' ';
        appendHex(row, bytes[i], 2);
    }
    if (withText) {
        // A short row gets blanks for its missing byte columns so that the text column of
        // every row starts at the same place.
        for (size_t i = count; i < bytesPerRow; ++i) {
            row += "   ";
        }
        row += "  |";
        for (size_t i = 0; i < count; ++i) {
            row += isPrintableAscii(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
        }
        row += '|';
    }
    row += '\n';
    return row;
}

}  // namespace qbutil

void millisleep(int milliseconds) {
    if (milliseconds <= 0) {
        return;
    }
    timespec remaining;
    remaining.tv_sec = milliseconds / 1000;
    remaining.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
    // nanosleep() leaves the time not slept in its second argument when a signal interrupts it;
    // sleeping on with that remainder makes the whole call last the full time.
    timespec request = remaining;
    while (nanosleep(&request, &remaining) != 0 && errno == EINTR) {
        request = remaining;
    }
}

std::ostream& operator<<(std::ostream& os, const timeval& tv) {
    constexpr long long kUsecPerSec = 1000000;

    // Fold microseconds outside 0..999999 into the seconds, so that the value is
    // sec + usec / 10^6 with 0 <= usec < 10^6.
    long long carry = static_cast<long long>(tv.tv_usec) / kUsecPerSec;
    long long usec = static_cast<long long>(tv.tv_usec) % kUsecPerSec;
    if (usec < 0) {
        usec += kUsecPerSec;
        carry -= 1;
    }
    const long long secIn = static_cast<long long>(tv.tv_sec);

    // The sum of the seconds may leave the range of long long for absurd inputs; the sign of
    // the true sum is then the sign of tv_sec, and its magnitude still fits an unsigned 64-bit
    // value, which wrapping arithmetic computes exactly.
    long long sec = 0;
    const bool overflow = __builtin_add_overflow(secIn, carry, &sec);
    const bool negative = overflow ? secIn < 0 : sec < 0;
    const unsigned long long wrapped =
        static_cast<unsigned long long>(secIn) + static_cast<unsigned long long>(carry);
    unsigned long long magnitudeSec = negative ? 0ULL - wrapped : wrapped;
    unsigned long long magnitudeUsec = static_cast<unsigned long long>(usec);
    if (negative && magnitudeUsec != 0) {
        // -5 + 0.25 is -4.75: one second less, and the complement of the fraction.
        magnitudeSec -= 1;
        magnitudeUsec = static_cast<unsigned long long>(kUsecPerSec) - magnitudeUsec;
    }

    std::ostringstream text;
    text << (negative ? "-" : "") << magnitudeSec << '.' << std::setw(6) << std::setfill('0')
         << magnitudeUsec;

    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill();
    const std::streamsize width = os.width(0);
    os << text.str();
    os.flags(flags);
    os.fill(fill);
    os.width(width);
    return os;
}

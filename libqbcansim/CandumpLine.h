// One classic CAN frame in the text form of candump's log (-L) and of cansend.
#pragma once

#include <array>
#include <cstdint>
#include <string>

/// A classic CAN data frame with the optional time stamp, interface name and direction of a
/// candump log line.
///
/// Written form (toString()):
///
///     (SEC.USEC) IFACE ID#DATA
///
/// SEC is the Unix time in seconds, zero-padded to 10 digits; USEC exactly 6 digits; ID 3
/// upper-case hex digits for a standard frame, 8 for an extended one; DATA the data bytes as
/// upper-case hex pairs, nothing for a frame without data. Without a time stamp the line is
/// "IFACE ID#DATA", and without an interface name only "ID#DATA" (the syntax of cansend). A
/// direction ('R' received, 'T' transmitted) is appended as " R" or " T".
///
/// Read forms (parse()): "(SEC.USEC) IFACE ID#DATA" and "IFACE ID#DATA", fields separated by
/// runs of blanks or tabs (candump right-aligns interface names), leading and trailing blanks
/// and a trailing CR ignored, optionally followed by a direction " R" or " T". SEC may have any
/// number of digits (1 to 18), USEC exactly 6. The number of ID digits decides the format,
/// not the value: 3 digits standard, 8 digits extended ("00000123" is extended). DATA is 0 to 8
/// bytes as hex pairs in either case; '.' may separate bytes ("11.2233"), never the two digits
/// of one byte. Remote frames ("123#R", "123#R5") and CAN FD frames ("123##1...") are
/// recognised and refused: they are not classic data frames.
///
/// Thread rules: a value type; parse() and format() are pure and thread-safe.
class CandumpLine {
  public:
    /// True if the line carries "(SEC.USEC)".
    bool hasTimestamp = false;
    int64_t seconds = 0;
    uint32_t microseconds = 0;
    /// Empty for a bare "ID#DATA".
    std::string interfaceName;
    uint32_t canId = 0;
    bool extended = false;
    uint8_t length = 0;
    std::array<uint8_t, 8> data{};
    /// 'R', 'T' or '\0' (none).
    char direction = '\0';

    /// "ID#DATA". Throws std::invalid_argument for more than 8 data bytes or an identifier
    /// wider than its format.
    std::string frameText() const;
    /// The identifier as candump writes it: 3 upper-case hex digits for a standard frame, 8 for
    /// an extended one.
    std::string identifierText() const;
    /// The whole line (without line end), as described above. Throws as frameText(), and for
    /// negative seconds or microseconds above 999999.
    std::string toString() const;

    /// Parses a candump log line into `out`. Returns true on success; on failure returns false,
    /// leaves `out` partly filled and puts a one-line reason into `error`.
    static bool parse(const std::string& line, CandumpLine& out, std::string& error);

    /// Parses a bare "ID#DATA" (the frame syntax of cansend) into the frame fields of `out`
    /// (canId, extended, length, data; the other fields are left alone). Same results as
    /// parse().
    static bool parseFrame(const std::string& text, CandumpLine& out, std::string& error);

    /// "(SEC.USEC) IFACE ID#DATA" for a frame; the arguments are checked as by toString().
    static std::string format(int64_t seconds, uint32_t microseconds,
                              const std::string& interfaceName, uint32_t canId, bool extended,
                              const uint8_t* data, uint8_t length);
};

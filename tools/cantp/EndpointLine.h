// One line of `cantp endpoint`'s standard input, parsed into a command.
#pragma once

#include <string>

#include "libqbcansim/CandumpLine.h"
#include "libqbutil/utility.h"

/// What one input line of `cantp endpoint` asks for. parse() only reads the text: it touches no
/// endpoint and writes nothing, so the command (EndpointCommand) and the fuzzer share it.
///
/// Lines (leading and trailing blanks, tabs and CRs ignored):
/// - blank, or '#' as first non-blank character: NOTHING;
/// - `send [HEX]`: SEND with `payload` (HexText::decode: pairs, blanks or '.' between bytes);
/// - `clear`: CLEAR; `clear all`: CLEAR_ALL;
/// - `empty`: EMPTY;
/// - `debug N`: DEBUG with `debugLevel`, N from -1000 to 1000 (ArgumentReader::toInt);
/// - anything else is read as a CAN frame in candump or cansend form (CandumpLine::parse):
///   FRAME with `frame`.
/// A line that fails is INVALID with `reason`; the command reports it as
/// "error: <reason>: <the line as read>".
///
/// Thread rules: a value type; parse() is pure and thread-safe.
struct EndpointLine {
    enum Kind { NOTHING, SEND, CLEAR, CLEAR_ALL, EMPTY, DEBUG, FRAME, INVALID };

    Kind kind = NOTHING;
    byteVec_t payload;   ///< SEND
    int debugLevel = 0;  ///< DEBUG
    CandumpLine frame;   ///< FRAME
    std::string reason;  ///< INVALID

    /// Parses one line, given without its '\n'.
    static EndpointLine parse(const std::string& rawLine);
};

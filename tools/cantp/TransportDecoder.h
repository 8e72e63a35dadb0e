// The transport view of a candump log: each frame classified, payloads reassembled, errors named.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <tuple>

#include "libqbcansim/CandumpLine.h"
#include "libqbutil/utility.h"

/// Decodes the lines of a candump log one at a time and writes a report to a stream.
///
/// Output, one line each (docs/cantp.md, "cantp decode" gives the byte-exact form):
///
///     TIME              IFACE ID       KIND         PARAM     one line per frame
///     payload IFACE ID len=N HEX                              a reassembled payload
///     error IFACE ID: MESSAGE                                 a protocol error
///     line N: error: REASON                                   a line that is not a frame
///     summary frames=... / summary payloads=...               two lines from finish()
///
/// Frames are classified with classifyFrame() from libqbcan/cantransport.h, the same rule the
/// endpoint dispatches by. Reassembly differs from the endpoint on purpose: the endpoint joins
/// the frames of all identifiers into one transfer, while a log usually holds both directions of
/// several conversations, so this decoder keeps one transfer per interface and identifier. It
/// models a receiver that follows the frame format strictly: a payload ends at its announced
/// length (padding is not taken), a frame that carries fewer bytes than its place needs ends the
/// transfer, a new single or first frame drops a transfer left open, and invalid frames and
/// flow-control frames do not touch reassembly.
///
/// Memory: one buffer (at most 4095 bytes) per transfer still open; nothing else grows with the
/// log. Not thread-safe; one decoder per log.
class TransportDecoder {
  public:
    /// Totals of the log so far.
    struct Counts {
        uint64_t frames = 0;  ///< lines that were frames, valid or not
        uint64_t single = 0;
        uint64_t first = 0;
        uint64_t consecutive = 0;
        uint64_t flowControl = 0;
        uint64_t invalid = 0;
        uint64_t payloads = 0;    ///< payloads completed
        uint64_t bytes = 0;       ///< bytes in the completed payloads
        uint64_t errors = 0;      ///< "error ..." lines, incomplete transfers included
        uint64_t unparsable = 0;  ///< "line N: error: ..." lines
        uint64_t incomplete = 0;  ///< transfers still open at finish()
    };

    /// The report goes to `out`; the stream must outlive the decoder.
    explicit TransportDecoder(std::ostream& out);

    /// Takes the next line of the log (without its line end; a trailing CR is ignored). Blank
    /// lines and lines whose first non-blank character is '#' are skipped but counted for the
    /// line numbers. Writes the lines this one causes.
    void addLine(const std::string& line);

    /// Takes the next line of the log as one that could not be read whole (for instance one too
    /// long to be a frame): counted as unparsable and reported as "line N: error: REASON".
    void addUnreadableLine(const std::string& reason);

    /// End of the log: reports each transfer still open (in the order they started) as an
    /// error and writes the two summary lines. Call once, after the last addLine().
    void finish();

    const Counts& counts() const { return totals; }

  private:
    /// Interface name, extended flag, identifier: what separates conversations in a log.
    using Key = std::tuple<std::string, bool, uint32_t>;

    /// A segmented payload between its first frame and its last consecutive frame.
    struct Transfer {
        uint64_t startOrder = 0;  ///< for reporting open transfers in the order they started
        size_t announced = 0;     ///< length from the first frame, 8 to 4095
        uint8_t nextSequence = 0;
        byteVec_t bytes;
    };

    void decodeFrame(const CandumpLine& frame, const std::string& time);
    void onSingle(const Key& key, const std::string& name, const CandumpLine& frame);
    void onFirst(const Key& key, const std::string& name, const CandumpLine& frame);
    void onConsecutive(const Key& key, const std::string& name, const CandumpLine& frame);
    /// Drops the open transfer of `key`, if any, with an error "<what> while a transfer is open".
    void dropOpenTransfer(const Key& key, const std::string& name, const char* what);
    void deliver(const std::string& name, const byteVec_t& bytes);

    void frameLine(const std::string& time, const CandumpLine& frame, const char* kind,
                   const std::string& param);
    void errorLine(const std::string& name, const std::string& message);

    std::ostream& out;
    Counts totals;
    uint64_t lineNumber = 0;
    uint64_t transfersStarted = 0;
    std::map<Key, Transfer> open;
    bool finished = false;
};

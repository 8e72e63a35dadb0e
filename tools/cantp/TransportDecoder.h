// The transport view of a CAN log: each frame classified, payloads reassembled, errors named.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

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
/// Fields output (Output::FIELDS, `cantp decode --fields`): instead of the report, one line per
/// frame of tab-separated fields in the order and form of
///
///     tshark -T fields -E separator=/t -E occurrence=a -E aggregator='|'
///         -e frame.number -e can.id -e can.flags.xtd -e cantp.kind -e cantp.len -e cantp.sn
///         -e cantp.fc -e cantp.padding -e cantp.error -e cantp.payload.len -e cantp.payload
///         -e cantp.payload.frame
///
/// with the Wireshark dissector tools/wireshark/cantp.lua, so that the two views can be compared
/// line by line (docs/wireshark.md). Everything else (unreadable lines, transfers left open,
/// the summary) goes on lines that begin with '#'.
///
/// Identifier filter (selectIdentifiers()): frames of other identifiers are shown as kind
/// "other" (fields output: without transport fields) and take no part in reassembly, as the
/// dissector leaves them alone.
///
/// Memory: one buffer (at most 4095 bytes) and its frame numbers per transfer still open;
/// nothing else grows with the log. Not thread-safe; one decoder per log.
class TransportDecoder {
  public:
    enum class Output { REPORT, FIELDS };

    /// Inclusive ranges of identifier values (standard and extended alike).
    using IdentifierRanges = std::vector<std::pair<uint32_t, uint32_t>>;

    /// Parses a list such as "0x7E0,0x7E8" or "0x700-0x7FF,0x18DA00F1" (hexadecimal with 0x,
    /// or decimal; ranges with '-'; blanks ignored) into `ranges`. Returns false with a reason
    /// in `error` for anything else, an empty list included.
    static bool parseIdentifiers(const std::string& text, IdentifierRanges& ranges,
                                 std::string& error);
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
        uint64_t other = 0;       ///< frames of identifiers not selected
    };

    /// The report goes to `out`; the stream must outlive the decoder.
    explicit TransportDecoder(std::ostream& out, Output output = Output::REPORT);

    /// Decodes only frames whose identifier lies in `ranges`; call before the first frame.
    void selectIdentifiers(const IdentifierRanges& ranges);

    /// Takes the next line of the log (without its line end; a trailing CR is ignored). Blank
    /// lines and lines whose first non-blank character is '#' are skipped but counted for the
    /// line numbers. Writes the lines this one causes.
    void addLine(const std::string& line);

    /// Takes the next line of the log as one that could not be read whole (for instance one too
    /// long to be a frame): counted as unparsable and reported as "line N: error: REASON".
    void addUnreadableLine(const std::string& reason);

    /// Takes a frame read from elsewhere than a text line (a pcap record): `number` is its
    /// frame number (the record number); its time stamp is shown as candump writes it.
    void addFrame(const CandumpLine& frame, uint64_t number);

    /// Takes a record that is not a classic CAN data frame (a remote frame, ...): counted as
    /// unparsable and reported as "record N: error: REASON". In the fields output its line
    /// carries the identifier only (none for an error frame, `hasIdentifier` false).
    void addOtherRecord(uint64_t number, const std::string& reason, bool hasIdentifier,
                        uint32_t canId, bool extended);

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
        std::vector<uint64_t> frames;  ///< frame numbers of its frames so far
    };

    /// What the fields output shows of the frame being decoded; -1 for a field not shown.
    struct FrameFields {
        int kind = -1;
        int length = -1;
        int sequence = -1;
        int code = -1;
        std::string padding;
        std::vector<std::string> errors;
        bool delivered = false;
        byteVec_t payload;
        std::vector<uint64_t> payloadFrames;
    };

    void decodeFrame(const CandumpLine& frame, const std::string& time, uint64_t number);
    void decodeTransportFrame(const CandumpLine& frame, const std::string& time);
    void addUnreadable(const char* what, uint64_t number, const std::string& reason);
    bool selected(uint32_t canId) const;
    void setPadding(const CandumpLine& frame, size_t from);
    void fieldsLine(uint64_t number, const std::string& identifier, const FrameFields& f);
    void noteLine(const std::string& text);
    void onSingle(const Key& key, const std::string& name, const CandumpLine& frame);
    void onFirst(const Key& key, const std::string& name, const CandumpLine& frame);
    void onConsecutive(const Key& key, const std::string& name, const CandumpLine& frame);
    /// Drops the open transfer of `key`, if any, with an error "<what> while a transfer is open".
    void dropOpenTransfer(const Key& key, const std::string& name, const char* what);
    void deliver(const std::string& name, const byteVec_t& bytes,
                 const std::vector<uint64_t>& frames);

    void frameLine(const std::string& time, const CandumpLine& frame, const char* kind,
                   const std::string& param);
    void errorLine(const std::string& name, const std::string& message);

    std::ostream& out;
    const Output output;
    IdentifierRanges identifiers;
    /// The frame being decoded: its number and what the fields output shows of it.
    uint64_t frameNumber = 0;
    FrameFields current;
    Counts totals;
    uint64_t lineNumber = 0;
    uint64_t transfersStarted = 0;
    std::map<Key, Transfer> open;
    bool finished = false;
};

// cantp decode: the transport view of a candump log or a pcap capture.
#pragma once

#include <ostream>

/// `cantp decode [--ids LIST] [--iface NAME] [--fields] [FILE]`
///
/// Reads a candump log (`candump -L` or cansend form, one frame a line) or a pcap capture (link
/// type 227, told apart by its magic number) from FILE, or from standard input for "-" or no
/// FILE, and writes to standard output one line per frame (its transport frame kind and
/// parameter), one line per reassembled payload, one line per protocol error or unreadable line
/// or record, and two summary lines (see TransportDecoder and docs/cantp.md, "cantp decode").
/// --fields writes the per-frame fields that the Wireshark dissector shows instead; --ids
/// decodes only the listed identifiers; --iface names the interface of pcap frames.
///
/// Streams: reads a block at a time and keeps at most one line (or one record) and the open
/// transfers in memory. Output is flushed whenever the input has nothing more buffered, so a
/// live pipe (`candump -L can0 | cantp decode`) shows each frame as it comes.
class DecodeCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status: 0 the input was read to
    /// the end (protocol errors and unparsable lines included), 1 FILE cannot be opened or read,
    /// a pcap capture is damaged, or standard output cannot be written.
    /// Throws UsageError for a wrong command line (main() makes it exit status 2).
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

// cantp convert: candump logs to pcap captures and back.
#pragma once

#include <ostream>

/// `cantp convert [options] IN OUT`
///
/// Converts between candump -L text and pcap captures (link type 227), either way. IN's format
/// is told by its first bytes; OUT's by --to, else by its extension (.pcap; .log, .txt,
/// .candump), else it is the other format than IN's. "-" is standard input or output.
///
/// Classic data frames convert without loss: candump -> pcap -> candump gives the same lines
/// byte for byte (time stamps, identifiers, their width, data). What a format cannot hold is
/// said, not hidden: pcap has no interface name (candump lines written from pcap take --iface,
/// default can0, and a log with several interface names is refused), no direction (dropped,
/// counted on standard error) and needs a time stamp (lines without one get 0.000000, counted);
/// records of a pcap file that are not classic data frames (remote, error, CAN FD) are skipped
/// and counted. Unreadable lines and damaged pcap files end the run with exit status 1 and OUT
/// removed, so that no partial file passes for a converted one. See docs/cantp.md.
class ConvertCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status: 0 converted, 1 IN cannot
    /// be read or holds what cannot be converted, OUT cannot be written; throws UsageError for
    /// a wrong command line.
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

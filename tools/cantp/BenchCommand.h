// cantp bench: end-to-end performance figures of the transport endpoint.
#pragma once

#include <ostream>

/// `cantp bench [options]`
///
/// Measures, in this process, with real endpoints (started threads, real pipes) on the simulated
/// CAN bus unless said otherwise: the latency of a single-frame payload until its
/// acknowledgement is reported (roundtrip), an endpoint's flow-control response to a first frame
/// (fc), frames and payload bytes per second with the CPU time and wake-ups they cost on a fast
/// bus (throughput), payload bytes per second on a timed bus against the protocol's own limit
/// (goodput), and the peak resident memory of a short and a long round-trip run in forked
/// children (memory). Prints one aligned text report, or one JSON object with --json. No figure
/// is compared with a limit. See docs/cantp.md.
///
/// Runs on the calling thread and ends every thread it starts before it returns. While parts
/// run, std::cout is redirected (under LogUtil::logMutex) so that the endpoints' "[INFO]" lines
/// are dropped; any other library line goes to standard error.
class BenchCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status: 0 if every part ran to
    /// its end (every payload delivered intact and acknowledged), 1 otherwise; throws
    /// UsageError (status 2) for a wrong command line.
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

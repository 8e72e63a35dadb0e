// cantp soak: many payloads over a lossy simulated CAN bus, every delivery classified.
#pragma once

#include <ostream>

/// `cantp soak [options]`
///
/// Lanes of two endpoints, each lane on its own simulated CAN bus (fast mode by default) with
/// frame loss and a node that goes silent now and then: even lanes hold a request/response
/// conversation, odd lanes send one-way streams in batches. Every payload carries a header
/// (sequence number, length, CRC-32) and contents derived from the seed, so that the receiving
/// application classifies every delivery: byte-exact, duplicate, partial (a piece of one payload)
/// or corrupted. The sending application counts acknowledgements and the payloads given up
/// (reported through the status callback, or dropped without a report). Peak resident memory is
/// read at the start and at the end. Every bad delivery is listed with the frames around it
/// (--incidents FILE). See docs/cantp.md and docs/reliability.md.
///
/// Runs on the calling thread; starts its own threads (buses, endpoints, forwarders, readers,
/// lane drivers) and ends them all before it returns. While it runs, std::cout and std::cerr
/// are redirected (under LogUtil::logMutex) so that the endpoints' log lines are counted instead
/// of printed.
class SoakCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status: 0 if the run completed
    /// (every payload resolved, every endpoint thread alive, memory growth within the limit),
    /// 1 otherwise; throws UsageError (status 2) for a wrong command line.
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

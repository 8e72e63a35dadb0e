// cantp demo: two endpoints hold a conversation on the simulated CAN bus.
#pragma once

#include <ostream>

/// `cantp demo [options]`
///
/// Two endpoints (0x7E0 and 0x7E8) on a simulated classic CAN bus: 0x7E0 sends requests of
/// random sizes, 0x7E8 answers each delivered request with a response of random size, and every
/// delivered payload is compared byte by byte with what was sent. With --duplex both send a
/// stream of payloads at the same time instead. A progress bar (standard error, only on a
/// terminal) shows payloads done; a summary follows on standard output. See docs/cantp.md.
class DemoCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status: 0 if every payload was
    /// verified (with --duplex: if the run completed), 1 otherwise, 2 for a usage error.
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

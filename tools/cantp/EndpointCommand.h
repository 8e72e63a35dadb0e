// cantp endpoint: one transport endpoint driven through standard input and output.
#pragma once

#include <ostream>

/// `cantp endpoint [--id ID] [--can stdio] [--debug N]`
///
/// Runs one CANTransportThread with the process itself as its CAN proxy. Standard input takes
/// one command a line (CAN frames from the bus in candump or cansend form, `send [HEX]`, `clear`,
/// `clear all`, `empty`, `debug N`); standard output reports one event a line (frames the
/// endpoint puts on the bus, `recv ID [HEX]`, `status NAME N`) along with the endpoint's own log
/// lines. Every line is written whole under LogUtil::logMutex and flushed at once. See
/// docs/cantp.md.
class EndpointCommand {
  public:
    /// Runs the subcommand on argv[first..]; returns the exit status (0 done, 1 the transport
    /// thread ended by an exception, 2 usage error).
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

// cantp recv: payloads from a SocketCAN interface, like isotprecv.
#pragma once

#include <ostream>

/// `cantp recv --can socketcan:IFACE --id ID --peer-id ID [--count N] [--raw] [options]`
///
/// Runs one endpoint (send identifier ID: its flow-control frames) that receives the payloads
/// the peer sends and writes each to standard output: one line of upper-case hex by default,
/// the bytes themselves with --raw. Exit 0 after N payloads with --count, otherwise it runs
/// until SIGINT or SIGTERM (exit 0); 1 if the interface cannot be opened, goes down, or the
/// endpoint ends; 2 for a usage error. The library's log lines go to standard error.
class RecvCommand {
  public:
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

// cantp dump: the live transport view of a SocketCAN interface, like isotpdump.
#pragma once

#include <ostream>

/// `cantp dump --can socketcan:IFACE [--id ID...]`
///
/// Receives the frames of the interface (all, or those of the given identifiers), writes each
/// as a candump line "(SEC.USEC) IFACE ID#DATA" with the kernel's receive time into a
/// TransportDecoder, the decoder of `cantp decode`, and so prints exactly what `candump -L IFACE
/// | cantp decode` would. Remote and CAN FD frames are given to the decoder in candump's form
/// (ID#R, ID##F...), which reports them as not classic data frames. Runs until SIGINT or SIGTERM,
/// then reports open transfers and the summary (exit 0). Exit 1 if the interface cannot be
/// opened or goes down (the summary is still written), 2 for a usage error.
class DumpCommand {
  public:
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

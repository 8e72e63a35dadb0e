// cantp send: one payload over a SocketCAN interface, like isotpsend.
#pragma once

#include <ostream>

/// `cantp send --can socketcan:IFACE --id ID --peer-id ID [options] [FILE|-]`
///
/// Reads FILE (or standard input for "-" or no FILE) whole and sends it as one payload from an
/// endpoint with send identifier ID whose proxy receives the frames of the peer identifier.
/// Exit 0 once the peer acknowledged it; 1 on CTT_SEND_TIMEOUT or CTT_DISCONNECTED (the status
/// name on standard error, "cantp send: CTT_SEND_TIMEOUT"), when FILE cannot be read, the
/// interface cannot be opened, the endpoint ends, or a stop signal comes first; 2 for a usage
/// error and for a payload the protocol cannot carry (0 bytes, or 4096 bytes and more), which is
/// refused before anything is sent. The library's log lines go to standard error; standard
/// output stays empty. See docs/cantp.md and docs/socketcan.md.
class SendCommand {
  public:
    static int run(int argc, char** argv, int first);
    static void printHelp(std::ostream& os);
};

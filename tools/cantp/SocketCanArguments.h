// Option values shared by the commands that work on a SocketCAN interface.
#pragma once

#include <string>
#include <vector>

#include "SocketCanLink.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbsocketcan/SocketCanProxy.h"

class ArgumentReader;

/// Parsing of `socketcan:IFACE` and of identifier lists, and the statistics line. Every parse
/// error is a UsageError (exit status 2) whose message names the option.
class SocketCanArguments {
  public:
    /// The interface of "socketcan:IFACE" given to `option` (e.g. "--can"). IFACE must have 1
    /// to 15 characters (the kernel's limit) and no '/', blank or ':'.
    static std::string interfaceOf(const std::string& option, const std::string& value);

    /// True if `value` names a SocketCAN interface ("socketcan:..."), well-formed or not.
    static bool isSocketCan(const std::string& value);

    /// A CAN identifier for `option`: 0 to 0x7FF is a standard (11-bit) identifier, 0x800 to
    /// 0x1FFFFFFF an extended (29-bit) one.
    static CanRawSocket::Identifier identifier(const std::string& option, const std::string& text);

    /// A comma-separated list of identifiers ("0x7E8,0x7E9"); empty items are errors.
    /// Appends to `ids`.
    static void appendIdentifiers(const std::string& option, const std::string& text,
                                  std::vector<CanRawSocket::Identifier>& ids);

    /// A byte count for --sndbuf / --rcvbuf: 1024 to 64 MiB.
    static int bufferBytes(const std::string& option, const std::string& text);

    /// "stats IFACE sent=N received=N filtered=N retries=N enobufs=N drops=N errors=N remote=N
    /// fd=N rejected=N send-failures=N delivery-failures=N" (no line end).
    static std::string statisticsLine(const std::string& iface,
                                      const SocketCanProxy::Statistics& s);

    /// The help text of the options the socketcan commands share.
    static const char* bufferOptionsHelp();

    /// The options of a command that runs one endpoint on an interface (`cantp send`, `cantp
    /// recv`): --can/-c socketcan:IFACE, --id/-i (0 to 0x7FF), --peer-id/-p (a list, repeatable),
    /// --debug/-d, --sndbuf and --rcvbuf, read into the link's settings.
    struct LinkOptions {
        SocketCanLink::Settings settings;
        bool haveCan = false;
        bool haveId = false;

        /// Takes the next argument (and its value) if it is one of these options; true if it
        /// did. A bad value is a UsageError naming the option.
        bool read(ArgumentReader& args);
        /// A UsageError unless --can, --id and --peer-id were given.
        void requireComplete() const;
    };
};

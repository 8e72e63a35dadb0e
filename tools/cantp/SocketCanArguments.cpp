#include "SocketCanArguments.h"

#include <sstream>

#include "ArgumentReader.h"

bool SocketCanArguments::isSocketCan(const std::string& value) {
    return value.compare(0, 10, "socketcan:") == 0;
}

std::string SocketCanArguments::interfaceOf(const std::string& option, const std::string& value) {
    if (!isSocketCan(value)) {
        throw UsageError(option + " takes socketcan:IFACE, not '" + value + "'");
    }
    const std::string name = value.substr(10);
    if (name.empty()) {
        throw UsageError(option + " socketcan: needs an interface name (socketcan:can0)");
    }
    if (name.size() > 15) {
        throw UsageError(option + " interface name '" + name + "' is longer than 15 characters");
    }
    if (name.find_first_of("/: \t") != std::string::npos) {
        throw UsageError(option + " interface name '" + name + "' contains '/', ':' or a blank");
    }
    return name;
}

CanRawSocket::Identifier SocketCanArguments::identifier(const std::string& option,
                                                        const std::string& text) {
    const uint64_t value = ArgumentReader::toUnsigned(option, text, 0x1FFFFFFF);
    return CanRawSocket::Identifier{static_cast<uint32_t>(value), value > 0x7FF};
}

void SocketCanArguments::appendIdentifiers(const std::string& option, const std::string& text,
                                           std::vector<CanRawSocket::Identifier>& ids) {
    size_t start = 0;
    for (;;) {
        const size_t comma = text.find(',', start);
        const std::string item =
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (item.empty()) {
            throw UsageError(option + " has an empty identifier in '" + text + "'");
        }
        const CanRawSocket::Identifier id = identifier(option, item);
        bool known = false;
        for (const CanRawSocket::Identifier& other : ids) {
            known = known || other == id;
        }
        if (!known) {
            ids.push_back(id);
        }
        if (comma == std::string::npos) {
            return;
        }
        start = comma + 1;
    }
}

int SocketCanArguments::bufferBytes(const std::string& option, const std::string& text) {
    uint64_t value = 0;
    if (!ArgumentReader::parseUnsigned(text, 64u << 20, value) || value < 1024) {
        throw UsageError(option + " must be a number of bytes from 1024 to 67108864, not '" + text +
                         "'");
    }
    return static_cast<int>(value);
}

std::string SocketCanArguments::statisticsLine(const std::string& iface,
                                               const SocketCanProxy::Statistics& s) {
    std::ostringstream line;
    line << "stats " << iface << " sent=" << s.framesSent << " received=" << s.framesReceived
         << " filtered=" << s.framesFilteredOut << " retries=" << s.writeRetries
         << " enobufs=" << s.enobufs << " drops=" << s.receiveDrops << " errors=" << s.errorFrames
         << " remote=" << s.remoteFramesIgnored << " fd=" << s.fdFramesIgnored
         << " rejected=" << s.messagesRejected << " send-failures=" << s.sendFailures
         << " delivery-failures=" << s.deliveryFailures;
    return line.str();
}

const char* SocketCanArguments::bufferOptionsHelp() {
    return "      --sndbuf BYTES   SO_SNDBUF of the CAN socket (default: the kernel's)\n"
           "      --rcvbuf BYTES   receive buffer to ask for (default 1048576)\n"
           "      --stats          at exit, one 'stats IFACE sent=N ...' line on standard\n"
           "                       error with the proxy's counters (docs/socketcan.md)\n";
}

bool SocketCanArguments::LinkOptions::read(ArgumentReader& args) {
    std::string value;
    if (args.option("--can", "-c", value)) {
        settings.interfaceName = interfaceOf("--can", value);
        haveCan = true;
    } else if (args.option("--id", "-i", value)) {
        settings.sendId = static_cast<uint16_t>(ArgumentReader::toUnsigned("--id", value, 0x7FF));
        haveId = true;
    } else if (args.option("--peer-id", "-p", value)) {
        appendIdentifiers("--peer-id", value, settings.peers);
    } else if (args.option("--debug", "-d", value)) {
        settings.debug = ArgumentReader::toInt("--debug", value, -1000, 1000);
    } else if (args.option("--sndbuf", nullptr, value)) {
        settings.sendBufferBytes = bufferBytes("--sndbuf", value);
    } else if (args.option("--rcvbuf", nullptr, value)) {
        settings.receiveBufferBytes = bufferBytes("--rcvbuf", value);
    } else {
        return false;
    }
    return true;
}

void SocketCanArguments::LinkOptions::requireComplete() const {
    if (!haveCan) {
        throw UsageError("--can socketcan:IFACE is required");
    }
    if (!haveId) {
        throw UsageError("--id is required");
    }
    if (settings.peers.empty()) {
        throw UsageError("--peer-id is required");
    }
}

#include "SendCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "ArgumentReader.h"
#include "LogToStandardError.h"
#include "SocketCanArguments.h"
#include "SocketCanLink.h"
#include "StopSignals.h"
#include "libqbio/LogUtil.h"

namespace {

/// The largest payload the first frame's 12-bit length field announces correctly.
constexpr size_t MAX_PAYLOAD = 4095;

/// Reads the whole of `fd`; keeps at most MAX_PAYLOAD + 1 bytes but counts all of them.
bool readPayload(int fd, byteVec_t& payload, size_t& total) {
    payload.clear();
    total = 0;
    uint8_t chunk[4096];
    for (;;) {
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return false;
        }
        if (n == 0) {
            return true;
        }
        total += static_cast<size_t>(n);
        const size_t keep = std::min<size_t>(
            static_cast<size_t>(n), MAX_PAYLOAD + 1 - std::min(payload.size(), MAX_PAYLOAD + 1));
        payload.insert(payload.end(), chunk, chunk + keep);
    }
}

}  // namespace

void SendCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp send --can socketcan:IFACE --id ID --peer-id ID [options] [FILE|-]\n"
          "\n"
          "Sends FILE (or standard input) whole as one payload over a SocketCAN interface and\n"
          "waits for the peer's acknowledgement, like isotpsend.\n"
          "\n"
          "Options:\n"
          "  -c, --can socketcan:IFACE  the CAN interface (e.g. socketcan:can0)\n"
          "  -i, --id ID          CAN identifier of the frames it sends (0 to 0x7FF)\n"
          "  -p, --peer-id ID     CAN identifier of the peer's frames (0 to 0x1FFFFFFF; above\n"
          "                       0x7FF an extended identifier); only these are received\n"
          "  -d, --debug N        debug level of the endpoint's and the proxy's log lines\n"
       << SocketCanArguments::bufferOptionsHelp()
       << "  -h, --help           this text\n"
          "\n"
          "A payload has 1 to 4095 bytes: an empty one is refused by every receiver, and the\n"
          "12-bit length of a first frame cannot announce 4096 bytes or more.\n"
          "\n"
          "Exit status: 0 acknowledged; 1 CTT_SEND_TIMEOUT or CTT_DISCONNECTED (the name on\n"
          "standard error), or FILE or the interface could not be used; 2 usage error or a\n"
          "payload of 0 or 4096 and more bytes. Log lines go to standard error.\n"
          "\n"
          "Example:\n"
          "  printf '\\x22\\xf1\\x90' | cantp send --can socketcan:can0 --id 0x7E0 --peer-id "
          "0x7E8\n";
}

int SendCommand::run(int argc, char** argv, int first) {
    SocketCanArguments::LinkOptions linkOptions;
    bool stats = false;
    std::string file = "-";
    bool haveFile = false;
    ArgumentReader args(argc, argv, first);
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        } else if (linkOptions.read(args)) {
            // --can, --id, --peer-id, --debug, --sndbuf or --rcvbuf, taken
        } else if (args.flag("--stats", nullptr)) {
            stats = true;
        } else if (args.current() != "-" && args.current().compare(0, 1, "-") == 0) {
            throw UsageError("unknown option '" + args.current() + "'");
        } else if (!haveFile) {
            file = args.take();
            haveFile = true;
        } else {
            throw UsageError("one FILE only, not also '" + args.current() + "'");
        }
    }
    linkOptions.requireComplete();
    const SocketCanLink::Settings& settings = linkOptions.settings;

    int fd = STDIN_FILENO;
    if (file != "-") {
        fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            std::cerr << "cantp send: error: cannot open " << file << ": " << std::strerror(errno)
                      << std::endl;
            return 1;
        }
    }
    byteVec_t payload;
    size_t total = 0;
    const bool readOk = readPayload(fd, payload, total);
    const int readErrno = errno;
    if (fd != STDIN_FILENO) {
        ::close(fd);
    }
    if (!readOk) {
        std::cerr << "cantp send: error: cannot read " << (file == "-" ? "standard input" : file)
                  << ": " << std::strerror(readErrno) << std::endl;
        return 1;
    }
    if (total == 0) {
        std::cerr << "cantp send: refused: the payload is empty; every receiver refuses an empty "
                     "payload and the sender would retry it until it gives up"
                  << std::endl;
        return 2;
    }
    if (total > MAX_PAYLOAD) {
        std::cerr << "cantp send: refused: the payload has " << total
                  << " bytes; the 12-bit length of a first frame carries at most 4095 (it would "
                     "announce "
                  << (total & 0xFFF) << ")" << std::endl;
        return 2;
    }

    LogToStandardError logs;
    StopSignals signals;
    std::atomic<int> outcome{-1};  // a statuschange_t once decided
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::cerr << "cantp send: error: pipe() failed: " << std::strerror(errno) << std::endl;
        return 1;
    }
    CANTransportThread::delstatus_t onStatus =
        [&outcome, &wake](CANTransportThread::statuschange_t st, uint16_t) {
            if (st == CANTransportThread::CTT_ACKNOWLEDGED ||
                st == CANTransportThread::CTT_SEND_TIMEOUT ||
                st == CANTransportThread::CTT_DISCONNECTED) {
                int expected = -1;
                if (outcome.compare_exchange_strong(expected, static_cast<int>(st))) {
                    const char byte = 'w';
                    (void)!::write(wake[1], &byte, 1);
                }
            }
        };
    int status = 1;
    {
        SocketCanLink link(settings, onStatus);
        link.start();
        if (!link.sendPayload(payload)) {
            std::cerr << "cantp send: error: writing to the endpoint failed: "
                      << std::strerror(errno) << std::endl;
        } else {
            for (;;) {
                pollfd fds[2] = {{wake[0], POLLIN, 0}, {signals.fd(), POLLIN, 0}};
                ::poll(fds, 2, 100);
                if (outcome.load() >= 0) {
                    const auto st = static_cast<CANTransportThread::statuschange_t>(outcome.load());
                    if (st == CANTransportThread::CTT_ACKNOWLEDGED) {
                        status = 0;
                    } else {
                        std::ostringstream name;
                        name << st;
                        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                        std::cerr << "cantp send: " << name.str() << std::endl;
                    }
                    break;
                }
                if ((fds[1].revents & POLLIN) != 0) {
                    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                    std::cerr << "cantp send: interrupted before the payload was acknowledged"
                              << std::endl;
                    break;
                }
                if (!link.endpoint().isRunning()) {
                    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                    std::cerr << "cantp send: error: transport thread ended: "
                              << link.endpoint().exitReason() << std::endl;
                    break;
                }
            }
        }
        link.proxy().stop();
        if (stats) {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cerr << SocketCanArguments::statisticsLine(settings.interfaceName,
                                                            link.proxy().statistics())
                      << std::endl;
        }
    }
    ::close(wake[0]);
    ::close(wake[1]);
    return status;
}

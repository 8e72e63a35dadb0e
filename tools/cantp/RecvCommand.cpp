#include "RecvCommand.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

#include "ArgumentReader.h"
#include "FdStreamBuf.h"
#include "LogToStandardError.h"
#include "SocketCanArguments.h"
#include "SocketCanLink.h"
#include "StopSignals.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/HexText.h"
#include "libqbutil/QBException.h"

void RecvCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp recv --can socketcan:IFACE --id ID --peer-id ID [options]\n"
          "\n"
          "Receives payloads over a SocketCAN interface, like isotprecv: each one is written to\n"
          "standard output as one line of upper-case hex, or as its bytes with --raw.\n"
          "\n"
          "Options:\n"
          "  -c, --can socketcan:IFACE  the CAN interface (e.g. socketcan:can0)\n"
          "  -i, --id ID          CAN identifier of the frames it sends (flow control), 0 to\n"
          "                       0x7FF\n"
          "  -p, --peer-id ID     CAN identifier of the sender's frames (0 to 0x1FFFFFFF; above\n"
          "                       0x7FF an extended identifier); only these are received\n"
          "  -n, --count N        exit after N payloads (default: run until SIGINT/SIGTERM)\n"
          "  -r, --raw            write the payload bytes themselves, nothing between them\n"
          "  -d, --debug N        debug level of the endpoint's and the proxy's log lines\n"
       << SocketCanArguments::bufferOptionsHelp()
       << "  -h, --help           this text\n"
          "\n"
          "Exit status: 0 after N payloads, or stopped by SIGINT or SIGTERM; 1 the interface\n"
          "could not be opened or went down, or the endpoint ended; 2 usage error.\n"
          "Log lines go to standard error.\n"
          "\n"
          "Example:\n"
          "  cantp recv --can socketcan:can0 --id 0x7E8 --peer-id 0x7E0 --count 1\n";
}

int RecvCommand::run(int argc, char** argv, int first) {
    SocketCanArguments::LinkOptions linkOptions;
    bool raw = false, stats = false;
    uint64_t count = 0;  // 0: no limit
    ArgumentReader args(argc, argv, first);
    std::string value;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        } else if (linkOptions.read(args)) {
            // --can, --id, --peer-id, --debug, --sndbuf or --rcvbuf, taken
        } else if (args.option("--count", "-n", value)) {
            count = ArgumentReader::toUnsigned("--count", value, UINT32_MAX);
            if (count == 0) {
                throw UsageError("--count must be at least 1");
            }
        } else if (args.flag("--raw", "-r")) {
            raw = true;
        } else if (args.flag("--stats", nullptr)) {
            stats = true;
        } else {
            throw UsageError("unknown argument '" + args.current() + "'");
        }
    }
    linkOptions.requireComplete();
    const SocketCanLink::Settings& settings = linkOptions.settings;

    // Standard output carries the payloads only: the library's log lines go to standard error.
    FdStreamBuf outBuf(STDOUT_FILENO);
    std::ostream out(&outBuf);
    const LogToStandardError logToStandardError;

    StopSignals signals;
    CANTransportThread::delstatus_t onStatus = [](CANTransportThread::statuschange_t, uint16_t) {};
    int status = 0;
    uint64_t received = 0;
    {
        SocketCanLink link(settings, onStatus);
        TraceMessageBuffer payloads(link.payloadFd(), nullptr);
        link.start();
        bool done = false;
        while (!done) {
            pollfd fds[2] = {{link.payloadFd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
            const int n = ::poll(fds, 2, 100);
            if (n < 0 && errno != EINTR) {
                std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                std::cerr << "cantp recv: error: poll failed: " << std::strerror(errno)
                          << std::endl;
                status = 1;
                break;
            }
            if (n > 0 && (fds[0].revents & POLLIN) != 0) {
                if (payloads.read() == -1) {
                    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                    std::cerr << "cantp recv: error: reading payloads failed: "
                              << std::strerror(errno) << std::endl;
                }
                for (;;) {
                    std::unique_ptr<MessageBase> msg;
                    try {
                        msg.reset(payloads.getNextMessage());
                    } catch (const QBException& e) {
                        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                        std::cerr << "cantp recv: error: unreadable output of the endpoint: "
                                  << e.what() << std::endl;
                        continue;
                    }
                    if (!msg) {
                        break;
                    }
                    const auto* p = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
                    if (p == nullptr) {
                        continue;
                    }
                    if (raw) {
                        out.write(reinterpret_cast<const char*>(p->getPayload().data()),
                                  static_cast<std::streamsize>(p->getPayload().size()));
                    } else {
                        out << HexText::encode(p->getPayload()) << '\n';
                    }
                    out.flush();
                    if (outBuf.failed()) {
                        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                        std::cerr << "cantp recv: error: cannot write to standard output"
                                  << std::endl;
                        status = 1;
                        done = true;
                        break;
                    }
                    ++received;
                    if (count != 0 && received >= count) {
                        done = true;
                        break;
                    }
                }
            }
            if (done) {
                break;
            }
            if (n > 0 && (fds[1].revents & POLLIN) != 0) {
                break;  // SIGINT or SIGTERM: a normal end
            }
            if (!link.proxy().isRunning() && link.proxy().failed()) {
                std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                std::cerr << "cantp recv: error: " << link.proxy().failure() << std::endl;
                status = 1;
                break;
            }
            if (!link.endpoint().isRunning()) {
                std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                std::cerr << "cantp recv: error: transport thread ended: "
                          << link.endpoint().exitReason() << std::endl;
                status = 1;
                break;
            }
        }
        if (status == 0 && count != 0 && received >= count) {
            // The endpoint acknowledges a payload just after delivering it: let that frame
            // leave before the proxy stops, or the sender would time out waiting for it.
            link.waitUntilSent(received, 2000);
        }
        link.proxy().stop();
        if (stats) {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cerr << SocketCanArguments::statisticsLine(settings.interfaceName,
                                                            link.proxy().statistics())
                      << std::endl;
        }
    }
    return status;
}

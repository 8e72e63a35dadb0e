#include "EndpointCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ArgumentReader.h"
#include "SocketCanArguments.h"
#include "SocketCanLink.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "libqbutil/HexText.h"
#include "libqbutil/QBException.h"

namespace {

/// The write end of the pipe that signal handlers use to wake the main loop.
std::atomic<int> signalPipeWriteEnd{-1};

extern "C" void onStopSignal(int) {
    const int saved = errno;
    const int fd = signalPipeWriteEnd.load();
    if (fd >= 0) {
        const char byte = 's';
        (void)!::write(fd, &byte, 1);
    }
    errno = saved;
}

/// Writes one whole line to std::cout (or std::cerr) under the log mutex and flushes it, so
/// that lines of different threads never mix and a script reading the pipe sees it at once.
void emitLine(const std::string& line, bool toError = false) {
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    (toError ? std::cerr : std::cout) << line << std::endl;
}

std::string statusName(CANTransportThread::statuschange_t status) {
    std::ostringstream text;
    text << status;
    return text.str();
}

/// Prints what the endpoint writes: frames to its CAN proxy descriptor (this process) and
/// payloads on its application pipe.
class OutputPump {
  public:
    /// With a `forward` writer, each frame is passed on to it after it is printed (the frames
    /// then go to the SocketCAN proxy).
    OutputPump(int proxyReadFd, int appReadFd, std::string iface, TraceMessageWriter* forward)
        : proxy(proxyReadFd, nullptr),
          app(appReadFd, nullptr),
          proxyFd(proxyReadFd),
          appFd(appReadFd),
          interfaceName(std::move(iface)),
          forwardTo(forward) {
        if (::pipe(stopPipe) != 0) {
            throw QBException("pipe() failed: " + std::string(std::strerror(errno)));
        }
        worker = std::thread([this] { loop(); });
    }

    /// Stops the pump after it has printed everything already written to its descriptors.
    void finish() {
        if (worker.joinable()) {
            const char byte = 'q';
            (void)!::write(stopPipe[1], &byte, 1);
            worker.join();
        }
    }

    ~OutputPump() {
        finish();
        ::close(stopPipe[0]);
        ::close(stopPipe[1]);
    }

  private:
    void loop() {
        for (;;) {
            pollfd fds[3] = {{proxyFd, POLLIN, 0}, {appFd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
            const int n = ::poll(fds, 3, -1);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0) {
                emitLine(std::string("error: poll failed: ") + std::strerror(errno), true);
                return;
            }
            if ((fds[0].revents & (POLLIN | POLLHUP)) != 0) {
                pump(proxy, true);
            }
            if ((fds[1].revents & (POLLIN | POLLHUP)) != 0) {
                pump(app, false);
            }
            if ((fds[2].revents & POLLIN) != 0) {
                // Everything the endpoint wrote before it was stopped is in the pipes now.
                drain(proxy, proxyFd, true);
                drain(app, appFd, false);
                return;
            }
        }
    }

    void drain(TraceMessageBuffer& buffer, int fd, bool isProxy) {
        for (;;) {
            pollfd p = {fd, POLLIN, 0};
            if (::poll(&p, 1, 0) <= 0 || (p.revents & POLLIN) == 0) {
                return;
            }
            if (!pump(buffer, isProxy)) {
                return;
            }
        }
    }

    /// One read and everything it completes; false if nothing more can come.
    bool pump(TraceMessageBuffer& buffer, bool isProxy) {
        const int result = buffer.read();
        if (result == -1) {
            emitLine(
                std::string("error: reading the endpoint's output failed: ") + std::strerror(errno),
                true);
            return false;
        }
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(buffer.getNextMessage());
            } catch (const QBException& e) {
                emitLine(std::string("error: unreadable output of the endpoint: ") + e.what(),
                         true);
                continue;
            }
            if (!msg) {
                break;
            }
            if (isProxy) {
                printFrame(*msg);
                if (forwardTo != nullptr &&
                    !forwardTo->writeBytes(msg->getRawBytes().data(), msg->getRawBytes().size())) {
                    emitLine(std::string("error: passing a frame to the CAN proxy failed: ") +
                                 std::strerror(errno),
                             true);
                }
            } else {
                printPayload(*msg);
            }
        }
        return result > 0;
    }

    void printFrame(const MessageBase& msg) const {
        const auto* frame = dynamic_cast<const CANTraceMessageBase*>(&msg);
        if (frame == nullptr) {
            emitLine("error: the endpoint wrote a message that is not a CAN frame", true);
            return;
        }
        timeval now;
        ::gettimeofday(&now, nullptr);
        const bool extended =
            frame->getCanType() == CT_EXTENDED || frame->getCanType() == CT_FD_EXTENDED;
        const uint8_t length = std::min<uint8_t>(frame->getNumberOfDataBytes(), 8);
        emitLine(CandumpLine::format(static_cast<int64_t>(now.tv_sec),
                                     static_cast<uint32_t>(now.tv_usec), interfaceName,
                                     frame->getCanId(), extended, frame->getData(), length));
    }

    static void printPayload(const MessageBase& msg) {
        const auto* payload = dynamic_cast<const CANTransportTraceMessage*>(&msg);
        if (payload == nullptr) {
            emitLine("error: the endpoint delivered a message that is not a payload", true);
            return;
        }
        std::ostringstream line;
        line << "recv " << std::uppercase << std::hex << std::setfill('0') << std::setw(3)
             << payload->getCanId();
        if (!payload->getPayload().empty()) {
            line << ' ' << HexText::encode(payload->getPayload());
        }
        emitLine(line.str());
    }

    TraceMessageBuffer proxy;
    TraceMessageBuffer app;
    int proxyFd;
    int appFd;
    const std::string interfaceName;
    TraceMessageWriter* const forwardTo;
    int stopPipe[2] = {-1, -1};
    std::thread worker;
};

/// The endpoint with its pipes and the commands of standard input. With `socketCan` set the
/// endpoint's frames go through the pump (printed) to a SocketCanProxy on that interface, and
/// frames come from the interface only.
class EndpointSession {
  public:
    EndpointSession(uint16_t id, int debugLevel, const SocketCanLink::Settings* socketCan)
        : sendId(id) {
        if (::pipe(proxyPipe) != 0) {
            throw QBException("pipe() failed: " + std::string(std::strerror(errno)));
        }
        CANTransportThread::delstatus_t onStatus = [](CANTransportThread::statuschange_t st,
                                                      uint16_t arg) {
            emitLine("status " + statusName(st) + " " + std::to_string(arg));
        };
        if (socketCan != nullptr) {
            link.reset(new SocketCanLink(*socketCan, onStatus, proxyPipe[1]));
            transport = &link->endpoint();
            input = &link->input();
            appReadFd = link->payloadFd();
            forward.reset(new TraceMessageWriter(link->proxy().proxyFd()));
            pump.reset(
                new OutputPump(proxyPipe[0], appReadFd, socketCan->interfaceName, forward.get()));
            link->start();
            return;
        }
        ownTransport.reset(new CANTransportThread(debugLevel));
        transport = ownTransport.get();
        transport->setSendCANid(id);
        transport->setDelegate(onStatus);
        transport->open(appReadFd, appWriteFd);
        ownInput.reset(new TraceMessageWriter(appWriteFd));
        input = ownInput.get();
        transport->setConnection(proxyPipe[1]);
        pump.reset(new OutputPump(proxyPipe[0], appReadFd, "can0", nullptr));
        transport->start();
    }

    ~EndpointSession() {
        if (link) {
            link->proxy().stop();
        }
        transport->stop();
        if (pump) {
            pump->finish();
        }
        link.reset();
        ::close(proxyPipe[0]);
        ::close(proxyPipe[1]);
    }

    CANTransportThread& endpoint() { return *transport; }
    SocketCanLink* socketCan() { return link.get(); }

    /// Handles one line of standard input.
    void handleLine(const std::string& rawLine) {
        std::string line = rawLine;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const size_t begin = line.find_first_not_of(" \t");
        if (begin == std::string::npos || line[begin] == '#') {
            return;
        }
        const size_t end = line.find_last_not_of(" \t");
        const std::string text = line.substr(begin, end - begin + 1);
        std::istringstream words(text);
        std::string command;
        words >> command;
        std::string rest;
        std::getline(words, rest);
        const size_t restBegin = rest.find_first_not_of(" \t");
        rest = restBegin == std::string::npos ? std::string() : rest.substr(restBegin);

        if (command == "send") {
            byteVec_t payload;
            std::string reason;
            if (!HexText::decode(rest, payload, reason)) {
                emitLine("error: " + reason + ": " + rawLine, true);
                return;
            }
            CANTransportTraceMessage msg(0, sendId, payload.begin(), payload.end(), CT_STANDARD);
            submit(msg);
        } else if (command == "clear") {
            if (rest.empty()) {
                transport->clear(false);
            } else if (rest == "all") {
                transport->clear(true);
            } else {
                emitLine("error: clear takes nothing or 'all': " + rawLine, true);
            }
        } else if (command == "empty") {
            if (!rest.empty()) {
                emitLine("error: empty takes no argument: " + rawLine, true);
                return;
            }
            emitLine(transport->sendQueueEmpty() ? "empty true" : "empty false");
        } else if (command == "debug") {
            try {
                transport->setDebugLevel(ArgumentReader::toInt("debug level", rest, -1000, 1000));
            } catch (const UsageError& e) {
                emitLine(std::string("error: ") + e.what() + ": " + rawLine, true);
            }
        } else {
            if (link) {
                emitLine("error: frames come from " + link->proxy().interfaceName() +
                             ", not from standard input: " + rawLine,
                         true);
                return;
            }
            CandumpLine frame;
            std::string reason;
            if (!CandumpLine::parse(text, frame, reason)) {
                emitLine("error: " + reason + ": " + rawLine, true);
                return;
            }
            const timeStamp_t stamp =
                frame.hasTimestamp
                    ? static_cast<timeStamp_t>(frame.seconds) * 1000000u + frame.microseconds
                    : 0;
            CANExtTraceMessage msg(stamp, 0, CF_STANDARD, CSE_NO,
                                   frame.extended ? CT_EXTENDED : CT_STANDARD, frame.length,
                                   frame.canId, frame.data.data());
            submit(msg);
        }
    }

  private:
    void submit(const MessageBase& msg) {
        if (!input->write(msg)) {
            emitLine(std::string("error: writing to the endpoint failed: ") + std::strerror(errno),
                     true);
        }
    }

    uint16_t sendId;
    int proxyPipe[2] = {-1, -1};
    int appReadFd = -1;
    int appWriteFd = -1;
    std::unique_ptr<SocketCanLink> link;               // socketcan mode
    std::unique_ptr<TraceMessageWriter> forward;       // socketcan mode: into the proxy
    std::unique_ptr<CANTransportThread> ownTransport;  // stdio mode
    std::unique_ptr<TraceMessageWriter> ownInput;      // stdio mode
    CANTransportThread* transport = nullptr;
    TraceMessageWriter* input = nullptr;  // every write into the endpoint's input
    std::unique_ptr<OutputPump> pump;
};

enum class Wake { Input, Signal, Tick };

/// Waits for standard input or a stop signal, at most `timeoutMs`.
Wake waitForEvent(int stdinFd, int signalFd, int timeoutMs) {
    pollfd fds[2] = {{stdinFd, POLLIN, 0}, {signalFd, POLLIN, 0}};
    const int n = ::poll(fds, 2, timeoutMs);  // a negative descriptor is ignored
    if (n <= 0) {
        return Wake::Tick;
    }
    if ((fds[1].revents & POLLIN) != 0) {
        return Wake::Signal;
    }
    if ((fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        return Wake::Input;
    }
    return Wake::Tick;
}

}  // namespace

void EndpointCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp endpoint [--id ID] [--can stdio] [--debug N]\n"
          "       cantp endpoint --can socketcan:IFACE --peer-id ID[,ID...] [--id ID] [--debug N]\n"
          "\n"
          "Runs one CAN transport endpoint driven through standard input and output.\n"
          "\n"
          "Options:\n"
          "  -i, --id ID      CAN identifier of the frames it sends, 0 to 0xFFFF, decimal or\n"
          "                   hexadecimal with 0x (default 0x7E0; the bus keeps its low 11 bits;\n"
          "                   with socketcan 0 to 0x7FF)\n"
          "  -c, --can stdio  where the CAN frames go: stdio (default) makes this process the\n"
          "                   CAN proxy: frames are read from standard input, written to output\n"
          "  -c, --can socketcan:IFACE\n"
          "                   frames go to and come from the SocketCAN interface IFACE\n"
          "  -p, --peer-id ID[,ID...]\n"
          "                   with socketcan (required): the identifiers whose frames the\n"
          "                   endpoint receives (above 0x7FF: extended identifiers)\n"
          "  -d, --debug N    debug level of the endpoint's log lines (default 0)\n"
       << SocketCanArguments::bufferOptionsHelp()
       << "  -h, --help       this text\n"
          "\n"
          "Standard input, one command a line ('#' lines and blank lines are ignored):\n"
          "  [(SEC.USEC)] IFACE ID#DATA   a CAN frame received from the bus (candump -L or\n"
          "                               cansend form; with socketcan an error: frames come\n"
          "                               from the interface)\n"
          "  send [HEX]                   hand a payload to the endpoint\n"
          "  clear | clear all            drop queued payloads (all but the one in flight, or "
          "all)\n"
          "  empty                        print 'empty true' or 'empty false'\n"
          "  debug N                      set the debug level\n"
          "\n"
          "Standard output, one event a line:\n"
          "  (SEC.USEC) IFACE ID#DATA     a frame the endpoint put on the bus (IFACE is can0\n"
          "                               with stdio)\n"
          "  recv ID [HEX]                a payload delivered to the application\n"
          "  status NAME N                a status report\n"
          "\n"
          "At end of input it runs until its send queue is empty, then exits 0. SIGINT and\n"
          "SIGTERM stop it at once (exit 0). Exit 1 if the transport thread ends by an\n"
          "exception or the CAN interface fails, 2 for a usage error.\n"
          "\n"
          "Examples:\n"
          "  printf 'send 112233\\ncan0 7E8#30\\n' | cantp endpoint --id 0x7E0\n"
          "  cantp endpoint --can socketcan:can0 --id 0x7E0 --peer-id 0x7E8\n";
}

int EndpointCommand::run(int argc, char** argv, int first) {
    uint16_t id = 0x7E0;
    int debugLevel = 0;
    bool socketCan = false;
    bool stats = false;
    SocketCanLink::Settings settings;
    bool bufferOption = false;
    ArgumentReader args(argc, argv, first);
    std::string value;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        } else if (args.option("--id", "-i", value)) {
            id = static_cast<uint16_t>(ArgumentReader::toUnsigned("--id", value, 0xFFFF));
        } else if (args.option("--can", "-c", value)) {
            if (SocketCanArguments::isSocketCan(value)) {
                settings.interfaceName = SocketCanArguments::interfaceOf("--can", value);
                socketCan = true;
            } else if (value == "stdio") {
                socketCan = false;
            } else {
                throw UsageError("--can takes 'stdio' or 'socketcan:IFACE', not '" + value + "'");
            }
        } else if (args.option("--peer-id", "-p", value)) {
            SocketCanArguments::appendIdentifiers("--peer-id", value, settings.peers);
        } else if (args.option("--debug", "-d", value)) {
            debugLevel = ArgumentReader::toInt("--debug", value, -1000, 1000);
        } else if (args.option("--sndbuf", nullptr, value)) {
            settings.sendBufferBytes = SocketCanArguments::bufferBytes("--sndbuf", value);
            bufferOption = true;
        } else if (args.option("--rcvbuf", nullptr, value)) {
            settings.receiveBufferBytes = SocketCanArguments::bufferBytes("--rcvbuf", value);
            bufferOption = true;
        } else if (args.flag("--stats", nullptr)) {
            stats = true;
        } else {
            throw UsageError("unknown argument '" + args.current() + "'");
        }
    }
    if (socketCan && settings.peers.empty()) {
        throw UsageError("--peer-id is required with --can socketcan:IFACE");
    }
    if (!socketCan && (!settings.peers.empty() || bufferOption || stats)) {
        throw UsageError("--peer-id, --sndbuf, --rcvbuf and --stats need --can socketcan:IFACE");
    }
    if (socketCan && id > 0x7FF) {
        throw UsageError(
            "--id must be from 0 to 0x7FF with socketcan (the endpoint sends "
            "standard frames and keeps only the low 11 bits), not '" +
            std::to_string(id) + "'");
    }
    settings.sendId = id;
    settings.debug = debugLevel;

    int signalPipe[2];
    if (::pipe(signalPipe) != 0) {
        std::cerr << "error: pipe() failed: " << std::strerror(errno) << std::endl;
        return 1;
    }
    ::fcntl(signalPipe[1], F_SETFL, ::fcntl(signalPipe[1], F_GETFL) | O_NONBLOCK);
    signalPipeWriteEnd = signalPipe[1];
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    int status = 0;
    {
        EndpointSession session(id, debugLevel, socketCan ? &settings : nullptr);
        CANTransportThread& endpoint = session.endpoint();
        std::string pending;
        bool inputOpen = true;
        bool stopNow = false;
        int emptyReadings = 0;
        while (!stopNow) {
            if (!endpoint.isRunning()) {
                emitLine("error: transport thread ended: " + endpoint.exitReason(), true);
                status = 1;
                break;
            }
            if (session.socketCan() != nullptr && session.socketCan()->proxy().failed()) {
                emitLine("error: " + session.socketCan()->proxy().failure(), true);
                status = 1;
                break;
            }
            if (!inputOpen) {
                // sendQueueEmpty() reads true for an instant after the loop has taken a payload
                // off its pipe and before it is queued; three readings 10 ms apart rule that out.
                emptyReadings = endpoint.sendQueueEmpty() ? emptyReadings + 1 : 0;
                if (emptyReadings >= 3) {
                    break;
                }
            }
            const Wake wake =
                waitForEvent(inputOpen ? STDIN_FILENO : -1, signalPipe[0], inputOpen ? 100 : 10);
            if (wake == Wake::Signal) {
                stopNow = true;
            } else if (wake == Wake::Input && inputOpen) {
                char chunk[4096];
                const ssize_t n = ::read(STDIN_FILENO, chunk, sizeof chunk);
                if (n < 0 && errno == EINTR) {
                    continue;
                }
                if (n <= 0) {
                    inputOpen = false;
                    if (!pending.empty()) {
                        session.handleLine(pending);
                        pending.clear();
                    }
                    continue;
                }
                pending.append(chunk, static_cast<size_t>(n));
                size_t newline;
                while ((newline = pending.find('\n')) != std::string::npos) {
                    const std::string line = pending.substr(0, newline);
                    pending.erase(0, newline + 1);
                    session.handleLine(line);
                }
            }
        }
        if (stats && session.socketCan() != nullptr) {
            emitLine(SocketCanArguments::statisticsLine(settings.interfaceName,
                                                        session.socketCan()->proxy().statistics()),
                     true);
        }
    }
    signalPipeWriteEnd = -1;
    ::close(signalPipe[0]);
    ::close(signalPipe[1]);
    return status;
}

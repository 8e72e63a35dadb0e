#include "DemoCommand.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "ArgumentReader.h"
#include "MessagePump.h"
#include "OutputFile.h"
#include "ProcessUsage.h"
#include "SocketCanArguments.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/PcapWriter.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbio/LogUtil.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbsocketcan/SocketCanProxy.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "libqbutil/QBException.h"

namespace {

using Clock = std::chrono::steady_clock;
using Status = CANTransportThread::statuschange_t;

struct Options {
    unsigned payloads = 100;
    unsigned minSize = 1;
    unsigned maxSize = 4095;
    uint32_t bitrate = 500000;
    double loss = 0.0;
    uint64_t seed = 1;
    bool fast = false;
    bool duplex = false;
    std::string logFile;
    std::string pcapFile;
    int debug = 0;
    /// Empty: the simulated bus; otherwise the SocketCAN interface of --bus socketcan:IFACE.
    std::string socketCan;
};

/// Stands in for std::cout while the endpoints run: counts their "send retry" lines and passes
/// their log lines on only when asked to (they would tear the progress bar apart otherwise).
/// Every library line is written under LogUtil::logMutex, so lines arrive whole.
class LogLineFilter : public std::streambuf {
  public:
    LogLineFilter(std::streambuf* target, bool pass) : target(target), pass(pass) {}
    unsigned long retries() const { return retryLines.load(); }

  protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) {
            return traits_type::not_eof(c);
        }
        line.push_back(static_cast<char>(c));
        if (c == '\n') {
            if (line.find("::handleSendError() send retry = ") != std::string::npos) {
                ++retryLines;
            }
            if (pass) {
                target->sputn(line.data(), static_cast<std::streamsize>(line.size()));
            }
            line.clear();
        }
        return c;
    }
    int sync() override { return pass ? target->pubsync() : 0; }

  private:
    std::streambuf* target;
    bool pass;
    std::string line;
    std::atomic<unsigned long> retryLines{0};
};

/// The counts of one run, guarded by the conversation's mutex.
struct Tally {
    unsigned long sent = 0;
    unsigned long delivered = 0;
    unsigned long verified = 0;
    unsigned long wrong = 0;
    unsigned long duplicates = 0;
    unsigned long failed = 0;
    unsigned long long bytesSent = 0;
    unsigned long long bytesVerified = 0;
    std::map<std::string, unsigned long> statuses;
};

std::string statusName(Status st) {
    std::ostringstream text;
    text << st;
    return text.str();
}

byteVec_t serialise(const byteVec_t& payload, uint16_t id) {
    CANTransportTraceMessage msg(0, id, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t bytes;
    msg.createByteArray(bytes, true, false);
    return bytes;
}

/// Reads the payloads one endpoint delivers and hands each to `onPayload`.
class PayloadReader {
  public:
    template <typename Handler>
    PayloadReader(int fd, Handler onPayload) {
        if (::pipe(stopPipe) != 0) {
            throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
        }
        worker = std::thread([this, fd, onPayload] {
            MessagePump::run(fd, stopPipe[0], [&](std::unique_ptr<MessageBase> msg) {
                if (const auto* p = dynamic_cast<const CANTransportTraceMessage*>(msg.get())) {
                    onPayload(p->getPayload());
                }
                return true;
            });
        });
    }
    ~PayloadReader() {
        const char byte = 'q';
        (void)!::write(stopPipe[1], &byte, 1);
        worker.join();
        ::close(stopPipe[0]);
        ::close(stopPipe[1]);
    }

  private:
    int stopPipe[2] = {-1, -1};
    std::thread worker;
};

/// Shows "payloads done" on standard error when it is a terminal.
class ProgressBar {
  public:
    explicit ProgressBar(unsigned long total) : total(total), enabled(::isatty(2) != 0) {}
    void show(unsigned long done) {
        if (!enabled || total == 0) {
            return;
        }
        const int width = 40;
        const int filled = static_cast<int>(width * std::min(done, total) / total);
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        std::cerr << "\r[" << std::string(static_cast<size_t>(filled), '#')
                  << std::string(static_cast<size_t>(width - filled), '.') << "] " << done << "/"
                  << total << " payloads" << std::flush;
    }
    void finish() {
        if (enabled) {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cerr << "\r" << std::string(70, ' ') << "\r" << std::flush;
        }
    }

  private:
    unsigned long total;
    bool enabled;
};

/// The two endpoints on the bus, and the bookkeeping of one run.
class Conversation {
  public:
    Conversation(const Options& opt, std::ostream* tap, PcapWriter* pcapTap)
        : options(opt), rng(opt.seed), requester(opt.debug), responder(opt.debug) {
        requester.setSendCANid(0x7E0);
        responder.setSendCANid(0x7E8);
        CANTransportThread::delstatus_t onRequesterStatus = [this](Status st, uint16_t) {
            onStatus(0, st);
        };
        CANTransportThread::delstatus_t onResponderStatus = [this](Status st, uint16_t) {
            onStatus(1, st);
        };
        requester.setDelegate(onRequesterStatus);
        responder.setDelegate(onResponderStatus);
        requester.open(requesterRead, requesterWrite);
        responder.open(responderRead, responderWrite);
        if (opt.socketCan.empty()) {
            bus.reset(new SimulatedCanBus(busConfig(opt, tap, pcapTap)));
            nodeRequester = bus->addNode(requesterWrite, "0x7E0");
            nodeResponder = bus->addNode(responderWrite, "0x7E8");
            requester.setConnection(bus->proxyFd(nodeRequester));
            responder.setConnection(bus->proxyFd(nodeResponder));
            return;
        }
        // Each endpoint has its own socket on the interface and its own proxy; each socket
        // receives the other's frames (CAN_RAW_LOOPBACK, the kernel's default).
        nodeRequester = 0;
        nodeResponder = 1;
        const int inputs[2] = {requesterWrite, responderWrite};
        const uint32_t peerOf[2] = {0x7E8, 0x7E0};
        for (int side = 0; side < 2; ++side) {
            CanRawSocket::Options socketOptions;
            socketOptions.peers.push_back(CanRawSocket::Identifier{peerOf[side], false});
            writers[side].reset(new TraceMessageWriter(inputs[side]));
            proxies[side].reset(new SocketCanProxy(CanRawSocket::open(opt.socketCan, socketOptions),
                                                   *writers[side], opt.debug));
        }
        requester.setConnection(proxies[0]->proxyFd());
        responder.setConnection(proxies[1]->proxyFd());
    }

    ~Conversation() {
        for (auto& proxy : proxies) {
            if (proxy) {
                proxy->stop();
            }
        }
        requester.stop();
        responder.stop();
        if (bus) {
            bus->stop();
        }
    }

    /// Writes a serialised payload into the input of node 0 (0x7E0) or 1 (0x7E8).
    void writeToInput(int node, const byteVec_t& bytes) {
        if (bus) {
            bus->writeToInput(node, bytes);
        } else if (!writers[node]->writeBytes(bytes.data(), bytes.size())) {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cerr << "cantp demo: error: writing a payload to the endpoint failed: "
                      << std::strerror(errno) << std::endl;
        }
    }

    static SimulatedCanBus::Config busConfig(const Options& opt, std::ostream* tap,
                                             PcapWriter* pcapTap) {
        SimulatedCanBus::Config cfg;
        cfg.tap = tap;
        cfg.pcapTap = pcapTap;
        cfg.bitrate = opt.bitrate;
        cfg.timed = !opt.fast;
        cfg.lossProbability = opt.loss;
        cfg.seed = opt.seed;
        return cfg;
    }

    /// Request and response, one exchange at a time. Returns the run's counts.
    Tally runRequestResponse(ProgressBar& progress) {
        PayloadReader requests(responderRead,
                               [this](const byteVec_t& p) { onRequestDelivered(p); });
        PayloadReader responses(requesterRead,
                                [this](const byteVec_t& p) { onResponseDelivered(p); });
        startAll();
        for (unsigned i = 0; i < options.payloads; ++i) {
            byteVec_t request = randomPayload();
            {
                std::unique_lock<std::mutex> lock(mutex);
                exchange = Exchange();
                exchange.request = request;
                exchange.active = true;
                tally.sent += 1;
                tally.bytesSent += request.size();
            }
            writeToInput(nodeRequester, serialise(request, 0x7E0));
            std::unique_lock<std::mutex> lock(mutex);
            // Each side gives up on a payload after five tries of at most about a second; the
            // watchdog only guards against a conversation that could never end.
            const bool ended = changed.wait_for(lock, std::chrono::seconds(30),
                                                [this] { return exchange.done(); });
            if (!ended || !exchange.requestVerified) {
                if (!exchange.requestFailed && !exchange.requestVerified) {
                    tally.failed += 1;  // never delivered, never reported: lost in the watchdog
                }
            }
            if (exchange.requestVerified && !exchange.responseVerified &&
                !exchange.responseFailed) {
                tally.failed += 1;
            }
            exchange.active = false;
            progress.show(2 * (i + 1));
            if (!proxyFailure().empty()) {
                break;  // the interface is gone: every further payload would time out
            }
        }
        waitForQueues();
        waitForAcknowledgements();
        return snapshot();
    }

    /// Both endpoints send a stream at the same time.
    Tally runDuplex(ProgressBar& progress) {
        PayloadReader atResponder(responderRead,
                                  [this](const byteVec_t& p) { onStreamDelivered(streams[0], p); });
        PayloadReader atRequester(requesterRead,
                                  [this](const byteVec_t& p) { onStreamDelivered(streams[1], p); });
        startAll();
        for (int side = 0; side < 2; ++side) {
            for (unsigned i = 0; i < options.payloads; ++i) {
                byteVec_t payload = randomPayload();
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    streams[side].expected.push_back(payload);
                    tally.sent += 1;
                    tally.bytesSent += payload.size();
                }
            }
        }
        // Handed over all at once, interleaved, as two applications would.
        for (unsigned i = 0; i < options.payloads; ++i) {
            for (int side = 0; side < 2; ++side) {
                byteVec_t payload;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    payload = streams[side].expected[i];
                }
                writeToInput(side == 0 ? nodeRequester : nodeResponder,
                             serialise(payload, side == 0 ? 0x7E0 : 0x7E8));
            }
        }
        // Done when both queues are empty and nothing has been delivered for a while.
        for (;;) {
            const bool queuesEmpty = requester.sendQueueEmpty() && responder.sendQueueEmpty();
            unsigned long done = 0;
            Clock::time_point last;
            {
                std::lock_guard<std::mutex> lock(mutex);
                done = tally.verified + tally.wrong;
                last = lastDelivery;
            }
            progress.show(done);
            if (queuesEmpty && Clock::now() - last > std::chrono::milliseconds(1500)) {
                break;
            }
            if (!requester.isRunning() || !responder.isRunning() || !proxyFailure().empty()) {
                break;
            }
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait_for(lock, std::chrono::milliseconds(50));
        }
        Tally result = snapshot();
        for (const Stream& s : streams) {
            result.failed += s.expected.size() - s.verifiedCount;
        }
        return result;
    }

    SimulatedCanBus::Statistics busStatistics() const {
        return bus ? bus->statistics() : SimulatedCanBus::Statistics();
    }
    /// The proxies' counters (socketcan only).
    bool proxyStatistics(SocketCanProxy::Statistics out[2]) const {
        if (bus) {
            return false;
        }
        out[0] = proxies[0]->statistics();
        out[1] = proxies[1]->statistics();
        return true;
    }
    /// The first proxy that failed, if any (socketcan only).
    std::string proxyFailure() const {
        for (const auto& proxy : proxies) {
            if (proxy && proxy->failed()) {
                return proxy->failure();
            }
        }
        return std::string();
    }
    bool endpointsRunning() const { return requester.isRunning() && responder.isRunning(); }
    std::string endpointFailure() const {
        return !requester.isRunning() ? requester.exitReason() : responder.exitReason();
    }

  private:
    struct Exchange {
        byteVec_t request;
        byteVec_t response;
        bool active = false;
        bool requestVerified = false;
        bool requestFailed = false;
        bool responseSent = false;
        bool responseVerified = false;
        bool responseFailed = false;
        bool done() const {
            return requestFailed || responseFailed || responseVerified ||
                   (requestVerified && !responseSent);
        }
    };

    struct Stream {
        std::deque<byteVec_t> expected;
        size_t cursor = 0;
        unsigned long verifiedCount = 0;
    };

    void startAll() {
        if (bus) {
            bus->start();
        } else {
            proxies[0]->start();
            proxies[1]->start();
        }
        requester.start();
        responder.start();
        lastDelivery = Clock::now();
    }

    void waitForQueues() {
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline &&
               !(requester.sendQueueEmpty() && responder.sendQueueEmpty())) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    /// A sender takes an acknowledged payload off its queue and reports the acknowledgement
    /// just after, on its own thread: so the summary counts every report, the reports of the
    /// payloads known to be delivered are awaited once the queues are empty. Bounded: on a
    /// lossy bus a delivered payload may end in a give-up instead, whose report is already in.
    void waitForAcknowledgements() {
        std::unique_lock<std::mutex> lock(mutex);
        const auto count = [this](const char* key) {
            const auto it = tally.statuses.find(key);
            return it == tally.statuses.end() ? 0UL : it->second;
        };
        changed.wait_for(lock, std::chrono::milliseconds(500), [&] {
            return count("0x7E0 CTT_ACKNOWLEDGED") >= verifiedFrom[0] &&
                   count("0x7E8 CTT_ACKNOWLEDGED") >= verifiedFrom[1];
        });
    }

    byteVec_t randomPayload() {
        std::uniform_int_distribution<unsigned> size(options.minSize, options.maxSize);
        std::uniform_int_distribution<unsigned> byte(0, 255);
        byteVec_t payload(size(rng));
        for (uint8_t& b : payload) {
            b = static_cast<uint8_t>(byte(rng));
        }
        return payload;
    }

    void onStatus(int side, Status st) {
        std::lock_guard<std::mutex> lock(mutex);
        tally.statuses[(side == 0 ? "0x7E0 " : "0x7E8 ") + statusName(st)] += 1;
        const bool givenUp = st == CANTransportThread::CTT_SEND_TIMEOUT ||
                             st == CANTransportThread::CTT_DISCONNECTED;
        if (givenUp && !options.duplex && exchange.active) {
            // The endpoint dropped its whole queue: the payload in flight is lost.
            if (side == 0 && !exchange.requestVerified && !exchange.requestFailed) {
                exchange.requestFailed = true;
                tally.failed += 1;
            } else if (side == 1 && exchange.responseSent && !exchange.responseVerified &&
                       !exchange.responseFailed) {
                exchange.responseFailed = true;
                tally.failed += 1;
            }
        }
        changed.notify_all();
    }

    void onRequestDelivered(const byteVec_t& payload) {
        byteVec_t response;
        {
            std::lock_guard<std::mutex> lock(mutex);
            tally.delivered += 1;
            if (!exchange.active || payload != exchange.request) {
                tally.wrong += 1;
                changed.notify_all();
                return;
            }
            if (exchange.requestVerified) {
                // Delivered again: its acknowledgement was lost and the sender tried once more.
                tally.duplicates += 1;
                return;
            }
            exchange.requestVerified = true;
            verifiedFrom[0] += 1;
            tally.verified += 1;
            tally.bytesVerified += payload.size();
            response = randomPayload();
            exchange.response = response;
            exchange.responseSent = true;
            tally.sent += 1;
            tally.bytesSent += response.size();
            changed.notify_all();
        }
        writeToInput(nodeResponder, serialise(response, 0x7E8));
    }

    void onResponseDelivered(const byteVec_t& payload) {
        std::lock_guard<std::mutex> lock(mutex);
        tally.delivered += 1;
        if (!exchange.active || !exchange.responseSent || payload != exchange.response) {
            tally.wrong += 1;
        } else if (exchange.responseVerified) {
            tally.duplicates += 1;
        } else {
            exchange.responseVerified = true;
            verifiedFrom[1] += 1;
            tally.verified += 1;
            tally.bytesVerified += payload.size();
        }
        changed.notify_all();
    }

    /// A delivery in duplex mode: the next payload of the stream, or a later one if earlier
    /// ones were lost; anything else was delivered wrong.
    void onStreamDelivered(Stream& stream, const byteVec_t& payload) {
        std::lock_guard<std::mutex> lock(mutex);
        tally.delivered += 1;
        lastDelivery = Clock::now();
        for (size_t k = stream.cursor; k < stream.expected.size(); ++k) {
            if (stream.expected[k] == payload) {
                stream.cursor = k + 1;
                stream.verifiedCount += 1;
                tally.verified += 1;
                tally.bytesVerified += payload.size();
                changed.notify_all();
                return;
            }
        }
        if (stream.cursor > 0 && stream.expected[stream.cursor - 1] == payload) {
            tally.duplicates += 1;
        } else {
            tally.wrong += 1;
        }
        changed.notify_all();
    }

    Tally snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return tally;
    }

    const Options options;
    std::mt19937_64 rng;
    CANTransportThread requester;
    CANTransportThread responder;
    std::unique_ptr<SimulatedCanBus> bus;            // the simulated bus, or
    std::unique_ptr<TraceMessageWriter> writers[2];  // with SocketCAN: the endpoints'
    std::unique_ptr<SocketCanProxy> proxies[2];      // inputs and their proxies
    int requesterRead = -1, requesterWrite = -1, responderRead = -1, responderWrite = -1;
    int nodeRequester = -1, nodeResponder = -1;

    std::mutex mutex;
    std::condition_variable changed;
    Tally tally;
    unsigned long verifiedFrom[2] = {0, 0};  // payloads of each side verified at the other
    Exchange exchange;
    Stream streams[2];
    Clock::time_point lastDelivery;
};

Options parseOptions(int argc, char** argv, int first, bool& help) {
    Options opt;
    ArgumentReader args(argc, argv, first);
    std::string value;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            help = true;
            return opt;
        } else if (args.option("--payloads", "-n", value)) {
            opt.payloads =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--payloads", value, 1000000));
        } else if (args.option("--max-size", "-m", value)) {
            opt.maxSize =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--max-size", value, 4095));
        } else if (args.option("--min-size", nullptr, value)) {
            opt.minSize =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--min-size", value, 4095));
        } else if (args.option("--bitrate", "-b", value)) {
            opt.bitrate =
                static_cast<uint32_t>(ArgumentReader::toUnsigned("--bitrate", value, 1000000));
        } else if (args.option("--loss", "-l", value)) {
            opt.loss = ArgumentReader::toDouble("--loss", value, 0.0, 1.0);
        } else if (args.option("--seed", "-s", value)) {
            opt.seed = ArgumentReader::toUnsigned("--seed", value, UINT64_MAX);
        } else if (args.flag("--fast", "-f")) {
            opt.fast = true;
        } else if (args.flag("--duplex", nullptr)) {
            opt.duplex = true;
        } else if (args.option("--log", "-L", value)) {
            opt.logFile = value;
        } else if (args.option("--pcap", nullptr, value)) {
            opt.pcapFile = value;
        } else if (args.option("--debug", "-d", value)) {
            opt.debug = ArgumentReader::toInt("--debug", value, -1000, 1000);
        } else if (args.option("--bus", nullptr, value)) {
            if (value != "sim" && !SocketCanArguments::isSocketCan(value)) {
                throw UsageError("--bus takes 'sim' or 'socketcan:IFACE', not '" + value + "'");
            }
            opt.socketCan =
                value == "sim" ? std::string() : SocketCanArguments::interfaceOf("--bus", value);
        } else {
            throw UsageError("unknown argument '" + args.current() + "'");
        }
    }
    if (opt.payloads == 0) {
        throw UsageError("--payloads must be at least 1");
    }
    if (opt.maxSize == 0) {
        throw UsageError("--max-size must be at least 1 (an empty payload cannot be delivered)");
    }
    if (opt.minSize == 0 || opt.minSize > opt.maxSize) {
        throw UsageError("--min-size must be from 1 to --max-size (" + std::to_string(opt.maxSize) +
                         ")");
    }
    if (opt.bitrate < 1000) {
        throw UsageError("--bitrate must be at least 1000 bit/s");
    }
    if (!opt.socketCan.empty() &&
        (opt.fast || opt.loss != 0.0 || !opt.logFile.empty() || !opt.pcapFile.empty())) {
        throw UsageError(
            "--fast, --loss, --log and --pcap work on the simulated bus only (record a "
            "SocketCAN interface with candump -L)");
    }
    return opt;
}

std::string grouped(unsigned long long n) {
    std::string digits = std::to_string(n);
    for (int i = static_cast<int>(digits.size()) - 3; i > 0; i -= 3) {
        digits.insert(static_cast<size_t>(i), ",");
    }
    return digits;
}

}  // namespace

void DemoCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp demo [options]\n"
          "\n"
          "Two endpoints (0x7E0 and 0x7E8) on a simulated classic CAN bus hold a conversation:\n"
          "0x7E0 sends requests of random sizes, 0x7E8 answers each delivered request with a\n"
          "response of random size. Every delivered payload is compared byte by byte with what\n"
          "was sent. Exit status 0 only if every payload was verified.\n"
          "\n"
          "Options:\n"
          "  -n, --payloads N     requests to send (default 100; each is answered)\n"
          "  -m, --max-size N     largest payload in bytes, 1 to 4095 (default 4095)\n"
          "      --min-size N     smallest payload in bytes (default 1)\n"
          "  -b, --bitrate BPS    bus bit rate (default 500000)\n"
          "  -l, --loss P         probability that a frame is lost on the bus (default 0)\n"
          "  -s, --seed S         seed of payload contents, sizes and bus faults (default 1)\n"
          "  -f, --fast           no bus timing: frames are delivered at once; the summary\n"
          "                       shows frames/s, payload B/s and CPU time per frame instead\n"
          "                       of bus load and goodput\n"
          "      --duplex         both endpoints send a stream of N payloads at the same time;\n"
          "                       the protocol is not made for this: the summary shows what\n"
          "                       happens, and the exit status is 0 when the run completed\n"
          "  -L, --log FILE       write all bus traffic as a candump log (candump -L form)\n"
          "      --pcap FILE      write all bus traffic as a pcap capture (link type 227,\n"
          "                       for Wireshark, tshark and cantp decode); with --log too,\n"
          "                       both hold the same frames with the same time stamps\n"
          "  -d, --debug N        show the endpoints' log lines, at debug level N\n"
          "      --bus sim|socketcan:IFACE\n"
          "                       sim (default): the simulated bus; socketcan:IFACE: a real\n"
          "                       interface, each endpoint with its own socket and proxy\n"
          "                       (--bitrate then only describes the interface for the goodput\n"
          "                       figure; --fast, --loss, --log and --pcap are refused)\n"
          "  -h, --help           this text\n"
          "\n"
          "Examples:\n"
          "  cantp demo\n"
          "  cantp demo --payloads 20 --log demo.log && cantp decode demo.log\n"
          "  cantp demo --payloads 5 --pcap demo.pcap && tshark -r demo.pcap\n"
          "  cantp demo --fast --payloads 1000 --loss 0.001 --seed 7\n"
          "  cantp demo --duplex --payloads 50\n"
          "  cantp demo --bus socketcan:vcan0 --payloads 200\n";
}

int DemoCommand::run(int argc, char** argv, int first) {
    bool help = false;
    const Options opt = parseOptions(argc, argv, first, help);
    if (help) {
        printHelp(std::cout);
        return 0;
    }
    std::ofstream tap;
    if (!opt.logFile.empty() && !OutputFile::open(tap, opt.logFile, false, "demo")) {
        return 1;
    }
    std::ofstream pcapFile;
    std::unique_ptr<PcapWriter> pcapTap;
    if (!opt.pcapFile.empty()) {
        if (!OutputFile::open(pcapFile, opt.pcapFile, true, "demo")) {
            return 1;
        }
        pcapTap = std::make_unique<PcapWriter>(pcapFile);
    }

    std::cout << "cantp demo: " << (opt.duplex ? "both directions at once" : "request/response")
              << (opt.socketCan.empty() ? "" : " on " + opt.socketCan) << ", " << opt.payloads
              << (opt.duplex ? " payloads each way" : " requests") << ", sizes " << opt.minSize
              << " to " << opt.maxSize << " bytes, " << opt.bitrate << " bit/s"
              << (opt.fast ? " (fast mode, no timing)" : "") << ", loss " << opt.loss << ", seed "
              << opt.seed << std::endl;

    LogLineFilter filter(std::cout.rdbuf(), opt.debug != 0);
    Tally tally;
    SimulatedCanBus::Statistics stats;
    unsigned long retries = 0;
    bool threadsAlive = true;
    std::string failure;
    bool onSocketCan = false;
    SocketCanProxy::Statistics proxyStats[2];
    std::string proxyFailure;
    double seconds = 0.0;
    ProcessUsage used;
    {
        std::streambuf* saved = nullptr;
        {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            saved = std::cout.rdbuf(&filter);
        }
        try {
            Conversation conversation(opt, opt.logFile.empty() ? nullptr : &tap, pcapTap.get());
            ProgressBar progress(2ul * opt.payloads);
            const ProcessUsage usageBefore = ProcessUsage::now();
            const auto start = Clock::now();
            tally = opt.duplex ? conversation.runDuplex(progress)
                               : conversation.runRequestResponse(progress);
            seconds = std::chrono::duration<double>(Clock::now() - start).count();
            used = ProcessUsage::now().since(usageBefore);
            progress.finish();
            stats = conversation.busStatistics();
            onSocketCan = conversation.proxyStatistics(proxyStats);
            threadsAlive = conversation.endpointsRunning();
            if (!threadsAlive) {
                failure = conversation.endpointFailure();
            }
            proxyFailure = conversation.proxyFailure();
            retries = filter.retries();
        } catch (...) {
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cout.rdbuf(saved);
            throw;
        }
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        std::cout.rdbuf(saved);
    }
    // What the bus could carry in payload bytes: full consecutive frames (7 payload bytes each)
    // back to back, each as long as a standard 8-byte frame without stuffing bits: 1 start bit,
    // 11 identifier, RTR, IDE, r0, 4 DLC, 64 data, 15 CRC, 3 delimiters and ACK, 7 end of frame,
    // 3 intermission = 111 bits.
    const double frameBits = 111.0;
    const double capacity = opt.bitrate / frameBits * 7.0;
    const double goodput = seconds > 0 ? static_cast<double>(tally.bytesVerified) / seconds : 0;

    std::ostringstream out;
    out << std::fixed;
    out << "payloads  sent " << tally.sent << ", delivered " << tally.delivered << ", verified "
        << tally.verified << ", failed " << tally.failed << ", delivered wrong " << tally.wrong
        << ", delivered twice " << tally.duplicates << "\n";
    out << "bytes     sent " << grouped(tally.bytesSent) << ", verified "
        << grouped(tally.bytesVerified) << "\n";
    if (onSocketCan) {
        out << "frames    " << grouped(proxyStats[0].framesSent + proxyStats[1].framesSent)
            << " sent on " << opt.socketCan << "\n";
        const char* names[2] = {"0x7E0", "0x7E8"};
        for (int side = 0; side < 2; ++side) {
            const SocketCanProxy::Statistics& p = proxyStats[side];
            out << "  node " << names[side] << ": " << grouped(p.framesSent) << " frames sent, "
                << grouped(p.framesReceived) << " received, " << p.writeRetries
                << " write retries (" << p.enobufs << " ENOBUFS), " << p.receiveDrops
                << " receive drops, " << p.errorFrames << " error frames, " << p.framesFilteredOut
                << " filtered out\n";
        }
    } else {
        out << "frames    " << grouped(stats.framesCarried) << " carried (" << stats.framesLost
            << " lost), " << grouped(stats.bitsCarried) << " bits\n";
        for (const auto& node : stats.nodes) {
            out << "  node " << node.name << ": " << grouped(node.framesSent) << " frames sent, "
                << grouped(node.framesReceived) << " received\n";
        }
        if (!opt.fast) {
            out << std::setprecision(1) << "bus load  " << stats.loadPercent << " % (busy "
                << std::setprecision(3) << stats.busyNs / 1e9 << " s of " << stats.elapsedNs / 1e9
                << " s)\n";
        }
    }
    if (opt.fast) {
        // Fast mode simulates no bus time, so a load or a share of the bus's capacity would be
        // measured against nothing: what it measures is the rate and its CPU cost.
        const double frames = static_cast<double>(stats.framesCarried);
        out << std::setprecision(0) << "rate      " << (seconds > 0 ? frames / seconds : 0)
            << " frames/s, " << goodput << " payload B/s in " << std::setprecision(2) << seconds
            << " s (fast mode: no bus time to compare with)\n";
        out << std::setprecision(2) << "cpu       "
            << (frames > 0 ? used.cpuSeconds * 1e6 / frames : 0) << " us per frame (user + "
            << "system time of the whole process " << std::setprecision(3) << used.cpuSeconds
            << " s over " << stats.framesCarried << " frames)\n";
    } else {
        out << std::setprecision(0) << "goodput   " << goodput << " B/s in " << std::setprecision(2)
            << seconds << " s = " << std::setprecision(1) << (100.0 * goodput / capacity)
            << " % of the " << std::setprecision(0) << capacity
            << " B/s of payload the bus could carry\n";
    }
    out << "retries   " << retries << "\n";
    out << "status   ";
    if (tally.statuses.empty()) {
        out << " none";
    }
    for (const auto& s : tally.statuses) {
        out << " " << s.first << " " << s.second << ";";
    }
    out << "\n";

    bool ok;
    if (!proxyFailure.empty()) {
        out << "result    FAILED: " << proxyFailure << "\n";
        ok = false;
    } else if (!threadsAlive) {
        out << "result    FAILED: a transport thread ended: " << failure << "\n";
        ok = false;
    } else if (opt.duplex) {
        out << "result    run completed (both directions at once: " << tally.failed
            << " payloads not delivered, " << tally.wrong << " delivered wrong)\n";
        ok = true;
    } else {
        ok = tally.verified == tally.sent && tally.wrong == 0 && tally.failed == 0;
        out << "result    " << (ok ? "every payload verified" : "NOT every payload verified")
            << "\n";
    }
    std::cout << out.str() << std::flush;
    // A capture cut short (a full disk) must not pass for a complete one.
    if (!opt.logFile.empty() && !tap.flush()) {
        std::cerr << "cantp demo: cannot write " << opt.logFile << std::endl;
        ok = false;
    }
    if (pcapTap && !(pcapTap->good() && pcapFile.flush())) {
        std::cerr << "cantp demo: cannot write " << opt.pcapFile << std::endl;
        ok = false;
    }
    return ok ? 0 : 1;
}

#include "BenchCommand.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "ArgumentReader.h"
#include "EndpointPair.h"
#include "ProcessUsage.h"
#include "ProtocolFrames.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "libqbutil/QBException.h"

#ifndef QB_BUILD_TYPE
#define QB_BUILD_TYPE ""
#endif
#ifndef QB_BUILD_SANITIZE
#define QB_BUILD_SANITIZE ""
#endif

namespace {

using Clock = std::chrono::steady_clock;

/// How long a payload may take before a part gives up on it (the endpoints give up on a
/// payload after five tries of at most about a second each).
constexpr std::chrono::seconds kPayloadDeadline{10};

const char* const kPartNames[] = {"roundtrip", "fc", "throughput", "goodput", "memory"};

struct Options {
    bool quick = false;
    bool json = false;
    /// Which of kPartNames to run, in that order.
    bool run[5] = {true, true, true, true, true};
};

/// The sizes of each part: the defaults, or the short ones of --quick.
struct Plan {
    unsigned long roundtripPayloads;
    unsigned long fcTransfers;
    double throughputSeconds;
    double goodputCellSeconds;
    unsigned long memorySmall;
    unsigned long memoryLarge;

    static Plan of(bool quick) {
        return quick ? Plan{1000, 1000, 0.4, 0.08, 1000, 10000}
                     : Plan{10000, 10000, 2.0, 0.75, 1000, 100000};
    }
};

/// Payloads before the measured ones of the round-trip loops, not counted: they carry the
/// first frames (the connection reports) and warm the caches.
constexpr unsigned long kWarmUp = 100;
constexpr size_t kRoundtripSize = 7;
constexpr size_t kFcSize = 20;
constexpr size_t kThroughputSize = 4095;
const uint32_t kGoodputBitrates[] = {125000, 500000, 1000000};
const size_t kGoodputSizes[] = {7, 100, 1000, 4095};

// ---------------------------------------------------------------------------------------------
// Results.

struct Latency {
    size_t payloadBytes = 0;
    unsigned long count = 0;
    double medianUs = 0;
    double p99Us = 0;
};

struct Throughput {
    std::string pattern;
    size_t minSize = 0;
    size_t maxSize = 0;
    unsigned long payloads = 0;
    unsigned long long payloadBytes = 0;
    uint64_t frames = 0;
    double seconds = 0;
    ProcessUsage used;

    double framesPerSecond() const { return seconds > 0 ? frames / seconds : 0; }
    double bytesPerSecond() const { return seconds > 0 ? payloadBytes / seconds : 0; }
    double cpuUsPerFrame() const { return frames > 0 ? used.cpuSeconds * 1e6 / frames : 0; }
    double wakeupsPerFrame() const {
        return frames > 0 ? static_cast<double>(used.contextSwitches) / frames : 0;
    }
};

struct GoodputCell {
    uint32_t bitrate = 0;
    size_t size = 0;
    bool stream = true;
    unsigned long payloads = 0;
    double seconds = 0;
    double limitSeconds = 0;

    unsigned long long bytes() const { return static_cast<unsigned long long>(payloads) * size; }
    double bytesPerSecond() const { return seconds > 0 ? bytes() / seconds : 0; }
    double limitPercent() const { return seconds > 0 ? 100.0 * limitSeconds / seconds : 0; }
};

struct Memory {
    unsigned long smallPayloads = 0;
    unsigned long largePayloads = 0;
    long smallKiB = 0;
    long largeKiB = 0;
};

struct Results {
    Latency roundtrip;
    Latency fc;
    std::vector<Throughput> throughput;
    std::vector<GoodputCell> goodput;
    Memory memory;
    /// Per part, empty or why it did not complete.
    std::string errors[5];
};

// ---------------------------------------------------------------------------------------------
// Helpers.

/// Stands in for std::cout while endpoints run: drops their "[INFO]" lines (start and
/// connection reports) and passes every other line to standard error. Library lines are
/// written under LogUtil::logMutex, so they arrive whole.
class LibraryLogSink : public std::streambuf {
  protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) {
            return traits_type::not_eof(c);
        }
        line.push_back(static_cast<char>(c));
        if (c == '\n') {
            if (line.compare(0, 7, "[INFO] ") != 0) {
                std::cerr << line << std::flush;
            }
            line.clear();
        }
        return c;
    }

  private:
    std::string line;
};

/// Redirects std::cout to a LibraryLogSink for its lifetime.
class QuietLibrary {
  public:
    QuietLibrary() {
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        saved = std::cout.rdbuf(&sink);
    }
    ~QuietLibrary() {
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        std::cout.rdbuf(saved);
    }
    QuietLibrary(const QuietLibrary&) = delete;
    QuietLibrary& operator=(const QuietLibrary&) = delete;
    /// Standard output as it was.
    std::streambuf* output() const { return saved; }

  private:
    LibraryLogSink sink;
    std::streambuf* saved = nullptr;
};

double micros(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

/// Median and 99th percentile (nearest rank) of the samples, in microseconds.
Latency summarise(std::vector<double> samplesUs, size_t payloadBytes) {
    Latency result;
    result.payloadBytes = payloadBytes;
    result.count = samplesUs.size();
    if (samplesUs.empty()) {
        return result;
    }
    std::sort(samplesUs.begin(), samplesUs.end());
    auto rank = [&](double q) {
        const size_t r = static_cast<size_t>(std::ceil(q * static_cast<double>(samplesUs.size())));
        return samplesUs[std::min(samplesUs.size(), std::max<size_t>(r, 1)) - 1];
    };
    result.medianUs = rank(0.5);
    result.p99Us = rank(0.99);
    return result;
}

/// Payload contents drawn from a seeded generator: fixed for equal seeds, and as varied as real
/// data for the stuff bits of the frames that carry them.
byteVec_t randomPayload(std::mt19937_64& rng, size_t size) {
    byteVec_t payload(size);
    for (uint8_t& b : payload) {
        b = static_cast<uint8_t>(rng() & 0xFF);
    }
    return payload;
}

/// Why a transfer between the pair did not complete.
std::string transferFailure(const EndpointPair& pair, const std::string& what) {
    const std::string ended = pair.failure();
    if (!ended.empty()) {
        return what + ": an endpoint thread ended: " + ended;
    }
    if (pair.failures() != 0) {
        return what + ": an endpoint reported a send or receive failure";
    }
    return what + ": not delivered and acknowledged within " +
           std::to_string(kPayloadDeadline.count()) + " s";
}

// ---------------------------------------------------------------------------------------------
// roundtrip

/// The round-trip loop: kWarmUp and then `count` 7-byte payloads from A to B, each written after
/// the previous one's acknowledgement was reported. With `samples`, appends each counted
/// payload's time from its write to the report, in microseconds.
void roundtripLoop(unsigned long count, std::vector<double>* samples) {
    const byteVec_t payload = {0x52, 0x6F, 0x75, 0x6E, 0x64, 0x21, 0x07};
    const byteVec_t message = EndpointPair::payloadMessage(payload, EndpointPair::sendId(0));
    std::atomic<unsigned long> wrong{0};
    EndpointPair pair(false, 500000, [&](int side, const byteVec_t& p) {
        if (side != 1 || p != payload) {
            ++wrong;
        }
    });
    for (unsigned long i = 0; i < kWarmUp + count; ++i) {
        const Clock::time_point start = Clock::now();
        if (!pair.write(0, message) || !pair.waitTransferred(0, i + 1, start + kPayloadDeadline)) {
            throw std::runtime_error(transferFailure(pair, "payload " + std::to_string(i + 1)));
        }
        if (samples != nullptr && i >= kWarmUp) {
            samples->push_back(micros(pair.lastAcknowledgement(0) - start));
        }
    }
    if (wrong != 0) {
        throw std::runtime_error(std::to_string(wrong.load()) + " payloads delivered wrong");
    }
}

Latency runRoundtrip(const Plan& plan) {
    std::vector<double> samples;
    samples.reserve(plan.roundtripPayloads);
    roundtripLoop(plan.roundtripPayloads, &samples);
    return summarise(samples, kRoundtripSize);
}

// ---------------------------------------------------------------------------------------------
// fc

byteVec_t frameMessage(uint16_t id, const uint8_t (&data)[8]) {
    const CANExtTraceMessage frame(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, 8, id, data);
    byteVec_t bytes;
    frame.createByteArray(bytes, true, false);
    return bytes;
}

/// The next message from `reader` (reading `fd`), waiting at most until `deadline`.
std::unique_ptr<MessageBase> nextMessage(TraceMessageBuffer& reader, int fd,
                                         Clock::time_point deadline, const char* what) {
    for (;;) {
        std::unique_ptr<MessageBase> msg(reader.getNextMessage());
        if (msg) {
            return msg;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd pfd{fd, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(std::max<long long>(left, 0)));
        if (ready < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("poll() failed: ") + std::strerror(errno));
        }
        if (ready == 0) {
            throw std::runtime_error(std::string("no ") + what + " within " +
                                     std::to_string(kPayloadDeadline.count()) + " s");
        }
        if (ready > 0 && reader.read() < 0) {
            throw std::runtime_error(std::string("reading the ") + what + " failed");
        }
    }
}

/// The first data byte of the next frame the endpoint writes to its proxy.
uint8_t nextFrameKind(TraceMessageBuffer& reader, int fd, Clock::time_point deadline) {
    const std::unique_ptr<MessageBase> msg = nextMessage(reader, fd, deadline, "frame");
    const auto* frame = dynamic_cast<const CANExtTraceMessage*>(msg.get());
    if (frame == nullptr || frame->getNumberOfDataBytes() == 0) {
        throw std::runtime_error("the endpoint wrote something other than a CAN frame");
    }
    return frame->getData()[0];
}

/// One endpoint (0x7E0) alone: its input written here, its CAN proxy a pipe read here.
Latency runFlowControl(const Plan& plan) {
    // A 20-byte payload from the peer 0x7E8: first frame and two consecutive frames.
    byteVec_t payload(kFcSize);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(0x41 + i);
    }
    const uint16_t peer = 0x7E8;
    const uint8_t ff[8] = {0x10,       kFcSize,    payload[0], payload[1],
                           payload[2], payload[3], payload[4], payload[5]};
    uint8_t cf0[8] = {0x20};
    uint8_t cf1[8] = {0x21};
    std::copy(payload.begin() + 6, payload.begin() + 13, cf0 + 1);
    std::copy(payload.begin() + 13, payload.end(), cf1 + 1);
    const byteVec_t firstFrame = frameMessage(peer, ff);
    byteVec_t rest = frameMessage(peer, cf0);
    const byteVec_t second = frameMessage(peer, cf1);
    rest.insert(rest.end(), second.begin(), second.end());

    int proxy[2] = {-1, -1};
    if (::pipe(proxy) != 0) {
        throw std::runtime_error(std::string("pipe() failed: ") + std::strerror(errno));
    }
    struct Closer {
        int* fds;
        ~Closer() {
            ::close(fds[0]);
            ::close(fds[1]);
        }
    } closer{proxy};

    std::atomic<unsigned long> failures{0};
    CANTransportThread endpoint(0);
    endpoint.setSendCANid(0x7E0);
    CANTransportThread::delstatus_t onStatus = [&](CANTransportThread::statuschange_t st,
                                                   uint16_t) {
        if (st != CANTransportThread::CTT_CONNECTED) {
            ++failures;  // it only receives: any other report is a failure
        }
    };
    endpoint.setDelegate(onStatus);
    int readFd = -1;
    int writeFd = -1;
    endpoint.open(readFd, writeFd);
    endpoint.setConnection(proxy[1]);
    endpoint.start();
    struct Stopper {
        CANTransportThread& endpoint;
        ~Stopper() { endpoint.stop(); }
    } stopper{endpoint};

    TraceMessageWriter input(writeFd);
    TraceMessageBuffer frames(proxy[0], nullptr);
    TraceMessageBuffer output(readFd, nullptr);
    std::vector<double> samples;
    samples.reserve(plan.fcTransfers);
    for (unsigned long i = 0; i < kWarmUp + plan.fcTransfers; ++i) {
        const Clock::time_point start = Clock::now();
        const Clock::time_point deadline = start + kPayloadDeadline;
        if (!input.writeBytes(firstFrame.data(), firstFrame.size())) {
            throw std::runtime_error(std::string("writing a frame failed: ") +
                                     std::strerror(errno));
        }
        const uint8_t answer = nextFrameKind(frames, proxy[0], deadline);
        const Clock::time_point ready = Clock::now();
        if (answer != 0x31) {
            throw std::runtime_error("first frame answered with flow control " +
                                     std::to_string(answer) + ", not ready-to-receive (0x31)");
        }
        if (!input.writeBytes(rest.data(), rest.size())) {
            throw std::runtime_error(std::string("writing a frame failed: ") +
                                     std::strerror(errno));
        }
        const std::unique_ptr<MessageBase> msg = nextMessage(output, readFd, deadline, "payload");
        const auto* delivered = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
        if (delivered == nullptr || delivered->getPayload() != payload) {
            throw std::runtime_error("payload " + std::to_string(i + 1) + " delivered wrong");
        }
        if (nextFrameKind(frames, proxy[0], deadline) != 0x33) {
            throw std::runtime_error("payload " + std::to_string(i + 1) +
                                     " not acknowledged (0x33)");
        }
        if (failures != 0) {
            throw std::runtime_error("the endpoint reported a receive failure");
        }
        if (i >= kWarmUp) {
            samples.push_back(micros(ready - start));
        }
    }
    return summarise(samples, kFcSize);
}

// ---------------------------------------------------------------------------------------------
// throughput

/// Closed loop on a fast bus for `duration`: one way (A to B, 4095 bytes) or request/response
/// (random sizes), each payload written after the previous one's acknowledgement.
Throughput runClosedLoop(bool oneWay, double duration) {
    std::mt19937_64 rng(1);
    std::vector<byteVec_t> payloads[2];
    std::vector<byteVec_t> messages[2];
    const size_t variants = oneWay ? 1 : 64;
    std::uniform_int_distribution<size_t> size(1, 4095);
    for (size_t k = 0; k < variants; ++k) {
        for (int side = 0; side < (oneWay ? 1 : 2); ++side) {
            payloads[side].push_back(randomPayload(rng, oneWay ? kThroughputSize : size(rng)));
            messages[side].push_back(
                EndpointPair::payloadMessage(payloads[side].back(), EndpointPair::sendId(side)));
        }
    }
    // Delivered in order: the reader of each side checks every payload against the next one
    // its peer sent.
    std::atomic<unsigned long> wrong{0};
    uint64_t next[2] = {0, 0};  // each used by one reader thread only
    EndpointPair pair(false, 500000, [&](int side, const byteVec_t& p) {
        const int from = 1 - side;
        const auto& sent = payloads[from];
        if (sent.empty() || p != sent[next[side]++ % sent.size()]) {
            ++wrong;
        }
    });
    uint64_t acks[2] = {0, 0};
    auto transfer = [&](int from, uint64_t k) {
        if (!pair.write(from, messages[from][k % messages[from].size()]) ||
            !pair.waitTransferred(from, ++acks[from], Clock::now() + kPayloadDeadline)) {
            throw std::runtime_error(transferFailure(pair, "a payload"));
        }
        return payloads[from][k % payloads[from].size()].size();
    };
    // One exchange before the clock starts: the connection reports and the first frames.
    uint64_t k = 0;
    transfer(0, k);
    if (!oneWay) {
        transfer(1, k);
    }
    ++k;

    Throughput result;
    result.pattern = oneWay ? "one way" : "request/response";
    result.minSize = oneWay ? kThroughputSize : 1;
    result.maxSize = kThroughputSize;
    const uint64_t framesBefore = pair.settledBusStatistics().framesCarried;
    const ProcessUsage before = ProcessUsage::now();
    const Clock::time_point start = Clock::now();
    Clock::time_point now = start;
    while (seconds(now - start) < duration) {
        result.payloadBytes += transfer(0, k);
        result.payloads += 1;
        if (!oneWay) {
            result.payloadBytes += transfer(1, k);
            result.payloads += 1;
        }
        ++k;
        now = Clock::now();
    }
    result.used = ProcessUsage::now().since(before);
    result.seconds = seconds(Clock::now() - start);
    result.frames = pair.settledBusStatistics().framesCarried - framesBefore;
    if (wrong != 0) {
        throw std::runtime_error(std::to_string(wrong.load()) + " payloads delivered wrong");
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// goodput

/// One cell on a timed bus. Stream: A's payloads all written into its input at once.
/// Request/response: B answers each delivered request with a payload of the same size, and A's
/// next request is written when the answer is delivered.
GoodputCell runGoodputCell(uint32_t bitrate, size_t size, bool stream, double target) {
    std::mt19937_64 rng(bitrate ^ (size << 24) ^ (stream ? 1u : 2u));
    const uint16_t idA = EndpointPair::sendId(0);
    const uint16_t idB = EndpointPair::sendId(1);
    // N from the limit time of one payload of this size (its pause included in a stream).
    const byteVec_t probe = randomPayload(rng, size);
    const double perPayload = static_cast<double>(ProtocolFrames::bits(probe, idA, idB)) / bitrate +
                              (stream ? ProtocolFrames::QUEUED_PAYLOAD_PAUSE_S : 0.0);
    const unsigned long rounds =
        stream ? std::max(2ul, static_cast<unsigned long>(std::lround(target / perPayload)))
               : std::max(1ul, static_cast<unsigned long>(std::lround(target / (2 * perPayload))));

    // The payloads, their messages and the limit: the bus time of every frame they need, plus
    // the pause before each queued payload of a stream.
    std::vector<byteVec_t> sent[2];
    std::vector<byteVec_t> messages[2];
    uint64_t bits = 0;
    for (unsigned long k = 0; k < rounds; ++k) {
        for (int side = 0; side < (stream ? 1 : 2); ++side) {
            sent[side].push_back(randomPayload(rng, size));
            messages[side].push_back(
                EndpointPair::payloadMessage(sent[side].back(), EndpointPair::sendId(side)));
            bits += ProtocolFrames::bits(sent[side].back(), side == 0 ? idA : idB,
                                         side == 0 ? idB : idA);
        }
    }
    GoodputCell cell;
    cell.bitrate = bitrate;
    cell.size = size;
    cell.stream = stream;
    cell.payloads = stream ? rounds : 2 * rounds;
    cell.limitSeconds = static_cast<double>(bits) / bitrate +
                        (stream ? (rounds - 1) * ProtocolFrames::QUEUED_PAYLOAD_PAUSE_S : 0.0);

    const byteVec_t warmUp = {0x57, 0x61, 0x72, 0x6D};
    std::atomic<bool> measuring{false};
    std::atomic<unsigned long> wrong{0};
    std::atomic<unsigned long> writeFailures{0};
    unsigned long deliveredAt[2] = {0, 0};  // each used by one reader thread only
    EndpointPair* pairPtr = nullptr;
    EndpointPair pair(true, bitrate, [&](int side, const byteVec_t& p) {
        if (!measuring) {
            if (p != warmUp) {
                ++wrong;
            }
            return;
        }
        const int from = 1 - side;
        const unsigned long k = deliveredAt[side]++;
        if (k >= sent[from].size() || p != sent[from][k]) {
            ++wrong;
            return;
        }
        if (stream) {
            return;
        }
        // B answers request k; A sends request k + 1 when answer k arrives.
        const bool more = side == 1 || k + 1 < rounds;
        const unsigned long nextIndex = side == 1 ? k : k + 1;
        if (more && !pairPtr->write(side, messages[side][nextIndex])) {
            ++writeFailures;
        }
    });
    pairPtr = &pair;

    // A first payload before the clock starts, so that the connection reports are behind us;
    // then a pause longer than the endpoint's, so that A is idle when the cell starts.
    if (!pair.write(0, EndpointPair::payloadMessage(warmUp, idA)) ||
        !pair.waitTransferred(0, 1, Clock::now() + kPayloadDeadline)) {
        throw std::runtime_error(transferFailure(pair, "the first payload"));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    measuring = true;

    const Clock::time_point start = Clock::now();
    const auto deadline = start +
                          std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(3 * cell.limitSeconds)) +
                          kPayloadDeadline;
    if (stream) {
        for (const byteVec_t& m : messages[0]) {
            if (!pair.write(0, m)) {
                ++writeFailures;
            }
        }
    } else if (!pair.write(0, messages[0][0])) {
        ++writeFailures;
    }
    const bool done = pair.waitTransferred(0, 1 + rounds, deadline) &&
                      (stream || pair.waitTransferred(1, rounds, deadline));
    const Clock::time_point end =
        stream ? pair.lastAcknowledgement(0)
               : std::max(pair.lastAcknowledgement(0), pair.lastAcknowledgement(1));
    if (!done || writeFailures != 0) {
        throw std::runtime_error(transferFailure(
            pair, std::to_string(bitrate / 1000) + " kbit/s, " + std::to_string(size) + " bytes, " +
                      (stream ? "stream" : "request/response")));
    }
    if (wrong != 0) {
        throw std::runtime_error(std::to_string(wrong.load()) + " payloads delivered wrong");
    }
    cell.seconds = seconds(end - start);
    return cell;
}

// ---------------------------------------------------------------------------------------------
// memory

/// Peak resident memory, in KiB, of a child process that runs the round-trip loop with
/// `payloads` payloads. The child is forked while this process runs no other thread, and
/// starts its endpoints after the fork.
long childPeakKiB(unsigned long payloads) {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        throw std::runtime_error(std::string("fork() failed: ") + std::strerror(errno));
    }
    if (pid == 0) {
        int status = 1;
        try {
            // The loop's first kWarmUp payloads are part of the count; nothing is recorded, so
            // that the peak is the endpoints' and the bus's alone.
            roundtripLoop(payloads > kWarmUp ? payloads - kWarmUp : 1, nullptr);
            status = 0;
        } catch (const std::exception& e) {
            std::cerr << "cantp bench: memory: " << e.what() << std::endl;
        }
        std::cerr.flush();
        ::_exit(status);
    }
    int status = 0;
    rusage usage{};
    while (::wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error(std::string("wait4() failed: ") + std::strerror(errno));
        }
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("the child of " + std::to_string(payloads) +
                                 " payloads did not complete");
    }
    return usage.ru_maxrss;
}

Memory runMemory(const Plan& plan) {
    Memory m;
    m.smallPayloads = plan.memorySmall;
    m.largePayloads = plan.memoryLarge;
    m.smallKiB = childPeakKiB(m.smallPayloads);
    m.largeKiB = childPeakKiB(m.largePayloads);
    return m;
}

// ---------------------------------------------------------------------------------------------
// The machine.

struct Machine {
    std::string cpuModel = "unknown";
    long cores = 0;
    std::string kernel = "unknown";
    std::string buildType = "unknown";
    /// The sanitizers cantp was built with (they slow everything down); empty for none.
    std::string sanitizers;
};

Machine machineFacts() {
    Machine m;
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    // x86 names the model "model name"; other architectures have "Hardware" or "cpu model".
    while (std::getline(cpuinfo, line)) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::string key = line.substr(0, colon);
        key.erase(key.find_last_not_of(" \t") + 1);
        if (key == "model name" || key == "Hardware" || key == "cpu model") {
            const size_t value = line.find_first_not_of(" \t", colon + 1);
            if (value != std::string::npos) {
                m.cpuModel = line.substr(value);
                break;
            }
        }
    }
    m.cores = ::sysconf(_SC_NPROCESSORS_ONLN);
    utsname names{};
    if (::uname(&names) == 0) {
        m.kernel = names.release;
    }
    if (std::strlen(QB_BUILD_TYPE) > 0) {
        m.buildType = QB_BUILD_TYPE;
    }
    m.sanitizers = QB_BUILD_SANITIZE;
    return m;
}

// ---------------------------------------------------------------------------------------------
// Output.

/// Columns of text, each as wide as its widest cell: the first `textColumns` left-aligned
/// (names), the others right-aligned (numbers).
class TextTable {
  public:
    TextTable(std::vector<std::string> headers, size_t textColumns) : textColumns(textColumns) {
        rows.push_back(std::move(headers));
    }
    void add(std::vector<std::string> row) { rows.push_back(std::move(row)); }
    void print(std::ostream& os, const std::string& indent) const {
        std::vector<size_t> width(rows.front().size(), 0);
        for (const auto& row : rows) {
            for (size_t c = 0; c < row.size() && c < width.size(); ++c) {
                width[c] = std::max(width[c], row[c].size());
            }
        }
        for (const auto& row : rows) {
            std::string text = indent;
            for (size_t c = 0; c < row.size() && c < width.size(); ++c) {
                const std::string pad(width[c] - row[c].size(), ' ');
                const std::string gap = c == 0 ? "" : "  ";
                text += c < textColumns ? gap + row[c] + pad : gap + pad + row[c];
            }
            text.erase(text.find_last_not_of(' ') + 1);
            os << text << "\n";
        }
    }

  private:
    size_t textColumns;
    std::vector<std::vector<std::string>> rows;
};

std::string fixed(double value, int decimals) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(decimals) << value;
    return text.str();
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

/// A number for JSON: finite, with enough digits for its size.
std::string jsonNumber(double value, int decimals) {
    return std::isfinite(value) ? fixed(value, decimals) : "0";
}

void printTextHeader(std::ostream& os, const Machine& m, const Options& opt) {
    os << "cantp bench: qbcantp " << QB_VERSION << " (" << m.buildType << " build"
       << (m.sanitizers.empty() ? "" : ", sanitizers " + m.sanitizers) << "); " << m.cpuModel
       << ", " << m.cores << " cores, Linux " << m.kernel
       << (opt.quick ? "; --quick: short runs" : "") << "\n";
}

void printTextPart(std::ostream& os, int part, const Results& r) {
    os << "\n";
    if (!r.errors[part].empty()) {
        os << kPartNames[part] << ": FAILED: " << r.errors[part] << "\n";
        return;
    }
    switch (part) {
        case 0: {
            os << "roundtrip: 7-byte payload (single frame) written into A, delivered by B, "
                  "until A's status\n"
                  "callback reports CTT_ACKNOWLEDGED; the next written after that report; fast "
                  "bus\n";
            TextTable t({"payload B", "payloads", "median us", "p99 us"}, 0);
            t.add({std::to_string(r.roundtrip.payloadBytes), std::to_string(r.roundtrip.count),
                   fixed(r.roundtrip.medianUs, 1), fixed(r.roundtrip.p99Us, 1)});
            t.print(os, "  ");
            break;
        }
        case 1: {
            os << "fc: first frame written into a lone endpoint's input until its "
                  "ready-to-receive (0x31)\n"
                  "is read from its CAN proxy pipe; each payload then completed, delivered and "
                  "acknowledged\n";
            TextTable t({"payload B", "transfers", "median us", "p99 us"}, 0);
            t.add({std::to_string(r.fc.payloadBytes), std::to_string(r.fc.count),
                   fixed(r.fc.medianUs, 1), fixed(r.fc.p99Us, 1)});
            t.print(os, "  ");
            break;
        }
        case 2: {
            os << "throughput: fast bus, each payload written after the previous one's "
                  "acknowledgement;\n"
                  "CPU and wake-ups (context switches) of the whole process, per frame the bus "
                  "carried\n";
            TextTable t({"pattern", "payload B", "payloads", "frames", "s", "frames/s",
                         "payload B/s", "CPU us/frame", "wake-ups/frame"},
                        1);
            for (const Throughput& x : r.throughput) {
                const std::string sizes = x.minSize == x.maxSize ? std::to_string(x.maxSize)
                                                                 : std::to_string(x.minSize) + "-" +
                                                                       std::to_string(x.maxSize);
                t.add({x.pattern, sizes, std::to_string(x.payloads), std::to_string(x.frames),
                       fixed(x.seconds, 2), fixed(x.framesPerSecond(), 0),
                       fixed(x.bytesPerSecond(), 0), fixed(x.cpuUsPerFrame(), 2),
                       fixed(x.wakeupsPerFrame(), 2)});
            }
            t.print(os, "  ");
            break;
        }
        case 3: {
            os << "goodput: timed bus; time from the first write to the last acknowledgement "
                  "reported;\n"
                  "limit = bus time of every frame the protocol needs (exact bits) + its 10 ms "
                  "pauses;\n"
                  "of limit = limit time / measured time\n";
            TextTable t({"pattern", "kbit/s", "payload B", "payloads", "s", "limit s",
                         "payload B/s", "of limit %"},
                        1);
            for (const GoodputCell& c : r.goodput) {
                t.add({c.stream ? "stream" : "request/response", std::to_string(c.bitrate / 1000),
                       std::to_string(c.size), std::to_string(c.payloads), fixed(c.seconds, 3),
                       fixed(c.limitSeconds, 3), fixed(c.bytesPerSecond(), 0),
                       fixed(c.limitPercent(), 1)});
            }
            t.print(os, "  ");
            break;
        }
        case 4: {
            os << "memory: peak resident memory (ru_maxrss) of a forked child running the "
                  "roundtrip loop\n"
                  "with 7-byte payloads\n";
            TextTable t({"run", "payloads", "peak RSS KiB"}, 1);
            t.add({"short", std::to_string(r.memory.smallPayloads),
                   std::to_string(r.memory.smallKiB)});
            t.add({"long", std::to_string(r.memory.largePayloads),
                   std::to_string(r.memory.largeKiB)});
            t.add({"difference", "", std::to_string(r.memory.largeKiB - r.memory.smallKiB)});
            t.print(os, "  ");
            break;
        }
        default:
            break;
    }
}

void printJson(std::ostream& os, const Machine& m, const Options& opt, const Results& r) {
    os << "{\n";
    os << "  \"machine\": {\"cpu_model\": " << jsonString(m.cpuModel) << ", \"cores\": " << m.cores
       << ", \"kernel\": " << jsonString(m.kernel)
       << ", \"build_type\": " << jsonString(m.buildType)
       << ", \"sanitizers\": " << jsonString(m.sanitizers)
       << ", \"cantp_version\": " << jsonString(QB_VERSION) << "},\n";
    os << "  \"quick\": " << (opt.quick ? "true" : "false");
    auto latency = [&](const Latency& l, const char* countKey) {
        os << "{\"payload_bytes\": " << l.payloadBytes << ", \"" << countKey << "\": " << l.count
           << ", \"median_us\": " << jsonNumber(l.medianUs, 2)
           << ", \"p99_us\": " << jsonNumber(l.p99Us, 2) << "}";
    };
    for (int part = 0; part < 5; ++part) {
        if (!opt.run[part]) {
            continue;
        }
        os << ",\n  \"" << kPartNames[part] << "\": ";
        if (!r.errors[part].empty()) {
            os << "{\"error\": " << jsonString(r.errors[part]) << "}";
            continue;
        }
        switch (part) {
            case 0:
                latency(r.roundtrip, "payloads");
                break;
            case 1:
                latency(r.fc, "transfers");
                break;
            case 2: {
                os << "{";
                for (size_t i = 0; i < r.throughput.size(); ++i) {
                    const Throughput& x = r.throughput[i];
                    os << (i == 0 ? "\n" : ",\n") << "    \""
                       << (x.pattern == "one way" ? "one_way" : "request_response")
                       << "\": {\"payload_bytes_min\": " << x.minSize
                       << ", \"payload_bytes_max\": " << x.maxSize
                       << ", \"payloads\": " << x.payloads
                       << ", \"payload_bytes_total\": " << x.payloadBytes
                       << ", \"frames\": " << x.frames
                       << ", \"seconds\": " << jsonNumber(x.seconds, 4)
                       << ", \"frames_per_s\": " << jsonNumber(x.framesPerSecond(), 1)
                       << ", \"payload_bytes_per_s\": " << jsonNumber(x.bytesPerSecond(), 1)
                       << ", \"cpu_us_per_frame\": " << jsonNumber(x.cpuUsPerFrame(), 4)
                       << ", \"wakeups_per_frame\": " << jsonNumber(x.wakeupsPerFrame(), 4) << "}";
                }
                os << "\n  }";
                break;
            }
            case 3: {
                os << "[";
                for (size_t i = 0; i < r.goodput.size(); ++i) {
                    const GoodputCell& c = r.goodput[i];
                    os << (i == 0 ? "\n" : ",\n")
                       << "    {\"pattern\": " << (c.stream ? "\"stream\"" : "\"request_response\"")
                       << ", \"bitrate\": " << c.bitrate << ", \"payload_bytes\": " << c.size
                       << ", \"payloads\": " << c.payloads
                       << ", \"seconds\": " << jsonNumber(c.seconds, 4)
                       << ", \"limit_seconds\": " << jsonNumber(c.limitSeconds, 4)
                       << ", \"payload_bytes_per_s\": " << jsonNumber(c.bytesPerSecond(), 1)
                       << ", \"limit_percent\": " << jsonNumber(c.limitPercent(), 2) << "}";
                }
                os << "\n  ]";
                break;
            }
            case 4:
                os << "{\"payload_bytes\": " << kRoundtripSize
                   << ", \"small_payloads\": " << r.memory.smallPayloads
                   << ", \"small_max_rss_kib\": " << r.memory.smallKiB
                   << ", \"large_payloads\": " << r.memory.largePayloads
                   << ", \"large_max_rss_kib\": " << r.memory.largeKiB
                   << ", \"difference_kib\": " << r.memory.largeKiB - r.memory.smallKiB << "}";
                break;
            default:
                break;
        }
    }
    os << "\n}\n";
}

// ---------------------------------------------------------------------------------------------
// Options.

Options parseOptions(int argc, char** argv, int first, bool& help) {
    Options opt;
    ArgumentReader args(argc, argv, first);
    std::string value;
    bool only = false;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            help = true;
            return opt;
        } else if (args.flag("--quick", nullptr)) {
            opt.quick = true;
        } else if (args.flag("--json", nullptr)) {
            opt.json = true;
        } else if (args.option("--only", nullptr, value)) {
            if (!only) {
                std::fill(std::begin(opt.run), std::end(opt.run), false);
                only = true;
            }
            std::istringstream names(value);
            std::string name;
            bool any = false;
            while (std::getline(names, name, ',')) {
                const auto found = std::find_if(std::begin(kPartNames), std::end(kPartNames),
                                                [&](const char* p) { return name == p; });
                if (found == std::end(kPartNames)) {
                    throw UsageError(
                        "--only takes parts among roundtrip, fc, throughput, "
                        "goodput and memory, separated by commas, not '" +
                        name + "'");
                }
                opt.run[found - std::begin(kPartNames)] = true;
                any = true;
            }
            if (!any) {
                throw UsageError("--only needs at least one part");
            }
        } else {
            throw UsageError("unknown argument '" + args.current() + "'");
        }
    }
    return opt;
}

}  // namespace

void BenchCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp bench [options]\n"
          "\n"
          "End-to-end performance figures of the transport endpoint, measured in this process\n"
          "with real endpoints (started threads, real pipes): A sends with 0x7E0, B with 0x7E8,\n"
          "on the simulated CAN bus unless said otherwise. On the fast bus frames are delivered\n"
          "as soon as they are read; on the timed bus each frame takes its exact bit time.\n"
          "Every delivered payload is compared with what was sent. No figure is compared with\n"
          "a limit: exit status 0 when every part ran to its end, 1 if one failed.\n"
          "\n"
          "What it measures, in this order:\n"
          "  roundtrip   a 7-byte payload (one single frame) written into A's input, delivered\n"
          "              by B, until A's status callback reports CTT_ACKNOWLEDGED; the next is\n"
          "              written only after that report, so the 10 ms pause the protocol makes\n"
          "              before a queued payload is never included. Fast bus. Median and 99th\n"
          "              percentile of 10000 payloads (1000 with --quick), after 100 not counted.\n"
          "  fc          flow-control response of one endpoint alone, its CAN proxy a pipe read\n"
          "              here: from writing a first frame (of a 20-byte payload from 0x7E8) into\n"
          "              its input until its ready-to-receive frame (0x31) is read from the\n"
          "              pipe. Each payload is then completed with its two consecutive frames,\n"
          "              delivered and acknowledged before the next first frame. Median and 99th\n"
          "              percentile of 10000 (1000 with --quick), after 100 not counted.\n"
          "  throughput  fast bus, closed loop: each payload written after the previous one's\n"
          "              acknowledgement. One way: 4095-byte payloads from A to B. Request/\n"
          "              response: A's request, then B's response, random sizes of 1 to 4095\n"
          "              bytes. 2 s each (0.4 s with --quick). frames/s: frames the bus carried;\n"
          "              payload B/s; CPU us/frame: user + system time of the whole process\n"
          "              (every thread: endpoints, bus, readers, this one; getrusage) over the\n"
          "              frames; wake-ups/frame: its voluntary + involuntary context switches\n"
          "              over the frames.\n"
          "  goodput     timed bus at 125, 500 and 1000 kbit/s, payloads of 7, 100, 1000 and\n"
          "              4095 bytes (random contents), two patterns. Stream: A's payloads all\n"
          "              written into its input at once, so each one after the first waits the\n"
          "              10 ms pause that follows the previous acknowledgement. Request/response:\n"
          "              B answers each delivered request with a payload of the same size; A's\n"
          "              next request is written when the answer is delivered. Time: from the\n"
          "              first write to the last acknowledgement reported (steady clock).\n"
          "              payload B/s: payload bytes of both directions over that time. Limit:\n"
          "              the bus time of every frame the protocol needs for those payloads (data\n"
          "              and flow-control frames, exact bit lengths with the stuff bits of their\n"
          "              real contents, at that bit rate) plus the pauses it prescribes (10 ms\n"
          "              before each queued payload: payloads - 1 in a stream, none in\n"
          "              request/response). of limit: limit time / measured time. The number of\n"
          "              payloads of a cell is chosen for about 0.75 s of limit time (0.08 s\n"
          "              with --quick), at least 2; the table shows it.\n"
          "  memory      peak resident memory (ru_maxrss from wait4()) of a child process that\n"
          "              runs the roundtrip loop with 7-byte payloads: 1000 payloads versus\n"
          "              100000 (10000 with --quick), and the difference. Each child is forked\n"
          "              while no other thread runs and starts its endpoints after the fork.\n"
          "\n"
          "Options:\n"
          "      --quick             every part short, for a smoke run (the whole command in\n"
          "                          about 10 s on 2 cores)\n"
          "      --only NAME[,NAME]  run only these parts (roundtrip, fc, throughput, goodput,\n"
          "                          memory)\n"
          "      --json              the same figures as one JSON object: stable keys, numbers\n"
          "                          as numbers, and the machine (CPU model, cores, kernel\n"
          "                          release, build type and sanitizers)\n"
          "  -h, --help              this text\n"
          "\n"
          "Examples:\n"
          "  cantp bench\n"
          "  cantp bench --quick --only roundtrip,fc\n"
          "  cantp bench --json > figures.json\n";
}

int BenchCommand::run(int argc, char** argv, int first) {
    bool help = false;
    const Options opt = parseOptions(argc, argv, first, help);
    if (help) {
        printHelp(std::cout);
        return 0;
    }
    const Plan plan = Plan::of(opt.quick);
    const Machine machine = machineFacts();
    Results results;
    bool ok = true;
    {
        QuietLibrary quiet;
        std::ostream out(quiet.output());
        if (!opt.json) {
            printTextHeader(out, machine, opt);
            out.flush();
        }
        for (int part = 0; part < 5; ++part) {
            if (!opt.run[part]) {
                continue;
            }
            try {
                switch (part) {
                    case 0:
                        results.roundtrip = runRoundtrip(plan);
                        break;
                    case 1:
                        results.fc = runFlowControl(plan);
                        break;
                    case 2:
                        results.throughput.push_back(runClosedLoop(true, plan.throughputSeconds));
                        results.throughput.push_back(runClosedLoop(false, plan.throughputSeconds));
                        break;
                    case 3:
                        for (uint32_t bitrate : kGoodputBitrates) {
                            for (size_t size : kGoodputSizes) {
                                for (bool stream : {true, false}) {
                                    results.goodput.push_back(runGoodputCell(
                                        bitrate, size, stream, plan.goodputCellSeconds));
                                }
                            }
                        }
                        break;
                    case 4:
                        results.memory = runMemory(plan);
                        break;
                    default:
                        break;
                }
            } catch (const std::exception& e) {
                results.errors[part] = e.what();
                ok = false;
            }
            if (!opt.json) {
                printTextPart(out, part, results);
                out.flush();
            }
        }
        if (opt.json) {
            printJson(out, machine, opt, results);
            out.flush();
        }
    }
    return ok ? 0 : 1;
}

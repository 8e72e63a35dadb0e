#include "SoakCommand.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
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
#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

namespace {

using Clock = std::chrono::steady_clock;
using Status = CANTransportThread::statuschange_t;

struct Options {
    uint64_t payloads = 10000;
    unsigned minSize = 1;
    unsigned maxSize = 4095;
    double loss = 0.01;
    uint64_t seed = 1;
    unsigned lanes = 2;
    unsigned batch = 8;
    double silenceEvery = 30.0;
    double silenceFor = 3.0;
    bool timed = false;
    uint32_t bitrate = 500000;
    std::string incidentsFile;
    unsigned listLimit = 20;
    uint64_t maxGrowthKiB = 64 * 1024;
};

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
        .count();
}

// ---------------------------------------------------------------------------------------------
// Payloads: sizes and contents follow from (seed, lane, stream, sequence number), so neither
// side stores what was sent and every delivery can be checked against what it should be.

/// Bytes 0-3 sequence number, 4-5 length (both big-endian), 6-9 CRC-32 of all other bytes.
constexpr size_t HEADER_SIZE = 10;

uint64_t mix64(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

uint32_t crc32Update(uint32_t crc, const uint8_t* data, size_t len) {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) {
                c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            }
            t[i] = c;
        }
        return t;
    }();
    for (size_t i = 0; i < len; ++i) {
        crc = table[(crc ^ data[i]) & 0xFFu] ^ (crc >> 8);
    }
    return crc;
}

/// CRC-32 of a payload without its CRC field (bytes 6-9).
uint32_t payloadCrc(const byteVec_t& p) {
    uint32_t crc = 0xFFFFFFFFu;
    crc = crc32Update(crc, p.data(), 6);
    crc = crc32Update(crc, p.data() + HEADER_SIZE, p.size() - HEADER_SIZE);
    return crc ^ 0xFFFFFFFFu;
}

class PayloadSource {
  public:
    PayloadSource(const Options& opt, unsigned lane, int stream)
        : key(mix64(opt.seed ^ mix64((uint64_t(lane) << 8) | unsigned(stream)))),
          minSize(opt.minSize),
          maxSize(opt.maxSize) {}

    size_t size(uint32_t seq) const {
        return minSize + mix64(key ^ (uint64_t(seq) << 1)) % (maxSize - minSize + 1);
    }

    byteVec_t make(uint32_t seq) const {
        byteVec_t p(size(seq));
        std::mt19937_64 rng(mix64(key ^ (uint64_t(seq) << 1) ^ 1));
        for (size_t i = 0; i < p.size(); i += 8) {
            const uint64_t word = rng();
            for (size_t k = 0; k < 8 && i + k < p.size(); ++k) {
                p[i + k] = static_cast<uint8_t>(word >> (8 * k));
            }
        }
        if (p.size() >= HEADER_SIZE) {
            for (int k = 0; k < 4; ++k) {
                p[k] = static_cast<uint8_t>(seq >> (24 - 8 * k));
            }
            p[4] = static_cast<uint8_t>(p.size() >> 8);
            p[5] = static_cast<uint8_t>(p.size());
            const uint32_t crc = payloadCrc(p);
            for (int k = 0; k < 4; ++k) {
                p[6 + k] = static_cast<uint8_t>(crc >> (24 - 8 * k));
            }
        }
        return p;
    }

    /// The identifier CTT_ACKNOWLEDGED reports for the payload: the second byte of its first
    /// frame (the first payload byte of a single frame, the low byte of the length otherwise).
    uint8_t ackId(uint32_t seq) const {
        const size_t n = size(seq);
        return n < 8 ? make(seq)[0] : static_cast<uint8_t>(n & 0xFF);
    }

  private:
    uint64_t key;
    unsigned minSize;
    unsigned maxSize;
};

// ---------------------------------------------------------------------------------------------
// Records of the traffic around each endpoint, kept in bounded rings for the incident reports.

struct FrameRecord {
    int64_t ns = 0;
    uint32_t id = 0;
    uint8_t len = 0;
    std::array<uint8_t, 8> data{};
};

template <typename T>
class Ring {
  public:
    explicit Ring(size_t capacity) : capacity(capacity) {}
    void push(T value) {
        std::lock_guard<std::mutex> lock(mutex);
        if (items.size() == capacity) {
            items.pop_front();
        }
        items.push_back(std::move(value));
    }
    std::vector<T> snapshot() const {
        std::lock_guard<std::mutex> lock(mutex);
        return std::vector<T>(items.begin(), items.end());
    }

  private:
    size_t capacity;
    mutable std::mutex mutex;
    std::deque<T> items;
};

std::string hex2(uint8_t b) {
    static const char digits[] = "0123456789ABCDEF";
    return std::string{digits[b >> 4], digits[b & 0x0F]};
}

std::string frameBytes(const FrameRecord& f, size_t from) {
    std::string s;
    for (size_t i = from; i < f.len && i < 8; ++i) {
        s += hex2(f.data[i]);
    }
    return s;
}

/// Frames in order, a run of consecutive frames with continuing sequence numbers on one line.
std::vector<std::string> describeFrames(const std::vector<FrameRecord>& frames, int64_t refNs) {
    std::vector<std::string> out;
    size_t i = 0;
    auto stamp = [refNs](int64_t ns) {
        std::ostringstream t;
        t << std::fixed << std::setprecision(1) << std::setw(9) << (ns - refNs) / 1e6 << " ms  ";
        return t.str();
    };
    while (i < frames.size()) {
        const FrameRecord& f = frames[i];
        std::ostringstream line;
        line << stamp(f.ns) << std::hex << std::uppercase << f.id << std::dec << "  ";
        const uint8_t pci = f.len > 0 ? f.data[0] : 0;
        const int kind = pci >> 4;
        if (f.len > 0 && kind == 2) {
            size_t j = i + 1;
            int sn = pci & 0x0F;
            while (j < frames.size() && frames[j].id == f.id && frames[j].len > 0 &&
                   frames[j].data[0] == (0x20 | ((sn + 1) & 0x0F))) {
                sn = (sn + 1) & 0x0F;
                ++j;
            }
            line << "CF SN " << (pci & 0x0F);
            if (j - i > 1) {
                line << " .. " << sn << " (" << (j - i) << " frames, last "
                     << frameBytes(frames[j - 1], 1) << ")";
            } else {
                line << "  " << frameBytes(f, 1);
            }
            i = j;
        } else {
            if (f.len == 0) {
                line << "(no data)";
            } else if (pci == 0) {
                line << "invalid 00 " << frameBytes(f, 1);
            } else if (kind == 0) {
                line << "SF len " << (pci & 0x0F) << "  " << frameBytes(f, 1);
            } else if (kind == 1) {
                line << "FF len " << (((pci & 0x0F) << 8) | (f.len > 1 ? f.data[1] : 0)) << "  "
                     << frameBytes(f, 2);
            } else if (kind == 3) {
                line << "FC " << (pci & 0x0F);
            } else {
                line << "invalid " << frameBytes(f, 0);
            }
            ++i;
        }
        out.push_back(line.str());
    }
    return out;
}

struct AppEvent {
    int64_t ns;
    std::string text;
};

/// Receives the bus's candump lines and keeps them, parsed, in a ring. The bus writes each line
/// under LogUtil::logMutex.
class TapRecorder : public std::streambuf {
  public:
    explicit TapRecorder(size_t capacity) : frames(capacity) {}
    std::vector<FrameRecord> snapshot() const { return frames.snapshot(); }

  protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) {
            return traits_type::not_eof(c);
        }
        if (c != '\n') {
            line.push_back(static_cast<char>(c));
            return c;
        }
        CandumpLine parsed;
        std::string error;
        if (CandumpLine::parse(line, parsed, error)) {
            FrameRecord f;
            f.ns = nowNs();
            f.id = parsed.canId;
            f.len = parsed.length;
            f.data = parsed.data;
            frames.push(f);
        }
        line.clear();
        return c;
    }

  private:
    Ring<FrameRecord> frames;
    std::string line;
};

/// Stands in for std::cout and std::cerr while the soak runs: counts the endpoints' and the
/// buses' log lines by their text up to the first number or frame, and drops them.
class LogLineCounter : public std::streambuf {
  public:
    std::map<std::string, unsigned long> counts() const {
        std::lock_guard<std::mutex> lock(mutex);
        return byKind;
    }

  protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) {
            return traits_type::not_eof(c);
        }
        if (c != '\n') {
            line.push_back(static_cast<char>(c));
            return c;
        }
        size_t cut = line.find_first_of("0123456789");
        const size_t hexAt = line.find(" 0x");
        if (hexAt != std::string::npos && hexAt < cut) {
            cut = hexAt;
        }
        std::string kind = line.substr(0, cut);
        while (!kind.empty() && (kind.back() == ' ' || kind.back() == '[')) {
            kind.pop_back();
        }
        std::lock_guard<std::mutex> lock(mutex);
        byKind[kind] += 1;
        line.clear();
        return c;
    }

  private:
    mutable std::mutex mutex;
    std::map<std::string, unsigned long> byKind;
    std::string line;  // written under LogUtil::logMutex
};

// ---------------------------------------------------------------------------------------------
// Counts.

struct Counts {
    unsigned long long handedOver = 0;
    unsigned long long bytesHandedOver = 0;
    unsigned long long acknowledged = 0;
    unsigned long long failedReported = 0;
    unsigned long long failedSilently = 0;
    unsigned long long deliveries = 0;
    unsigned long long exact = 0;
    unsigned long long bytesExact = 0;
    unsigned long long duplicates = 0;
    unsigned long long partial = 0;
    unsigned long long corrupted = 0;
    unsigned long long unparsable = 0;
    unsigned long long ackedNeverDelivered = 0;
    unsigned long long failedButDelivered = 0;
    unsigned long long ackIdMismatch = 0;
    unsigned long long ackWithoutPayload = 0;
    unsigned long long silences = 0;
    std::map<std::string, unsigned long> statuses;

    void add(const Counts& o) {
        handedOver += o.handedOver;
        bytesHandedOver += o.bytesHandedOver;
        acknowledged += o.acknowledged;
        failedReported += o.failedReported;
        failedSilently += o.failedSilently;
        deliveries += o.deliveries;
        exact += o.exact;
        bytesExact += o.bytesExact;
        duplicates += o.duplicates;
        partial += o.partial;
        corrupted += o.corrupted;
        unparsable += o.unparsable;
        ackedNeverDelivered += o.ackedNeverDelivered;
        failedButDelivered += o.failedButDelivered;
        ackIdMismatch += o.ackIdMismatch;
        ackWithoutPayload += o.ackWithoutPayload;
        silences += o.silences;
        for (const auto& s : o.statuses) {
            statuses[s.first] += s.second;
        }
    }
};

struct Incident {
    std::string summary;
    std::vector<std::string> details;
};

/// What the whole run shares: the incidents and the progress counter. Incidents go to the file
/// as they happen; only the first summaries are kept, so memory stays bounded.
struct Shared {
    std::mutex mutex;
    std::ostream* incidentsOut = nullptr;
    unsigned listLimit = 0;
    std::vector<std::string> summaries;
    unsigned long long incidentCount = 0;
    std::atomic<unsigned long long> handedOver{0};
    std::atomic<bool> abort{false};
};

// ---------------------------------------------------------------------------------------------
// One lane: two endpoints on one bus.

class Lane {
  public:
    Lane(const Options& opt, unsigned index, uint64_t share, Shared& shared);
    ~Lane();
    Lane(const Lane&) = delete;
    Lane& operator=(const Lane&) = delete;

    void start();
    /// The lane driver's body: hands over the lane's share of payloads and waits until each
    /// is resolved. Returns false if the lane stalled or an endpoint thread ended.
    bool drive();
    /// Ends every thread of the lane; then the counts are final.
    void shutdown();

    Counts counts();
    SimulatedCanBus::Statistics busStatistics() const { return bus.statistics(); }
    std::string failure() const { return failureText; }
    bool requestResponse() const { return index % 2 == 0; }

  private:
    enum PayloadState : uint8_t { PENDING, ACKED, FAILED_REPORTED, FAILED_SILENTLY };

    struct Endpoint {
        explicit Endpoint(const char* name) : name(name), transport(0), rx(1400) {}
        std::string name;
        CANTransportThread transport;
        int readFD = -1;
        int writeFD = -1;
        int busPipe[2] = {-1, -1};  // the bus writes frames into [1]; the forwarder reads [0]
        std::mutex inputMutex;      // one writer at a time into writeFD
        Ring<FrameRecord> rx;       // frames the endpoint received
        std::thread forwarder;
        std::thread reader;
        // Guarded by Lane::mutex.
        std::unique_ptr<PayloadSource> source;  // this endpoint's own stream
        std::deque<uint32_t> outstanding;       // handed over, not yet resolved, in order
        std::vector<uint8_t> ownState;          // PayloadState per sequence number
        std::vector<uint16_t> deliveredOfPeer;  // exact deliveries per peer sequence number
        int64_t queueEmptySinceNs = 0;
        unsigned long long eventsWhenEmpty = 0;
        uint64_t framesWhenEmpty = 0;
    };

    /// How long the queue must read empty, with no status report and no frame from either
    /// endpoint, before the payloads outstanding count as dropped without a report.
    static constexpr int64_t QUIET_NS = 300000000;

    void forward(int e);
    void read(int e);
    bool writeWhole(Endpoint& ep, const byteVec_t& bytes);
    uint32_t registerHandOver(int e, byteVec_t& bytes);  // caller holds mutex
    void onStatus(int e, Status st, uint16_t arg);
    void onDelivery(int receiver, const byteVec_t& payload);
    void appEvent(const std::string& text) { app.push(AppEvent{nowNs(), text}); }
    bool waitResolved(std::initializer_list<int> endpoints);
    void silencer();
    Incident makeIncident(int receiver, const std::string& summary);
    std::string classifyBad(int receiver, const byteVec_t& d, bool& isPartial);

    const Options opt;
    const unsigned index;
    const uint64_t share;
    Shared& shared;
    std::string laneName;
    Endpoint ep[2];
    TapRecorder tapRecorder;
    std::ostream tapStream;
    SimulatedCanBus bus;
    Ring<AppEvent> app;
    int stopPipe[2] = {-1, -1};
    std::thread silenceThread;
    std::mutex silenceMutex;
    std::condition_variable silenceWake;
    bool stopping = false;  // guarded by silenceMutex

    std::mutex mutex;
    std::condition_variable changed;
    Counts tally;
    unsigned long long events = 0;
    int64_t lastProgressNs = 0;
    std::string failureText;
    bool started = false;
    bool shut = false;
};

SimulatedCanBus::Config busConfig(const Options& opt, unsigned index, std::ostream* tap) {
    SimulatedCanBus::Config cfg;
    cfg.bitrate = opt.bitrate;
    cfg.timed = opt.timed;
    cfg.lossProbability = opt.loss;
    cfg.seed = mix64(opt.seed + index);
    cfg.tap = tap;
    cfg.tapInterface = "can" + std::to_string(index);
    return cfg;
}

Lane::Lane(const Options& o, unsigned idx, uint64_t share, Shared& shared)
    : opt(o),
      index(idx),
      share(share),
      shared(shared),
      laneName("lane " + std::to_string(idx)),
      ep{Endpoint("0x7E0"), Endpoint("0x7E8")},
      tapRecorder(2400),
      tapStream(&tapRecorder),
      bus(busConfig(o, idx, &tapStream)),
      app(200) {
    if (::pipe(stopPipe) != 0) {
        throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
    }
    const uint16_t ids[2] = {0x7E0, 0x7E8};
    for (int e = 0; e < 2; ++e) {
        Endpoint& p = ep[e];
        p.source.reset(new PayloadSource(opt, index, e));
        p.transport.setSendCANid(ids[e]);
        CANTransportThread::delstatus_t cb = [this, e](Status st, uint16_t arg) {
            onStatus(e, st, arg);
        };
        p.transport.setDelegate(cb);
        p.transport.open(p.readFD, p.writeFD);
        // Our end of the endpoint's input: non-blocking, so that a write waiting for room can
        // also watch the stop pipe.
        ::fcntl(p.writeFD, F_SETFL, ::fcntl(p.writeFD, F_GETFL) | O_NONBLOCK);
        if (::pipe(p.busPipe) != 0) {
            throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
        }
        const int node = bus.addNode(p.busPipe[1], p.name);
        p.transport.setConnection(bus.proxyFd(node));
    }
}

Lane::~Lane() {
    shutdown();
    for (Endpoint& p : ep) {
        ::close(p.busPipe[0]);
        ::close(p.busPipe[1]);
    }
    ::close(stopPipe[0]);
    ::close(stopPipe[1]);
}

void Lane::start() {
    started = true;
    for (int e = 0; e < 2; ++e) {
        ep[e].forwarder = std::thread([this, e] { forward(e); });
        ep[e].reader = std::thread([this, e] { read(e); });
    }
    bus.start();
    ep[0].transport.start();
    ep[1].transport.start();
    if (opt.silenceEvery > 0) {
        silenceThread = std::thread([this] { silencer(); });
    }
    std::lock_guard<std::mutex> lock(mutex);
    lastProgressNs = nowNs();
}

void Lane::shutdown() {
    if (!started || shut) {
        return;
    }
    shut = true;
    {
        std::lock_guard<std::mutex> lock(silenceMutex);
        stopping = true;
    }
    silenceWake.notify_all();
    if (silenceThread.joinable()) {
        silenceThread.join();
    }
    ep[0].transport.stop();
    ep[1].transport.stop();
    bus.stop();
    const char byte = 'q';
    (void)!::write(stopPipe[1], &byte, 1);
    for (Endpoint& p : ep) {
        p.forwarder.join();
        p.reader.join();
    }
    // Cross-check the two sides.
    std::lock_guard<std::mutex> lock(mutex);
    for (int e = 0; e < 2; ++e) {
        const Endpoint& sender = ep[e];
        const Endpoint& receiver = ep[1 - e];
        for (size_t seq = 0; seq < sender.ownState.size(); ++seq) {
            const bool delivered =
                seq < receiver.deliveredOfPeer.size() && receiver.deliveredOfPeer[seq] > 0;
            if (sender.ownState[seq] == ACKED && !delivered) {
                tally.ackedNeverDelivered += 1;
            }
            if ((sender.ownState[seq] == FAILED_REPORTED ||
                 sender.ownState[seq] == FAILED_SILENTLY) &&
                delivered) {
                tally.failedButDelivered += 1;
            }
        }
    }
}

Counts Lane::counts() {
    std::lock_guard<std::mutex> lock(mutex);
    return tally;
}

/// Waits for room or the stop pipe; true when `fd` can be written.
bool waitWritable(int fd, int stopFd) {
    for (;;) {
        pollfd fds[2] = {{fd, POLLOUT, 0}, {stopFd, POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 || (fds[1].revents & POLLIN) != 0) {
            return false;
        }
        if ((fds[0].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
            return true;
        }
    }
}

bool Lane::writeWhole(Endpoint& p, const byteVec_t& bytes) {
    std::lock_guard<std::mutex> lock(p.inputMutex);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(p.writeFD, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && errno == EAGAIN) {
            if (!waitWritable(p.writeFD, stopPipe[0])) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}

/// Takes the frames the bus delivers to endpoint `e`, records them, and writes them on into the
/// endpoint's input.
void Lane::forward(int e) {
    Endpoint& p = ep[e];
    MessagePump::run(p.busPipe[0], stopPipe[0], [&](std::unique_ptr<MessageBase> msg) {
        if (const auto* c = dynamic_cast<const CANTraceMessageBase*>(msg.get())) {
            FrameRecord f;
            f.ns = nowNs();
            f.id = c->getCanId();
            f.len = static_cast<uint8_t>(std::min<unsigned>(c->getNumberOfDataBytes(), 8));
            std::copy(c->getData(), c->getData() + f.len, f.data.begin());
            p.rx.push(f);
        }
        byteVec_t bytes;
        msg->createByteArray(bytes, true, false);
        return writeWhole(p, bytes);
    });
}

/// The application side of endpoint `e`: reads the payloads it delivers.
void Lane::read(int e) {
    Endpoint& p = ep[e];
    MessagePump::run(
        p.readFD, stopPipe[0],
        [&](std::unique_ptr<MessageBase> msg) {
            if (const auto* t = dynamic_cast<const CANTransportTraceMessage*>(msg.get())) {
                onDelivery(e, t->getPayload());
            }
            return true;
        },
        [&] {
            std::lock_guard<std::mutex> lock(mutex);
            tally.unparsable += 1;
        });
}

uint32_t Lane::registerHandOver(int e, byteVec_t& bytes) {
    Endpoint& p = ep[e];
    const uint32_t seq = static_cast<uint32_t>(p.ownState.size());
    const byteVec_t payload = p.source->make(seq);
    CANTransportTraceMessage msg(0, 0, payload.begin(), payload.end(), CT_STANDARD);
    msg.createByteArray(bytes, true, false);
    p.ownState.push_back(PENDING);
    p.outstanding.push_back(seq);
    tally.handedOver += 1;
    tally.bytesHandedOver += payload.size();
    shared.handedOver.fetch_add(1);
    return seq;
}

void Lane::onStatus(int e, Status st, uint16_t arg) {
    std::ostringstream name;
    name << ep[e].name << " " << st;
    appEvent("status " + name.str() + " " + std::to_string(arg));
    std::lock_guard<std::mutex> lock(mutex);
    Endpoint& p = ep[e];
    tally.statuses[name.str()] += 1;
    events += 1;
    lastProgressNs = nowNs();
    if (st == CANTransportThread::CTT_ACKNOWLEDGED) {
        if (p.outstanding.empty()) {
            tally.ackWithoutPayload += 1;
        } else {
            const uint32_t seq = p.outstanding.front();
            p.outstanding.pop_front();
            if (p.source->ackId(seq) != arg) {
                tally.ackIdMismatch += 1;
            }
            p.ownState[seq] = ACKED;
            tally.acknowledged += 1;
        }
    } else if (st == CANTransportThread::CTT_DISCONNECTED ||
               st == CANTransportThread::CTT_SEND_TIMEOUT) {
        // The endpoint dropped its whole queue.
        for (uint32_t seq : p.outstanding) {
            p.ownState[seq] = FAILED_REPORTED;
            tally.failedReported += 1;
        }
        p.outstanding.clear();
    }
    changed.notify_all();
}

void Lane::onDelivery(int receiver, const byteVec_t& d) {
    const int sender = 1 - receiver;
    const PayloadSource& source = *ep[sender].source;
    uint32_t handed = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        handed = static_cast<uint32_t>(ep[sender].ownState.size());
    }
    // Which payload is it? By its header, or (short payloads) by comparison with the latest.
    uint32_t seq = UINT32_MAX;
    if (d.size() >= HEADER_SIZE) {
        const uint32_t s = (uint32_t(d[0]) << 24) | (uint32_t(d[1]) << 16) | (uint32_t(d[2]) << 8) |
                           uint32_t(d[3]);
        if (s < handed && source.size(s) == d.size() && source.make(s) == d) {
            seq = s;
        }
    } else {
        for (uint32_t k = 0; k < 64 && k < handed; ++k) {
            const uint32_t s = handed - 1 - k;
            if (source.size(s) == d.size() && source.make(s) == d) {
                seq = s;
                break;
            }
        }
    }
    std::string badText;
    bool partial = false;
    if (seq == UINT32_MAX) {
        badText = classifyBad(receiver, d, partial);
    }
    std::unique_lock<std::mutex> lock(mutex);
    Endpoint& r = ep[receiver];
    tally.deliveries += 1;
    lastProgressNs = nowNs();
    events += 1;
    if (seq != UINT32_MAX) {
        if (r.deliveredOfPeer.size() <= seq) {
            r.deliveredOfPeer.resize(seq + 1, 0);
        }
        const bool first = r.deliveredOfPeer[seq] == 0;
        if (r.deliveredOfPeer[seq] < UINT16_MAX) {
            r.deliveredOfPeer[seq] += 1;
        }
        if (first) {
            tally.exact += 1;
            tally.bytesExact += d.size();
        } else {
            tally.duplicates += 1;
        }
        lock.unlock();
        appEvent(r.name + " delivered #" + std::to_string(seq) + " (" + std::to_string(d.size()) +
                 " bytes)" + (first ? "" : ", a duplicate"));
        changed.notify_all();
        return;
    }
    (partial ? tally.partial : tally.corrupted) += 1;
    lock.unlock();
    appEvent(r.name + " delivered " + std::to_string(d.size()) + " bad bytes: " + badText);
    Incident incident =
        makeIncident(receiver, laneName + ": " + r.name + " delivered " + std::to_string(d.size()) +
                                   " bytes, " + (partial ? "partial: " : "corrupted: ") + badText);
    {
        std::lock_guard<std::mutex> g(shared.mutex);
        shared.incidentCount += 1;
        if (shared.summaries.size() < shared.listLimit) {
            shared.summaries.push_back(incident.summary);
        }
        if (shared.incidentsOut != nullptr) {
            *shared.incidentsOut << incident.summary << "\n";
            for (const std::string& l : incident.details) {
                *shared.incidentsOut << l << "\n";
            }
            *shared.incidentsOut << "\n" << std::flush;
        }
    }
    changed.notify_all();
}

/// Describes a delivery that is no payload sent: which pieces of the latest payloads it holds.
std::string Lane::classifyBad(int receiver, const byteVec_t& d, bool& isPartial) {
    const int sender = 1 - receiver;
    const PayloadSource& source = *ep[sender].source;
    uint32_t handed = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        handed = static_cast<uint32_t>(ep[sender].ownState.size());
    }
    std::vector<std::pair<uint32_t, byteVec_t>> recent;
    for (uint32_t k = 0; k < 16 && k < handed; ++k) {
        const uint32_t s = handed - 1 - k;
        recent.emplace_back(s, source.make(s));
    }
    // One contiguous piece of one payload?
    for (const auto& c : recent) {
        const byteVec_t& p = c.second;
        if (d.empty() || d.size() > p.size()) {
            continue;
        }
        auto at = std::search(p.begin(), p.end(), d.begin(), d.end());
        if (at != p.end()) {
            const size_t from = static_cast<size_t>(at - p.begin());
            std::ostringstream t;
            t << "bytes " << from << " to " << from + d.size() << " of the " << p.size() << " of #"
              << c.first;
            if (from > 0 && from + d.size() == p.size()) {
                t << " (its first " << from << " missing)";
            } else if (from == 0) {
                t << " (its last " << p.size() - d.size() << " missing)";
            }
            isPartial = true;
            return t.str();
        }
    }
    // Pieces of several: the longest match at each position, greedily.
    isPartial = false;
    std::ostringstream t;
    size_t i = 0;
    size_t unknown = 0;
    auto flushUnknown = [&] {
        if (unknown > 0) {
            t << (t.tellp() > 0 ? ", " : "") << unknown << " bytes of nothing sent";
            unknown = 0;
        }
    };
    while (i < d.size()) {
        size_t bestLen = 0;
        size_t bestFrom = 0;
        uint32_t bestSeq = 0;
        for (const auto& c : recent) {
            const byteVec_t& p = c.second;
            for (size_t from = 0; from < p.size(); ++from) {
                size_t n = 0;
                while (i + n < d.size() && from + n < p.size() && d[i + n] == p[from + n]) {
                    ++n;
                }
                if (n > bestLen) {
                    bestLen = n;
                    bestFrom = from;
                    bestSeq = c.first;
                }
            }
        }
        if (bestLen < 4) {
            ++unknown;
            ++i;
            continue;
        }
        flushUnknown();
        t << (t.tellp() > 0 ? ", " : "") << "bytes " << bestFrom << " to " << bestFrom + bestLen
          << " of #" << bestSeq;
        i += bestLen;
    }
    flushUnknown();
    return t.str();
}

Incident Lane::makeIncident(int receiver, const std::string& summary) {
    Incident inc;
    inc.summary = summary;
    const int64_t ref = nowNs();
    auto section = [&](const std::string& title, const std::vector<std::string>& lines,
                       size_t keep) {
        inc.details.push_back("  " + title + ":");
        const size_t from = lines.size() > keep ? lines.size() - keep : 0;
        for (size_t k = from; k < lines.size(); ++k) {
            inc.details.push_back("    " + lines[k]);
        }
    };
    section("frames received by " + ep[receiver].name + " (its input, latest last)",
            describeFrames(ep[receiver].rx.snapshot(), ref), 40);
    section("frames received by " + ep[1 - receiver].name,
            describeFrames(ep[1 - receiver].rx.snapshot(), ref), 25);
    section("frames on the bus (lost ones included)", describeFrames(tapRecorder.snapshot(), ref),
            60);
    std::vector<std::string> appLines;
    for (const AppEvent& a : app.snapshot()) {
        std::ostringstream l;
        l << std::fixed << std::setprecision(1) << std::setw(9) << (a.ns - ref) / 1e6 << " ms  "
          << a.text;
        appLines.push_back(l.str());
    }
    section("application events", appLines, 25);
    return inc;
}

bool Lane::waitResolved(std::initializer_list<int> which) {
    for (;;) {
        if (shared.abort.load()) {
            return false;
        }
        bool allResolved = true;
        for (int e : which) {
            bool hasOutstanding;
            {
                std::lock_guard<std::mutex> lock(mutex);
                hasOutstanding = !ep[e].outstanding.empty();
            }
            if (!hasOutstanding) {
                continue;
            }
            allResolved = false;
            // Asked without the lane's lock: the endpoint takes its own queue lock. The
            // endpoint also reads an empty queue while a payload it has already taken from its
            // pipe waits in its reader to be queued, which lasts as long as the thread is not
            // scheduled or handles the frames before it. So a payload counts as dropped only
            // after a quiet spell: no status report and no frame written by either endpoint.
            const bool queueEmpty = ep[e].transport.sendQueueEmpty();
            uint64_t frames = 0;
            for (const SimulatedCanBus::NodeStatistics& n : bus.statistics().nodes) {
                frames += n.framesAccepted;
            }
            std::lock_guard<std::mutex> lock(mutex);
            Endpoint& p = ep[e];
            if (!queueEmpty || p.outstanding.empty()) {
                p.queueEmptySinceNs = 0;
                continue;
            }
            const int64_t now = nowNs();
            if (p.queueEmptySinceNs == 0 || p.eventsWhenEmpty != events ||
                p.framesWhenEmpty != frames) {
                p.queueEmptySinceNs = now;
                p.eventsWhenEmpty = events;
                p.framesWhenEmpty = frames;
            } else if (now - p.queueEmptySinceNs >= QUIET_NS) {
                // Dropped without a report (a give-up after the loss of the peer had already
                // been reported).
                for (uint32_t seq : p.outstanding) {
                    p.ownState[seq] = FAILED_SILENTLY;
                    tally.failedSilently += 1;
                }
                p.outstanding.clear();
                p.queueEmptySinceNs = 0;
                lastProgressNs = now;
            }
        }
        if (allResolved) {
            return true;
        }
        if (!ep[0].transport.isRunning() || !ep[1].transport.isRunning()) {
            std::lock_guard<std::mutex> lock(mutex);
            const Endpoint& dead = ep[0].transport.isRunning() ? ep[1] : ep[0];
            failureText = laneName + ": the transport thread of " + dead.name +
                          " ended: " + dead.transport.exitReason();
            return false;
        }
        std::unique_lock<std::mutex> lock(mutex);
        if (nowNs() - lastProgressNs > 60ll * 1000000000) {
            failureText = laneName + ": no progress for 60 s";
            return false;
        }
        changed.wait_for(lock, std::chrono::milliseconds(10));
    }
}

bool Lane::drive() {
    unsigned long long handed = 0;
    unsigned long batchNo = 0;
    while (handed < share) {
        if (requestResponse()) {
            byteVec_t bytes;
            uint32_t seq;
            {
                std::lock_guard<std::mutex> lock(mutex);
                seq = registerHandOver(0, bytes);
            }
            handed += 1;
            appEvent(ep[0].name + " hands over request #" + std::to_string(seq));
            if (!writeWhole(ep[0], bytes) || !waitResolved({0})) {
                return false;
            }
            // The responder answers a request it has received; a request whose sender gave up
            // may still have arrived (only its acknowledgement was lost).
            bool delivered = false;
            bool acked = false;
            {
                std::lock_guard<std::mutex> lock(mutex);
                acked = ep[0].ownState[seq] == ACKED;
            }
            const auto deadline = Clock::now() + std::chrono::milliseconds(acked ? 2000 : 100);
            for (;;) {
                {
                    std::unique_lock<std::mutex> lock(mutex);
                    delivered = ep[1].deliveredOfPeer.size() > seq && ep[1].deliveredOfPeer[seq];
                    if (delivered || Clock::now() >= deadline) {
                        break;
                    }
                    changed.wait_for(lock, std::chrono::milliseconds(5));
                }
            }
            if (delivered && handed < share) {
                byteVec_t response;
                uint32_t rseq;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    rseq = registerHandOver(1, response);
                }
                handed += 1;
                appEvent(ep[1].name + " hands over response #" + std::to_string(rseq));
                if (!writeWhole(ep[1], response) || !waitResolved({1})) {
                    return false;
                }
            }
        } else {
            // One-way streams, a batch at a time, alternating direction.
            const int e = static_cast<int>(batchNo % 2);
            ++batchNo;
            const unsigned long long n = std::min<unsigned long long>(opt.batch, share - handed);
            byteVec_t bytes;
            uint32_t first = 0;
            {
                std::lock_guard<std::mutex> lock(mutex);
                for (unsigned long long k = 0; k < n; ++k) {
                    byteVec_t one;
                    const uint32_t seq = registerHandOver(e, one);
                    if (k == 0) {
                        first = seq;
                    }
                    bytes.insert(bytes.end(), one.begin(), one.end());
                }
            }
            handed += n;
            appEvent(ep[e].name + " hands over #" + std::to_string(first) + " to #" +
                     std::to_string(first + n - 1));
            if (!writeWhole(ep[e], bytes) || !waitResolved({e})) {
                return false;
            }
        }
    }
    return true;
}

void Lane::silencer() {
    const auto every = std::chrono::duration<double>(opt.silenceEvery);
    const auto length = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double>(opt.silenceFor));
    // Lanes start their silences at different moments.
    auto next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   every * (0.5 + 0.37 * index - std::floor(0.37 * index)));
    unsigned count = 0;
    std::unique_lock<std::mutex> lock(silenceMutex);
    for (;;) {
        if (silenceWake.wait_until(lock, next, [this] { return stopping; })) {
            return;
        }
        const int node = static_cast<int>(count % 2);
        ++count;
        bus.silence(node, length);
        appEvent(ep[node].name + " silent for " + std::to_string(opt.silenceFor) + " s");
        {
            std::lock_guard<std::mutex> g(mutex);
            tally.silences += 1;
        }
        next += std::chrono::duration_cast<Clock::duration>(every);
    }
}

// ---------------------------------------------------------------------------------------------

/// A field of /proc/self/status in kB ("VmHWM", "VmRSS"), 0 if unknown.
uint64_t procStatusKiB(const std::string& field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, field.size() + 1, field + ":") == 0) {
            return std::strtoull(line.c_str() + field.size() + 1, nullptr, 10);
        }
    }
    return 0;
}

Options parseOptions(int argc, char** argv, int first, bool& help) {
    Options opt;
    ArgumentReader args(argc, argv, first);
    std::string value;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            help = true;
            return opt;
        } else if (args.option("--payloads", "-n", value)) {
            opt.payloads = ArgumentReader::toUnsigned("--payloads", value, 100000000);
        } else if (args.option("--max-size", "-m", value)) {
            opt.maxSize =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--max-size", value, 4095));
        } else if (args.option("--min-size", nullptr, value)) {
            opt.minSize =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--min-size", value, 4095));
        } else if (args.option("--loss", "-l", value)) {
            opt.loss = ArgumentReader::toDouble("--loss", value, 0.0, 1.0);
        } else if (args.option("--seed", "-s", value)) {
            opt.seed = ArgumentReader::toUnsigned("--seed", value, UINT64_MAX);
        } else if (args.option("--lanes", nullptr, value)) {
            opt.lanes = static_cast<unsigned>(ArgumentReader::toUnsigned("--lanes", value, 16));
        } else if (args.option("--batch", nullptr, value)) {
            opt.batch = static_cast<unsigned>(ArgumentReader::toUnsigned("--batch", value, 14));
        } else if (args.option("--silence-every", nullptr, value)) {
            opt.silenceEvery = ArgumentReader::toDouble("--silence-every", value, 0.0, 86400.0);
        } else if (args.option("--silence-for", nullptr, value)) {
            opt.silenceFor = ArgumentReader::toDouble("--silence-for", value, 0.0, 3600.0);
        } else if (args.flag("--timed", nullptr)) {
            opt.timed = true;
        } else if (args.option("--bitrate", "-b", value)) {
            opt.bitrate =
                static_cast<uint32_t>(ArgumentReader::toUnsigned("--bitrate", value, 1000000));
        } else if (args.option("--incidents", nullptr, value)) {
            opt.incidentsFile = value;
        } else if (args.option("--list", nullptr, value)) {
            opt.listLimit =
                static_cast<unsigned>(ArgumentReader::toUnsigned("--list", value, 100000));
        } else if (args.option("--max-growth", nullptr, value)) {
            opt.maxGrowthKiB = ArgumentReader::toUnsigned("--max-growth", value, 1u << 30) * 1024;
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
    if (opt.lanes == 0) {
        throw UsageError("--lanes must be from 1 to 16");
    }
    if (opt.batch == 0) {
        throw UsageError("--batch must be from 1 to 14");
    }
    if (opt.silenceEvery > 0 && !(opt.silenceFor > 0 && opt.silenceFor < opt.silenceEvery)) {
        throw UsageError("--silence-for must be above 0 and below --silence-every");
    }
    if (opt.bitrate < 1000) {
        throw UsageError("--bitrate must be at least 1000 bit/s");
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

std::string number(double v) {
    std::ostringstream t;
    t << v;
    return t.str();
}

}  // namespace

void SoakCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp soak [options]\n"
          "\n"
          "Many payloads of random sizes over simulated CAN buses that lose frames, with a node\n"
          "that goes silent now and then. Lanes of two endpoints (0x7E0, 0x7E8) run at the same\n"
          "time, each on its own bus: even lanes hold a request/response conversation, odd lanes\n"
          "send one-way streams in batches (alternating direction). Every payload carries its\n"
          "sequence number, length and CRC-32; every delivery is classified as byte-exact,\n"
          "duplicate, partial (a piece of one payload) or corrupted, and every payload handed\n"
          "over as acknowledged or failed (reported through the status callback, or dropped\n"
          "without a report). Peak resident memory is shown at the start and the end.\n"
          "Exit status 0 when the run completed (every payload resolved, no endpoint thread\n"
          "ended, memory growth within --max-growth); bad deliveries are counted, not failures.\n"
          "\n"
          "Options:\n"
          "  -n, --payloads N       payloads to hand over in all (default 10000)\n"
          "  -m, --max-size N       largest payload in bytes, 1 to 4095 (default 4095)\n"
          "      --min-size N       smallest payload in bytes (default 1)\n"
          "  -l, --loss P           probability that a frame is lost on the bus (default 0.01)\n"
          "      --silence-every S  every S seconds one node of each lane goes silent, the two\n"
          "                         in turn; 0: never (default 30)\n"
          "      --silence-for S    length of a silence in seconds (default 3)\n"
          "  -s, --seed S           seed of sizes, contents and bus faults (default 1)\n"
          "      --lanes N          lanes running at once, 1 to 16 (default 2)\n"
          "      --batch N          payloads per batch of a one-way stream, 1 to 14 (default 8)\n"
          "      --timed            frames take their bit time (default: fast mode)\n"
          "  -b, --bitrate BPS      bit rate with --timed (default 500000)\n"
          "      --incidents FILE   write every bad delivery with the frames around it\n"
          "      --list N           bad deliveries listed in the summary (default 20)\n"
          "      --max-growth MIB   largest accepted growth of peak resident memory (default 64)\n"
          "  -h, --help             this text\n"
          "\n"
          "Examples:\n"
          "  cantp soak --payloads 1000 --silence-every 20 --silence-for 2\n"
          "  cantp soak --payloads 10000 --lanes 4 --incidents incidents.txt\n";
}

int SoakCommand::run(int argc, char** argv, int first) {
    bool help = false;
    const Options opt = parseOptions(argc, argv, first, help);
    if (help) {
        printHelp(std::cout);
        return 0;
    }
    std::ofstream incidentsOut;
    if (!opt.incidentsFile.empty() &&
        !OutputFile::open(incidentsOut, opt.incidentsFile, false, "soak")) {
        return 1;
    }
    std::ostringstream head;
    head << "cantp soak: " << opt.payloads << " payloads, " << opt.lanes << " lane"
         << (opt.lanes == 1 ? "" : "s") << " (" << (opt.lanes == 1 ? "request/response" : "")
         << (opt.lanes >= 2 ? "request/response and one-way streams" : "") << "), sizes "
         << opt.minSize << " to " << opt.maxSize << " bytes, loss " << number(opt.loss)
         << ", silence ";
    if (opt.silenceEvery > 0) {
        head << number(opt.silenceFor) << " s every " << number(opt.silenceEvery) << " s";
    } else {
        head << "never";
    }
    head << ", seed " << opt.seed << ", "
         << (opt.timed ? std::to_string(opt.bitrate) + " bit/s" : "fast mode");
    std::cout << head.str() << std::endl;

    Shared shared;
    shared.listLimit = opt.listLimit;
    if (incidentsOut.is_open()) {
        shared.incidentsOut = &incidentsOut;
    }
    LogLineCounter logCounter;
    std::streambuf* savedOut = nullptr;
    std::streambuf* savedErr = nullptr;
    {
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        savedOut = std::cout.rdbuf(&logCounter);
        savedErr = std::cerr.rdbuf(&logCounter);
    }
    std::ostream out(savedOut);
    auto restore = [&] {
        std::lock_guard<std::mutex> lock(LogUtil::logMutex);
        std::cout.rdbuf(savedOut);
        std::cerr.rdbuf(savedErr);
    };

    std::vector<std::unique_ptr<Lane>> lanes;
    uint64_t hwmStart = 0, rssStart = 0, hwmEnd = 0, rssEnd = 0;
    double seconds = 0;
    bool completed = true;
    std::vector<std::string> failures;
    try {
        for (unsigned i = 0; i < opt.lanes; ++i) {
            const uint64_t share =
                opt.payloads / opt.lanes + (i < opt.payloads % opt.lanes ? 1 : 0);
            lanes.emplace_back(new Lane(opt, i, share, shared));
        }
        for (auto& lane : lanes) {
            lane->start();
        }
        hwmStart = procStatusKiB("VmHWM");
        rssStart = procStatusKiB("VmRSS");
        const auto start = Clock::now();
        std::vector<std::thread> drivers;
        std::vector<char> ok(lanes.size(), 0);
        for (size_t i = 0; i < lanes.size(); ++i) {
            drivers.emplace_back([&, i] {
                ok[i] = lanes[i]->drive() ? 1 : 0;
                if (!ok[i]) {
                    shared.abort.store(true);
                }
            });
        }
        // Progress every tenth of the payloads, with the memory at that moment.
        unsigned long long nextReport = (opt.payloads + 9) / 10;
        for (;;) {
            bool allDone = true;
            for (size_t i = 0; i < drivers.size(); ++i) {
                allDone = allDone && ok[i] != 0;
            }
            const unsigned long long handed = shared.handedOver.load();
            if (handed >= nextReport && nextReport <= opt.payloads) {
                std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                out << "progress  " << handed << " payloads handed over, "
                    << static_cast<long>(
                           std::chrono::duration<double>(Clock::now() - start).count())
                    << " s, VmRSS " << procStatusKiB("VmRSS") << " kB, VmHWM "
                    << procStatusKiB("VmHWM") << " kB" << std::endl;
                nextReport += (opt.payloads + 9) / 10;
            }
            if (shared.abort.load() || handed >= opt.payloads) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        for (auto& d : drivers) {
            d.join();
        }
        seconds = std::chrono::duration<double>(Clock::now() - start).count();
        for (size_t i = 0; i < lanes.size(); ++i) {
            if (!ok[i]) {
                completed = false;
                if (!lanes[i]->failure().empty()) {
                    failures.push_back(lanes[i]->failure());
                }
            }
        }
        hwmEnd = procStatusKiB("VmHWM");
        rssEnd = procStatusKiB("VmRSS");
        for (auto& lane : lanes) {
            lane->shutdown();
        }
    } catch (...) {
        shared.abort.store(true);
        lanes.clear();
        restore();
        throw;
    }

    Counts total;
    Counts byKind[2];  // request/response lanes, stream lanes
    uint64_t framesCarried = 0, framesLost = 0;
    for (auto& lane : lanes) {
        const Counts c = lane->counts();
        total.add(c);
        byKind[lane->requestResponse() ? 0 : 1].add(c);
        const SimulatedCanBus::Statistics s = lane->busStatistics();
        framesCarried += s.framesCarried;
        framesLost += s.framesLost;
    }
    const std::map<std::string, unsigned long> logKinds = logCounter.counts();
    lanes.clear();
    restore();

    const unsigned long long resolved =
        total.acknowledged + total.failedReported + total.failedSilently;
    std::ostringstream o;
    o << "payloads  handed over " << total.handedOver << " (" << grouped(total.bytesHandedOver)
      << " bytes): acknowledged " << total.acknowledged << ", failed "
      << total.failedReported + total.failedSilently << " (reported through the status callback "
      << total.failedReported << ", dropped without a report " << total.failedSilently
      << "), unresolved " << total.handedOver - resolved << "\n";
    for (int k = 0; k < 2; ++k) {
        const Counts& c = byKind[k];
        if (c.handedOver == 0) {
            continue;
        }
        o << (k == 0 ? "  request/response lanes: " : "  one-way stream lanes:   ")
          << "handed over " << c.handedOver << ", acknowledged " << c.acknowledged << ", failed "
          << c.failedReported + c.failedSilently << "; delivered byte-exact " << c.exact
          << ", duplicates " << c.duplicates << ", partial " << c.partial << ", corrupted "
          << c.corrupted << "\n";
    }
    o << "delivered " << total.deliveries << ": byte-exact " << total.exact << " ("
      << grouped(total.bytesExact) << " bytes), duplicates " << total.duplicates << ", partial "
      << total.partial << ", corrupted " << total.corrupted << ", unparsable " << total.unparsable
      << "\n";
    o << "checks    acknowledged but never delivered " << total.ackedNeverDelivered
      << ", failed but delivered " << total.failedButDelivered
      << ", acknowledgements with a wrong id " << total.ackIdMismatch
      << ", acknowledgements with nothing outstanding " << total.ackWithoutPayload << "\n";
    o << "bus       " << grouped(framesCarried) << " frames carried, " << grouped(framesLost)
      << " lost, " << total.silences << " silences\n";
    o << "status   ";
    for (const auto& s : total.statuses) {
        o << " " << s.first << " " << s.second << ";";
    }
    o << "\n";
    o << "log lines";
    if (logKinds.empty()) {
        o << " none";
    }
    o << "\n";
    for (const auto& k : logKinds) {
        o << "  " << std::setw(8) << k.second << "  " << k.first << "\n";
    }
    o << "memory    VmHWM " << hwmStart << " kB at the start, " << hwmEnd
      << " kB at the end; VmRSS " << rssStart << " kB at the start, " << rssEnd
      << " kB at the end\n";
    o << std::fixed << std::setprecision(1) << "time      " << seconds << " s\n";
    std::lock_guard<std::mutex> lock(shared.mutex);
    if (shared.incidentCount > 0) {
        o << "bad deliveries:\n";
        for (const std::string& summary : shared.summaries) {
            o << "  " << summary << "\n";
        }
        if (shared.incidentCount > shared.summaries.size()) {
            o << "  ... and " << shared.incidentCount - shared.summaries.size() << " more"
              << (opt.incidentsFile.empty() ? "" : " (all in " + opt.incidentsFile + ")") << "\n";
        }
    }
    if (completed && resolved != total.handedOver) {
        completed = false;
        failures.push_back("not every payload handed over was resolved");
    }
    const uint64_t growth = hwmEnd > hwmStart ? hwmEnd - hwmStart : 0;
    if (growth > opt.maxGrowthKiB) {
        completed = false;
        failures.push_back("peak resident memory grew by " + std::to_string(growth) +
                           " kB, more than the " + std::to_string(opt.maxGrowthKiB) +
                           " kB accepted");
    }
    if (completed) {
        o << "result    run completed\n";
    } else {
        o << "result    FAILED:";
        for (const std::string& f : failures) {
            o << " " << f << ";";
        }
        o << "\n";
    }
    std::cout << o.str() << std::flush;
    return completed ? 0 : 1;
}

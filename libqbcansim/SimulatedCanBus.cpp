#include "libqbcansim/SimulatedCanBus.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "libqbcansim/CanFrameTiming.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbutil/QBException.h"

namespace {

int64_t clockNs(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + static_cast<int64_t>(ts.tv_nsec);
}

sigset_t sigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
}

// The writer's system calls for the bus thread: the write and the wait for room are the
// places where stop() may end the thread (Thread::writeCancellable, Thread::waitForInput), so a
// node whose reader has stopped reading cannot keep stop() waiting.
}  // namespace

SimulatedCanBus::SimulatedCanBus() : SimulatedCanBus(Config()) {}

SimulatedCanBus::SimulatedCanBus(const Config& config) : cfg(config), faults(config.seed) {
    if (cfg.bitrate == 0) {
        throw std::invalid_argument("SimulatedCanBus: the bit rate must be above 0");
    }
    if (!(cfg.lossProbability >= 0.0 && cfg.lossProbability <= 1.0)) {
        throw std::invalid_argument("SimulatedCanBus: the loss probability must be within 0..1");
    }
}

SimulatedCanBus::~SimulatedCanBus() {
    stop();
    for (auto& node : nodes) {
        // Not retried on EINTR: on Linux the descriptor is released either way.
        ::close(node->proxyRead);
        ::close(node->proxyWrite);
    }
}

int SimulatedCanBus::addNode(int inputFd, const std::string& name) {
    if (inputFd < 0 || inputFd >= FD_SETSIZE) {
        throw std::invalid_argument("SimulatedCanBus::addNode: input descriptor " +
                                    std::to_string(inputFd) + " is not usable with select()");
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        if (started || isRunning()) {
            throw std::logic_error("SimulatedCanBus::addNode: nodes are added before start()");
        }
    }
    int fds[2];
    if (::pipe(fds) != 0) {
        QB_SYSERROR("failed to open pipe: ");
        QBException e;
        e << "SimulatedCanBus::addNode: failed to open pipe for node " << name;
        throw e;
    }
    if (fds[0] >= FD_SETSIZE) {
        ::close(fds[0]);
        ::close(fds[1]);
        throw std::invalid_argument(
            "SimulatedCanBus::addNode: the proxy pipe's descriptor is beyond select()'s range");
    }
    ::fcntl(fds[0], F_SETFL, ::fcntl(fds[0], F_GETFL) | O_NONBLOCK);
    std::unique_ptr<Node> node(new Node);
    node->name = name;
    node->inputFd = inputFd;
    node->writer.reset(new TraceMessageWriter(inputFd));
    node->proxyRead = fds[0];
    node->proxyWrite = fds[1];
    node->reader.reset(new TraceMessageBuffer(fds[0], nullptr));
    node->stats.name = name;
    nodes.push_back(std::move(node));
    return static_cast<int>(nodes.size()) - 1;
}

int SimulatedCanBus::proxyFd(int node) const {
    if (node < 0 || node >= nodeCount()) {
        throw std::out_of_range("SimulatedCanBus::proxyFd: no node " + std::to_string(node));
    }
    return nodes[static_cast<size_t>(node)]->proxyWrite;
}

bool SimulatedCanBus::writeToInput(int node, const byteVec_t& bytes) {
    if (node < 0 || node >= nodeCount()) {
        throw std::out_of_range("SimulatedCanBus::writeToInput: no node " + std::to_string(node));
    }
    Node& n = *nodes[static_cast<size_t>(node)];
    if (!n.writer->writeBytes(bytes.data(), bytes.size())) {
        QB_SYSERROR("failed to write " << bytes.size() << " bytes into the input of node " << n.name
                                       << ": ");
        return false;
    }
    return true;
}

TraceMessageWriter& SimulatedCanBus::inputWriter(int node) {
    if (node < 0 || node >= nodeCount()) {
        throw std::out_of_range("SimulatedCanBus::inputWriter: no node " + std::to_string(node));
    }
    return *nodes[static_cast<size_t>(node)]->writer;
}

void SimulatedCanBus::silence(int node, std::chrono::nanoseconds duration) {
    if (node < 0 || node >= nodeCount()) {
        throw std::out_of_range("SimulatedCanBus::silence: no node " + std::to_string(node));
    }
    const int64_t until = duration.count() > 0 ? monotonicNs() + duration.count() : 0;
    std::lock_guard<std::mutex> lock(stateMutex);
    nodes[static_cast<size_t>(node)]->silentUntilNs = until;
}

SimulatedCanBus::Statistics SimulatedCanBus::statistics() const {
    Statistics s;
    s.nodes.reserve(nodes.size());
    std::lock_guard<std::mutex> lock(stateMutex);
    for (const auto& node : nodes) {
        s.nodes.push_back(node->stats);
        s.messagesRejected += node->stats.messagesRejected;
    }
    s.framesCarried = framesCarried;
    s.bitsCarried = bitsCarried;
    s.framesLost = framesLost;
    s.busyNs = busyNs;
    s.currentSender = currentSender;
    s.framesBeingDelivered = framesBeingDelivered;
    if (started) {
        s.elapsedNs = (ended ? endNs : monotonicNs()) - startNs;
    }
    if (s.elapsedNs > 0) {
        s.loadPercent = 100.0 * static_cast<double>(s.busyNs) / static_cast<double>(s.elapsedNs);
    }
    return s;
}

void SimulatedCanBus::threadCode() {
    // Writes into an input whose reader has gone must fail with EPIPE, not end the process.
    // The signal stays pending on this thread, which is harmless and ends with it.
    const sigset_t pipeSet = sigpipeSet();
    pthread_sigmask(SIG_BLOCK, &pipeSet, nullptr);
    // A timed frame ends when select() times out; the kernel may let such a wait run up to the
    // thread's timer slack (50 us by default) late, which would stretch every frame that a node
    // answers. The bus asks to be woken on time: the smallest slack, for this thread only.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);

    // Records the end time however the body is left: by exception, or by stop(), which
    // unwinds the stack from waitForInput().
    struct EndMark {
        SimulatedCanBus* bus;
        ~EndMark() { bus->markEnded(); }
    } endMark{this};

    const int64_t t0 = monotonicNs();
    realOffsetNs = realtimeNs() - t0;
    lastEndNs = t0;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        started = true;
        startNs = t0;
    }

    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        int maxFd = -1;
        for (const auto& node : nodes) {
            if (!node->proxyClosed && node->fifo.size() < MAX_PENDING_FRAMES) {
                FD_SET(node->proxyRead, &readable);
                maxFd = std::max(maxFd, node->proxyRead);
            }
        }
        timeval timeout{};
        timeval* timeoutPtr = nullptr;  // idle: wait for input without a time limit
        if (transmitting) {
            const int64_t waitNs = std::max<int64_t>(0, current.endNs - monotonicNs());
            // Rounded up, so that the wake-up is not before the deadline.
            const int64_t waitUs = (waitNs + 999) / 1000;
            timeout.tv_sec = static_cast<time_t>(waitUs / 1000000);
            timeout.tv_usec = static_cast<suseconds_t>(waitUs % 1000000);
            timeoutPtr = &timeout;
        }
        const int ready = waitForInput(maxFd + 1, &readable, nullptr, nullptr, timeoutPtr);
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            QB_SYSERROR("select failed: ");
            throw QBException("SimulatedCanBus: select failed on the proxy descriptors");
        }
        if (ready > 0) {
            const int64_t now = monotonicNs();
            for (size_t i = 0; i < nodes.size(); ++i) {
                if (FD_ISSET(nodes[i]->proxyRead, &readable)) {
                    readNode(static_cast<int>(i), now);
                }
            }
        }
        advance(monotonicNs());
        flushDeliveries();
    }
}

void SimulatedCanBus::readNode(int index, int64_t now) {
    Node& node = *nodes[static_cast<size_t>(index)];
    const int got = node.reader->readAvailable();
    if (got == TraceMessageBuffer::END_OF_INPUT) {
        node.proxyClosed = true;
    } else if (got < 0) {
        QB_SYSERROR("failed to read the proxy pipe of node " << node.name << ": ");
    }
    bool silent;
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        silent = isSilent(node, now);
    }
    uint64_t accepted = 0;
    uint64_t dropped = 0;
    uint64_t rejected = 0;
    for (;;) {
        std::unique_ptr<MessageBase> msg;
        try {
            msg.reset(node.reader->getNextMessage());
        } catch (const std::exception& e) {
            ++rejected;
            QB_ERROR("node " << node.name << ": dropped unreadable bytes: " << e.what());
            continue;
        }
        if (!msg) {
            break;
        }
        const CANTraceMessageBase* can = msg->canFrame();
        if (msg->getMessageId() != MSGID_CAN_EXT || can == nullptr) {
            ++rejected;
            QB_ERROR("node " << node.name << ": dropped trace message with identifier 0x"
                             << std::hex << msg->getMessageId() << std::dec
                             << ": not a CAN frame (CANExtTraceMessage)");
            continue;
        }
        const cantype_t type = can->getCanType();
        if (type != CT_STANDARD && type != CT_EXTENDED) {
            ++rejected;
            QB_ERROR("node " << node.name << ": dropped CAN FD frame id 0x" << std::hex
                             << can->getCanId() << std::dec << ": not a classic CAN frame");
            continue;
        }
        if (can->getNumberOfDataBytes() > CanFrameTiming::MAX_DATA_BYTES) {
            ++rejected;
            QB_ERROR("node " << node.name << ": dropped frame id 0x" << std::hex << can->getCanId()
                             << std::dec << " with "
                             << static_cast<unsigned>(can->getNumberOfDataBytes())
                             << " data bytes: a classic CAN frame has at most 8");
            continue;
        }
        ++accepted;
        if (silent) {
            ++dropped;
            continue;
        }
        Frame f{};
        f.id = can->getCanId();
        f.extended = type == CT_EXTENDED;
        f.channel = can->getChannel();
        f.length = can->getNumberOfDataBytes();
        std::copy(can->getData(), can->getData() + f.length, f.data);
        f.bits = CanFrameTiming::frameBits(f.id, f.extended, f.data, f.length);
        f.readNs = now;
        node.fifo.push_back(f);
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    node.stats.framesAccepted += accepted;
    node.stats.framesDropped += dropped;
    node.stats.messagesRejected += rejected;
    node.stats.framesPending = node.fifo.size();
}

void SimulatedCanBus::advance(int64_t now) {
    for (;;) {
        if (transmitting) {
            if (cfg.timed && now < current.endNs) {
                return;
            }
            finish(current, now);
            lastEndNs = current.endNs;
            transmitting = false;
        }
        if (!startNext(now)) {
            return;
        }
        now = monotonicNs();
    }
}

bool SimulatedCanBus::startNext(int64_t now) {
    // Frames of silent nodes do not enter arbitration.
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        for (auto& node : nodes) {
            if (!node->fifo.empty() && isSilent(*node, now)) {
                node->stats.framesDropped += node->fifo.size();
                node->fifo.clear();
                node->stats.framesPending = 0;
            }
        }
    }
    bool any = false;
    int64_t earliest = 0;
    for (const auto& node : nodes) {
        if (!node->fifo.empty() && (!any || node->fifo.front().readNs < earliest)) {
            earliest = node->fifo.front().readNs;
            any = true;
        }
    }
    if (!any) {
        return false;
    }
    // On a busy bus the next frame starts when the previous one ended; on an idle bus when the
    // first waiting frame was read. Only frames that were waiting by then take part.
    const int64_t start = cfg.timed ? std::max(lastEndNs, earliest) : now;
    int best = -1;
    uint64_t bestKey = 0;
    for (size_t i = 0; i < nodes.size(); ++i) {
        const auto& fifo = nodes[i]->fifo;
        if (fifo.empty() || (cfg.timed && fifo.front().readNs > start)) {
            continue;
        }
        const uint64_t key = arbitrationKey(fifo.front());
        if (best < 0 || key < bestKey) {
            best = static_cast<int>(i);
            bestKey = key;
        }
    }
    Node& sender = *nodes[static_cast<size_t>(best)];
    current.frame = sender.fifo.front();
    sender.fifo.pop_front();
    current.sender = best;
    current.startNs = start;
    current.endNs =
        start + (cfg.timed ? CanFrameTiming::frameTimeNs(current.frame.bits, cfg.bitrate) : 0);
    transmitting = true;
    std::lock_guard<std::mutex> lock(stateMutex);
    sender.stats.framesPending = sender.fifo.size();
    currentSender = best;
    return true;
}

void SimulatedCanBus::finish(const Transmission& tx, int64_t now) {
    const Frame& f = tx.frame;
    // One draw per frame on the bus, in transmission order, whatever the probability: equal
    // seeds and equal traffic give equal losses.
    const uint64_t draw = faults();
    const double uniform = static_cast<double>(draw >> 11) * (1.0 / 9007199254740992.0);
    const bool lost = uniform < cfg.lossProbability;

    if (cfg.debugLevel > 0) {
        CandumpLine text;
        text.canId = f.id;
        text.extended = f.extended;
        text.length = f.length;
        std::copy(f.data, f.data + f.length, text.data.begin());
        QB_DEBUG(true, "node " << nodes[static_cast<size_t>(tx.sender)]->name << " frame "
                               << text.frameText() << " " << f.bits << " bits"
                               << (lost ? " lost" : ""));
    }

    if (cfg.tap != nullptr || cfg.pcapTap != nullptr) {
        writeTap(f, cfg.timed ? tx.endNs + realOffsetNs : realtimeNs());
    }

    // What happened to the frame at each node: it is filled here without the lock and counted
    // below under it. Kept as a member so that a frame costs no allocation.
    outcome.assign(nodes.size(), OUTCOME_NONE);
    if (!lost) {
        {
            std::lock_guard<std::mutex> lock(stateMutex);
            for (size_t i = 0; i < nodes.size(); ++i) {
                if (isSilent(*nodes[i], now)) {
                    outcome[i] = OUTCOME_MISSED;
                }
            }
        }
        const CANExtTraceMessage msg(0, f.channel, CF_STANDARD, CSE_NO,
                                     f.extended ? CT_EXTENDED : CT_STANDARD, f.length, f.id,
                                     f.data);
        msg.createByteArray(frameBytes, true, false);
        if (!cfg.timed) {
            // A batch stays within one atomic pipe write, so a receiver that stops reading
            // holds up at most one batch of frames that are not yet counted.
            bool full = false;
            for (const auto& node : nodes) {
                full = full || node->batch.size() + frameBytes.size() > DELIVERY_BATCH_LIMIT;
            }
            if (full) {
                flushDeliveries();
            }
        }
        for (size_t i = 0; i < nodes.size(); ++i) {
            if (static_cast<int>(i) == tx.sender || outcome[i] == OUTCOME_MISSED) {
                continue;
            }
            Node& node = *nodes[i];
            if (cfg.timed) {
                outcome[i] = deliver(node, frameBytes) ? OUTCOME_RECEIVED : OUTCOME_FAILED;
            } else if (node.inputFailed) {
                outcome[i] = OUTCOME_FAILED;
            } else {
                node.batch.insert(node.batch.end(), frameBytes.begin(), frameBytes.end());
                ++node.batchFrames;
                outcome[i] = OUTCOME_RECEIVED;
            }
        }
    }

    if (!cfg.timed) {
        // Counted when the gathered frames have been written (flushDeliveries()).
        finished.push_back(Finished{tx.sender, f.bits, lost});
        finishedOutcomes.insert(finishedOutcomes.end(), outcome.begin(), outcome.end());
        std::lock_guard<std::mutex> lock(stateMutex);
        currentSender = -1;
        framesBeingDelivered = finished.size();
        return;
    }

    std::lock_guard<std::mutex> lock(stateMutex);
    countFrame(tx.sender, f.bits, lost, outcome.data());
    currentSender = -1;
}

void SimulatedCanBus::flushDeliveries() {
    if (finished.empty()) {
        return;
    }
    const size_t count = nodes.size();
    for (size_t i = 0; i < count; ++i) {
        Node& node = *nodes[i];
        if (node.batchFrames == 0) {
            continue;
        }
        if (!deliver(node, node.batch)) {
            // Every frame of the batch failed for this node.
            for (size_t k = 0; k < finished.size(); ++k) {
                uint8_t& o = finishedOutcomes[k * count + i];
                if (o == OUTCOME_RECEIVED) {
                    o = OUTCOME_FAILED;
                }
            }
        }
        node.batch.clear();
        node.batchFrames = 0;
    }
    std::lock_guard<std::mutex> lock(stateMutex);
    for (size_t k = 0; k < finished.size(); ++k) {
        countFrame(finished[k].sender, finished[k].bits, finished[k].lost,
                   finishedOutcomes.data() + k * count);
    }
    framesBeingDelivered = 0;
    finished.clear();
    finishedOutcomes.clear();
}

void SimulatedCanBus::countFrame(int sender, uint32_t bits, bool lost, const uint8_t* outcomes) {
    NodeStatistics& s = nodes[static_cast<size_t>(sender)]->stats;
    ++s.framesSent;
    s.bitsSent += bits;
    ++framesCarried;
    bitsCarried += bits;
    busyNs += CanFrameTiming::frameTimeNs(bits, cfg.bitrate);
    if (lost) {
        ++framesLost;
    }
    for (size_t i = 0; i < nodes.size(); ++i) {
        NodeStatistics& r = nodes[i]->stats;
        switch (outcomes[i]) {
            case OUTCOME_RECEIVED:
                ++r.framesReceived;
                break;
            case OUTCOME_MISSED:
                if (static_cast<int>(i) != sender) {
                    ++r.framesMissed;
                }
                break;
            case OUTCOME_FAILED:
                ++r.deliveryFailures;
                break;
            default:
                break;
        }
    }
}

void SimulatedCanBus::writeTap(const Frame& f, int64_t realNs) {
    const int64_t sec = realNs / 1000000000;
    const uint32_t usec = static_cast<uint32_t>((realNs % 1000000000) / 1000);
    if (cfg.pcapTap != nullptr) {
        cfg.pcapTap->write(sec, usec, f.id, f.extended, f.data, f.length);
        cfg.pcapTap->flush();
    }
    if (cfg.tap == nullptr) {
        return;
    }
    const std::string line =
        CandumpLine::format(sec, usec, cfg.tapInterface, f.id, f.extended, f.data, f.length);
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    *cfg.tap << line << '\n' << std::flush;
}

int SimulatedCanBus::waitWritable(int fd) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    return waitForInput(fd + 1, nullptr, &writable, nullptr, nullptr);
}

bool SimulatedCanBus::deliver(Node& node, const byteVec_t& bytes) {
    if (node.inputFailed) {
        return false;
    }
    static const TraceMessageWriter::SystemCalls stoppable{&Thread::writeCancellable,
                                                           &SimulatedCanBus::waitWritable};
    if (!node.writer->writeBytes(bytes.data(), bytes.size(), stoppable)) {
        node.inputFailed = true;
        QB_SYSERROR("failed to write a frame into the input of node "
                    << node.name << ", no more frames go to it: ");
        return false;
    }
    return true;
}

bool SimulatedCanBus::isSilent(const Node& node, int64_t now) const {
    return now < node.silentUntilNs;
}

void SimulatedCanBus::markEnded() {
    std::lock_guard<std::mutex> lock(stateMutex);
    ended = true;
    endNs = monotonicNs();
    currentSender = -1;
}

uint64_t SimulatedCanBus::arbitrationKey(const Frame& f) {
    // The arbitration field as it goes on the wire, most significant bit first: identifier A
    // (11 bits), then RTR of a standard frame (dominant, 0) or SRR of an extended one
    // (recessive, 1), then identifier B (18 bits; none for a standard frame). IDE is not
    // needed: SRR and RTR already differ where the formats meet.
    if (f.extended) {
        return (static_cast<uint64_t>(f.id >> 18) << 19) | (1u << 18) | (f.id & 0x3FFFFu);
    }
    return static_cast<uint64_t>(f.id) << 19;
}

int64_t SimulatedCanBus::monotonicNs() {
    return clockNs(CLOCK_MONOTONIC);
}

int64_t SimulatedCanBus::realtimeNs() {
    return clockNs(CLOCK_REALTIME);
}

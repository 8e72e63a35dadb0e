#include "can/EndToEndWiring.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <stdexcept>

#include "can/TransportHarness.h"
#include "common/Wait.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

namespace qbtest {

namespace {

// Poll time-out of the helper threads once stopping has begun (the stop pipe is then readable
// for good and no longer polled).
const int STOPPING_POLL_MS = 20;

void setNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags == -1 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1) {
        throw std::runtime_error("fcntl(O_NONBLOCK) failed");
    }
}

}  // namespace

constexpr uint16_t EndToEndWiring::SEND_ID[2];

EndToEndWiring::EndToEndWiring(int debugLevel)
    : inputFD{-1, -1},
      outputFD{-1, -1},
      recordFrames(false),
      unexpected(0),
      writeFailures(0),
      lastFrameTime(0.0),
      startTime(monotonicSeconds()),
      holding(false),
      stopping(false),
      exiting(false),
      started(false),
      stopped(false) {
    for (Side side : {A, B}) {
        endpoints[side].reset(new CANTransportThread(debugLevel));
        CANTransportThread& ep = *endpoints[side];
        ep.setSendCANid(SEND_ID[side]);
        CANTransportThread::delstatus_t callback = [this, side](
                                                       CANTransportThread::statuschange_t status,
                                                       uint16_t id) { onStatus(side, status, id); };
        ep.setDelegate(callback);
        ep.setDebugLevel(debugLevel);
        ep.open(outputFD[side], inputFD[side]);
        setNonBlocking(inputFD[side]);
        ep.setConnection(proxy[side].writeEnd());
    }
}

EndToEndWiring::~EndToEndWiring() {
    stop();
}

void EndToEndWiring::setDeliveryHandler(Side side, deliveryHandler_t handler) {
    handlers[side] = std::move(handler);
}

void EndToEndWiring::start(bool holdFrames) {
    holding = holdFrames;
    startTime = monotonicSeconds();
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        lastFrameTime = 0.0;
    }
    started = true;
    forwarder = std::thread([this] { forwarderLoop(); });
    readers[A] = std::thread([this] { readerLoop(A); });
    readers[B] = std::thread([this] { readerLoop(B); });
    endpoints[A]->start();
    endpoints[B]->start();
}

void EndToEndWiring::releaseFrames() {
    holding = false;
    const char byte = 'r';
    (void)!::write(releaseSignal.writeEnd(), &byte, 1);
}

void EndToEndWiring::stop() {
    if (!started || stopped) {
        return;
    }
    stopped = true;
    // From here on, writers into the inputs give up, and the forwarder and the readers keep
    // draining (without forwarding) so that no endpoint stays blocked in a write.
    stopping = true;
    const char byte = 's';
    (void)!::write(stopSignal.writeEnd(), &byte, 1);
    endpoints[A]->stop();
    endpoints[B]->stop();
    exiting = true;
    forwarder.join();
    readers[A].join();
    readers[B].join();
}

bool EndToEndWiring::submit(Side side, const byteVec_t& payload) {
    return writeInput(side, payloadMessage(payload));
}

bool EndToEndWiring::submitAll(Side side, const std::vector<byteVec_t>& payloads) {
    byteVec_t bytes;
    for (const byteVec_t& payload : payloads) {
        const byteVec_t one = payloadMessage(payload);
        bytes.insert(bytes.end(), one.begin(), one.end());
    }
    return writeInput(side, bytes);
}

bool EndToEndWiring::writeInput(Side side, const byteVec_t& bytes) {
    std::lock_guard<std::mutex> lock(inputMutex[side]);
    if (stopping) {
        return false;
    }
    // The wait for room in the input ends with the stop signal as well: the write is then given
    // up, which is not a failure.
    const bool written = writeAll(inputFD[side], bytes, [&] {
        pollfd fds[2] = {{inputFD[side], POLLOUT, 0}, {stopSignal.readEnd(), POLLIN, 0}};
        const bool failed = ::poll(fds, 2, -1) < 0 && errno != EINTR;
        return !failed && fds[1].revents == 0;
    });
    if (written || stopping) {
        return written;
    }
    std::lock_guard<std::mutex> dataLock(dataMutex);
    ++writeFailures;
    return false;
}

void EndToEndWiring::forwarderLoop() {
    TraceMessageBuffer fromA(proxy[A].readEnd(), nullptr);
    TraceMessageBuffer fromB(proxy[B].readEnd(), nullptr);
    TraceMessageBuffer* buffers[2] = {&fromA, &fromB};
    while (!exiting) {
        pollfd fds[4];
        nfds_t count = 0;
        int proxyIndex[2] = {-1, -1};
        int releaseIndex = -1;
        if (holding) {
            releaseIndex = static_cast<int>(count);
            fds[count++] = {releaseSignal.readEnd(), POLLIN, 0};
        } else {
            for (Side side : {A, B}) {
                proxyIndex[side] = static_cast<int>(count);
                fds[count++] = {proxy[side].readEnd(), POLLIN, 0};
            }
        }
        if (!stopping) {
            fds[count++] = {stopSignal.readEnd(), POLLIN, 0};
        }
        const int n = ::poll(fds, count, stopping ? STOPPING_POLL_MS : -1);
        if (n <= 0) {
            continue;
        }
        if (releaseIndex >= 0 && fds[releaseIndex].revents != 0) {
            char byte;
            (void)!::read(releaseSignal.readEnd(), &byte, 1);
        }
        for (Side side : {A, B}) {
            if (proxyIndex[side] < 0 || fds[proxyIndex[side]].revents == 0) {
                continue;
            }
            if (!readMore(*buffers[side])) {
                return;  // end of input or a read failure: nothing more comes from this pipe
            }
            while (std::unique_ptr<MessageBase> msg = nextMessage(*buffers[side])) {
                const auto* frame = dynamic_cast<const CANTraceMessageBase*>(msg.get());
                if (frame == nullptr || msg->getMessageId() != MSGID_CAN_EXT) {
                    countUnexpected();
                    continue;
                }
                Frame f{frame->getCanId(), frame->getNumberOfDataBytes(), {}};
                const uint8_t* data = frame->getData();
                for (size_t i = 0; i < f.data.size() && i < f.length; ++i) {
                    f.data[i] = data[i];
                }
                {
                    std::lock_guard<std::mutex> lock(dataMutex);
                    FrameCounts& c = counts[side];
                    ++c.total;
                    if (f.id != SEND_ID[side] || f.length != 8) {
                        ++c.wrongShape;
                    }
                    const uint8_t pci = f.data[0];
                    const uint8_t kind = pci >> 4;
                    if (pci == 0x00 || kind >= 4) {
                        ++c.other;
                    } else if (kind == 0) {
                        ++c.single;
                    } else if (kind == 1) {
                        ++c.first;
                    } else if (kind == 2) {
                        ++c.consecutive;
                    } else {
                        ++c.flowControl[pci & 0x0F];
                    }
                    if (recordFrames) {
                        frameLog[side].push_back(f);
                    }
                    lastFrameTime = now();
                }
                if (stopping) {
                    continue;
                }
                const CANExtTraceMessage copy(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, f.length,
                                              f.id, f.data.data());
                byteVec_t bytes;
                copy.createByteArray(bytes, true, false);
                writeInput(other(side), bytes);
            }
        }
    }
}

void EndToEndWiring::readerLoop(Side side) {
    TraceMessageBuffer buffer(outputFD[side], nullptr);
    while (!exiting) {
        pollfd fds[2] = {{outputFD[side], POLLIN, 0}, {stopSignal.readEnd(), POLLIN, 0}};
        const nfds_t count = stopping ? 1 : 2;
        const int n = ::poll(fds, count, stopping ? STOPPING_POLL_MS : -1);
        if (n <= 0 || fds[0].revents == 0) {
            continue;
        }
        if (!readMore(buffer)) {
            return;
        }
        while (std::unique_ptr<MessageBase> msg = nextMessage(buffer)) {
            const auto* payload = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
            if (payload == nullptr) {
                countUnexpected();
                continue;
            }
            size_t index;
            {
                std::lock_guard<std::mutex> lock(dataMutex);
                index = delivered[side].size();
                delivered[side].push_back(
                    {payload->getPayload(), payload->getCanId(), payload->getCanType(), now()});
            }
            dataChanged.notify_all();
            if (handlers[side] && !stopping) {
                handlers[side](index, payload->getPayload());
            }
        }
    }
}

bool EndToEndWiring::readMore(TraceMessageBuffer& buffer) {
    if (buffer.read() >= 0) {
        return true;
    }
    countUnexpected();
    return false;
}

std::unique_ptr<MessageBase> EndToEndWiring::nextMessage(TraceMessageBuffer& buffer) {
    for (;;) {
        try {
            return std::unique_ptr<MessageBase>(buffer.getNextMessage());
        } catch (const QBException&) {
            countUnexpected();
        }
    }
}

void EndToEndWiring::countUnexpected() {
    std::lock_guard<std::mutex> lock(dataMutex);
    ++unexpected;
}

void EndToEndWiring::onStatus(Side side, CANTransportThread::statuschange_t status, uint16_t id) {
    {
        std::lock_guard<std::mutex> lock(dataMutex);
        statusEvents[side].push_back({status, id, now()});
    }
    dataChanged.notify_all();
}

std::vector<EndToEndWiring::Delivery> EndToEndWiring::deliveries(Side side) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return delivered[side];
}

size_t EndToEndWiring::deliveryCount(Side side) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return delivered[side].size();
}

std::vector<EndToEndWiring::StatusEvent> EndToEndWiring::statuses(Side side) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return statusEvents[side];
}

size_t EndToEndWiring::statusCount(Side side, CANTransportThread::statuschange_t status) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    size_t n = 0;
    for (const StatusEvent& e : statusEvents[side]) {
        n += e.status == status ? 1 : 0;
    }
    return n;
}

EndToEndWiring::FrameCounts EndToEndWiring::frameCounts(Side from) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return counts[from];
}

std::vector<EndToEndWiring::Frame> EndToEndWiring::frames(Side from) const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return frameLog[from];
}

size_t EndToEndWiring::unexpectedInput() const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return unexpected;
}

size_t EndToEndWiring::failedWrites() const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return writeFailures;
}

double EndToEndWiring::secondsSinceLastFrame() const {
    std::lock_guard<std::mutex> lock(dataMutex);
    return now() - lastFrameTime;
}

double EndToEndWiring::now() const {
    return monotonicSeconds() - startTime;
}

template <typename Predicate>
bool EndToEndWiring::waitFor(Predicate predicate, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(dataMutex);
    return dataChanged.wait_for(lock, timeout, predicate);
}

bool EndToEndWiring::waitForDeliveries(Side side, size_t n,
                                       std::chrono::milliseconds timeout) const {
    return waitFor([&] { return delivered[side].size() >= n; }, timeout);
}

bool EndToEndWiring::waitForStatus(Side side, CANTransportThread::statuschange_t status, size_t n,
                                   std::chrono::milliseconds timeout) const {
    return waitFor(
        [&] {
            size_t seen = 0;
            for (const StatusEvent& e : statusEvents[side]) {
                seen += e.status == status ? 1 : 0;
            }
            return seen >= n;
        },
        timeout);
}

}  // namespace qbtest

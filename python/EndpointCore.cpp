#include "python/EndpointCore.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbutil/QBException.h"

namespace {

double wallClockNow() {
    timeval now;
    ::gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        // Not retried on EINTR: on Linux the descriptor is released either way.
        ::close(fd);
        fd = -1;
    }
}

/// The wake pipe of the EndpointCore whose writer the calling thread is in.
thread_local int currentWakeFd = -1;

/// poll(POLLOUT) on the endpoint's input that close() can end: the wake pipe turns readable at
/// close(), and the wait then fails with ECANCELED.
int waitWritableOrWoken(int fd) {
    for (;;) {
        pollfd fds[2] = {{fd, POLLOUT, 0}, {currentWakeFd, POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0) {
            return -1;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            errno = ECANCELED;
            return -1;
        }
        if ((fds[0].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
            return 0;
        }
    }
}

ssize_t plainWrite(int fd, const void* data, size_t size) {
    return ::write(fd, data, size);
}

const TraceMessageWriter::SystemCalls wakeableCalls{plainWrite, waitWritableOrWoken};

/// Writes through the shared writer with a wait for room that close() can end.
bool writeWakeable(TraceMessageWriter& writer, const MessageBase& msg, int wakeFd) {
    currentWakeFd = wakeFd;
    const bool ok = writer.write(msg, wakeableCalls);
    currentWakeFd = -1;
    return ok;
}

void makePipe(int fds[2], const char* what) {
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        throw QBException(std::string("pipe() for the ") + what +
                          " failed: " + std::strerror(errno));
    }
}

void addFlags(int fd, int flags) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | flags);
}

}  // namespace

/// Counts one call in progress for the time of a scope.
struct EndpointCore::CallScope {
    explicit CallScope(EndpointCore& core) : core(core), entered(core.enter()) {}
    ~CallScope() {
        if (entered) {
            core.leave();
        }
    }
    EndpointCore& core;
    const bool entered;
};

EndpointCore::EndpointCore(uint16_t txId, int debug, size_t statusQueueLimit)
    : tracker([this] { return transport->sendQueueEmpty(); }),
      appEvents(statusQueueLimit, true),
      callbackEvents(statusQueueLimit, false) {
    setUp(txId, debug, nullptr, nullptr);
}

EndpointCore::EndpointCore(uint16_t txId, int debug, size_t statusQueueLimit,
                           const std::string& interfaceName, const std::vector<uint32_t>& peers)
    : tracker([this] { return transport->sendQueueEmpty(); }),
      appEvents(statusQueueLimit, true),
      callbackEvents(statusQueueLimit, false) {
    setUp(txId, debug, &interfaceName, &peers);
}

void EndpointCore::setUp(uint16_t txId, int debug, const std::string* interfaceName,
                         const std::vector<uint32_t>* peers) {
    try {
        makePipe(wakePipe, "wake-up");
        transport.reset(new CANTransportThread(debug));
        transport->setSendCANid(txId);
        CANTransportThread::delstatus_t onStatus = [this](CANTransportThread::statuschange_t st,
                                                          uint16_t arg) {
            this->onStatus(st, arg);
        };
        transport->setDelegate(onStatus);
        transport->open(appReadFd, appWriteFd);
        // Writes into the input wait for room in poll() (TraceMessageWriter waits out EAGAIN)
        // rather than in write(), so that close() can end the wait.
        addFlags(appWriteFd, O_NONBLOCK);
        addFlags(appReadFd, O_NONBLOCK);
        writer.reset(new TraceMessageWriter(appWriteFd));
        payloadReader.reset(new TraceMessageBuffer(appReadFd, nullptr));
        if (interfaceName != nullptr) {
            CanRawSocket::Options options;
            for (uint32_t id : *peers) {
                CanRawSocket::Identifier peer;
                peer.id = id;
                peer.extended = false;
                options.peers.push_back(peer);
            }
            socketCan.reset(
                new SocketCanProxy(CanRawSocket::open(*interfaceName, options), *writer, 0));
            transport->setConnection(socketCan->proxyFd());
            socketCan->start();
        } else {
            makePipe(proxyPipe, "CAN proxy");
            addFlags(proxyPipe[0], O_NONBLOCK);
            frameReader.reset(new TraceMessageBuffer(proxyPipe[0], nullptr));
            transport->setConnection(proxyPipe[1]);
        }
        transport->start();
        tracker.start();
    } catch (...) {
        tracker.close();
        if (socketCan) {
            socketCan->stop();
        }
        if (transport) {
            transport->stop();
        }
        socketCan.reset();
        writer.reset();
        payloadReader.reset();
        frameReader.reset();
        transport.reset();
        closeIfOpen(proxyPipe[0]);
        closeIfOpen(proxyPipe[1]);
        closeIfOpen(wakePipe[0]);
        closeIfOpen(wakePipe[1]);
        throw;
    }
}

EndpointCore::~EndpointCore() {
    close();
}

bool EndpointCore::enter() {
    std::lock_guard<std::mutex> guard(callsLock);
    if (isClosed.load()) {
        return false;
    }
    ++callsInProgress;
    return true;
}

void EndpointCore::leave() {
    std::lock_guard<std::mutex> guard(callsLock);
    if (--callsInProgress == 0) {
        callsDone.notify_all();
    }
}

void EndpointCore::onStatus(CANTransportThread::statuschange_t status, uint16_t arg) {
    // On the transport thread: queue, settle, return. Never Python, never a wait. The event is
    // queued before the send it ends is settled, so that a send() that has returned always finds
    // its report already in the status queue.
    const StatusQueue::Event event{static_cast<int>(status), arg, wallClockNow()};
    appEvents.push(event);
    callbackEvents.push(event);
    if (status == CANTransportThread::CTT_ACKNOWLEDGED) {
        tracker.onAcknowledged();
    } else if (status == CANTransportThread::CTT_SEND_TIMEOUT) {
        tracker.onGiveUp(SendTracker::SEND_TIMEOUT);
    } else if (status == CANTransportThread::CTT_DISCONNECTED) {
        tracker.onGiveUp(SendTracker::DISCONNECTED);
    }
}

uint64_t EndpointCore::submit(const uint8_t* data, size_t size) {
    CallScope scope(*this);
    if (!scope.entered) {
        throw QBException("the endpoint is closed");
    }
    CANTransportTraceMessage msg(0, 0, data, data + size, CT_STANDARD);
    std::lock_guard<std::mutex> order(submitLock);
    const uint64_t ticket = tracker.add(true);
    if (!writeWakeable(*writer, msg, wakePipe[0])) {
        const int saved = errno;
        tracker.abandon(ticket);
        if (isClosed.load()) {
            throw QBException("the endpoint is closed");
        }
        throw QBException(std::string("writing the payload into the endpoint failed: ") +
                          std::strerror(saved));
    }
    tracker.written(ticket);
    return ticket;
}

SendTracker::Outcome EndpointCore::waitSent(uint64_t ticket, int sliceMs) {
    // The tracker outlives close() and answers CLOSED then; no call scope is needed.
    return tracker.wait(ticket, sliceMs);
}

bool EndpointCore::waitReadable(int fd, int sliceMs) {
    pollfd fds[2] = {{fd, POLLIN, 0}, {wakePipe[0], POLLIN, 0}};
    const int n = ::poll(fds, 2, sliceMs);
    return n > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

EndpointCore::Wait EndpointCore::recv(Payload& out, int sliceMs) {
    CallScope scope(*this);
    if (!scope.entered) {
        return Wait::CLOSED;
    }
    std::lock_guard<std::mutex> one(recvLock);
    bool waited = false;
    for (;;) {
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(payloadReader->getNextMessage());
            } catch (const QBException&) {
                continue;  // cannot come from the endpoint; the bad bytes are dropped
            }
            if (!msg) {
                break;
            }
            const auto* payload = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
            if (payload != nullptr) {
                out.canId = payload->getCanId();
                out.data = payload->getPayload();
                return Wait::READY;
            }
        }
        if (isClosed.load()) {
            return Wait::CLOSED;
        }
        if (payloadReader->read() > 0) {
            continue;  // parse what came before waiting
        }
        if (waited) {
            return Wait::NOTHING;
        }
        waited = true;
        if (!waitReadable(appReadFd, sliceMs)) {
            return isClosed.load() ? Wait::CLOSED : Wait::NOTHING;
        }
    }
}

EndpointCore::Wait EndpointCore::takeFrames(std::vector<Frame>& out, int sliceMs) {
    CallScope scope(*this);
    if (!scope.entered) {
        return Wait::CLOSED;
    }
    if (!frameReader) {
        return Wait::CLOSED;  // the SocketCAN proxy carries the frames
    }
    std::lock_guard<std::mutex> one(framesLock);
    const size_t before = out.size();
    bool waited = false;
    for (;;) {
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(frameReader->getNextMessage());
            } catch (const QBException&) {
                continue;
            }
            if (!msg) {
                break;
            }
            const auto* frame = dynamic_cast<const CANTraceMessageBase*>(msg.get());
            if (frame != nullptr) {
                const uint8_t n = std::min<uint8_t>(frame->getNumberOfDataBytes(), 8);
                out.push_back(Frame{frame->getCanId(),
                                    std::vector<uint8_t>(frame->getData(), frame->getData() + n)});
            }
        }
        if (out.size() > before) {
            return Wait::READY;
        }
        if (isClosed.load()) {
            return Wait::CLOSED;
        }
        if (frameReader->read() > 0) {
            continue;
        }
        if (waited) {
            return Wait::NOTHING;
        }
        waited = true;
        if (!waitReadable(proxyPipe[0], sliceMs)) {
            return isClosed.load() ? Wait::CLOSED : Wait::NOTHING;
        }
    }
}

bool EndpointCore::feedFrame(uint32_t id, bool extended, const uint8_t* data, size_t size,
                             uint64_t timeStampUs) {
    CallScope scope(*this);
    if (!scope.entered) {
        errno = EBADF;
        return false;
    }
    CANExtTraceMessage msg(timeStampUs, 0, CF_STANDARD, CSE_NO,
                           extended ? CT_EXTENDED : CT_STANDARD,
                           static_cast<uint8_t>(size > 8 ? 8 : size), id, data);
    return writeWakeable(*writer, msg, wakePipe[0]);
}

EndpointCore::Wait EndpointCore::nextStatus(StatusQueue::Event& out, bool forCallback,
                                            int sliceMs) {
    StatusQueue& queue = forCallback ? callbackEvents : appEvents;
    if (queue.pop(out, sliceMs)) {
        return Wait::READY;
    }
    return queue.isClosed() ? Wait::CLOSED : Wait::NOTHING;
}

uint64_t EndpointCore::droppedStatusEvents(bool forCallback) const {
    return forCallback ? callbackEvents.dropped() : appEvents.dropped();
}

void EndpointCore::clear(bool all) {
    CallScope scope(*this);
    if (!scope.entered) {
        return;
    }
    tracker.clear(all, [this, all] { transport->clear(all); });
}

bool EndpointCore::sendQueueEmpty() {
    CallScope scope(*this);
    if (!scope.entered) {
        return true;
    }
    return transport->sendQueueEmpty();
}

void EndpointCore::setDebugLevel(int level) {
    CallScope scope(*this);
    if (scope.entered) {
        transport->setDebugLevel(level);
    }
}

bool EndpointCore::running() {
    CallScope scope(*this);
    return scope.entered && transport->isRunning();
}

std::string EndpointCore::exitReason() {
    CallScope scope(*this);
    if (!scope.entered) {
        std::lock_guard<std::mutex> guard(closeLock);
        return finalExitReason;
    }
    return transport->isRunning() ? std::string() : transport->exitReason();
}

void EndpointCore::close() {
    std::lock_guard<std::mutex> once(closeLock);
    {
        std::lock_guard<std::mutex> guard(callsLock);
        if (isClosed.load()) {
            return;
        }
        isClosed.store(true);
    }
    // Wake every wait: the pipe for poll() (readers, and writers waiting for room in the input,
    // which nobody reads once the transport has stopped), the queues and the tracker for the
    // others.
    const char byte = 'x';
    (void)!::write(wakePipe[1], &byte, 1);
    appEvents.close();
    callbackEvents.close();
    // The watcher calls sendQueueEmpty(): it stops before the transport goes.
    tracker.close();
    const bool endedByItself = !transport->isRunning();
    if (endedByItself) {
        finalExitReason = transport->exitReason();
    }
    if (socketCan) {
        socketCan->stop();  // before the endpoint: it writes into the endpoint's input
    }
    transport->stop();
    {
        std::unique_lock<std::mutex> guard(callsLock);
        callsDone.wait(guard, [this] { return callsInProgress == 0; });
    }
    socketCan.reset();  // closes its pipe and the socket; it uses the writer
    writer.reset();
    payloadReader.reset();
    frameReader.reset();
    transport.reset();  // closes the endpoint's four pipe ends
    appReadFd = -1;
    appWriteFd = -1;
    closeIfOpen(proxyPipe[0]);
    closeIfOpen(proxyPipe[1]);
    closeIfOpen(wakePipe[0]);
    closeIfOpen(wakePipe[1]);
}

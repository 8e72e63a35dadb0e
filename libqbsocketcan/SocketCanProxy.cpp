#include "libqbsocketcan/SocketCanProxy.h"

#include <fcntl.h>
#include <linux/can.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <memory>
#include <utility>

#include "libqbio/LogUtil.h"
#include "libqbsocketcan/CanErrorFrame.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbutil/QBException.h"

namespace {

ssize_t plainWrite(int fd, const void* data, size_t size) {
    return ::write(fd, data, size);
}

ssize_t plainRecvmsg(int fd, msghdr* msg, int flags) {
    return ::recvmsg(fd, msg, flags);
}

int64_t clockNs(clockid_t clock) {
    timespec ts{};
    ::clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + static_cast<int64_t>(ts.tv_nsec);
}

bool isInterfaceGone(int err) {
    return err == ENETDOWN || err == ENODEV || err == ENXIO;
}

// Most frames read from the socket per wake-up before the endpoint's side gets its turn.
constexpr int RECEIVE_BATCH = 64;

// How often the same error-frame text may be logged: once a second.
constexpr int64_t ERROR_LINE_INTERVAL_NS = 1000000000;

}  // namespace

SocketCanProxy::SocketCanProxy(CanRawSocket socketIn, TraceMessageWriter& endpointInput,
                               int debugLevel)
    : socket(std::move(socketIn)),
      input(endpointInput),
      debug(debugLevel),
      calls{&plainWrite, &plainRecvmsg} {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        QB_SYSERROR("failed to open pipe: ");
        throw QBException("SocketCanProxy: failed to open the proxy pipe");
    }
    if (fds[0] >= FD_SETSIZE || socket.fd() >= FD_SETSIZE) {
        ::close(fds[0]);
        ::close(fds[1]);
        throw QBException("SocketCanProxy: descriptor beyond select()'s range");
    }
    pipeRead = fds[0];
    pipeWrite = fds[1];
    ::fcntl(pipeRead, F_SETFL, ::fcntl(pipeRead, F_GETFL) | O_NONBLOCK);
    reader.reset(new TraceMessageBuffer(pipeRead, nullptr));
}

SocketCanProxy::~SocketCanProxy() {
    stop();
    reader.reset();
    // Not retried on EINTR: on Linux the descriptor is released either way.
    ::close(pipeRead);
    ::close(pipeWrite);
}

void SocketCanProxy::setSocketCalls(const SocketCalls& c) {
    calls = c;
}

SocketCanProxy::Statistics SocketCanProxy::statistics() const {
    std::lock_guard<std::mutex> lock(statsMutex);
    return stats;
}

bool SocketCanProxy::failed() const {
    std::lock_guard<std::mutex> lock(statsMutex);
    return !failureText.empty();
}

std::string SocketCanProxy::failure() const {
    std::lock_guard<std::mutex> lock(statsMutex);
    return failureText;
}

int SocketCanProxy::waitWritable(int fd) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    return waitForInput(fd + 1, nullptr, &writable, nullptr, nullptr);
}

void SocketCanProxy::threadCode() {
    QB_INFO("Start SocketCanProxy on " << socket.interfaceName());
    const int sock = socket.fd();
    for (;;) {
        fd_set readable;
        fd_set writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_SET(sock, &readable);
        // The endpoint's next frames stay in the pipe while one waits for the socket.
        if (transmitQueue.empty()) {
            FD_SET(pipeRead, &readable);
        }
        timeval timeout{};
        timeval* timeoutPtr = nullptr;
        if (!transmitQueue.empty() && waitingForRoom) {
            FD_SET(sock, &writable);
        } else if (!transmitQueue.empty()) {
            const int64_t waitNs = std::max<int64_t>(0, backoffUntilNs - clockNs(CLOCK_MONOTONIC));
            const int64_t waitUs = (waitNs + 999) / 1000;
            timeout.tv_sec = static_cast<time_t>(waitUs / 1000000);
            timeout.tv_usec = static_cast<suseconds_t>(waitUs % 1000000);
            timeoutPtr = &timeout;
        }
        const int n =
            waitForInput(std::max(sock, pipeRead) + 1, &readable, &writable, nullptr, timeoutPtr);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            // Only a programming error (a closed descriptor) makes select() fail; stop rather
            // than spin on it.
            const int err = errno;
            QB_SYSERROR("select() failed, the proxy stops: ");
            std::lock_guard<std::mutex> lock(statsMutex);
            failureText = "select() failed: " + LogUtil::errorText(err);
            return;
        }
        if (FD_ISSET(sock, &readable) && !receiveFrames()) {
            return;
        }
        if (FD_ISSET(pipeRead, &readable)) {
            readEndpoint();
        }
        if (FD_ISSET(sock, &writable)) {
            waitingForRoom = false;
        }
        if (!transmitQueue.empty() && !waitingForRoom &&
            clockNs(CLOCK_MONOTONIC) >= backoffUntilNs && !transmitFrames()) {
            return;
        }
    }
}

void SocketCanProxy::readEndpoint() {
    const int result = reader->read();
    if (result == -1) {
        QB_SYSERROR("failed to read the endpoint's frames: ");
        return;
    }
    for (;;) {
        std::unique_ptr<MessageBase> msg;
        try {
            msg.reset(reader->getNextMessage());
        } catch (const QBException& e) {
            QB_ERROR("dropped bytes from the endpoint that are not a trace message: " << e.what());
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.messagesRejected;
            continue;
        }
        if (!msg) {
            return;
        }
        const msgid_t id = msg->getMessageId();
        const auto* frame = dynamic_cast<const CANTraceMessageBase*>(msg.get());
        const char* reason = nullptr;
        if ((id != MSGID_CAN && id != MSGID_CAN_EXT && id != MSGID_CAN_PROXY) || frame == nullptr) {
            reason = "not a CAN frame";
        } else if (frame->getCanType() != CT_STANDARD && frame->getCanType() != CT_EXTENDED) {
            reason = "a CAN FD frame";
        } else if (frame->getNumberOfDataBytes() > 8) {
            reason = "more than 8 data bytes";
        } else if (frame->getFrameKind() != CF_STANDARD && frame->getFrameKind() != CF_TXMESSAGE) {
            reason = "not a data frame";
        }
        if (reason != nullptr) {
            QB_ERROR("dropped a message from the endpoint (identifier " << static_cast<unsigned>(id)
                                                                        << "): " << reason);
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.messagesRejected;
            continue;
        }
        OutFrame out{};
        const bool extended = frame->getCanType() == CT_EXTENDED;
        out.canId = extended ? ((frame->getCanId() & CAN_EFF_MASK) | CAN_EFF_FLAG)
                             : (frame->getCanId() & CAN_SFF_MASK);
        out.length = frame->getNumberOfDataBytes();
        std::memcpy(out.data, frame->getData(), out.length);
        transmitQueue.push_back(out);
    }
}

bool SocketCanProxy::transmitFrames() {
    const int sock = socket.fd();
    while (!transmitQueue.empty()) {
        const OutFrame& out = transmitQueue.front();
        can_frame frame;
        std::memset(&frame, 0, sizeof frame);
        frame.can_id = out.canId;
        frame.can_dlc = out.length;
        std::memcpy(frame.data, out.data, out.length);
        const ssize_t written = calls.write(sock, &frame, sizeof frame);
        if (written == static_cast<ssize_t>(sizeof frame)) {
            QB_DEBUG(debug > 0, "sent on " << socket.interfaceName() << ": " << std::hex
                                           << std::setw(3) << std::setfill('0')
                                           << (out.canId & CAN_EFF_MASK) << std::dec << " dlc "
                                           << static_cast<unsigned>(out.length));
            transmitQueue.pop_front();
            backoffUs = 0;
            backoffUntilNs = 0;
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.framesSent;
            continue;
        }
        if (written >= 0) {
            // A CAN_RAW socket takes a frame whole or not at all; anything else is a broken
            // descriptor. The frame is dropped after being logged, so the queue moves on.
            QB_ERROR("short write of a frame to " << socket.interfaceName() << ": " << written
                                                  << " of " << sizeof frame << " bytes");
            transmitQueue.pop_front();
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.sendFailures;
            continue;
        }
        const int err = errno;
        if (err == EINTR) {
            continue;
        }
        if (err == EAGAIN || err == EWOULDBLOCK) {
            waitingForRoom = true;
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.writeRetries;
            return true;
        }
        if (err == ENOBUFS) {
            backoffUs = backoffUs == 0 ? FIRST_BACKOFF_US : std::min(backoffUs * 2, MAX_BACKOFF_US);
            backoffUntilNs = clockNs(CLOCK_MONOTONIC) + static_cast<int64_t>(backoffUs) * 1000;
            std::lock_guard<std::mutex> lock(statsMutex);
            ++stats.writeRetries;
            ++stats.enobufs;
            return true;
        }
        if (isInterfaceGone(err)) {
            errno = err;
            interfaceFailed(err, __func__);
            return false;
        }
        errno = err;
        QB_SYSERROR("failed to send a frame on " << socket.interfaceName() << ", dropped: ");
        transmitQueue.pop_front();
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.sendFailures;
    }
    return true;
}

bool SocketCanProxy::receiveFrames() {
    const int sock = socket.fd();
    for (int i = 0; i < RECEIVE_BATCH; ++i) {
        // Room for a CAN FD frame, so that one is recognised by its size and counted.
        canfd_frame frame;
        std::memset(&frame, 0, sizeof frame);
        iovec io{&frame, sizeof frame};
        alignas(
            cmsghdr) char control[CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(uint32_t)) + 64];
        msghdr msg{};
        msg.msg_iov = &io;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = calls.recvmsg(sock, &msg, MSG_DONTWAIT);
        if (n < 0) {
            const int err = errno;
            if (err == EINTR) {
                continue;
            }
            if (err == EAGAIN || err == EWOULDBLOCK) {
                return true;
            }
            if (isInterfaceGone(err)) {
                interfaceFailed(err, __func__);
                return false;
            }
            QB_SYSERROR("failed to receive from " << socket.interfaceName() << ": ");
            return true;
        }
        if (n == 0) {
            // Only a socketpair standing in for the socket has an end of file: its other end
            // has gone, as if the interface had.
            interfaceFailed(ENODEV, __func__);
            return false;
        }
        uint64_t stampUs = 0;
        bool stamped = false;
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level != SOL_SOCKET) {
                continue;
            }
            if (c->cmsg_type == SO_TIMESTAMPNS) {
                timespec ts;
                std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
                stampUs = static_cast<uint64_t>(ts.tv_sec) * 1000000u +
                          static_cast<uint64_t>(ts.tv_nsec) / 1000u;
                stamped = true;
            } else if (c->cmsg_type == SO_RXQ_OVFL) {
                uint32_t dropped = 0;
                std::memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
                // The kernel's count runs from the socket's start and wraps at 2^32.
                const uint32_t fresh = dropCountSeen ? dropped - lastDropCount : dropped;
                lastDropCount = dropped;
                dropCountSeen = true;
                if (fresh != 0) {
                    QB_ERROR("receive buffer of " << socket.interfaceName() << " overflowed: "
                                                  << fresh << " frames dropped by the kernel");
                    std::lock_guard<std::mutex> lock(statsMutex);
                    stats.receiveDrops += fresh;
                }
            }
        }
        if (!stamped) {
            stampUs = static_cast<uint64_t>(clockNs(CLOCK_REALTIME) / 1000);
        }
        handleFrame(*reinterpret_cast<const can_frame*>(&frame), static_cast<size_t>(n), stampUs);
    }
    return true;
}

void SocketCanProxy::handleFrame(const can_frame& frame, size_t bytes, uint64_t stampUs) {
    if (bytes == CANFD_MTU) {
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.fdFramesIgnored;
        return;
    }
    if (bytes != CAN_MTU) {
        QB_ERROR("dropped a message of " << bytes << " bytes from " << socket.interfaceName()
                                         << ": not a CAN frame");
        return;
    }
    if ((frame.can_id & CAN_ERR_FLAG) != 0) {
        const std::string text = CanErrorFrame::describe(frame);
        const int64_t now = clockNs(CLOCK_MONOTONIC);
        auto last = lastErrorLineNs.find(text);
        if (last == lastErrorLineNs.end() || now - last->second >= ERROR_LINE_INTERVAL_NS) {
            lastErrorLineNs[text] = now;
            QB_ERROR("error frame on " << socket.interfaceName() << ": " << text);
        }
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.errorFrames;
        return;
    }
    if ((frame.can_id & CAN_RTR_FLAG) != 0) {
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.remoteFramesIgnored;
        return;
    }
    const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    const uint32_t id = frame.can_id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK);
    if (!socket.accepts(CanRawSocket::Identifier{id, extended})) {
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.framesFilteredOut;
        return;
    }
    const uint8_t length = std::min<uint8_t>(frame.can_dlc, 8);
    QB_DEBUG(debug > 0, "received on " << socket.interfaceName() << ": " << std::hex
                                       << std::setw(extended ? 8 : 3) << std::setfill('0') << id
                                       << std::dec << " dlc " << static_cast<unsigned>(length));
    CANExtTraceMessage msg(stampUs, 0, CF_STANDARD, CSE_NO, extended ? CT_EXTENDED : CT_STANDARD,
                           length, id, frame.data);
    static const TraceMessageWriter::SystemCalls stoppable{&Thread::writeCancellable,
                                                           &SocketCanProxy::waitWritable};
    if (!input.write(msg, stoppable)) {
        if (!deliveryFailed) {
            deliveryFailed = true;
            QB_SYSERROR("failed to write a frame into the endpoint's input: ");
        }
        std::lock_guard<std::mutex> lock(statsMutex);
        ++stats.deliveryFailures;
        return;
    }
    std::lock_guard<std::mutex> lock(statsMutex);
    ++stats.framesReceived;
}

void SocketCanProxy::interfaceFailed(int err, const char* function) {
    {
        const int saved = err;
        std::lock_guard<std::mutex> log_qb_locker(LogUtil::logMutex);
        std::cerr << "[ERROR] " << logName() << "::" << function << "() interface "
                  << socket.interfaceName() << " is down or gone, the proxy stops: " << std::endl;
        LogUtil::printError(saved);
    }
    std::lock_guard<std::mutex> lock(statsMutex);
    failureText =
        "interface " + socket.interfaceName() + " is down or gone: " + LogUtil::errorText(err);
}

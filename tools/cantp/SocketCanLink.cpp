#include "SocketCanLink.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

SocketCanLink::SocketCanLink(const Settings& settings, CANTransportThread::delstatus_t onStatus,
                             int connectionFd)
    : transport(settings.debug), sendId(settings.sendId) {
    CanRawSocket::Options options;
    options.peers = settings.peers;
    options.sendBufferBytes = settings.sendBufferBytes;
    options.receiveBufferBytes = settings.receiveBufferBytes;
    CanRawSocket socket = CanRawSocket::open(settings.interfaceName, options);
    transport.setSendCANid(settings.sendId);
    transport.setDelegate(onStatus);
    transport.open(appReadFd, appWriteFd);
    inputWriter.reset(new TraceMessageWriter(appWriteFd));
    canProxy.reset(new SocketCanProxy(std::move(socket), *inputWriter, settings.debug));
    if (connectionFd >= 0) {
        transport.setConnection(connectionFd);
        return;
    }
    if (::pipe2(teePipe, O_CLOEXEC) != 0 || ::pipe2(stopPipe, O_CLOEXEC) != 0) {
        throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
    }
    ::fcntl(teePipe[0], F_SETFL, ::fcntl(teePipe[0], F_GETFL) | O_NONBLOCK);
    transport.setConnection(teePipe[1]);
}

SocketCanLink::~SocketCanLink() {
    canProxy->stop();
    if (forwarder.joinable()) {
        const char byte = 'q';
        (void)!::write(stopPipe[1], &byte, 1);
        forwarder.join();
    }
    transport.stop();
    for (int fd : {teePipe[0], teePipe[1], stopPipe[0], stopPipe[1]}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void SocketCanLink::start() {
    canProxy->start();
    if (teePipe[0] >= 0) {
        forwarder = std::thread([this] { forward(); });
    }
    transport.start();
}

bool SocketCanLink::sendPayload(const byteVec_t& payload) {
    CANTransportTraceMessage msg(0, sendId, payload.begin(), payload.end(), CT_STANDARD);
    return inputWriter->write(msg);
}

bool SocketCanLink::waitUntilSent(uint64_t acks, int timeoutMs) {
    if (teePipe[0] < 0) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (acksForwarded.load() >= acks &&
            canProxy->statistics().framesSent >= framesForwarded.load()) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline || !canProxy->isRunning()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void SocketCanLink::forward() {
    TraceMessageBuffer frames(teePipe[0], nullptr);
    TraceMessageWriter toProxy(canProxy->proxyFd());
    for (;;) {
        pollfd fds[2] = {{teePipe[0], POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            continue;
        }
        if (frames.read() == -1) {
            continue;
        }
        for (;;) {
            std::unique_ptr<MessageBase> msg;
            try {
                msg.reset(frames.getNextMessage());
            } catch (const QBException&) {
                continue;  // the proxy would refuse it the same way; nothing to pass on
            }
            if (!msg) {
                break;
            }
            const auto* frame = dynamic_cast<const CANTraceMessageBase*>(msg.get());
            const bool ack = frame != nullptr && frame->getNumberOfDataBytes() > 0 &&
                             frame->getData()[0] == 0x33;
            if (toProxy.writeBytes(msg->getRawBytes().data(), msg->getRawBytes().size())) {
                framesForwarded.fetch_add(1);
                if (ack) {
                    acksForwarded.fetch_add(1);
                }
            }
        }
    }
}

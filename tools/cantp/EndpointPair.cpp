#include "EndpointPair.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "MessagePump.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbutil/QBException.h"

namespace {

SimulatedCanBus::Config busConfig(bool timed, uint32_t bitrate) {
    SimulatedCanBus::Config cfg;
    cfg.timed = timed;
    cfg.bitrate = bitrate;
    return cfg;
}

}  // namespace

EndpointPair::EndpointPair(bool timed, uint32_t bitrate, DeliveryHandler onDelivery)
    : handler(std::move(onDelivery)), bus(busConfig(timed, bitrate)) {
    if (::pipe(stopPipe) != 0) {
        throw QBException(std::string("pipe() failed: ") + std::strerror(errno));
    }
    for (int i = 0; i < 2; ++i) {
        Side& side = sides[i];
        side.endpoint.reset(new CANTransportThread(0));
        side.endpoint->setSendCANid(sendId(i));
        CANTransportThread::delstatus_t callback = [this, i](CANTransportThread::statuschange_t st,
                                                             uint16_t) { onStatus(i, st); };
        side.endpoint->setDelegate(callback);
        side.endpoint->open(side.readFd, side.writeFd);
        side.node = bus.addNode(side.writeFd, i == 0 ? "A" : "B");
        side.endpoint->setConnection(bus.proxyFd(side.node));
    }
    bus.start();
    for (int i = 0; i < 2; ++i) {
        sides[i].endpoint->start();
        sides[i].reader = std::thread([this, i] { readPayloads(i); });
    }
}

EndpointPair::~EndpointPair() {
    // Endpoints before the bus they write to; the readers last, so that no endpoint blocks on a
    // full output pipe while it is being stopped (stop() would end it there anyway).
    sides[0].endpoint->stop();
    sides[1].endpoint->stop();
    bus.stop();
    const char byte = 'q';
    (void)!::write(stopPipe[1], &byte, 1);
    for (Side& side : sides) {
        if (side.reader.joinable()) {
            side.reader.join();
        }
    }
    ::close(stopPipe[0]);
    ::close(stopPipe[1]);
}

byteVec_t EndpointPair::payloadMessage(const byteVec_t& payload, uint16_t id) {
    const CANTransportTraceMessage msg(0, id, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t bytes;
    msg.createByteArray(bytes, true, false);
    return bytes;
}

bool EndpointPair::write(int side, const byteVec_t& message) {
    return bus.writeToInput(sides[side].node, message);
}

uint64_t EndpointPair::acknowledged(int side) const {
    std::lock_guard<std::mutex> lock(mutex);
    return sides[side].acks;
}

EndpointPair::Clock::time_point EndpointPair::lastAcknowledgement(int side) const {
    std::lock_guard<std::mutex> lock(mutex);
    return sides[side].lastAck;
}

uint64_t EndpointPair::delivered(int side) const {
    std::lock_guard<std::mutex> lock(mutex);
    return sides[side].deliveries;
}

uint64_t EndpointPair::failures() const {
    std::lock_guard<std::mutex> lock(mutex);
    return failed;
}

bool EndpointPair::waitTransferred(int side, uint64_t count, Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        if (sides[side].acks >= count && sides[1 - side].deliveries >= count) {
            return true;
        }
        if (failed != 0 || Clock::now() >= deadline || !sides[0].endpoint->isRunning() ||
            !sides[1].endpoint->isRunning()) {
            return false;
        }
        // The endpoints' threads can end without a report: look again now and then.
        changed.wait_until(lock, std::min(deadline, Clock::now() + std::chrono::milliseconds(100)));
    }
}

SimulatedCanBus::Statistics EndpointPair::settledBusStatistics() const {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(1);
    for (;;) {
        SimulatedCanBus::Statistics stats = bus.statistics();
        bool idle = stats.currentSender == -1 && stats.framesBeingDelivered == 0;
        for (const SimulatedCanBus::NodeStatistics& node : stats.nodes) {
            idle = idle && node.framesPending == 0;
        }
        if (idle || Clock::now() >= deadline) {
            return stats;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

std::string EndpointPair::failure() const {
    for (const Side& side : sides) {
        if (!side.endpoint->isRunning()) {
            return side.endpoint->exitReason();
        }
    }
    return std::string();
}

void EndpointPair::onStatus(int side, CANTransportThread::statuschange_t status) {
    const Clock::time_point now = Clock::now();
    if (status == CANTransportThread::CTT_CONNECTED) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (status == CANTransportThread::CTT_ACKNOWLEDGED) {
            sides[side].acks += 1;
            sides[side].lastAck = now;
        } else {
            failed += 1;
        }
    }
    changed.notify_all();
}

void EndpointPair::readPayloads(int side) {
    MessagePump::run(sides[side].readFd, stopPipe[0], [this, side](std::unique_ptr<MessageBase> m) {
        if (const auto* p = dynamic_cast<const CANTransportTraceMessage*>(m.get())) {
            if (handler) {
                handler(side, p->getPayload());
            }
            {
                std::lock_guard<std::mutex> lock(mutex);
                sides[side].deliveries += 1;
            }
            changed.notify_all();
        }
        return true;
    });
}

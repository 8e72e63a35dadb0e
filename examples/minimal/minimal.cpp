// Two transport endpoints on the simulated CAN bus: 0x7E0 sends one payload, 0x7E8 delivers it.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"

int main() {
    SimulatedCanBus bus;  // 500 kbit/s, exact bit timing

    // Set the callback before start(): an acknowledgement with no callback ends the thread.
    std::mutex mutex;
    std::condition_variable changed;
    bool acknowledged = false;
    CANTransportThread::delstatus_t onStatus = [&](CANTransportThread::statuschange_t status,
                                                   uint16_t) {
        std::lock_guard<std::mutex> lock(mutex);
        acknowledged = acknowledged || status == CANTransportThread::CTT_ACKNOWLEDGED;
        changed.notify_all();
    };
    CANTransportThread::delstatus_t ignore = [](CANTransportThread::statuschange_t, uint16_t) {};

    CANTransportThread a(0), b(0);  // debug level 0: info and error lines only
    a.setSendCANid(0x7E0);
    b.setSendCANid(0x7E8);
    a.setDelegate(onStatus);
    b.setDelegate(ignore);
    int aRead, aWrite, bRead, bWrite;
    a.open(aRead, aWrite);  // throws QBException if the pipes cannot be created
    b.open(bRead, bWrite);
    const int nodeA = bus.addNode(aWrite, "a");  // the bus writes received frames into aWrite
    b.setConnection(bus.proxyFd(bus.addNode(bWrite, "b")));
    a.setConnection(bus.proxyFd(nodeA));
    bus.start();
    a.start();
    b.start();

    // Hand a payload to endpoint a. The bus writes frames into the same input, so every
    // write goes through it: the bus is the one writer of that descriptor.
    const std::string text = "hello over CAN, more than one frame long";
    CANTransportTraceMessage request(0, 0x7E0, text.begin(), text.end(), CT_STANDARD);
    byteVec_t bytes;
    request.createByteArray(bytes, true, false);
    bus.writeToInput(nodeA, bytes);

    // Endpoint b writes the reassembled payload to bRead, as one serialised message.
    TraceMessageBuffer reader(bRead, nullptr);
    std::unique_ptr<MessageBase> message;
    while (!message && reader.read() >= 0) {
        message.reset(reader.getNextMessage());
    }
    auto* delivered = dynamic_cast<CANTransportTraceMessage*>(message.get());
    if (delivered != nullptr) {
        const byteVec_t& payload = delivered->getPayload();
        std::cout << "b received from 0x" << std::hex << delivered->getCanId() << std::dec << ": "
                  << std::string(payload.begin(), payload.end()) << std::endl;
    }

    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(5), [&] { return acknowledged; });
    std::cout << "a: " << (acknowledged ? "acknowledged" : "not acknowledged") << std::endl;
    lock.unlock();

    a.stop();  // stop the endpoints before the bus they write to, and before destroying them
    b.stop();
    bus.stop();
    return delivered != nullptr && acknowledged ? 0 : 1;
}

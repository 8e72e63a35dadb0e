// sendfile: sends a file from one CAN transport endpoint to another over the simulated CAN bus,
// as payloads of at most 4095 bytes, and verifies every received byte.
//
// Usage: sendfile FILE
// Prints each status report of both endpoints as it happens, then one line with the result.
// Exit status: 0 if the file arrived whole and identical, 1 otherwise, 2 for a usage error.
//
// The sender hands over one payload at a time and waits for its acknowledgement, so the output
// is the same on every run for the same file size.
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "libqbcan/CANTransportThread.h"
#include "libqbcansim/SimulatedCanBus.h"
#include "libqbio/LogUtil.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

namespace {

constexpr size_t MAX_PAYLOAD = 4095;  // the first frame's length field has 12 bits

// Counts the acknowledgements of the sender, so that the main thread can wait for each one.
struct Acknowledgements {
    std::mutex mutex;
    std::condition_variable changed;
    unsigned count = 0;
    bool failed = false;
};

CANTransportThread::delstatus_t reporter(const char* name, Acknowledgements* acks) {
    return [name, acks](CANTransportThread::statuschange_t status, uint16_t id) {
        {
            // The endpoints write their log lines to std::cout too, each under LogUtil::logMutex.
            std::lock_guard<std::mutex> lock(LogUtil::logMutex);
            std::cout << name << ": " << status;
            if (status == CANTransportThread::CTT_ACKNOWLEDGED) {
                std::cout << " id=0x" << std::hex << id << std::dec;
            }
            std::cout << std::endl;
        }
        if (acks == nullptr) {
            return;
        }
        std::lock_guard<std::mutex> lock(acks->mutex);
        if (status == CANTransportThread::CTT_ACKNOWLEDGED) {
            ++acks->count;
        } else if (status == CANTransportThread::CTT_SEND_TIMEOUT ||
                   status == CANTransportThread::CTT_DISCONNECTED) {
            acks->failed = true;
        }
        acks->changed.notify_all();
    };
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: sendfile FILE" << std::endl;
        return 2;
    }
    std::ifstream in(argv[1], std::ios::binary);
    if (!in) {
        std::cerr << "sendfile: cannot open " << argv[1] << std::endl;
        return 1;
    }
    const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    if (file.empty()) {
        // The protocol cannot carry an empty payload: every receiver refuses it.
        std::cerr << "sendfile: " << argv[1] << " is empty: nothing to send" << std::endl;
        return 1;
    }
    const size_t payloads = (file.size() + MAX_PAYLOAD - 1) / MAX_PAYLOAD;
    std::cout << "sending " << file.size() << " bytes as " << payloads << " payloads" << std::endl;

    SimulatedCanBus::Config config;
    config.timed = false;  // frames are delivered at once; timing plays no part here
    SimulatedCanBus bus(config);

    Acknowledgements acks;
    CANTransportThread sender(0);
    CANTransportThread receiver(0);
    auto senderStatus = reporter("sender", &acks);
    auto receiverStatus = reporter("receiver", nullptr);
    sender.setSendCANid(0x7E0);
    receiver.setSendCANid(0x7E8);
    sender.setDelegate(senderStatus);
    receiver.setDelegate(receiverStatus);

    int senderRead = -1, senderWrite = -1, receiverRead = -1, receiverWrite = -1;
    sender.open(senderRead, senderWrite);
    receiver.open(receiverRead, receiverWrite);
    const int senderNode = bus.addNode(senderWrite, "sender");
    const int receiverNode = bus.addNode(receiverWrite, "receiver");
    sender.setConnection(bus.proxyFd(senderNode));
    receiver.setConnection(bus.proxyFd(receiverNode));
    (void)receiverNode;

    bus.start();
    sender.start();
    receiver.start();

    // Reads the received payloads on a thread of its own while the main thread sends: the
    // receiver blocks once its output pipe is full, so somebody must read it.
    std::vector<uint8_t> received;
    std::atomic<bool> giveUp{false};
    std::thread reader([&] {
        TraceMessageBuffer buffer(receiverRead, nullptr);  // a blocking descriptor
        size_t payloadsRead = 0;
        while (payloadsRead < payloads) {
            pollfd ready{receiverRead, POLLIN, 0};
            if (::poll(&ready, 1, 100) == 0) {
                if (giveUp) {
                    return;  // the sender failed: the comparison below reports it
                }
                continue;
            }
            if (buffer.read() < 0) {
                return;  // end of input or a failed read: the comparison below reports it
            }
            try {
                while (auto* msg = buffer.getNextMessage()) {
                    std::unique_ptr<MessageBase> owned(msg);
                    if (auto* payload = dynamic_cast<CANTransportTraceMessage*>(msg)) {
                        received.insert(received.end(), payload->getPayload().begin(),
                                        payload->getPayload().end());
                        ++payloadsRead;
                    }
                }
            } catch (const QBException& e) {
                std::lock_guard<std::mutex> lock(LogUtil::logMutex);
                std::cerr << "sendfile: unreadable output: " << e << std::endl;
            }
        }
    });

    bool sent = true;
    for (size_t i = 0; i < payloads && sent; ++i) {
        const auto begin = file.begin() + static_cast<std::ptrdiff_t>(i * MAX_PAYLOAD);
        const auto end = file.begin() +
                         static_cast<std::ptrdiff_t>(std::min(file.size(), (i + 1) * MAX_PAYLOAD));
        CANTransportTraceMessage message(0, 0x7E0, begin, end, CT_STANDARD);
        byteVec_t bytes;
        message.createByteArray(bytes, true, false);
        // The bus writes received frames into the same input: it must be the only writer.
        if (!bus.writeToInput(senderNode, bytes)) {
            sent = false;
            break;
        }
        std::unique_lock<std::mutex> lock(acks.mutex);
        sent = acks.changed.wait_for(lock, std::chrono::seconds(10), [&] {
            return acks.count > i || acks.failed;
        }) && !acks.failed;
    }

    giveUp = !sent;  // the reader would wait for payloads that will not come
    reader.join();
    sender.stop();
    receiver.stop();
    bus.stop();

    const bool identical = sent && received == file;
    std::cout << (identical ? "received " : "FAILED: received ") << received.size() << " of "
              << file.size() << " bytes" << (identical ? ", identical" : "") << std::endl;
    return identical ? 0 : 1;
}

// One transport endpoint on a SocketCAN interface: the endpoint, its socket and its proxy.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "libqbcan/CANTransportThread.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbsocketcan/SocketCanProxy.h"
#include "libqbtrace/TraceMessageWriter.h"
#include "libqbutil/utility.h"

/// Wires a CANTransportThread to a SocketCanProxy on a CAN_RAW socket bound to an interface,
/// with one TraceMessageWriter for the endpoint's input that both the proxy (frames) and the
/// command (payloads, sendPayload()) use.
///
/// Unless the caller takes the endpoint's frames itself (`connectionFd`), they pass through a
/// small forwarding thread on their way to the proxy, which counts them and the acknowledgement
/// frames (flow control 0x33) among them: a receiving command that is about to exit waits with
/// waitUntilSent() until its last acknowledgement has left the socket, or the sender would time
/// out on it.
///
/// Thread rules: constructed, started and destroyed by the command's main thread; sendPayload()
/// and the counters from any thread. The destructor stops the proxy, the forwarder, then the
/// endpoint.
class SocketCanLink {
  public:
    struct Settings {
        std::string interfaceName;
        uint16_t sendId = 0x7E0;
        std::vector<CanRawSocket::Identifier> peers;
        int debug = 0;
        int sendBufferBytes = 0;
        int receiveBufferBytes = 1 << 20;
    };

    /// Opens the socket (QBException if it cannot, after the library's error line), then the
    /// endpoint. The endpoint's frames go to the proxy through the forwarder, or to
    /// `connectionFd` if it is 0 or more (a command that shows the frames reads them there and
    /// passes them on to proxy().proxyFd() itself).
    SocketCanLink(const Settings& settings, CANTransportThread::delstatus_t onStatus,
                  int connectionFd = -1);
    ~SocketCanLink();
    SocketCanLink(const SocketCanLink&) = delete;
    SocketCanLink& operator=(const SocketCanLink&) = delete;

    /// Starts the proxy, then the endpoint.
    void start();

    /// Hands a payload to the endpoint; false with errno set if the write failed.
    bool sendPayload(const byteVec_t& payload);

    /// Waits, at most `timeoutMs`, until at least `acks` acknowledgement frames have passed the
    /// forwarder and every frame it passed has been written to the socket. False on time-out or
    /// without a forwarder.
    bool waitUntilSent(uint64_t acks, int timeoutMs);

    CANTransportThread& endpoint() { return transport; }
    SocketCanProxy& proxy() { return *canProxy; }
    TraceMessageWriter& input() { return *inputWriter; }
    /// The read end of the endpoint's output pipe: delivered payloads.
    int payloadFd() const { return appReadFd; }

  private:
    void forward();

    CANTransportThread transport;
    uint16_t sendId;
    int appReadFd = -1;
    int appWriteFd = -1;
    std::unique_ptr<TraceMessageWriter> inputWriter;
    std::unique_ptr<SocketCanProxy> canProxy;
    int teePipe[2] = {-1, -1};
    int stopPipe[2] = {-1, -1};
    std::thread forwarder;
    std::atomic<uint64_t> framesForwarded{0};
    std::atomic<uint64_t> acksForwarded{0};
};

// One transport endpoint on a SocketCAN interface: the endpoint, its socket and its proxy.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
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
/// Thread rules: constructed, started and destroyed by the command's main thread; sendPayload()
/// from any thread. The destructor stops the proxy first, then the endpoint.
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
    /// endpoint. The endpoint's frames go to the proxy, or to `connectionFd` if it is 0 or more
    /// (a command that shows the frames reads them there and forwards them to proxyFd()).
    SocketCanLink(const Settings& settings, CANTransportThread::delstatus_t onStatus,
                  int connectionFd = -1);
    ~SocketCanLink();
    SocketCanLink(const SocketCanLink&) = delete;
    SocketCanLink& operator=(const SocketCanLink&) = delete;

    /// Starts the proxy, then the endpoint.
    void start();

    /// Hands a payload to the endpoint; false with errno set if the write failed.
    bool sendPayload(const byteVec_t& payload);

    CANTransportThread& endpoint() { return transport; }
    SocketCanProxy& proxy() { return *canProxy; }
    TraceMessageWriter& input() { return *inputWriter; }
    /// The read end of the endpoint's output pipe: delivered payloads.
    int payloadFd() const { return appReadFd; }

  private:
    CANTransportThread transport;
    uint16_t sendId;
    int appReadFd = -1;
    int appWriteFd = -1;
    std::unique_ptr<TraceMessageWriter> inputWriter;
    std::unique_ptr<SocketCanProxy> canProxy;
};

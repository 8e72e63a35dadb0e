// A CAN_RAW socket bound to one interface, configured for a transport endpoint's CAN proxy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Owns one CAN_RAW socket (move-only; the destructor closes it).
///
/// open() creates the socket non-blocking and configures it before it is bound, so that no
/// frame of another node reaches it first:
/// - CAN_RAW_FILTER: only the peer identifiers (Options::peers) pass, each matched on its whole
///   identifier and its format (standard or extended); remote frames of a peer identifier still
///   pass, so the proxy can see and count them. No peers: every frame passes.
/// - CAN_RAW_ERR_FILTER: error frames for transmit time-outs, controller problems, transceiver
///   problems, missing acknowledgement, bus-off and controller restarts (ERROR_CLASSES). Bus
///   errors, protocol violations and lost arbitration are left out: they come with every
///   disturbed frame and would flood the log.
/// - CAN_RAW_FD_FRAMES: on, so that CAN FD frames on the bus are received and counted as
///   ignored instead of vanishing silently (a kernel without it: left off).
/// - SO_TIMESTAMPNS: the kernel's receive time of every frame.
/// - SO_RXQ_OVFL: the kernel's count of frames dropped because the receive buffer was full.
/// - SO_RCVBUF: Options::receiveBufferBytes, first through SO_RCVBUFFORCE (allowed to
///   CAP_NET_ADMIN, it may exceed net.core.rmem_max), else SO_RCVBUF (capped by rmem_max).
/// - SO_SNDBUF: Options::sendBufferBytes if above 0, else the kernel's default.
/// A failure of socket(), bind() or CAN_RAW_FILTER is an error (logged, QBException thrown);
/// the other options are logged when they fail and the socket is used without them.
///
/// adopt() takes an already open descriptor as it is (tests use one end of a SOCK_SEQPACKET
/// socketpair carrying struct can_frame): it sets O_NONBLOCK, SO_TIMESTAMPNS and SO_RXQ_OVFL
/// where the descriptor supports them, nothing else.
///
/// Thread rules: used by one thread at a time; the proxy's thread uses fd() while it runs.
class CanRawSocket {
  public:
    /// One CAN identifier and its format.
    struct Identifier {
        uint32_t id = 0;
        bool extended = false;
        bool operator==(const Identifier& o) const { return id == o.id && extended == o.extended; }
    };

    struct Options {
        /// Identifiers to receive; empty: all.
        std::vector<Identifier> peers;
        /// Receive buffer to ask for. The default holds a burst of a whole 4095-byte payload
        /// (585 frames) with room to spare: the kernel charges several hundred bytes per frame.
        int receiveBufferBytes = 1 << 20;
        /// Send buffer to ask for; 0 keeps the kernel's default (docs/socketcan.md).
        int sendBufferBytes = 0;
        /// Ask for error frames (CAN_RAW_ERR_FILTER with ERROR_CLASSES).
        bool errorFrames = true;
    };

    /// The error classes asked for with CAN_RAW_ERR_FILTER.
    static const uint32_t ERROR_CLASSES;

    /// Opens, configures and binds a socket on interface `name`. Throws QBException (after
    /// logging the failed call) if the interface name is empty or too long, or socket(), the
    /// filter, the interface lookup or bind() fail.
    static CanRawSocket open(const std::string& name, const Options& options);

    /// Takes ownership of `fd` as the socket of interface `name` (see above). `peers` is what
    /// the proxy filters by in user space. Throws std::invalid_argument for a negative `fd`.
    static CanRawSocket adopt(int fd, const std::string& name, std::vector<Identifier> peers);

    CanRawSocket(CanRawSocket&& other) noexcept;
    CanRawSocket& operator=(CanRawSocket&& other) noexcept;
    CanRawSocket(const CanRawSocket&) = delete;
    CanRawSocket& operator=(const CanRawSocket&) = delete;
    ~CanRawSocket();

    int fd() const { return descriptor; }
    const std::string& interfaceName() const { return name; }
    const std::vector<Identifier>& peers() const { return peerIds; }
    /// True if `id` passes the peer filter (always true without peers).
    bool accepts(const Identifier& id) const;
    /// The buffer sizes the kernel reports after configuration (getsockopt; the kernel doubles
    /// what was asked for to cover its bookkeeping); -1 if it could not be read.
    int receiveBufferBytes() const { return rcvbuf; }
    int sendBufferBytes() const { return sndbuf; }

    static const char* logName() { return "CanRawSocket"; }

  private:
    CanRawSocket(int fd, std::string name, std::vector<Identifier> peers);
    void readBufferSizes();

    int descriptor;
    std::string name;
    std::vector<Identifier> peerIds;
    int rcvbuf = -1;
    int sndbuf = -1;
};

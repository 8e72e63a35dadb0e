#include "libqbsocketcan/CanRawSocket.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "libqbio/LogUtil.h"
#include "libqbutil/QBException.h"

const uint32_t CanRawSocket::ERROR_CLASSES = CAN_ERR_TX_TIMEOUT | CAN_ERR_CRTL | CAN_ERR_TRX |
                                             CAN_ERR_ACK | CAN_ERR_BUSOFF | CAN_ERR_RESTARTED;

namespace {

// Closes the descriptor unless released: open() has several ways out before it succeeds.
struct FdGuard {
    int fd;
    ~FdGuard() {
        if (fd >= 0) {
            // Not retried on EINTR: on Linux the descriptor is released either way.
            ::close(fd);
        }
    }
    int release() {
        const int f = fd;
        fd = -1;
        return f;
    }
};

void setNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) {
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
}

}  // namespace

CanRawSocket::CanRawSocket(int fd, std::string nameIn, std::vector<Identifier> peersIn)
    : descriptor(fd), name(std::move(nameIn)), peerIds(std::move(peersIn)) {}

CanRawSocket::CanRawSocket(CanRawSocket&& other) noexcept
    : descriptor(other.descriptor),
      name(std::move(other.name)),
      peerIds(std::move(other.peerIds)),
      rcvbuf(other.rcvbuf),
      sndbuf(other.sndbuf) {
    other.descriptor = -1;
}

CanRawSocket& CanRawSocket::operator=(CanRawSocket&& other) noexcept {
    if (this != &other) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        descriptor = other.descriptor;
        name = std::move(other.name);
        peerIds = std::move(other.peerIds);
        rcvbuf = other.rcvbuf;
        sndbuf = other.sndbuf;
        other.descriptor = -1;
    }
    return *this;
}

CanRawSocket::~CanRawSocket() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
}

bool CanRawSocket::accepts(const Identifier& id) const {
    if (peerIds.empty()) {
        return true;
    }
    for (const Identifier& peer : peerIds) {
        if (peer == id) {
            return true;
        }
    }
    return false;
}

void CanRawSocket::readBufferSizes() {
    socklen_t len = sizeof rcvbuf;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &len) != 0) {
        rcvbuf = -1;
    }
    len = sizeof sndbuf;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &sndbuf, &len) != 0) {
        sndbuf = -1;
    }
}

CanRawSocket CanRawSocket::adopt(int fd, const std::string& name, std::vector<Identifier> peers) {
    if (fd < 0) {
        throw std::invalid_argument("CanRawSocket::adopt: negative descriptor");
    }
    setNonBlocking(fd);
    const int on = 1;
    (void)::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
    (void)::setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    CanRawSocket socket(fd, name, std::move(peers));
    socket.readBufferSizes();
    return socket;
}

CanRawSocket CanRawSocket::open(const std::string& name, const Options& options) {
    if (name.empty() || name.size() >= IFNAMSIZ) {
        QB_ERROR("interface name '" << name << "' must have 1 to " << (IFNAMSIZ - 1)
                                    << " characters");
        throw QBException("CAN interface name '" + name + "' must have 1 to " +
                          std::to_string(IFNAMSIZ - 1) + " characters");
    }
    FdGuard guard{::socket(PF_CAN, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, CAN_RAW)};
    if (guard.fd < 0) {
        const int err = errno;
        QB_SYSERROR("failed to open a CAN_RAW socket for " << name << ": ");
        throw QBException("cannot open a CAN_RAW socket for " + name + ": " +
                          LogUtil::errorText(err) +
                          (err == EAFNOSUPPORT ? " (this kernel has no SocketCAN support)" : ""));
    }
    const int fd = guard.fd;

    std::vector<can_filter> filters;
    for (const Identifier& peer : options.peers) {
        can_filter f;
        if (peer.extended) {
            f.can_id = (peer.id & CAN_EFF_MASK) | CAN_EFF_FLAG;
            f.can_mask = CAN_EFF_MASK | CAN_EFF_FLAG;
        } else {
            f.can_id = peer.id & CAN_SFF_MASK;
            f.can_mask = CAN_SFF_MASK | CAN_EFF_FLAG;
        }
        filters.push_back(f);
    }
    if (!filters.empty() &&
        ::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, filters.data(),
                     static_cast<socklen_t>(filters.size() * sizeof(can_filter))) != 0) {
        const int err = errno;
        QB_SYSERROR("failed to set the identifier filter (CAN_RAW_FILTER) on " << name << ": ");
        throw QBException("cannot set the identifier filter on " + name + ": " +
                          LogUtil::errorText(err));
    }
    const can_err_mask_t errorMask = ERROR_CLASSES;
    if (options.errorFrames &&
        ::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &errorMask, sizeof errorMask) != 0) {
        QB_SYSERROR("failed to ask for error frames (CAN_RAW_ERR_FILTER) on " << name << ": ");
    }
    const int on = 1;
    if (::setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on) != 0) {
        QB_SYSERROR("failed to enable CAN FD frames (CAN_RAW_FD_FRAMES) on "
                    << name << ", CAN FD frames will not be counted: ");
    }
    if (::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
        QB_SYSERROR("failed to enable receive time stamps (SO_TIMESTAMPNS) on " << name << ": ");
    }
    if (::setsockopt(fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on) != 0) {
        QB_SYSERROR("failed to enable drop counting (SO_RXQ_OVFL) on " << name << ": ");
    }
    if (options.receiveBufferBytes > 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &options.receiveBufferBytes,
                     sizeof options.receiveBufferBytes) != 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &options.receiveBufferBytes,
                     sizeof options.receiveBufferBytes) != 0) {
        QB_SYSERROR("failed to set the receive buffer (SO_RCVBUF) on " << name << ": ");
    }
    if (options.sendBufferBytes > 0 &&
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &options.sendBufferBytes,
                     sizeof options.sendBufferBytes) != 0) {
        QB_SYSERROR("failed to set the send buffer (SO_SNDBUF) on " << name << ": ");
    }

    const unsigned index = ::if_nametoindex(name.c_str());
    if (index == 0) {
        const int err = errno;
        QB_SYSERROR("no CAN interface " << name << ": ");
        throw QBException("no CAN interface " + name + ": " + LogUtil::errorText(err));
    }
    sockaddr_can address;
    std::memset(&address, 0, sizeof address);
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(index);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int err = errno;
        QB_SYSERROR("failed to bind the CAN_RAW socket to " << name << ": ");
        throw QBException("cannot bind to CAN interface " + name + ": " + LogUtil::errorText(err));
    }
    CanRawSocket socket(guard.release(), name, options.peers);
    socket.readBufferSizes();
    return socket;
}

#include "DumpCommand.h"

#include <linux/can.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ArgumentReader.h"
#include "FdStreamBuf.h"
#include "LogToStandardError.h"
#include "OutputFile.h"
#include "SocketCanArguments.h"
#include "StopSignals.h"
#include "TransportDecoder.h"
#include "libqbcansim/CandumpLine.h"
#include "libqbcansim/PcapWriter.h"
#include "libqbio/LogUtil.h"
#include "libqbsocketcan/CanRawSocket.h"
#include "libqbutil/HexText.h"

namespace {

/// The identifier of a received frame, without its flags; `extended` says whether it has 29 bits.
uint32_t identifierOf(const canfd_frame& frame, bool& extended) {
    extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    return frame.can_id & (extended ? CAN_EFF_MASK : CAN_SFF_MASK);
}

/// The candump line of a received frame of `bytes` bytes, time stamp in `ts`.
std::string lineOf(const canfd_frame& frame, size_t bytes, const timespec& ts,
                   const std::string& iface) {
    bool extended = false;
    const uint32_t id = identifierOf(frame, extended);
    const uint32_t usec = static_cast<uint32_t>(ts.tv_nsec / 1000);
    if (bytes == CAN_MTU && (frame.can_id & CAN_RTR_FLAG) == 0) {
        return CandumpLine::format(static_cast<int64_t>(ts.tv_sec), usec, iface, id, extended,
                                   frame.data, std::min<uint8_t>(frame.len, 8));
    }
    // Not a classic data frame: candump's own form, which the decoder names as such.
    std::string text = CandumpLine::format(static_cast<int64_t>(ts.tv_sec), usec, iface, id,
                                           extended, frame.data, 0);
    text.pop_back();  // the '#' of the empty data field is written again below
    if (bytes == CAN_MTU) {
        text += "#R";
    } else {
        text += "##" + HexText::number(frame.flags & 0x0F, 1) +
                HexText::encode(frame.data, std::min<uint8_t>(frame.len, CANFD_MAX_DLEN));
    }
    return text;
}

/// True for a classic data frame: the frames a capture of link type 227 holds here.
bool isClassicDataFrame(const canfd_frame& frame, size_t bytes) {
    return bytes == CAN_MTU && (frame.can_id & (CAN_RTR_FLAG | CAN_ERR_FLAG)) == 0;
}

}  // namespace

void DumpCommand::printHelp(std::ostream& os) {
    os << "Usage: cantp dump --can socketcan:IFACE [--id ID...] [--pcap FILE]\n"
          "\n"
          "The live transport view of a SocketCAN interface, like isotpdump: every frame (or\n"
          "those of the given identifiers) classified, payloads reassembled, protocol errors\n"
          "named, in the output format of 'cantp decode'. Stop it with SIGINT (Ctrl-C) or\n"
          "SIGTERM: it then reports transfers left open and two summary lines. With --pcap\n"
          "the frames shown are also saved as a capture that Wireshark, tshark and 'cantp\n"
          "decode' open.\n"
          "\n"
          "Options:\n"
          "  -c, --can socketcan:IFACE  the CAN interface (e.g. socketcan:can0)\n"
          "  -i, --id ID[,ID...]  show only these identifiers (0 to 0x1FFFFFFF; above 0x7FF an\n"
          "                       extended identifier); may be repeated. Default: all\n"
          "      --pcap FILE      also write the frames shown (classic data frames, with the\n"
          "                       kernel's receive time) into FILE as a pcap capture (link\n"
          "                       type 227), written through after every read\n"
          "      --rcvbuf BYTES   receive buffer to ask for (default 1048576)\n"
          "  -h, --help           this text\n"
          "\n"
          "Exit status: 0 stopped by a signal; 1 the interface could not be opened or went\n"
          "down, or the capture file could not be opened or written; 2 usage error.\n"
          "\n"
          "Examples:\n"
          "  cantp dump --can socketcan:can0 --id 0x7E0 --id 0x7E8\n"
          "  cantp dump --can socketcan:can0 --pcap can0.pcap\n";
}

int DumpCommand::run(int argc, char** argv, int first) {
    std::string iface;
    std::string pcapPath;
    CanRawSocket::Options options;
    options.errorFrames = false;
    ArgumentReader args(argc, argv, first);
    std::string value;
    while (!args.done()) {
        if (args.flag("--help", "-h")) {
            printHelp(std::cout);
            return 0;
        } else if (args.option("--can", "-c", value)) {
            iface = SocketCanArguments::interfaceOf("--can", value);
        } else if (args.option("--id", "-i", value)) {
            SocketCanArguments::appendIdentifiers("--id", value, options.peers);
        } else if (args.option("--pcap", nullptr, value)) {
            if (value.empty()) {
                throw UsageError("--pcap needs a file name");
            }
            pcapPath = value;
        } else if (args.option("--rcvbuf", nullptr, value)) {
            options.receiveBufferBytes = SocketCanArguments::bufferBytes("--rcvbuf", value);
        } else {
            throw UsageError("unknown argument '" + args.current() + "'");
        }
    }
    if (iface.empty()) {
        throw UsageError("--can socketcan:IFACE is required");
    }

    FdStreamBuf outBuf(STDOUT_FILENO);
    std::ostream out(&outBuf);
    const LogToStandardError logToStandardError;

    CanRawSocket socket = CanRawSocket::open(iface, options);
    // Opened once the interface is: a name that cannot be opened leaves no empty capture.
    std::ofstream pcapFile;
    std::unique_ptr<PcapWriter> pcap;
    if (!pcapPath.empty()) {
        if (!OutputFile::open(pcapFile, pcapPath, true, "dump")) {
            return 1;
        }
        pcap = std::make_unique<PcapWriter>(pcapFile);
    }
    // The capture is written through after each read, so that it holds every frame shown even
    // when the dump is killed; a write that fails ends the dump (exit 1) rather than leaving a
    // capture that silently lacks frames.
    bool captureFailed = false;
    auto captureWrittenThrough = [&]() {
        if (!pcap || captureFailed) {
            return !captureFailed;
        }
        pcap->flush();
        if (pcap->good()) {
            return true;
        }
        std::cerr << "cantp dump: error: writing " << pcapPath << " failed after " << pcap->frames()
                  << (pcap->frames() == 1 ? " frame" : " frames") << std::endl;
        captureFailed = true;
        return false;
    };
    StopSignals signals;
    TransportDecoder decoder(out);
    int status = 0;
    uint32_t lastDrops = 0;
    for (;;) {
        pollfd fds[2] = {{socket.fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        const int n = ::poll(fds, 2, -1);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::cerr << "cantp dump: error: poll failed: " << std::strerror(errno) << std::endl;
            status = 1;
            break;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            break;
        }
        bool failed = false;
        for (int batch = 0; batch < 64; ++batch) {
            canfd_frame frame;
            std::memset(&frame, 0, sizeof frame);
            iovec io{&frame, sizeof frame};
            alignas(cmsghdr) char control[256];
            msghdr msg{};
            msg.msg_iov = &io;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            const ssize_t got = ::recvmsg(socket.fd(), &msg, MSG_DONTWAIT);
            if (got < 0) {
                if (errno == EINTR) {
                    continue;
                }
                if (errno != EAGAIN && errno != EWOULDBLOCK) {
                    std::cerr << "cantp dump: error: receiving from " << iface
                              << " failed: " << std::strerror(errno) << std::endl;
                    failed = true;
                }
                break;
            }
            timespec ts{};
            bool stamped = false;
            for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
                if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
                    std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
                    stamped = true;
                } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
                    uint32_t drops = 0;
                    std::memcpy(&drops, CMSG_DATA(c), sizeof drops);
                    if (drops != lastDrops) {
                        std::cerr << "cantp dump: error: receive buffer of " << iface
                                  << " overflowed: " << (drops - lastDrops)
                                  << " frames dropped by the kernel" << std::endl;
                        lastDrops = drops;
                    }
                }
            }
            if (!stamped) {
                ::clock_gettime(CLOCK_REALTIME, &ts);
            }
            if (got != CAN_MTU && got != CANFD_MTU) {
                continue;
            }
            decoder.addLine(lineOf(frame, static_cast<size_t>(got), ts, iface));
            if (pcap && isClassicDataFrame(frame, static_cast<size_t>(got))) {
                bool extended = false;
                const uint32_t id = identifierOf(frame, extended);
                pcap->write(static_cast<int64_t>(ts.tv_sec),
                            static_cast<uint32_t>(ts.tv_nsec / 1000), id, extended, frame.data,
                            std::min<uint8_t>(frame.len, CAN_MAX_DLEN));
            }
        }
        out.flush();
        if (!captureWrittenThrough()) {
            failed = true;
        }
        if (failed) {
            status = 1;
            break;
        }
    }
    decoder.finish();
    out.flush();
    if (!captureWrittenThrough()) {
        status = 1;
    }
    return status;
}

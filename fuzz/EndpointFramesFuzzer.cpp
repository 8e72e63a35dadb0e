// Fuzz target: the endpoint's frame handling. An arbitrary sequence of received CAN frames (0 to
// 64 data bytes, so the oversized ones the endpoint refuses are included), payloads to send,
// passing time, clear() calls and debug-level changes goes through one CANTransportThread.
//
// The endpoint is not started as a thread: this target runs its loop by hand, on a stepped
// clock, so that a run is deterministic and fast. Everything arrives the way the loop gets it:
// serialised into the endpoint's real input pipe and taken by handleData(); a protocol time-out
// is handleTimeout() at the moment the loop's select() would have returned 0, with the remaining
// time carried across inputs as select() leaves it on Linux. The CAN proxy is a real pipe that
// is drained after every step, as is the application's payload pipe. The 10 ms sleep of the
// endpoint before a resend is taken on the stepped clock (the link replaces millisleep(), see
// fuzz/CMakeLists.txt), not slept.
//
// Checked after every step: no crash or sanitizer report (no read or write past a buffer);
// `state` is one of the defined bit sets (0 to 7); `receiveBuffer` holds at most 4095 bytes;
// every frame on the proxy pipe parses as a CANExtTraceMessage with 8 data bytes, the send
// identifier (low 11 bits), CT_STANDARD, channel 0, CF_STANDARD and time stamp 0; every message
// on the application pipe parses as a CANTransportTraceMessage of at most 4095 bytes; a refused
// frame (BufferMismatchException) had more than 9 data bytes and left the state as it was; an
// exception leaves the loop only where the endpoint's contract says it does.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FuzzMessages.h"
#include "FuzzSupport.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbtrace/BufferMismatchException.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbutil/QBException.h"

using qbfuzz::Bytes;
using qbfuzz::InputReader;

namespace {

/// The stepped clock, in microseconds; the endpoint's sleeps advance it.
uint64_t steppedNow = 0;

/// Largest payload the receiving side can deliver: a 12-bit announced length.
constexpr size_t MAX_DELIVERED = 4095;
/// Most steps of one input.
constexpr size_t MAX_STEPS = 256;
/// Room in the proxy pipe, so that the largest burst of frames never blocks the single thread
/// that writes and drains it.
constexpr int PIPE_ROOM = 1 << 20;

/// The endpoint with the members the hand-run loop needs.
class SteppedEndpoint : public CANTransportThread {
  public:
    explicit SteppedEndpoint(int debugLevel) : CANTransportThread(debugLevel) {}

    using CANTransportThread::handleData;
    using CANTransportThread::handleTimeout;
    using CANTransportThread::readPipe;
    using CANTransportThread::receiveBuffer;
    using CANTransportThread::selectTimeout;
    using CANTransportThread::sendQueue;
    using CANTransportThread::setSelectTimeout;
    using CANTransportThread::state;
    using CANTransportThread::timeNotSlept;

    bool queueEmpty() {
        mutexBufferLock.lock();
        const bool empty = sendQueue.empty();
        mutexBufferLock.unlock();
        return empty;
    }
};

uint64_t micros(const timeval& t) {
    return static_cast<uint64_t>(t.tv_sec) * 1000000u + static_cast<uint64_t>(t.tv_usec);
}

class Run {
  public:
    Run(InputReader& in) : in(in) {
        const uint8_t setup = in.u8();
        sendId = in.u16();
        withCallback = (setup & 0x80) == 0;
        endpoint.reset(new SteppedEndpoint(setup & 0x03));
        endpoint->setSendCANid(sendId);
        if (withCallback) {
            CANTransportThread::delstatus_t callback = [this](CANTransportThread::statuschange_t,
                                                              uint16_t) { ++statusReports; };
            endpoint->setDelegate(callback);
        }
        endpoint->open(appReadFd, appWriteFd);
        ::fcntl(appReadFd, F_SETFL, ::fcntl(appReadFd, F_GETFL) | O_NONBLOCK);
        endpoint->setConnection(proxy().writeEnd);
        proxyReader.reset(new TraceMessageBuffer(proxy().readEnd, nullptr));
        appReader.reset(new TraceMessageBuffer(appReadFd, nullptr));
        // threadCode() arms the first time-out before its loop.
        endpoint->setSelectTimeout(5, 0);
    }

    ~Run() {
        // Frames left in the proxy pipe after a check failed must not reach the next input.
        endpoint.reset();
        char sink[4096];
        while (::read(proxy().readEnd, sink, sizeof sink) > 0) {
        }
    }

    void steps() {
        for (size_t i = 0; i < MAX_STEPS && !in.empty() && !ended; ++i) {
            step();
            drainOutputs();
            checkInvariants();
        }
    }

  private:
    /// The CAN proxy pipe, made once for the whole run (a pipe per input costs more than the
    /// input's steps), with room for the largest burst of frames.
    struct ProxyPipe {
        int readEnd = -1;
        int writeEnd = -1;
        ProxyPipe() {
            int fds[2];
            QB_FUZZ_CHECK(::pipe(fds) == 0, "pipe: " << errno);
            readEnd = fds[0];
            writeEnd = fds[1];
            ::fcntl(readEnd, F_SETFL, ::fcntl(readEnd, F_GETFL) | O_NONBLOCK);
            ::fcntl(writeEnd, F_SETPIPE_SZ, PIPE_ROOM);
        }
    };
    static ProxyPipe& proxy() {
        static ProxyPipe pipe;
        return pipe;
    }

    void step() {
        const uint8_t op = in.u8();
        switch (op % 8) {
            case 0:
            case 1:
            case 2:
            case 3:
                receiveFrame(op);
                break;
            case 4:
            case 5:
                sendPayload();
                break;
            case 6:
                pass(static_cast<uint64_t>(in.u16()) * 100);  // up to 6.5 s
                break;
            case 7:
                if ((op & 0x10) != 0) {
                    endpoint->setDebugLevel(in.u8() & 0x03);
                } else {
                    endpoint->clear((op & 0x08) != 0);
                }
                break;
        }
    }

    /// The loop's choice of wait, as threadCode() makes it at the top of each iteration.
    bool timerArmed() {
        if (endpoint->state == 0 && endpoint->queueEmpty()) {
            endpoint->setSelectTimeout(0, 0);
            return false;
        }
        return true;
    }

    /// `us` microseconds pass with no input: every time-out that falls due fires in turn.
    void pass(uint64_t us) {
        while (timerArmed()) {
            const uint64_t left = micros(endpoint->timeNotSlept);
            if (us < left) {
                uint64_t remaining = left - us;
                endpoint->timeNotSlept.tv_sec = static_cast<time_t>(remaining / 1000000u);
                endpoint->timeNotSlept.tv_usec = static_cast<suseconds_t>(remaining % 1000000u);
                steppedNow += us;
                return;
            }
            us -= left;
            steppedNow += left;
            endpoint->timeNotSlept = endpoint->selectTimeout;
            if (!guarded([this] { endpoint->handleTimeout(); })) {
                return;
            }
            if (left == 0 && micros(endpoint->selectTimeout) == 0) {
                // A zero-length armed time-out fires at once, again and again, as the real loop
                // would spin; one expiry per step is enough to follow it.
                return;
            }
        }
        steppedNow += us;
    }

    /// Input arrives after a short while: first the time passes, then the loop reads.
    void deliver(const Bytes& message) {
        pass(static_cast<uint64_t>(in.u8()) * 1000);  // 0 to 255 ms
        const ssize_t n = ::write(appWriteFd, message.data(), message.size());
        QB_FUZZ_CHECK(n == static_cast<ssize_t>(message.size()),
                      "write to the input pipe: " << n << " errno " << errno);
        guarded([this] { endpoint->handleData(); });
    }

    void receiveFrame(uint8_t op) {
        const uint8_t shape = in.u8();
        // Mostly classic lengths; any length up to 64 now and then.
        const uint8_t count = (shape & 0x80) != 0 ? static_cast<uint8_t>(in.u8() % 65)
                                                  : static_cast<uint8_t>(shape % 9);
        Bytes data = in.bytes(count);
        data.resize(64, 0);
        const uint32_t canId = (op & 0x20) != 0 ? in.u32() : 0x7E8;
        const auto canType = static_cast<cantype_t>((op >> 6) % 4);
        std::unique_ptr<CANTraceMessageBase> msg;
        switch ((shape >> 4) % 3) {
            case 0:
                msg.reset(new CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, canType, count, canId,
                                                 data.data()));
                break;
            case 1:
                msg.reset(new CANTraceMessage(0, 0, CF_STANDARD, CSE_NO, canType, count, canId,
                                              data.data()));
                break;
            default:
                msg.reset(new CANProxyTraceMessage(0, 0, CF_STANDARD, CSE_NO, canType, count, canId,
                                                   data.data()));
                break;
        }
        lastFrameBytes = count;
        refused = false;
        deliver(qbfuzz::serialise(*msg));
        lastFrameBytes = -1;
        // A CAN trace message of 10 or more data bytes is always refused; 9 or fewer never are.
        QB_FUZZ_CHECK(ended || refused == (count >= 10),
                      "a frame of " << static_cast<int>(count) << " data bytes was "
                                    << (refused ? "" : "not ") << "refused");
    }

    void sendPayload() {
        const size_t length = in.u16() % (qbfuzz::MAX_FUZZ_PAYLOAD + 1);
        Bytes payload = in.bytes(length);
        for (size_t i = payload.size(); i < length; ++i) {
            payload.push_back(static_cast<uint8_t>(i));
        }
        CANTransportTraceMessage msg(0, sendId, payload.begin(), payload.end(), CT_STANDARD);
        deliver(qbfuzz::serialise(msg));
    }

    /// Runs a handler as the thread body would; false once the body would have ended.
    template <typename Handler>
    bool guarded(Handler handler) {
        const int stateBefore = endpoint->state;
        const size_t bufferedBefore = endpoint->receiveBuffer.size();
        try {
            handler();
            return true;
        } catch (const BufferMismatchException& e) {
            // Refused loudly, as documented, for a frame of 10 or more data bytes; nothing of the
            // frame reached the protocol. The thread body ends here; the object is left as it was
            // and this run goes on with it.
            QB_FUZZ_CHECK(lastFrameBytes >= 10, "BufferMismatchException for a frame of "
                                                    << lastFrameBytes
                                                    << " data bytes: " << e.what());
            QB_FUZZ_CHECK(
                endpoint->state == stateBefore && endpoint->receiveBuffer.size() == bufferedBefore,
                "a refused frame changed the endpoint");
            refused = true;
            return true;
        } catch (const std::bad_function_call&) {
            // An acknowledgement with no status callback ends the thread body (documented).
            QB_FUZZ_CHECK(!withCallback, "std::bad_function_call with a callback set");
            ended = true;
            return false;
        }
    }

    void drainOutputs() {
        drain(*proxyReader, true);
        drain(*appReader, false);
    }

    void drain(TraceMessageBuffer& reader, bool proxy) {
        for (;;) {
            const int n = reader.read();
            QB_FUZZ_CHECK(n >= 0, "reading the endpoint's output: " << n << " errno " << errno);
            for (;;) {
                std::unique_ptr<MessageBase> msg;
                try {
                    msg.reset(reader.getNextMessage());
                } catch (const QBException& e) {
                    QB_FUZZ_CHECK(false, "the endpoint wrote bytes that do not parse: " << e);
                }
                if (!msg) {
                    break;
                }
                if (proxy) {
                    checkFrame(*msg);
                } else {
                    checkPayload(*msg);
                }
            }
            if (n == 0) {
                return;
            }
        }
    }

    void checkFrame(const MessageBase& msg) {
        const auto* frame = dynamic_cast<const CANExtTraceMessage*>(&msg);
        QB_FUZZ_CHECK(frame != nullptr && msg.getMessageId() == MSGID_CAN_EXT,
                      "not a CANExtTraceMessage on the proxy: " << qbfuzz::describe(msg));
        QB_FUZZ_CHECK(frame->getNumberOfDataBytes() == 8 &&
                          frame->getCanId() == (sendId & 0x7FFu) &&
                          frame->getCanType() == CT_STANDARD && frame->getChannel() == 0 &&
                          frame->getFrameKind() == CF_STANDARD && frame->getTimeStamp() == 0,
                      "malformed frame on the proxy: " << qbfuzz::describe(msg));
    }

    void checkPayload(const MessageBase& msg) {
        const auto* payload = dynamic_cast<const CANTransportTraceMessage*>(&msg);
        QB_FUZZ_CHECK(payload != nullptr && msg.getMessageId() == MSGID_CAN_TRANSPORT,
                      "not a payload on the application pipe: " << qbfuzz::describe(msg));
        QB_FUZZ_CHECK(payload->getPayload().size() <= MAX_DELIVERED,
                      "payload of " << payload->getPayload().size() << " bytes delivered");
    }

    void checkInvariants() {
        const int st = endpoint->state;
        QB_FUZZ_CHECK(st >= 0 && st <= 7, "state " << st << " is not a defined bit set");
        QB_FUZZ_CHECK(endpoint->receiveBuffer.size() <= MAX_DELIVERED,
                      "receiveBuffer holds " << endpoint->receiveBuffer.size() << " bytes");
    }

    InputReader& in;
    std::unique_ptr<SteppedEndpoint> endpoint;
    std::unique_ptr<TraceMessageBuffer> proxyReader;
    std::unique_ptr<TraceMessageBuffer> appReader;
    uint16_t sendId = 0;
    bool withCallback = true;
    bool ended = false;
    int lastFrameBytes = -1;
    bool refused = false;
    size_t statusReports = 0;
    int appReadFd = -1;
    int appWriteFd = -1;
};

}  // namespace

/// The endpoint's millisleep(), replaced at link time (-Wl,--wrap): the sleep is taken on the
/// stepped clock.
extern "C" void __wrap__Z10millisleepi(int milliseconds) {
    if (milliseconds > 0) {
        steppedNow += static_cast<uint64_t>(milliseconds) * 1000u;
    }
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    qbfuzz::silenceLogStreams();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    InputReader in(data, size);
    Run run(in);
    run.steps();
    return 0;
}

// Test harness for the CAN transport endpoint: a subclass that exposes its protected members, a
// status-callback recorder, and a scripted peer that drives a started endpoint through its real
// pipes (the application's two pipe ends and the CAN proxy descriptor).
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/OutputCapture.h"
#include "common/Pipe.h"
#include "common/Wait.h"
#include "libqbcan/CANTransportThread.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/TraceMessageBuffer.h"
#include "libqbtrace/constants_canmessage.h"
#include "libqbtrace/messageID.h"

namespace qbtest {

using std::chrono::milliseconds;
using Bytes = std::vector<uint8_t>;
using Status = CANTransportThread::statuschange_t;
using Lines = std::vector<std::string>;
using TPCANMsg = CANTransportThread::TPCANMsg;
using Frames = std::vector<TPCANMsg>;

/// Deadline for events that should happen at once (generous: it costs time only on failure;
/// stretched on a slow target, see common/Wait.h).
constexpr milliseconds kEventWait = scaled(milliseconds(2000));
/// Deadline for events that follow the 1 s protocol timer. How long the timer took is checked
/// separately, against kOneSecondLow and kOneSecondHigh, which are never stretched.
constexpr milliseconds kTimerWait = scaled(milliseconds(3000));
/// Bounds accepted for the 1 s protocol timer on a loaded machine, in seconds. Not stretched on
/// a slow target: the timer is the endpoint's own, and the upper bound must still tell one
/// timer period from two.
constexpr double kOneSecondLow = 0.9;
constexpr double kOneSecondHigh = 1.6;

/// CAN identifier the harness configures as the endpoint's send identifier.
constexpr uint16_t kSendId = 0x7E0;
/// CAN identifier of the frames the scripted peer sends.
constexpr uint32_t kPeerId = 0x7E8;

/// The four flow-control frames (first byte 0x30 | code, then zeros), as either side sends them.
inline const Bytes kNotReady{0x30, 0, 0, 0, 0, 0, 0, 0};  // CTP_FC_NOT_READY_TO_RECEIVE
inline const Bytes kReady{0x31, 0, 0, 0, 0, 0, 0, 0};     // CTP_FC_READY_TO_RECEIVE
inline const Bytes kNotAck{0x32, 0, 0, 0, 0, 0, 0, 0};    // CTP_FC_NOT_ACKNOWLEDGE
inline const Bytes kAck{0x33, 0, 0, 0, 0, 0, 0, 0};       // CTP_FC_ACKNOWLEDGE

/// The endpoint with its protected members and helpers opened up for inspection and unit tests.
/// It records the POSIX handle of its thread (so that a test can signal it) and otherwise runs
/// the endpoint's own thread body unchanged.
class TestableTransport : public CANTransportThread {
  public:
    explicit TestableTransport(int debugLevel) : CANTransportThread(debugLevel) {}
    ~TestableTransport() override { stop(); }
    TestableTransport(const TestableTransport&) = delete;
    TestableTransport& operator=(const TestableTransport&) = delete;

    using CANTransportThread::canState_t;
    using CANTransportThread::MSGPART_INVALID;
    using CANTransportThread::RCTS_IDLE;
    using CANTransportThread::RCTS_RECEIVING;
    using CANTransportThread::RCTS_SENDING;
    using CANTransportThread::RCTS_WAIT_FOR_FC;

    using CANTransportThread::addReceivedData;
    using CANTransportThread::checkConsecutiveFrame;
    using CANTransportThread::checkFirstFrame;
    using CANTransportThread::checkFlowControl;
    using CANTransportThread::checkSingleFrame;
    using CANTransportThread::deleteFirstMessage;
    using CANTransportThread::getNextTraceMessage;
    using CANTransportThread::handleCANData;
    using CANTransportThread::handleData;
    using CANTransportThread::handleSendError;
    using CANTransportThread::handleTimeout;
    using CANTransportThread::prepareData;
    using CANTransportThread::printState;
    using CANTransportThread::processSendQueue;
    using CANTransportThread::sendCANMessage;
    using CANTransportThread::sendFlowControl;
    using CANTransportThread::setSelectTimeout;
    using CANTransportThread::showError;
    using CANTransportThread::showErrorAndClearBuffer;

    using CANTransportThread::bytesToReceive;
    using CANTransportThread::canProxyFD;
    using CANTransportThread::cfCounter;
    using CANTransportThread::connected;
    using CANTransportThread::curSendPtr;
    using CANTransportThread::debug;
    using CANTransportThread::delegateStatusChanged;
    using CANTransportThread::logDisconnected;
    using CANTransportThread::msgBuffer;
    using CANTransportThread::mutexBufferLock;
    using CANTransportThread::nextFrame;
    using CANTransportThread::readPipe;
    using CANTransportThread::receiveBuffer;
    using CANTransportThread::retryCount;
    using CANTransportThread::selectTimeout;
    using CANTransportThread::sendCANid;
    using CANTransportThread::sendQueue;
    using CANTransportThread::state;
    using CANTransportThread::timeNotSlept;
    using CANTransportThread::writePipe;

    void threadCode() override {
        workerHandle = pthread_self();
        workerKnown.store(true);
        CANTransportThread::threadCode();
    }

    /// True once the thread body has started; then worker() is its POSIX handle.
    bool hasWorker() const { return workerKnown.load(); }
    pthread_t worker() const { return workerHandle; }

  private:
    pthread_t workerHandle{};
    std::atomic<bool> workerKnown{false};
};

/// One call of the status callback.
struct StatusEvent {
    Status status;
    uint16_t arg;
    double time;  // monotonicSeconds() when the call was made
};

/// Records every call of the status callback, with its time, under a mutex.
class StatusRecorder {
  public:
    CANTransportThread::delstatus_t callback();
    std::vector<StatusEvent> events() const;
    size_t count() const;
    /// Waits until at least `n` calls have been recorded.
    bool waitForCount(size_t n, milliseconds timeout) const;

  private:
    mutable std::mutex mutex;
    std::vector<StatusEvent> recorded;
};

/// A frame as the endpoint wrote it to the CAN proxy: one CAN trace message.
struct ProxyFrame {
    double time = 0;  // monotonicSeconds() when the harness read it
    msgid_t msgId = MSGID_INVALID;
    timeStamp_t timeStamp = 0;
    uint8_t channel = 0;
    canframe_t frameKind = CF_STANDARD;
    uint8_t status = 0;
    cantype_t canType = CT_STANDARD;
    uint32_t canId = 0;
    Bytes data;
};

/// A payload as the endpoint delivered it to the application: one transport trace message.
struct DeliveredPayload {
    msgid_t msgId = MSGID_INVALID;
    timeStamp_t timeStamp = 0;
    uint32_t canId = 0;
    cantype_t canType = CT_STANDARD;
    Bytes payload;
};

/// Reads trace messages from a descriptor with a deadline (poll, then TraceMessageBuffer).
class MessageReader {
  public:
    explicit MessageReader(int fd);
    /// The next message, or null if none arrived within `timeout` (or the writer closed).
    std::unique_ptr<MessageBase> next(milliseconds timeout);

  private:
    int fd;
    TraceMessageBuffer buffer;
};

/// A frame record with identifier `id`, length `len` and the first (at most 8) bytes of `data`;
/// the other data bytes are 0x00.
TPCANMsg frame(uint32_t id, uint8_t len, const Bytes& data);
/// The same with length 8.
TPCANMsg frame(uint32_t id, const Bytes& data);
/// The same with length 8 and the harness's send identifier kSendId.
TPCANMsg frame(const Bytes& data);

/// Serialised CAN frame trace message (as the application would forward it from its proxy).
/// `kind` selects the class: MSGID_CAN_EXT (default), MSGID_CAN or MSGID_CAN_PROXY.
Bytes canFrameMessage(const Bytes& data, uint32_t canId = kPeerId, msgid_t kind = MSGID_CAN_EXT,
                      cantype_t type = CT_STANDARD);
/// Serialised transport payload trace message (a payload the application wants sent).
Bytes payloadMessage(const Bytes& payload, uint32_t canId = 0);
/// Bytes 0, 1, 2, ... (modulo 256) of the given length: a recognisable payload.
Bytes countingBytes(size_t length, uint8_t first = 0);
/// Hex text of bytes for failure messages, e.g. "10 08 00 01".
std::string hexText(const Bytes& bytes);

/// A configured endpoint with a scripted peer around it. The output capture is created first
/// and destroyed last; the destructor stops the endpoint's thread before anything else goes.
class TransportHarness {
  public:
    struct Options {
        int debug = 0;
        bool withCallback = true;
        uint16_t sendId = kSendId;
    };

    TransportHarness() : TransportHarness(Options()) {}
    explicit TransportHarness(int debugLevel) : TransportHarness(makeOptions(debugLevel)) {}
    explicit TransportHarness(const Options& options);
    ~TransportHarness();
    TransportHarness(const TransportHarness&) = delete;
    TransportHarness& operator=(const TransportHarness&) = delete;

    /// Starts the endpoint's thread.
    void start();

    // Application side.
    void writeInput(const Bytes& bytes);
    void sendFrame(const Bytes& data, uint32_t canId = kPeerId);
    void sendPayload(const Bytes& payload, uint32_t canId = 0);
    std::optional<DeliveredPayload> nextPayload(milliseconds timeout);
    ::testing::AssertionResult expectPayload(const Bytes& payload, uint32_t canId,
                                             milliseconds timeout = kEventWait);
    ::testing::AssertionResult expectNoPayload(milliseconds during);

    // CAN proxy side.
    std::optional<ProxyFrame> nextFrame(milliseconds timeout);
    /// The next frame sent must carry exactly `data` (8 bytes), the send identifier, and the
    /// carriage fields of every frame (MSGID_CAN_EXT, time stamp 0, channel 0, CF_STANDARD,
    /// CSE_NO, CT_STANDARD). `time`, if given, receives when it was read.
    ::testing::AssertionResult expectFrame(const Bytes& data, milliseconds timeout = kEventWait,
                                           double* time = nullptr);
    ::testing::AssertionResult expectNoFrame(milliseconds during);

    // Output.
    std::vector<std::string> outLines() const { return capture.outLines(); }
    std::vector<std::string> errLines() const { return capture.errLines(); }
    bool waitForLine(const std::string& line, milliseconds timeout = kEventWait) const;
    /// Waits until `line` has been written at least `n` times.
    bool waitForLineCount(const std::string& line, size_t n,
                          milliseconds timeout = kEventWait) const;
    bool waitForErrLine(const std::string& line, milliseconds timeout = kEventWait) const;

    OutputCapture capture;
    Pipe proxy;
    StatusRecorder status;
    TestableTransport transport;
    int readFD = -1;   // the application reads delivered payloads here
    int writeFD = -1;  // the application writes payloads and received frames here

  private:
    static Options makeOptions(int debugLevel) {
        Options o;
        o.debug = debugLevel;
        return o;
    }

    std::unique_ptr<MessageReader> proxyReader;
    std::unique_ptr<MessageReader> appReader;
};

/// Options of a harness whose endpoint sends with identifier `id`.
TransportHarness::Options withSendId(uint16_t id, int debugLevel = 0);
/// Options of a harness whose endpoint has no status callback.
TransportHarness::Options withoutCallback();

}  // namespace qbtest

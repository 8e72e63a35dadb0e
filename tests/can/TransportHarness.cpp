#include "can/TransportHarness.h"

#include <errno.h>
#include <poll.h>

#include <cstdio>
#include <iomanip>
#include <sstream>

#include "common/Wait.h"
#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANProxyTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbutil/QBException.h"

namespace qbtest {

// ---------------------------------------------------------------------------------------------
// StatusRecorder

CANTransportThread::delstatus_t StatusRecorder::callback() {
    return [this](Status status, uint16_t arg) {
        std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(StatusEvent{status, arg, monotonicSeconds()});
    };
}

std::vector<StatusEvent> StatusRecorder::events() const {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded;
}

size_t StatusRecorder::count() const {
    std::lock_guard<std::mutex> lock(mutex);
    return recorded.size();
}

bool StatusRecorder::waitForCount(size_t n, milliseconds timeout) const {
    return waitUntil([&] { return count() >= n; }, timeout);
}

// ---------------------------------------------------------------------------------------------
// MessageReader

MessageReader::MessageReader(int fd) : fd(fd), buffer(fd, nullptr) {}

std::unique_ptr<MessageBase> MessageReader::next(milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        try {
            std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
            if (msg) {
                return msg;
            }
        } catch (QBException& e) {
            ADD_FAILURE() << "unparsable bytes from the endpoint: " << e.text();
            continue;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) {
            return nullptr;
        }
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - now).count() + 1;
        pollfd p{fd, POLLIN, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            continue;  // the deadline is checked above
        }
        if ((p.revents & (POLLIN | POLLHUP)) == 0) {
            return nullptr;
        }
        const int r = buffer.read();
        if (r == TraceMessageBuffer::END_OF_INPUT || r == -1) {
            std::unique_ptr<MessageBase> msg(buffer.getNextMessage());
            return msg;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Message builders

Bytes canFrameMessage(const Bytes& data, uint32_t canId, msgid_t kind, cantype_t type) {
    const auto n = static_cast<uint8_t>(data.size());
    byteVec_t out;
    switch (kind) {
        case MSGID_CAN:
            CANTraceMessage(0, 0, CF_STANDARD, CSE_NO, type, n, canId, data.data())
                .createByteArray(out, true, false);
            break;
        case MSGID_CAN_PROXY:
            CANProxyTraceMessage(0, 0, CF_STANDARD, CSE_NO, type, n, canId, data.data())
                .createByteArray(out, true, false);
            break;
        default:
            CANExtTraceMessage(0, 0, CF_STANDARD, CSE_NO, type, n, canId, data.data())
                .createByteArray(out, true, false);
            break;
    }
    return out;
}

Bytes payloadMessage(const Bytes& payload, uint32_t canId) {
    CANTransportTraceMessage msg(0, canId, payload.begin(), payload.end(), CT_STANDARD);
    byteVec_t out;
    msg.createByteArray(out, true, false);
    return out;
}

TPCANMsg frame(uint32_t id, uint8_t len, const Bytes& data) {
    TPCANMsg m{};
    m.ID = id;
    m.LEN = len;
    for (size_t i = 0; i < data.size() && i < 8; ++i) {
        m.DATA[i] = data[i];
    }
    return m;
}

TPCANMsg frame(uint32_t id, const Bytes& data) {
    return frame(id, 8, data);
}

TPCANMsg frame(const Bytes& data) {
    return frame(kSendId, data);
}

Bytes countingBytes(size_t length, uint8_t first) {
    Bytes bytes(length);
    for (size_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

std::string hexText(const Bytes& bytes) {
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        text << (i == 0 ? "" : " ") << std::setw(2) << static_cast<unsigned>(bytes[i]);
    }
    return text.str();
}

// ---------------------------------------------------------------------------------------------
// TransportHarness

TransportHarness::Options withSendId(uint16_t id, int debugLevel) {
    TransportHarness::Options o;
    o.sendId = id;
    o.debug = debugLevel;
    return o;
}

TransportHarness::Options withoutCallback() {
    TransportHarness::Options o;
    o.withCallback = false;
    return o;
}

TransportHarness::TransportHarness(const Options& options)
    : capture(), proxy(true), status(), transport(options.debug) {
    transport.setSendCANid(options.sendId);
    if (options.withCallback) {
        CANTransportThread::delstatus_t cb = status.callback();
        transport.setDelegate(cb);
    }
    transport.open(readFD, writeFD);
    transport.setConnection(proxy.writeEnd());
    proxyReader.reset(new MessageReader(proxy.readEnd()));
    appReader.reset(new MessageReader(readFD));
}

TransportHarness::~TransportHarness() {
    transport.stop();
}

void TransportHarness::start() {
    transport.start();
}

void TransportHarness::writeInput(const Bytes& bytes) {
    if (!writeAll(writeFD, bytes)) {
        ADD_FAILURE() << "write to the endpoint's input failed, errno " << errno;
    }
}

void TransportHarness::sendFrame(const Bytes& data, uint32_t canId) {
    writeInput(canFrameMessage(data, canId));
}

void TransportHarness::sendPayload(const Bytes& payload, uint32_t canId) {
    writeInput(payloadMessage(payload, canId));
}

std::optional<DeliveredPayload> TransportHarness::nextPayload(milliseconds timeout) {
    std::unique_ptr<MessageBase> msg = appReader->next(timeout);
    if (!msg) {
        return std::nullopt;
    }
    DeliveredPayload d;
    d.msgId = msg->getMessageId();
    d.timeStamp = msg->getTimeStamp();
    if (auto t = dynamic_cast<CANTransportTraceMessage*>(msg.get())) {
        d.canId = t->getCanId();
        d.canType = t->getCanType();
        d.payload = t->getPayload();
    }
    return d;
}

::testing::AssertionResult TransportHarness::expectPayload(const Bytes& payload, uint32_t canId,
                                                           milliseconds timeout) {
    std::optional<DeliveredPayload> d = nextPayload(timeout);
    if (!d) {
        return ::testing::AssertionFailure() << "no payload delivered, expected " << payload.size()
                                             << " bytes: " << hexText(payload);
    }
    if (d->msgId != MSGID_CAN_TRANSPORT || d->timeStamp != 0 || d->canType != CT_STANDARD ||
        d->canId != canId || d->payload != payload) {
        return ::testing::AssertionFailure()
               << "delivered message id 0x" << std::hex << d->msgId << " ts " << std::dec
               << d->timeStamp << " type " << d->canType << " CAN id 0x" << std::hex << d->canId
               << std::dec << " payload (" << d->payload.size() << ") " << hexText(d->payload)
               << "; expected CAN id 0x" << std::hex << canId << std::dec << " payload ("
               << payload.size() << ") " << hexText(payload);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult TransportHarness::expectNoPayload(milliseconds during) {
    std::optional<DeliveredPayload> d = nextPayload(during);
    if (d) {
        return ::testing::AssertionFailure() << "unexpected payload " << hexText(d->payload);
    }
    return ::testing::AssertionSuccess();
}

std::optional<ProxyFrame> TransportHarness::nextFrame(milliseconds timeout) {
    std::unique_ptr<MessageBase> msg = proxyReader->next(timeout);
    if (!msg) {
        return std::nullopt;
    }
    ProxyFrame f;
    f.time = monotonicSeconds();
    f.msgId = msg->getMessageId();
    f.timeStamp = msg->getTimeStamp();
    if (auto c = dynamic_cast<CANTraceMessageBase*>(msg.get())) {
        f.channel = c->getChannel();
        f.frameKind = c->getFrameKind();
        f.status = c->getStatus();
        f.canType = c->getCanType();
        f.canId = c->getCanId();
        f.data.assign(c->getData(), c->getData() + c->getNumberOfDataBytes());
    }
    return f;
}

::testing::AssertionResult TransportHarness::expectFrame(const Bytes& data, milliseconds timeout,
                                                         double* time) {
    std::optional<ProxyFrame> f = nextFrame(timeout);
    if (!f) {
        return ::testing::AssertionFailure() << "no frame sent, expected " << hexText(data);
    }
    if (time != nullptr) {
        *time = f->time;
    }
    const uint32_t expectedId = transport.sendCANid & 0x7FF;
    if (f->msgId != MSGID_CAN_EXT || f->timeStamp != 0 || f->channel != 0 ||
        f->frameKind != CF_STANDARD || f->status != 0 || f->canType != CT_STANDARD ||
        f->canId != expectedId || f->data != data) {
        return ::testing::AssertionFailure()
               << "frame sent: message id 0x" << std::hex << f->msgId << " ts " << std::dec
               << f->timeStamp << " ch " << unsigned(f->channel) << " kind " << f->frameKind
               << " status " << unsigned(f->status) << " type " << f->canType << " id 0x"
               << std::hex << f->canId << std::dec << " data " << hexText(f->data)
               << "; expected id 0x" << std::hex << expectedId << std::dec << " data "
               << hexText(data);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult TransportHarness::expectNoFrame(milliseconds during) {
    std::optional<ProxyFrame> f = nextFrame(during);
    if (f) {
        return ::testing::AssertionFailure() << "unexpected frame " << hexText(f->data);
    }
    return ::testing::AssertionSuccess();
}

bool TransportHarness::waitForLine(const std::string& line, milliseconds timeout) const {
    return capture.waitForOutLine(line, timeout);
}

bool TransportHarness::waitForLineCount(const std::string& line, size_t n,
                                        milliseconds timeout) const {
    return waitUntil([&] { return countLines(capture.outLines(), line) >= n; }, timeout);
}

bool TransportHarness::waitForErrLine(const std::string& line, milliseconds timeout) const {
    return waitUntil([&] { return countLines(capture.errLines(), line) >= 1; }, timeout);
}

}  // namespace qbtest

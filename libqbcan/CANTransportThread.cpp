#include "libqbcan/CANTransportThread.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <streambuf>

#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANTraceMessageBase.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbutil/QBException.h"
#include "libqbutil/utility.h"

const CANTransportThread::msgpart_t CANTransportThread::MSGPART_INVALID = msgpart_t();

namespace {

/// Most data bytes a CAN trace message can hold; received messages are copied through a buffer
/// of this size so that no count the message reports can overrun the frame record.
constexpr size_t MAX_CAN_MESSAGE_BYTES = 64;

/// Payload bytes a single frame carries after its PCI byte.
constexpr size_t SINGLE_FRAME_PAYLOAD = 7;

/// Largest length a single frame's PCI nibble can announce.
constexpr size_t SINGLE_FRAME_MAX_ANNOUNCED = 15;

/// Passes every piece written to it on to `target` with one sputn() call. hexdump() writes each
/// row as one piece, so each row reaches the target whole, and the state of the stream that
/// owns the target (std::cerr) is not touched by a writer that holds no lock.
class RowForwarder : public std::streambuf {
  public:
    explicit RowForwarder(std::streambuf* target) : target(target) {}

  protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        return target != nullptr ? target->sputn(s, n) : n;
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        const char ch = traits_type::to_char_type(c);
        return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
    }

  private:
    std::streambuf* target;
};

}  // namespace

CANTransportThread::CANTransportThread(int _debug)
    : msgBuffer(nullptr),
      delegateStatusChanged(),
      canProxyFD(0),
      canProxySock(),
      state(RCTS_IDLE),
      readPipe{-1, -1},
      writePipe{-1, -1},
      mutexBufferLock(),
      nextFrame(CTF_SINGLE_OR_FIRST_FRAME),
      sendCANid(0),
      flowControl(0),
      cfCounter(0),
      retryCount(0),
      bytesToReceive(0),
      connected(false),
      logDisconnected(true),
      debug(_debug),
      sendQueue(),
      receiveBuffer(),
      curSendPtr(MSGPART_INVALID),
      frameBuffer() {
    std::memset(&canProxySock, 0, sizeof canProxySock);
}

CANTransportThread::~CANTransportThread() {
    // On its own thread (from the status callback) the object cannot be destroyed safely: the
    // thread would go on in freed memory. That is refused with an error line and an abort.
    refuseDestructionOnOwnThread(logName());
    // The thread body uses the pipes, the reader and the queue: it must be gone before they are.
    stop();
    closePipes();
    clear(true);
    delete msgBuffer;
    msgBuffer = nullptr;
}

void CANTransportThread::closePipes() {
    // Results are ignored: an end that was never opened is -1, and a close that fails leaves
    // nothing to retry (the descriptor is released either way).
    ::close(readPipe[0]);
    ::close(readPipe[1]);
    ::close(writePipe[0]);
    ::close(writePipe[1]);
    readPipe[0] = readPipe[1] = writePipe[0] = writePipe[1] = -1;
}

void CANTransportThread::setDelegate(delstatus_t& delegate) {
    delstatus_t copy(delegate);
    delegateStatusChanged.swap(copy);
}

void CANTransportThread::open(int& readFD, int& writeFD) {
    // A repeated open releases what the previous one created instead of abandoning it.
    if (readPipe[0] != -1 || readPipe[1] != -1 || writePipe[0] != -1 || writePipe[1] != -1) {
        closePipes();
    }
    delete msgBuffer;
    msgBuffer = nullptr;

    const char* failure = nullptr;
    if (::pipe(readPipe) != 0) {
        failure = "failed to open pipe: ";
    } else if (::pipe(writePipe) != 0) {
        failure = "failed to open pipe: ";
    } else {
        const int flags = ::fcntl(readPipe[0], F_GETFL);
        if (::fcntl(readPipe[0], F_SETFL, flags | O_NONBLOCK) == -1) {
            failure = "failed to set pipe non-blocking: ";
        }
    }
    if (failure != nullptr) {
        // The exception is built before the line is written; its allocation must not change
        // the errno that the line reports.
        const int failedErrno = errno;
        QBException e;
        errno = failedErrno;
        QB_SYSERROR(failure);
        throw e;
    }
    msgBuffer = new TraceMessageBuffer(readPipe[0], nullptr);
    readFD = writePipe[0];
    writeFD = readPipe[1];
}

void CANTransportThread::getFileDescriptors(int& readFD, int& writeFD) {
    readFD = writePipe[0];
    writeFD = readPipe[1];
}

void CANTransportThread::clear(bool all) {
    mutexBufferLock.lock();
    if (!sendQueue.empty()) {
        auto first = sendQueue.begin();
        if ((state & RCTS_SENDING) != 0 && !all) {
            ++first;  // the payload being sent stays
        } else {
            state &= ~(RCTS_SENDING | RCTS_WAIT_FOR_FC);
        }
        for (auto it = first; it != sendQueue.end(); ++it) {
            delete *it;
        }
        sendQueue.erase(first, sendQueue.end());
    }
    mutexBufferLock.unlock();
    QB_DEBUG(debug != 0, "state = " << printState(state));
}

std::string CANTransportThread::printState(canState_t st) {
    std::stringstream text;
    if (st == RCTS_IDLE) {
        text << "RCTS_IDLE";
    }
    if ((st & RCTS_SENDING) != 0) {
        text << "RCTS_SENDING ";
    }
    if ((st & RCTS_RECEIVING) != 0) {
        text << "RCTS_RECEIVING ";
    }
    if ((st & RCTS_WAIT_FOR_FC) != 0) {
        text << "RCTS_WAIT_FOR_FC ";
    }
    if (st > 7) {
        text << "UNKNWON (0x" << std::hex << st << ")";
    }
    return text.str();
}

std::ostream& operator<<(std::ostream& os, CANTransportThread::statuschange_t st) {
    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill('0');
    switch (st) {
        case CANTransportThread::CTT_CONNECTED:
            os << "CTT_CONNECTED";
            break;
        case CANTransportThread::CTT_DISCONNECTED:
            os << "CTT_DISCONNECTED";
            break;
        case CANTransportThread::CTT_SEND_TIMEOUT:
            os << "CTT_SEND_TIMEOUT";
            break;
        case CANTransportThread::CTT_RECEIVE_TIMEOUT:
            os << "CTT_RECEIVE_TIMEOUT";
            break;
        case CANTransportThread::CTT_ACKNOWLEDGED:
            os << "CTT_ACKNOWLEDGED";
            break;
        default:
            os << "ERROR";
            break;
    }
    os.flags(flags);
    os.fill(fill);
    return os;
}

std::ostream& operator<<(std::ostream& os, const CANTransportThread::TPCANMsg& msg) {
    const std::ios_base::fmtflags flags = os.flags();
    const char fill = os.fill();
    const std::streamsize width = os.width(0);
    os << " 0x" << std::hex << std::setfill('0') << std::setw(8) << msg.ID;
    os << ' ' << static_cast<unsigned int>(msg.LEN);
    if (msg.LEN > 0) {
        os << ' ';
        const size_t shown = std::min<size_t>(msg.LEN, sizeof msg.DATA);
        for (size_t i = 0; i < shown; ++i) {
            os << " 0x" << std::setw(2) << static_cast<unsigned int>(msg.DATA[i]);
        }
    }
    os.flags(flags);
    os.fill(fill);
    os.width(width);
    return os;
}

// ---------------------------------------------------------------------------------------------
// The loop

void CANTransportThread::threadCode() {
    // Frames and payloads are written to pipes whose reader may be gone; that must fail the
    // write with EPIPE (which is logged) rather than end the whole process.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);

    QB_INFO("Start CANTransportThread");
    setSelectTimeout(5, 0);
    const int maxFD = readPipe[0] + 1;
    fd_set readSet;
    timeval* pTimeout = nullptr;
    bool bufferEmpty = true;
    for (;;) {
        QB_DEBUG(debug != 0, "state = " << printState(state));
        FD_ZERO(&readSet);
        // Once the application has closed its end, the pipe is readable for ever (end of file);
        // waiting on it then would turn the loop into a spin.
        const bool inputOpen = !msgBuffer->atEndOfInput();
        if (inputOpen) {
            FD_SET(readPipe[0], &readSet);
        }
        mutexBufferLock.lock();
        bufferEmpty = sendQueue.empty();
        mutexBufferLock.unlock();
        if (state == RCTS_IDLE && bufferEmpty) {
            QB_DEBUG(debug > 2, "timeout set to 0");
            setSelectTimeout(0, 0);
            pTimeout = nullptr;
        } else {
            pTimeout = &timeNotSlept;
        }
        const int n = waitForInput(inputOpen ? maxFD : 0, &readSet, nullptr, nullptr, pTimeout);
        if (n == -1 && errno == EINTR) {
            QB_DEBUG(debug != 0, "pselect interrupted");
            continue;
        }
        if (n == -1) {
            QB_SYSERROR("pselect() reported an error.");
            QB_DEBUG(debug != 0, "pselect interrupted");
            continue;
        }
        if (n == 0) {
            QB_DEBUG(debug > 1, "pselect timeout");
            timeNotSlept = selectTimeout;
            handleTimeout();
            continue;
        }
        QB_DEBUG(debug > 2, "pselect data available");
        if (inputOpen && FD_ISSET(readPipe[0], &readSet)) {
            handleData();
        }
    }
}

void CANTransportThread::handleData() {
    // One read takes everything the input holds (up to the reader's chunk limit); the messages
    // it completed are handled one after the other, and the input is read again only when they
    // are done and the read may have left bytes behind. A read that emptied the input is not
    // followed by one that could only find it empty: the loop's pselect() waits for more.
    bool readInput = true;
    for (;;) {
        bool rejected = false;
        std::unique_ptr<MessageBase> msg;
        if (msgBuffer->hasUnparsedInput()) {
            msg.reset(getNextTraceMessage(&rejected, false));
        } else if (readInput) {
            msg.reset(getNextTraceMessage(&rejected, true));
            readInput = msgBuffer->mayHaveMoreInput();
        } else {
            return;
        }
        if (!msg) {
            // Refused bytes end a fetch without a message although whole messages may be
            // buffered behind them; nothing would wake the loop for those, so go on. Every
            // refusal drops bytes, so this ends.
            if (rejected && msgBuffer->hasUnparsedInput()) {
                continue;
            }
            if (readInput && !msgBuffer->atEndOfInput()) {
                continue;
            }
            return;
        }
        QB_DEBUG(debug != 0, "CAN data received:  " << *msg);
        bool known = false;
        switch (msg->getMessageId()) {
            case MSGID_CAN:
            case MSGID_CAN_EXT:
            case MSGID_CAN_PROXY: {
                const CANTraceMessageBase* canMsg = msg->canFrame();
                if (canMsg == nullptr) {
                    break;
                }
                known = true;
                TPCANMsg frame;
                std::memset(&frame, 0, sizeof frame);
                frame.ID = canMsg->getCanId();
                frame.LEN = canMsg->getDlc();
                // The data length code is the copy's limit, so up to 9 bytes pass; they land in
                // a buffer large enough for any message, and the record keeps its 8.
                uint8_t bytes[MAX_CAN_MESSAGE_BYTES] = {};
                canMsg->getDataBytes(bytes, frame.LEN);
                std::memcpy(frame.DATA, bytes, sizeof frame.DATA);
                handleCANData(frame);
                break;
            }
            case MSGID_CAN_TRANSPORT: {
                const auto* payload = dynamic_cast<const CANTransportTraceMessage*>(msg.get());
                if (payload == nullptr) {
                    break;
                }
                known = true;
                prepareData(payload->getPayload().data(), payload->getPayload().size());
                break;
            }
            default:
                break;
        }
        if (!known) {
            QB_ERROR("unknown trace-message id found.");
            byteVec_t bytes = msg->getRawBytes();
            if (bytes.empty()) {
                msg->createByteArray(bytes, true, false);
            }
            // The dump is written after the error line has released the log mutex, so that a
            // large message does not hold up every thread that logs. Each row goes to the
            // buffer of std::cerr in one piece (RowForwarder), so rows stay whole; lines of
            // other threads may fall between them.
            RowForwarder rows(std::cerr.rdbuf());
            std::ostream dump(&rows);
            const uint8_t* begin = bytes.data();
            hexdump(dump, begin, begin + bytes.size(), "[ERROR] CANTransportThread:", 16,
                    HEXDUMP_PREFIX_NONE, true);
        }
    }
}

MessageBase* CANTransportThread::getNextTraceMessage(bool* rejectedInput, bool readFirst) {
    if (readFirst) {
        const bool wasAtEnd = msgBuffer->atEndOfInput();
        const int result = msgBuffer->readAvailable();
        if (result == -1) {
            QB_SYSERROR("failed to read data: ");
            return nullptr;
        }
        if (result == TraceMessageBuffer::END_OF_INPUT && !wasAtEnd) {
            QB_INFO("input pipe closed by the application: no further input is read");
        }
    }
    try {
        return msgBuffer->getNextMessage();
    } catch (QBException& e) {
        QB_ERROR("Got exception: " << e);
        if (rejectedInput != nullptr) {
            *rejectedInput = true;
        }
        return nullptr;
    }
}

void CANTransportThread::handleTimeout() {
    QB_DEBUG(debug != 0, "state = " << printState(state));
    if ((state & RCTS_RECEIVING) != 0) {
        sendFlowControl(CTP_FC_NOT_ACKNOWLEDGE);
        receiveBuffer.clear();
        if (delegateStatusChanged) {
            QB_INFO("CTT_RECEIVE_TIMEOUT");
            delegateStatusChanged(CTT_RECEIVE_TIMEOUT, 0);
        }
    }
    if ((state & RCTS_WAIT_FOR_FC) != 0) {
        handleSendError(true);
    } else {
        processSendQueue();
    }
}

// ---------------------------------------------------------------------------------------------
// Sending side

void CANTransportThread::prepareData(const uint8_t* data, size_t len) {
    std::unique_ptr<std::vector<TPCANMsg>> databuf(new std::vector<TPCANMsg>());
    TPCANMsg canMsg;
    std::memset(&canMsg, 0, sizeof canMsg);
    canMsg.ID = sendCANid;
    canMsg.LEN = 8;
    if (len < 8) {
        canMsg.DATA[0] = static_cast<uint8_t>(len);
        if (len > 0) {
            std::memcpy(&canMsg.DATA[1], data, len);
        }
        databuf->push_back(canMsg);
    } else {
        databuf->reserve(1 + (len - 6 + 6) / 7);
        canMsg.DATA[0] = static_cast<uint8_t>(0x10 | ((len >> 8) & 0x0F));
        canMsg.DATA[1] = static_cast<uint8_t>(len & 0xFF);
        std::memcpy(&canMsg.DATA[2], data, 6);
        databuf->push_back(canMsg);
        const uint8_t* pData = data + 6;
        size_t bytesLeft = len - 6;
        unsigned int sequence = 0;
        while (bytesLeft != 0) {
            const size_t x = std::min<size_t>(bytesLeft, 7);
            canMsg.DATA[0] = static_cast<uint8_t>(0x20 | (sequence & 0x0F));
            std::memcpy(&canMsg.DATA[1], pData, x);
            if (bytesLeft < 7) {
                std::memset(&canMsg.DATA[1 + x], 0, 7 - x);
            }
            databuf->push_back(canMsg);
            pData += x;
            bytesLeft -= x;
            ++sequence;
        }
    }
    if (len < 8) {
        QB_DEBUG(debug != 0, "single frame:  " << canMsg);
    } else {
        QB_DEBUG(debug != 0, "consecutive frame:  ");
    }
    mutexBufferLock.lock();
    sendQueue.push_back(databuf.release());
    mutexBufferLock.unlock();
    if (state == RCTS_IDLE) {
        processSendQueue();
    }
}

void CANTransportThread::processSendQueue() {
    if ((state & RCTS_WAIT_FOR_FC) != 0) {
        return;
    }
    mutexBufferLock.lock();
    if (sendQueue.empty()) {
        mutexBufferLock.unlock();
        return;
    }
    std::vector<TPCANMsg>& front = *sendQueue.front();
    if ((state & RCTS_SENDING) == 0) {
        state |= RCTS_SENDING;
        curSendPtr = front.begin();
        sendCANMessage(*curSendPtr);
    } else {
        if (curSendPtr == front.end()) {
            QB_ERROR("reached end of vector - be confused :-/");
            state = RCTS_IDLE;
            mutexBufferLock.unlock();
            return;
        }
        ++curSendPtr;
        if (curSendPtr == front.end()) {
            QB_ERROR("reached end of vector (2) - be confused :-/");
            state = RCTS_IDLE;
            mutexBufferLock.unlock();
            return;
        }
        sendCANMessage(*curSendPtr);
    }
    if (isConsecutiveFrame(curSendPtr->DATA[0])) {
        for (++curSendPtr; curSendPtr != front.end(); ++curSendPtr) {
            sendCANMessage(*curSendPtr);
        }
    }
    setSelectTimeout(1, 0);
    state |= RCTS_WAIT_FOR_FC;
    mutexBufferLock.unlock();
}

ssize_t CANTransportThread::writeMessage(int fd, const byteVec_t& bytes, bool cancellable) {
    // The whole message or a failure: partial writes are continued, interrupted ones resumed,
    // and a non-blocking descriptor is waited for. A stop() during a cancellable write can leave
    // the message cut; the reader drops a cut message (the next message's frame start ends it).
    return writeAll(fd, bytes.data(), bytes.size(), cancellable);
}

void CANTransportThread::sendCANMessage(TPCANMsg& msg) {
    CANExtTraceMessage cmsg(0, 0, CF_STANDARD, CSE_NO, CT_STANDARD, msg.LEN, msg.ID, msg.DATA);
    QB_DEBUG(debug > 0, "CAN write to canProxyFD: " << cmsg);
    // Serialised into a buffer kept for the thread's life: a frame costs no allocation.
    cmsg.createByteArray(frameBuffer, true, false);
    if (writeMessage(canProxyFD, frameBuffer, false) == -1) {
        QB_SYSERROR("failed to send data to the "
                    << "CAN proxy: ");
    }
}

uint16_t CANTransportThread::deleteFirstMessage() {
    uint16_t id = 0;
    removeFirstMessage(id);
    return id;
}

bool CANTransportThread::removeFirstMessage(uint16_t& id) {
    mutexBufferLock.lock();
    if (sendQueue.empty()) {
        // clear(true) from another thread dropped the payload while its acknowledgement was
        // being handled.
        mutexBufferLock.unlock();
        return false;
    }
    std::unique_ptr<std::vector<TPCANMsg>> frames(sendQueue.front());
    sendQueue.pop_front();
    mutexBufferLock.unlock();
    id = frames->empty() ? 0 : static_cast<uint16_t>(frames->front().DATA[1]);
    return true;
}

bool CANTransportThread::sendQueueEmpty() {
    mutexBufferLock.lock();
    const bool queueEmpty = sendQueue.empty();
    mutexBufferLock.unlock();
    if (!queueEmpty) {
        return false;
    }
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(readPipe[0], &readSet);
    timespec timeout = {0, 0};
    return ::pselect(readPipe[0] + 1, &readSet, nullptr, nullptr, &timeout, nullptr) == 0;
}

void CANTransportThread::checkFlowControl(TPCANMsg& msg) {
    QB_DEBUG(debug > 1, msg);
    if ((state & RCTS_WAIT_FOR_FC) == 0) {
        QB_ERROR("received a flow control but has no sending state." << msg);
        return;
    }
    state &= ~RCTS_WAIT_FOR_FC;
    const int code = msg.DATA[0] & 0x0F;
    switch (code) {
        case CTP_FC_ACKNOWLEDGE: {
            QB_DEBUG(debug > 1, "CTP_FC_ACKNOWLEDGE");
            uint16_t msgId = 0;
            if (removeFirstMessage(msgId)) {
                // Called without a test on purpose: acknowledged payloads must be heard of, and
                // an endpoint without a callback ends with std::bad_function_call.
                delegateStatusChanged(CTT_ACKNOWLEDGED, msgId);
                setSelectTimeout(0, 10);
            }
            state &= ~RCTS_SENDING;
            nextFrame = CTF_SINGLE_OR_FIRST_FRAME;
            retryCount = 0;
            curSendPtr = MSGPART_INVALID;
            break;
        }
        case CTP_FC_READY_TO_RECEIVE: {
            mutexBufferLock.lock();
            const bool noDataLeft = curSendPtr == MSGPART_INVALID || sendQueue.empty() ||
                                    curSendPtr == sendQueue.front()->end();
            mutexBufferLock.unlock();
            if (noDataLeft) {
                QB_ERROR("got READY_TO_RECEIVE but"
                         << " have no data left that could be send.");
                state |= RCTS_WAIT_FOR_FC;
                return;
            }
            retryCount = 0;
            processSendQueue();
            break;
        }
        case CTP_FC_NOT_READY_TO_RECEIVE:
        case CTP_FC_NOT_ACKNOWLEDGE:
            QB_ERROR("CTP_FC_NOT_ACKNOWLEDGE or CTP_FC_NOT_READY_TO_RECEIVE received [" << code
                                                                                        << "]");
            millisleep(10);
            handleSendError(true);
            break;
        default:
            break;
    }
}

void CANTransportThread::handleSendError(bool doResend) {
    QB_DEBUG(debug > 0, "state = " << printState(state));
    if (logDisconnected) {
        QB_INFO("send retry = " << retryCount);
    }
    ++retryCount;
    state &= ~(RCTS_SENDING | RCTS_WAIT_FOR_FC);
    if (retryCount <= 4) {
        if (doResend) {
            processSendQueue();
        }
        setSelectTimeout(1, 0);
        return;
    }
    clear(true);
    retryCount = 0;
    if (doResend && connected) {
        connected = false;
        clear(true);
        state = RCTS_IDLE;
        receiveBuffer.clear();
        if (delegateStatusChanged && logDisconnected) {
            QB_INFO("CTT_DISCONNECTED");
            logDisconnected = false;
            delegateStatusChanged(CTT_DISCONNECTED, 0);
        }
        return;
    }
    if (delegateStatusChanged && logDisconnected) {
        QB_INFO("CTT_SEND_TIMEOUT");
        logDisconnected = false;
        delegateStatusChanged(CTT_SEND_TIMEOUT, 0);
    }
    setSelectTimeout(1, 0);
}

// ---------------------------------------------------------------------------------------------
// Receiving side

void CANTransportThread::handleCANData(TPCANMsg& msg) {
    QB_DEBUG(debug > 1, "CAN data received from the CAN proxy: " << msg);
    QB_DEBUG(debug > 2, "connected: " << connected);
    if (!connected) {
        QB_DEBUG(debug > 0, "other side is alive, connected");
        connected = true;
        logDisconnected = true;
        if (delegateStatusChanged) {
            QB_INFO("CTT_CONNECTED");
            delegateStatusChanged(CTT_CONNECTED, 0);
        }
    }
    switch (classifyFrame(msg.DATA[0])) {
        case CTP_FRAME_FLOW_CONTROL:
            checkFlowControl(msg);
            break;
        case CTP_FRAME_SINGLE:
            checkSingleFrame(msg);
            break;
        case CTP_FRAME_FIRST:
            checkFirstFrame(msg);
            break;
        case CTP_FRAME_CONSECUTIVE:
            checkConsecutiveFrame(msg);
            break;
        case CTP_FRAME_INVALID:
        default:
            showErrorAndClearBuffer(msg);
            break;
    }
}

void CANTransportThread::checkSingleFrame(TPCANMsg& msg) {
    QB_DEBUG(debug > 1, msg);
    if (nextFrame != CTF_SINGLE_OR_FIRST_FRAME) {
        showErrorAndClearBuffer(msg);
        return;
    }
    const uint16_t length = getFrameParam(msg.DATA[0]);
    // The nibble may announce up to 15 bytes, the frame holds 7: the rest is delivered as 0x00.
    uint8_t payload[SINGLE_FRAME_MAX_ANNOUNCED] = {};
    std::memcpy(payload, &msg.DATA[1], SINGLE_FRAME_PAYLOAD);
    bytesToReceive = length;
    addReceivedData(static_cast<uint16_t>(msg.ID & 0xFFFF), payload, length);
    setSelectTimeout(1, 0);
}

void CANTransportThread::checkFirstFrame(TPCANMsg& msg) {
    QB_DEBUG(debug > 1, msg);
    if (nextFrame != CTF_SINGLE_OR_FIRST_FRAME) {
        showErrorAndClearBuffer(msg);
        return;
    }
    cfCounter = 0;
    bytesToReceive = getFrameParam(static_cast<uint16_t>(msg.DATA[0] | (msg.DATA[1] << 8)));
    addReceivedData(static_cast<uint16_t>(msg.ID & 0xFFFF), &msg.DATA[2], 6);
    sendFlowControl(CTP_FC_READY_TO_RECEIVE);
}

void CANTransportThread::checkConsecutiveFrame(TPCANMsg& msg) {
    QB_DEBUG(debug > 1, msg);
    if (nextFrame != CTF_CONSECUTIVE_FRAME) {
        showErrorAndClearBuffer(msg);
        return;
    }
    const int sn = getFrameParam(msg.DATA[0]);
    if (sn == cfCounter) {
        cfCounter = sn + 1 > 15 ? 0 : sn + 1;
        // Nothing is missing any more (the first frame announced 6 bytes or fewer): the frame
        // completes the transfer without adding bytes.
        const int n = std::max(0, std::min(7, bytesToReceive));
        addReceivedData(static_cast<uint16_t>(msg.ID & 0xFFFF), &msg.DATA[1],
                        static_cast<size_t>(n));
    } else {
        QB_ERROR("sequence counter of "
                 << "consecutive frame wrong. Got " << sn << " but expected " << cfCounter);
        sendFlowControl(CTP_FC_NOT_ACKNOWLEDGE);
        receiveBuffer.clear();
    }
}

void CANTransportThread::addReceivedData(uint16_t canID, const uint8_t* data, size_t len) {
    QB_DEBUG(debug > 2, "canID=" << std::hex << canID << std::dec);
    receiveBuffer.insert(receiveBuffer.end(), data, data + len);
    bytesToReceive -= static_cast<int>(len);
    if (bytesToReceive > 0) {
        return;
    }
    {
        CANTransportTraceMessage msg(0, canID, receiveBuffer.begin(), receiveBuffer.end(),
                                     CT_STANDARD);
        byteVec_t buf;
        msg.createByteArray(buf, true, false);
        if (writeMessage(writePipe[1], buf, true) == -1) {
            QB_SYSERROR("failed to write data to pipe: ");
            sendFlowControl(CTP_FC_NOT_ACKNOWLEDGE);
        } else {
            sendFlowControl(CTP_FC_ACKNOWLEDGE);
        }
    }
    nextFrame = CTF_SINGLE_OR_FIRST_FRAME;
    receiveBuffer.clear();
    state &= ~RCTS_RECEIVING;
}

void CANTransportThread::sendFlowControl(int code) {
    TPCANMsg frame;
    std::memset(&frame, 0, sizeof frame);
    frame.ID = sendCANid;
    frame.LEN = 8;
    frame.DATA[0] = static_cast<uint8_t>(0x30 | (code & 0x0F));
    QB_DEBUG(debug > 2, frame);
    QB_DEBUG(debug != 0, frame);
    sendCANMessage(frame);
    switch (code) {
        case CTP_FC_READY_TO_RECEIVE:
            setSelectTimeout(1, 0);
            nextFrame = CTF_CONSECUTIVE_FRAME;
            state |= RCTS_RECEIVING;
            break;
        case CTP_FC_NOT_ACKNOWLEDGE:
        case CTP_FC_ACKNOWLEDGE:
            nextFrame = CTF_SINGLE_OR_FIRST_FRAME;
            state &= ~RCTS_RECEIVING;
            break;
        default:
            break;
    }
}

void CANTransportThread::showError(TPCANMsg& msg) {
    const char* expected =
        nextFrame == CTF_CONSECUTIVE_FRAME ? "consecutive frame" : "first or single frame";
    const uint8_t kind = msg.DATA[0] >> 4;
    const char* received = nullptr;
    if (isFlowControlFrame(msg.DATA[0])) {
        received = "flow control";
    } else if (kind == 2) {
        received = "consecutive frame";
    } else if (kind == 1) {
        received = "first frame";
    } else if (kind != 0) {
        received = "unknown frame";
    } else {
        received = "single frame";
    }
    QB_ERROR("received " << received << " but expected " << expected);
    QB_ERROR("message: " << msg);
}

void CANTransportThread::showErrorAndClearBuffer(TPCANMsg& msg) {
    showError(msg);
    QB_ERROR("send CTP_FC_NOT_READY_TO_RECEIVE");
    sendFlowControl(CTP_FC_NOT_READY_TO_RECEIVE);
    QB_ERROR("receiveBuffer.clear()");
    receiveBuffer.clear();
}

#include "libqbtrace/TraceMessageBuffer.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "libqbtrace/CANExtTraceMessage.h"
#include "libqbtrace/CANProxyTraceMessage.h"
#include "libqbtrace/CANTraceMessage.h"
#include "libqbtrace/CANTransportTraceMessage.h"
#include "libqbtrace/RawTraceMessage.h"
#include "libqbutil/QBException.h"

namespace {

// Bytes taken from the descriptor per read() system call.
constexpr size_t READ_CHUNK = 8192;

// Offsets within the content header (docs/wire-format.md).
constexpr size_t OFF_VERSION = 0;
constexpr size_t OFF_ID = 1;
constexpr size_t OFF_TIMESTAMP = 3;

// Body of the CAN frame messages: 9 fixed bytes, then the data bytes.
constexpr size_t CAN_FIXED_BODY = 9;
constexpr size_t CAN_MAX_DATA = 64;
// Body of a transport message: identifier and type, then the payload.
constexpr size_t TRANSPORT_FIXED_BODY = 5;

uint16_t getU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

uint32_t getU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint64_t getU64(const uint8_t* p) {
    return static_cast<uint64_t>(getU32(p)) | (static_cast<uint64_t>(getU32(p + 4)) << 32);
}

// Takes the optional mutex for the lifetime of the object.
class OptionalLock {
  public:
    explicit OptionalLock(std::mutex* m) : m(m) {
        if (m != nullptr) {
            m->lock();
        }
    }
    ~OptionalLock() {
        if (m != nullptr) {
            m->unlock();
        }
    }
    OptionalLock(const OptionalLock&) = delete;
    OptionalLock& operator=(const OptionalLock&) = delete;

  private:
    std::mutex* m;
};

bool knownCanType(uint8_t type) {
    return type <= CT_FD_EXTENDED;
}

// Checks the body of a CAN frame message; returns an empty text if it is valid.
std::string checkCanBody(const uint8_t* body, size_t n) {
    if (n < CAN_FIXED_BODY) {
        return "CAN frame body of " + std::to_string(n) + " bytes is shorter than " +
               std::to_string(CAN_FIXED_BODY);
    }
    const uint8_t kind = body[1];
    const uint8_t status = body[2];
    const uint8_t type = body[3];
    const uint32_t id = getU32(body + 4);
    const size_t count = body[8];
    // Every frame passes through here: the text stream is built only for a bad one.
    const bool valid = count <= CAN_MAX_DATA && n == CAN_FIXED_BODY + count && kind < CF_NUM &&
                       (status & 0x30) == 0 && (status & 0x0F) < CSE_NUM && knownCanType(type) &&
                       CANTraceMessageBase::fixCanId(id, static_cast<cantype_t>(type)) == id;
    if (valid) {
        return std::string();
    }
    std::ostringstream reason;
    if (count > CAN_MAX_DATA) {
        reason << "CAN frame with " << count << " data bytes, more than " << CAN_MAX_DATA;
    } else if (n != CAN_FIXED_BODY + count) {
        reason << "CAN frame body of " << n << " bytes does not match its " << count
               << " data bytes";
    } else if (kind >= CF_NUM) {
        reason << "unknown CAN frame kind " << static_cast<unsigned>(kind);
    } else if ((status & 0x30) != 0) {
        reason << "CAN status byte 0x" << std::hex << static_cast<unsigned>(status)
               << " has reserved bits set";
    } else if ((status & 0x0F) >= CSE_NUM) {
        reason << "unknown CAN error state " << static_cast<unsigned>(status & 0x0F);
    } else if (!knownCanType(type)) {
        reason << "unknown CAN type " << static_cast<unsigned>(type);
    } else if (CANTraceMessageBase::fixCanId(id, static_cast<cantype_t>(type)) != id) {
        reason << "CAN identifier 0x" << std::hex << id << " too wide for CAN type " << std::dec
               << static_cast<unsigned>(type);
    }
    return reason.str();
}

template <typename CanMessage>
std::unique_ptr<MessageBase> makeCanMessage(timeStamp_t ts, const uint8_t* body) {
    const uint8_t status = body[2];
    std::unique_ptr<CanMessage> msg(new CanMessage(
        ts, body[0], static_cast<canframe_t>(body[1]), static_cast<canstaterr_t>(status & 0x0F),
        static_cast<cantype_t>(body[3]), body[8], getU32(body + 4), body + CAN_FIXED_BODY));
    msg->setFdFlags((status & 0x40) != 0, (status & 0x80) != 0);
    return msg;
}

// Builds the message for identifier `id` from its body. Returns null and sets `reason` if the
// body is not valid for the identifier.
std::unique_ptr<MessageBase> parseBody(msgid_t id, timeStamp_t ts, const uint8_t* body, size_t n,
                                       std::string& reason) {
    switch (id) {
        case MSGID_CAN:
        case MSGID_CAN_EXT:
        case MSGID_CAN_PROXY:
            reason = checkCanBody(body, n);
            if (!reason.empty()) {
                return nullptr;
            }
            if (id == MSGID_CAN) {
                return makeCanMessage<CANTraceMessage>(ts, body);
            }
            if (id == MSGID_CAN_EXT) {
                return makeCanMessage<CANExtTraceMessage>(ts, body);
            }
            return makeCanMessage<CANProxyTraceMessage>(ts, body);
        case MSGID_CAN_TRANSPORT: {
            if (n < TRANSPORT_FIXED_BODY) {
                std::ostringstream text;
                text << "CAN transport body of " << n << " bytes is shorter than "
                     << TRANSPORT_FIXED_BODY;
                reason = text.str();
                return nullptr;
            }
            if (!knownCanType(body[4])) {
                reason = "unknown CAN type " + std::to_string(body[4]);
                return nullptr;
            }
            return std::unique_ptr<MessageBase>(
                new CANTransportTraceMessage(ts, getU32(body), body + TRANSPORT_FIXED_BODY,
                                             body + n, static_cast<cantype_t>(body[4])));
        }
        default:
            break;
    }
    return std::unique_ptr<MessageBase>(new RawTraceMessage(id, ts, byteVec_t(body, body + n)));
}

[[noreturn]] void throwDropped(size_t count, const std::string& why) {
    QBException e;
    e << "trace message stream: dropped " << count << " bytes: " << why;
    throw e;
}

std::string idText(msgid_t id) {
    std::ostringstream text;
    text << "message id 0x" << std::hex << static_cast<unsigned>(id);
    return text.str();
}

bool isReserved(uint8_t b) {
    return b == MessageBase::FRAME_START || b == MessageBase::FRAME_END ||
           b == MessageBase::FRAME_ESCAPE;
}

// Position of the first reserved byte in [p, end), or end.
const uint8_t* findReserved(const uint8_t* p, const uint8_t* end) {
    while (p != end && !isReserved(*p)) {
        ++p;
    }
    return p;
}

// Position of the first FRAME_START or FRAME_END in [p, end), or end.
const uint8_t* findStartOrEnd(const uint8_t* p, const uint8_t* end) {
    while (p != end && *p != MessageBase::FRAME_START && *p != MessageBase::FRAME_END) {
        ++p;
    }
    return p;
}

}  // namespace

TraceMessageBuffer::TraceMessageBuffer(int fd, std::mutex* mutex)
    : fd(fd),
      mutex(mutex),
      state(DS_HUNT),
      frameBytes(0),
      queuedBytes(0),
      droppedBytes(0),
      droppedPieces(0),
      lastDropInHunt(false),
      endOfInput(false),
      moreInput(false) {}

TraceMessageBuffer::~TraceMessageBuffer() = default;

int TraceMessageBuffer::read() {
    return readDescriptor(true);
}

int TraceMessageBuffer::readAvailable() {
    return readDescriptor(false);
}

int TraceMessageBuffer::readDescriptor(bool untilEmpty) {
    {
        // While a whole chunk of messages waits to be taken, the bytes stay in the descriptor:
        // a writer faster than its reader then waits there (the pipe's own limit) instead of
        // growing this buffer without bound.
        OptionalLock lock(mutex);
        if (queuedBytes >= READ_CHUNK_LIMIT) {
            moreInput = true;
            return 0;
        }
    }
    // read() looks the mode up at every call: the owner may switch it after construction.
    // readAvailable() looks it up only after a full chunk (see below).
    bool nonBlocking = false;
    if (untilEmpty) {
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags < 0) {
            return -1;
        }
        nonBlocking = (flags & O_NONBLOCK) != 0;
    }

    // The system call runs without the lock, so that a parsing thread is not held up by it;
    // each chunk is decoded under the lock.
    uint8_t chunk[READ_CHUNK];
    size_t total = 0;
    for (;;) {
        const size_t want = std::min(sizeof chunk, READ_CHUNK_LIMIT - total);
        const ssize_t n = ::read(fd, chunk, want);
        const int readErrno = errno;
        if (n > 0) {
            {
                OptionalLock lock(mutex);
                decode(chunk, static_cast<size_t>(n));
            }
            total += static_cast<size_t>(n);
            bool done = total >= READ_CHUNK_LIMIT;
            if (!done && !untilEmpty) {
                // A read that returns less than it asked for found the descriptor empty (pipes
                // and stream sockets hand over all they hold): no further read() is made that
                // could only report EAGAIN. After a full chunk, only a non-blocking descriptor
                // is read again.
                if (static_cast<size_t>(n) < want) {
                    OptionalLock lock(mutex);
                    moreInput = false;
                    return static_cast<int>(total);
                }
                const int flags = ::fcntl(fd, F_GETFL);
                nonBlocking = flags >= 0 && (flags & O_NONBLOCK) != 0;
            }
            done = done || !nonBlocking;
            if (done) {
                OptionalLock lock(mutex);
                moreInput = true;
                return static_cast<int>(total);
            }
            continue;
        }
        OptionalLock lock(mutex);
        moreInput = false;
        if (n == 0) {
            if (!endOfInput) {
                endOfInput = true;
                endOfInputReached();
            }
            // Bytes read before the end in this call are reported now; the end itself is
            // reported by the next call, which finds nothing more.
            return total > 0 ? static_cast<int>(total) : END_OF_INPUT;
        }
        if (readErrno == EINTR) {
            continue;
        }
        if ((nonBlocking || !untilEmpty) && (readErrno == EAGAIN || readErrno == EWOULDBLOCK)) {
            return static_cast<int>(total);
        }
        if (total > 0) {
            // Keep what was read; a lasting failure shows again at the next call.
            return static_cast<int>(total);
        }
        errno = readErrno;
        return -1;
    }
}

void TraceMessageBuffer::feed(const uint8_t* data, size_t len) {
    if (len == 0) {
        return;
    }
    OptionalLock lock(mutex);
    decode(data, len);
}

void TraceMessageBuffer::decode(const uint8_t* data, size_t len) {
    const uint8_t* p = data;
    const uint8_t* const end = data + len;
    while (p != end) {
        switch (state) {
            case DS_HUNT: {
                const void* q =
                    std::memchr(p, MessageBase::FRAME_START, static_cast<size_t>(end - p));
                const uint8_t* startByte = q != nullptr ? static_cast<const uint8_t*>(q) : end;
                if (startByte != p) {
                    drop(static_cast<size_t>(startByte - p), "no message start", !lastDropInHunt);
                    lastDropInHunt = true;
                }
                p = startByte;
                if (p != end) {
                    ++p;
                    startFrame();
                }
                break;
            }
            case DS_FRAME: {
                const uint8_t* q = findReserved(p, end);
                const size_t n = static_cast<size_t>(q - p);
                if (frame.size() + n > MessageBase::MAX_CONTENT_SIZE) {
                    // Too long: what has come so far is dropped, the rest is skipped.
                    frameBytes += n;
                    p = q;
                    dropFrame("message longer than the maximum");
                    break;
                }
                frame.insert(frame.end(), p, q);
                frameBytes += n;
                p = q;
                if (p == end) {
                    break;
                }
                const uint8_t b = *p++;
                if (b == MessageBase::FRAME_START) {
                    dropFrame("message cut short by the start of another");
                    startFrame();
                } else if (b == MessageBase::FRAME_END) {
                    ++frameBytes;
                    finishFrame();
                } else {
                    ++frameBytes;
                    state = DS_ESCAPE;
                }
                break;
            }
            case DS_ESCAPE: {
                const uint8_t b = *p++;
                const uint8_t original = static_cast<uint8_t>(b ^ MessageBase::ESCAPE_XOR);
                if (isReserved(original)) {
                    ++frameBytes;
                    if (frame.size() + 1 > MessageBase::MAX_CONTENT_SIZE) {
                        dropFrame("message longer than the maximum");
                        break;
                    }
                    frame.push_back(original);
                    state = DS_FRAME;
                } else if (b == MessageBase::FRAME_START) {
                    dropFrame("message cut short by the start of another");
                    startFrame();
                } else if (b == MessageBase::FRAME_END) {
                    ++frameBytes;
                    dropFrame("bad escape sequence");
                    state = DS_HUNT;
                } else {
                    ++frameBytes;
                    dropFrame("bad escape sequence");
                }
                break;
            }
            case DS_SKIP: {
                const uint8_t* q = findStartOrEnd(p, end);
                if (q != p) {
                    drop(static_cast<size_t>(q - p), "rest of a dropped message", false);
                }
                p = q;
                if (p == end) {
                    break;
                }
                if (*p == MessageBase::FRAME_START) {
                    ++p;
                    startFrame();
                } else {
                    ++p;
                    drop(1, "rest of a dropped message", false);
                    state = DS_HUNT;
                    lastDropInHunt = false;
                }
                break;
            }
        }
    }
}

void TraceMessageBuffer::startFrame() {
    frame.clear();
    frameBytes = 1;
    state = DS_FRAME;
    lastDropInHunt = false;
}

void TraceMessageBuffer::finishFrame() {
    state = DS_HUNT;
    lastDropInHunt = false;
    const size_t n = frame.size();
    // The reason text is built only for a frame that is dropped.
    std::string reason;
    if (n < MessageBase::HEADER_SIZE + MessageBase::CHECKSUM_SIZE) {
        reason = "message of " + std::to_string(n) + " bytes is shorter than the " +
                 std::to_string(MessageBase::HEADER_SIZE + MessageBase::CHECKSUM_SIZE) +
                 " of header and CRC";
    } else if (MessageBase::crc32(frame.data(), n - MessageBase::CHECKSUM_SIZE) !=
               getU32(frame.data() + n - MessageBase::CHECKSUM_SIZE)) {
        reason = "checksum mismatch";
    } else if (frame[OFF_VERSION] != MessageBase::formatVersion()) {
        reason = "unsupported format version " + std::to_string(frame[OFF_VERSION]);
    }
    if (!reason.empty()) {
        drop(frameBytes, reason, true);
        byteVec_t().swap(frame);
        frameBytes = 0;
        return;
    }
    flushDropped();
    Item item;
    item.content.swap(frame);
    item.frameBytes = frameBytes;
    queuedBytes += frameBytes;
    queue.push_back(std::move(item));
    frameBytes = 0;
}

void TraceMessageBuffer::dropFrame(const char* reason) {
    drop(frameBytes, reason, true);
    frameBytes = 0;
    byteVec_t().swap(frame);
    state = DS_SKIP;
}

void TraceMessageBuffer::drop(size_t count, const std::string& reason, bool newPiece) {
    if (count == 0) {
        return;
    }
    if (droppedBytes == 0) {
        firstDropReason = reason;
        droppedPieces = 1;
    } else if (newPiece) {
        ++droppedPieces;
    }
    droppedBytes += count;
    if (droppedBytes >= DROP_REPORT_LIMIT) {
        flushDropped();
    }
}

void TraceMessageBuffer::flushDropped() {
    if (droppedBytes == 0) {
        return;
    }
    std::ostringstream text;
    text << "trace message stream: dropped " << droppedBytes << " bytes: " << firstDropReason;
    if (droppedPieces > 1) {
        text << " (and " << droppedPieces - 1 << " more damaged pieces)";
    }
    Item item;
    item.frameBytes = 0;
    item.report = text.str();
    queue.push_back(std::move(item));
    droppedBytes = 0;
    droppedPieces = 0;
    firstDropReason.clear();
}

void TraceMessageBuffer::endOfInputReached() {
    if (state == DS_FRAME || state == DS_ESCAPE) {
        dropFrame("message cut short by the end of input");
    }
    state = DS_HUNT;
    lastDropInHunt = false;
    flushDropped();
}

MessageBase* TraceMessageBuffer::getNextMessage() {
    OptionalLock lock(mutex);
    if (queue.empty()) {
        return nullptr;
    }
    Item item = std::move(queue.front());
    queue.pop_front();
    queuedBytes -= item.frameBytes;
    if (item.content.empty()) {
        QBException e;
        e << item.report;
        throw e;
    }

    const uint8_t* p = item.content.data();
    const size_t bodyLength =
        item.content.size() - MessageBase::HEADER_SIZE - MessageBase::CHECKSUM_SIZE;
    const msgid_t id = static_cast<msgid_t>(getU16(p + OFF_ID));
    const timeStamp_t ts = getU64(p + OFF_TIMESTAMP);
    const uint8_t* body = p + MessageBase::HEADER_SIZE;

    std::string reason;
    std::unique_ptr<MessageBase> msg = parseBody(id, ts, body, bodyLength, reason);
    if (!msg) {
        if (MessageBase::invalidHandling != MessageBase::IMH_RETURN_INVALID_MESSAGE) {
            throwDropped(item.frameBytes, "invalid " + idText(id) + ": " + reason);
        }
        msg.reset(new RawTraceMessage(id, ts, byteVec_t(body, body + bodyLength)));
        msg->setInvalidReason(reason);
    }
    // The encoding is canonical (exactly the reserved bytes are escaped), so encoding the
    // content again restores the very bytes the message was read from; the message does that
    // only when getRawBytes() is asked for them.
    msg->setRawContent(std::move(item.content));
    return msg.release();
}

bool TraceMessageBuffer::atEndOfInput() const {
    OptionalLock lock(mutex);
    return endOfInput;
}

bool TraceMessageBuffer::mayHaveMoreInput() const {
    OptionalLock lock(mutex);
    return moreInput;
}

bool TraceMessageBuffer::hasUnparsedInput() const {
    OptionalLock lock(mutex);
    return !queue.empty();
}

size_t TraceMessageBuffer::bufferedBytes() const {
    OptionalLock lock(mutex);
    return queuedBytes + frameBytes;
}

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

const uint8_t MAGIC[4] = {'Q', 'B', 'T', 'M'};

// The format version lives in MessageBase as a protected constant; the reader compares
// against the same value through this derived-class accessor (never instantiated).
struct FormatVersion : MessageBase {
    static uint8_t value() { return version; }
};

// Consumed bytes are erased from the front of the buffer once there are at least this many
// of them and they are no fewer than the unparsed ones; so the buffer never holds more than
// max(2 * unparsed, unparsed + COMPACT_MIN) bytes.
constexpr size_t COMPACT_MIN = 4096;
// A buffer whose capacity is far beyond its use gives memory back (after a very long message).
constexpr size_t SHRINK_MIN_CAPACITY = 4 * TraceMessageBuffer::READ_CHUNK_LIMIT;
// Bytes taken from the descriptor per read() system call.
constexpr size_t READ_CHUNK = 8192;

// Offsets within the 24-byte header (docs/wire-format.md).
constexpr size_t OFF_VERSION = 4;
constexpr size_t OFF_FLAGS = 5;
constexpr size_t OFF_ID = 6;
constexpr size_t OFF_TIMESTAMP = 8;
constexpr size_t OFF_LENGTH = 16;
constexpr size_t OFF_CHECK = 20;

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

enum HeaderResult {
    HDR_INCOMPLETE,  // a valid prefix of a header; more bytes are needed
    HDR_VALID,
    HDR_BAD_MAGIC,
    HDR_BAD_VERSION,
    HDR_BAD_FLAGS,
    HDR_TOO_LONG,
    HDR_BAD_CHECK,
};

struct Header {
    uint8_t version = 0;
    uint8_t flags = 0;
    msgid_t id = MSGID_INVALID;
    timeStamp_t timeStamp = 0;
    uint32_t bodyLength = 0;
};

// Checks the `avail` bytes at p as the start of a message header. Every field that is already
// there is checked, so bad input is recognised as early as possible; the header check itself
// needs the whole header. Allocates nothing.
HeaderResult checkHeader(const uint8_t* p, size_t avail, Header& h) {
    const size_t magicBytes = std::min(avail, sizeof MAGIC);
    if (std::memcmp(p, MAGIC, magicBytes) != 0) {
        return HDR_BAD_MAGIC;
    }
    if (avail > OFF_VERSION) {
        h.version = p[OFF_VERSION];
        if (h.version != FormatVersion::value()) {
            return HDR_BAD_VERSION;
        }
    }
    if (avail > OFF_FLAGS) {
        h.flags = p[OFF_FLAGS];
        if ((h.flags & ~MessageBase::FLAG_CHECKSUM) != 0) {
            return HDR_BAD_FLAGS;
        }
    }
    if (avail >= OFF_LENGTH + 4) {
        h.bodyLength = getU32(p + OFF_LENGTH);
        if (h.bodyLength > MessageBase::MAX_BODY_SIZE) {
            return HDR_TOO_LONG;
        }
    }
    if (avail < MessageBase::HEADER_SIZE) {
        return HDR_INCOMPLETE;
    }
    if (MessageBase::crc32(p, OFF_CHECK) != getU32(p + OFF_CHECK)) {
        return HDR_BAD_CHECK;
    }
    h.id = static_cast<msgid_t>(getU16(p + OFF_ID));
    h.timeStamp = getU64(p + OFF_TIMESTAMP);
    return HDR_VALID;
}

// Length of the whole message that a valid header announces.
size_t messageLength(const Header& h) {
    return MessageBase::HEADER_SIZE + h.bodyLength +
           ((h.flags & MessageBase::FLAG_CHECKSUM) != 0 ? MessageBase::CHECKSUM_SIZE : 0);
}

std::string headerProblem(HeaderResult r, const Header& h) {
    std::ostringstream text;
    switch (r) {
        case HDR_BAD_MAGIC:
            text << "no message header";
            break;
        case HDR_BAD_VERSION:
            text << "unsupported format version " << static_cast<unsigned>(h.version);
            break;
        case HDR_BAD_FLAGS:
            text << "unknown header flags 0x" << std::hex << static_cast<unsigned>(h.flags);
            break;
        case HDR_TOO_LONG:
            text << "body length " << h.bodyLength << " exceeds the maximum of "
                 << MessageBase::MAX_BODY_SIZE;
            break;
        case HDR_BAD_CHECK:
            text << "header check mismatch";
            break;
        case HDR_INCOMPLETE:
        case HDR_VALID:
            break;
    }
    return text.str();
}

// Distance from p[0] to the next place where a message could start: the next "QBTM", or a
// prefix of it that the end of the buffered bytes cuts off. At least 1, at most avail.
size_t resyncDistance(const uint8_t* p, size_t avail) {
    size_t pos = 1;
    while (pos < avail) {
        const void* q = std::memchr(p + pos, MAGIC[0], avail - pos);
        if (q == nullptr) {
            return avail;
        }
        pos = static_cast<size_t>(static_cast<const uint8_t*>(q) - p);
        const size_t n = std::min(avail - pos, sizeof MAGIC);
        if (std::memcmp(p + pos, MAGIC, n) == 0) {
            return pos;
        }
        ++pos;
    }
    return avail;
}

bool knownCanType(uint8_t type) {
    return type <= CT_FD_EXTENDED;
}

// Checks the body of a CAN frame message; returns an empty text if it is valid.
std::string checkCanBody(const uint8_t* body, size_t n) {
    std::ostringstream reason;
    if (n < CAN_FIXED_BODY) {
        reason << "CAN frame body of " << n << " bytes is shorter than " << CAN_FIXED_BODY;
        return reason.str();
    }
    const uint8_t kind = body[1];
    const uint8_t status = body[2];
    const uint8_t type = body[3];
    const uint32_t id = getU32(body + 4);
    const size_t count = body[8];
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

// Erases the consumed front of the buffer when that pays (see COMPACT_MIN).
void compact(byteVec_t& buffer, size_t& start) {
    if (start == 0) {
        return;
    }
    if (start >= buffer.size()) {
        buffer.clear();
        start = 0;
    } else if (start >= COMPACT_MIN && start >= buffer.size() - start) {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(start));
        start = 0;
    }
    if (buffer.capacity() > SHRINK_MIN_CAPACITY && buffer.size() < buffer.capacity() / 4) {
        buffer.shrink_to_fit();
    }
}

// True if getNextMessage() would return a message or throw (drop bytes) without more input.
bool frontIsParseable(const byteVec_t& buffer, size_t start) {
    const size_t avail = buffer.size() - start;
    if (avail == 0) {
        return false;
    }
    Header h;
    const HeaderResult r = checkHeader(buffer.data() + start, avail, h);
    if (r == HDR_INCOMPLETE) {
        return false;
    }
    if (r != HDR_VALID) {
        return true;
    }
    return avail >= messageLength(h);
}

}  // namespace

TraceMessageBuffer::TraceMessageBuffer(int fd, std::mutex* mutex)
    : fd(fd), mutex(mutex), start(0), endOfInput(false) {}

TraceMessageBuffer::~TraceMessageBuffer() = default;

int TraceMessageBuffer::read() {
    {
        // While a whole chunk of unparsed input is buffered and the front can be parsed, the
        // bytes stay in the descriptor: a writer faster than its reader then waits there (the
        // pipe's own limit) instead of growing this buffer without bound.
        OptionalLock lock(mutex);
        if (buffer.size() - start >= READ_CHUNK_LIMIT && frontIsParseable(buffer, start)) {
            return 0;
        }
    }
    // The mode is looked up at every call: the owner may switch it after construction.
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0) {
        return -1;
    }
    const bool nonBlocking = (flags & O_NONBLOCK) != 0;

    // The system call runs without the lock, so that a parsing thread is not held up by it;
    // each chunk is appended under the lock.
    uint8_t chunk[READ_CHUNK];
    size_t total = 0;
    for (;;) {
        const size_t want = std::min(sizeof chunk, READ_CHUNK_LIMIT - total);
        const ssize_t n = ::read(fd, chunk, want);
        if (n > 0) {
            {
                OptionalLock lock(mutex);
                compact(buffer, start);
                buffer.insert(buffer.end(), chunk, chunk + n);
            }
            total += static_cast<size_t>(n);
            if (!nonBlocking || total >= READ_CHUNK_LIMIT) {
                return static_cast<int>(total);
            }
            continue;
        }
        if (n == 0) {
            {
                OptionalLock lock(mutex);
                endOfInput = true;
            }
            // Bytes read before the end in this call are reported now; the end itself is
            // reported by the next call, which finds nothing more.
            return total > 0 ? static_cast<int>(total) : END_OF_INPUT;
        }
        if (errno == EINTR) {
            continue;
        }
        if (nonBlocking && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return static_cast<int>(total);
        }
        if (total > 0) {
            // Keep what was read; a lasting failure shows again at the next call.
            return static_cast<int>(total);
        }
        return -1;
    }
}

void TraceMessageBuffer::feed(const uint8_t* data, size_t len) {
    if (len == 0) {
        return;
    }
    OptionalLock lock(mutex);
    compact(buffer, start);
    buffer.insert(buffer.end(), data, data + len);
}

MessageBase* TraceMessageBuffer::getNextMessage() {
    OptionalLock lock(mutex);
    const size_t avail = buffer.size() - start;
    if (avail == 0) {
        return nullptr;
    }
    const uint8_t* p = buffer.data() + start;

    Header h;
    const HeaderResult r = checkHeader(p, avail, h);
    if (r == HDR_INCOMPLETE) {
        return nullptr;
    }
    if (r != HDR_VALID) {
        const size_t dropped = resyncDistance(p, avail);
        start += dropped;
        throwDropped(dropped, headerProblem(r, h));
    }

    // The length has been checked against MAX_BODY_SIZE, and nothing is allocated before the
    // whole message is buffered.
    const size_t total = messageLength(h);
    if (avail < total) {
        return nullptr;
    }
    const size_t bodyEnd = MessageBase::HEADER_SIZE + h.bodyLength;
    if ((h.flags & MessageBase::FLAG_CHECKSUM) != 0 &&
        MessageBase::crc32(p, bodyEnd) != getU32(p + bodyEnd)) {
        start += total;
        throwDropped(total, "checksum mismatch in " + idText(h.id));
    }

    std::string reason;
    std::unique_ptr<MessageBase> msg =
        parseBody(h.id, h.timeStamp, p + MessageBase::HEADER_SIZE, h.bodyLength, reason);
    if (!msg) {
        if (MessageBase::invalidHandling != MessageBase::IMH_RETURN_INVALID_MESSAGE) {
            start += total;
            throwDropped(total, "invalid " + idText(h.id) + ": " + reason);
        }
        msg.reset(new RawTraceMessage(
            h.id, h.timeStamp,
            byteVec_t(p + MessageBase::HEADER_SIZE, p + MessageBase::HEADER_SIZE + h.bodyLength)));
        msg->setInvalidReason(reason);
    }
    msg->setRawBytes(byteVec_t(p, p + total));
    start += total;
    if (start == buffer.size()) {
        buffer.clear();
        start = 0;
    }
    return msg.release();
}

bool TraceMessageBuffer::atEndOfInput() const {
    OptionalLock lock(mutex);
    return endOfInput;
}

bool TraceMessageBuffer::hasUnparsedInput() const {
    OptionalLock lock(mutex);
    return frontIsParseable(buffer, start);
}

size_t TraceMessageBuffer::bufferedBytes() const {
    OptionalLock lock(mutex);
    return buffer.size() - start;
}

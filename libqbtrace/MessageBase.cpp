#include "libqbtrace/MessageBase.h"

#include <array>
#include <cstring>
#include <sstream>

#include "libqbutil/QBException.h"

MessageBase::invalidMsgHandling_t MessageBase::invalidHandling = MessageBase::IMH_RETURN_NULL;

const uint8_t MessageBase::version;

namespace {

// Tables of the reflected CRC-32 polynomial 0xEDB88320, built at compile time: table 0 is the
// byte-wise table; table k gives the effect of a byte followed by k zero bytes, so that four
// bytes are folded in with four look-ups ("slicing by four").
using CrcTables = std::array<std::array<uint32_t, 256>, 4>;

constexpr CrcTables makeCrcTables() {
    CrcTables tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) {
            c = (c & 1u) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        }
        tables[0][i] = c;
    }
    for (uint32_t i = 0; i < 256; ++i) {
        for (size_t k = 1; k < 4; ++k) {
            const uint32_t prev = tables[k - 1][i];
            tables[k][i] = tables[0][prev & 0xFFu] ^ (prev >> 8);
        }
    }
    return tables;
}

constexpr CrcTables crcTables = makeCrcTables();

// True for the bytes that are escaped inside a frame (FRAME_START, FRAME_END, FRAME_ESCAPE).
constexpr std::array<bool, 256> makeReservedTable() {
    std::array<bool, 256> table{};
    table[MessageBase::FRAME_START] = true;
    table[MessageBase::FRAME_END] = true;
    table[MessageBase::FRAME_ESCAPE] = true;
    return table;
}

constexpr std::array<bool, 256> reservedByte = makeReservedTable();

/// Capacity of the per-thread serialising buffer that is kept between calls.
constexpr size_t SCRATCH_KEPT = 64 * 1024;

void putU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

void putU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

void putU64(uint8_t* p, uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

}  // namespace

MessageBase::MessageBase(msgid_t id, timeStamp_t ts) : msgId(id), timeStamp(ts) {}

MessageBase::~MessageBase() = default;

bool MessageBase::isValid() const {
    return invalidReason.empty();
}

std::ostream& MessageBase::print(std::ostream& os) const {
    // Formatted into a string first so that the caller's stream flags stay untouched.
    std::ostringstream text;
    text << "trace message id 0x" << std::hex << static_cast<unsigned>(msgId) << std::dec << " len "
         << getSize();
    if (!isValid()) {
        text << " invalid: " << invalidReason;
    }
    return os << text.str();
}

const byteVec_t& MessageBase::getRawBytes() const {
    if (rawBytes.empty() && !rawContent.empty()) {
        appendFrame(rawContent.data(), rawContent.size(), rawBytes);
        byteVec_t().swap(rawContent);
    }
    return rawBytes;
}

size_t MessageBase::createByteArray(byteVec_t& out, bool withHeader, bool withChecksum) const {
    // Every framed message carries its CRC; the body alone has none (see the header).
    static_cast<void>(withChecksum);
    out.clear();
    if (!withHeader) {
        out.reserve(getSize());
        appendBody(out);
        return out.size();
    }

    // The unescaped content is assembled in a buffer of the calling thread that is kept between
    // calls, so that serialising a frame costs no allocation; one that grew for a large message
    // is released again.
    thread_local byteVec_t scratch;
    struct Release {
        byteVec_t& buffer;
        ~Release() {
            if (buffer.capacity() > SCRATCH_KEPT) {
                byteVec_t().swap(buffer);
            }
        }
    } release{scratch};
    byteVec_t& content = scratch;
    content.clear();
    content.reserve(HEADER_SIZE + getSize() + CHECKSUM_SIZE);
    content.resize(HEADER_SIZE);
    appendBody(content);
    // The limit is checked on what appendBody() really wrote, not on getSize().
    const size_t bodySize = content.size() - HEADER_SIZE;
    if (bodySize > MAX_BODY_SIZE) {
        // A reader would drop the frame as too long; it is refused here, where the writer
        // learns of it.
        QBException e;
        e << "trace message id 0x" << std::hex << static_cast<unsigned>(msgId) << std::dec
          << ": body of " << bodySize << " bytes exceeds the maximum of " << MAX_BODY_SIZE;
        throw e;
    }
    uint8_t* h = content.data();
    h[0] = version;
    putU16(h + 1, static_cast<uint16_t>(msgId));
    putU64(h + 3, timeStamp);
    const uint32_t crc = crc32(content.data(), content.size());
    content.resize(content.size() + CHECKSUM_SIZE);
    putU32(content.data() + content.size() - CHECKSUM_SIZE, crc);

    appendFrame(content.data(), content.size(), out);
    return out.size();
}

void MessageBase::appendFrame(const uint8_t* content, size_t n, byteVec_t& out) {
    // Sized once for the worst case (every byte escaped) and trimmed after; runs of plain bytes
    // are copied whole.
    const size_t start = out.size();
    out.resize(start + 2 * n + 2);
    uint8_t* q = out.data() + start;
    *q++ = FRAME_START;
    size_t i = 0;
    while (i < n) {
        size_t j = i;
        while (j < n && !reservedByte[content[j]]) {
            ++j;
        }
        std::memcpy(q, content + i, j - i);
        q += j - i;
        if (j == n) {
            break;
        }
        *q++ = FRAME_ESCAPE;
        *q++ = static_cast<uint8_t>(content[j] ^ ESCAPE_XOR);
        i = j + 1;
    }
    *q++ = FRAME_END;
    out.resize(static_cast<size_t>(q - out.data()));
}

uint32_t MessageBase::crc32(const uint8_t* data, size_t len, uint32_t crc) {
    uint32_t c = crc ^ 0xFFFFFFFFu;
    size_t i = 0;
    for (; i + 4 <= len; i += 4) {
        c ^= static_cast<uint32_t>(data[i]) | (static_cast<uint32_t>(data[i + 1]) << 8) |
             (static_cast<uint32_t>(data[i + 2]) << 16) |
             (static_cast<uint32_t>(data[i + 3]) << 24);
        c = crcTables[3][c & 0xFFu] ^ crcTables[2][(c >> 8) & 0xFFu] ^
            crcTables[1][(c >> 16) & 0xFFu] ^ crcTables[0][c >> 24];
    }
    for (; i < len; ++i) {
        c = crcTables[0][(c ^ data[i]) & 0xFFu] ^ (c >> 8);
    }
    return c ^ 0xFFFFFFFFu;
}

std::ostream& operator<<(std::ostream& os, const MessageBase& msg) {
    return msg.print(os);
}

std::ostream& operator<<(std::ostream& os, const MessageBase* msg) {
    if (msg == nullptr) {
        return os << "(null)";
    }
    return msg->print(os);
}

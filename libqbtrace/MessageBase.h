// Base of all trace messages: a typed, serialisable record of bus traffic or of a system event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "libqbtrace/messageID.h"
#include "libqbutil/utility.h"

/// Time stamp of a trace message. Messages built by the transport endpoint carry 0.
typedef uint64_t timeStamp_t;

class CANTraceMessageBase;

/// Base of every trace message. The serialised form (docs/wire-format.md, format version 2) is a
/// frame: the byte FRAME_START, the escaped content, the byte FRAME_END. The content is an
/// 11-byte header (version, identifier, time stamp), the body that the derived class writes
/// (appendBody()) and a CRC-32 over header and body. FRAME_START, FRAME_END and FRAME_ESCAPE
/// never occur inside a frame (each is written as FRAME_ESCAPE and the byte XOR ESCAPE_XOR), so
/// no bytes of a body can ever be taken for the start or the end of a message.
///
/// Fields, in order: `invalidReason`, `rawBytes`, `msgId`, `timeStamp` (and `rawContent`, the
/// unescaped content behind `rawBytes` until they are asked for).
/// - `invalidReason` is empty for a valid message; for a message that the reader returned
///   although its body could not be parsed (invalidHandling == IMH_RETURN_INVALID_MESSAGE)
///   it says why, and isValid() is false.
/// - `rawBytes` holds, for a message read from a descriptor, the exact bytes it was parsed from
///   (header, body and trailer); it is empty for a message built in memory. A reader hands over
///   the decoded content (setRawContent()) and the frame is encoded again only when
///   getRawBytes() is first called: the encoding is canonical, so it gives the very bytes read,
///   and a message whose bytes nobody asks for costs no copy.
///
/// Thread rules: a message object is used by one thread at a time. Messages returned by
/// TraceMessageBuffer belong to the caller, who deletes them through this class.
class MessageBase {
  public:
    /// What parsing returns for a well-framed message whose body is not valid for its identifier.
    enum invalidMsgHandling_t {
        IMH_RETURN_NULL = 0,             ///< no object: the reader refuses it with QBException
        IMH_RETURN_INVALID_MESSAGE = 1,  ///< a RawTraceMessage with isValid() false and a reason
    };

    /// The process-wide choice (default IMH_RETURN_NULL). Set it before any reader runs; readers
    /// read it at every message.
    static invalidMsgHandling_t invalidHandling;

    virtual ~MessageBase();

    /// True unless the message was returned invalid by a reader (see invalidReason).
    virtual bool isValid() const;
    /// A copy of the whole message, owned by the caller.
    virtual MessageBase* clone() const = 0;
    /// Size in bytes of the body that appendBody() writes.
    virtual size_t getSize() const = 0;
    /// Appends the body of the serialised form to `out`.
    virtual void appendBody(byteVec_t& out) const = 0;
    /// Writes a readable one-line form of the message (no line end).
    virtual std::ostream& print(std::ostream& os) const;
    /// The message as a CAN frame message, or null for any other kind: what a dynamic_cast to
    /// CANTraceMessageBase gives, for one virtual call per frame instead of a type search.
    virtual const CANTraceMessageBase* canFrame() const { return nullptr; }

    msgid_t getMessageId() const { return msgId; }
    timeStamp_t getTimeStamp() const { return timeStamp; }
    const byteVec_t& getRawBytes() const;
    const std::string& getInvalidReason() const { return invalidReason; }

    /// Serialises the message into `out`, replacing its contents, and returns out.size().
    /// `withHeader` true: the complete framed message, as TraceMessageBuffer parses it, always
    /// with its CRC-32. `withHeader` false: the body alone, for embedding in other formats.
    /// `withChecksum` selects nothing any more: every framed message carries its CRC (format
    /// version 2), and the body alone has none; the parameter stays so that callers keep
    /// compiling. The transport endpoint calls createByteArray(out, true, false). With
    /// `withHeader` true, a body longer than MAX_BODY_SIZE is not written: QBException is thrown
    /// and `out` is empty.
    size_t createByteArray(byteVec_t& out, bool withHeader, bool withChecksum) const;

    /// Framing of the serialised form (docs/wire-format.md).
    static constexpr uint8_t FRAME_START = 0xC0;
    static constexpr uint8_t FRAME_END = 0xC1;
    static constexpr uint8_t FRAME_ESCAPE = 0xF5;
    /// An escaped byte is written as FRAME_ESCAPE followed by the byte XOR ESCAPE_XOR.
    static constexpr uint8_t ESCAPE_XOR = 0x20;
    /// Content header: version (1 byte), identifier (2), time stamp (8).
    static constexpr size_t HEADER_SIZE = 11;
    /// The CRC-32 that ends the content.
    static constexpr size_t CHECKSUM_SIZE = 4;
    /// Largest body written or accepted.
    static constexpr uint32_t MAX_BODY_SIZE = 1u << 20;
    /// Largest content (header, body, CRC) a reader collects; a longer frame is dropped as it
    /// arrives, without being buffered whole.
    static constexpr size_t MAX_CONTENT_SIZE = HEADER_SIZE + MAX_BODY_SIZE + CHECKSUM_SIZE;

    /// Appends the frame of `content` (FRAME_START, the escaped content, FRAME_END) to `out`.
    /// Used by createByteArray() and by readers to restore the exact bytes of a frame.
    static void appendFrame(const uint8_t* content, size_t n, byteVec_t& out);
    /// Version of the serialised format.
    static uint8_t formatVersion() { return version; }

    /// CRC-32 (IEEE 802.3, reflected, as zlib computes it) of `len` bytes; `crc` continues a
    /// previous result (0 to start).
    static uint32_t crc32(const uint8_t* data, size_t len, uint32_t crc = 0);

    /// Sets the bytes the message was parsed from (used by readers).
    void setRawBytes(byteVec_t bytes) {
        rawBytes = std::move(bytes);
        rawContent.clear();
    }
    /// Sets the decoded content (header, body, CRC) the message was parsed from; getRawBytes()
    /// encodes it when first asked (used by readers).
    void setRawContent(byteVec_t content) {
        rawBytes.clear();
        rawContent = std::move(content);
    }
    void setInvalidReason(std::string reason) { invalidReason = std::move(reason); }

  protected:
    MessageBase(msgid_t id, timeStamp_t ts);
    MessageBase(const MessageBase&) = default;
    MessageBase& operator=(const MessageBase&) = default;

    /// Version of the serialised format written in every header.
    static const uint8_t version = 2;

  private:
    std::string invalidReason;
    mutable byteVec_t rawBytes;
    msgid_t msgId;
    timeStamp_t timeStamp;
    mutable byteVec_t rawContent;
};

/// Writes msg.print(os).
std::ostream& operator<<(std::ostream& os, const MessageBase& msg);
/// Writes "(null)" for a null pointer, else *msg.
std::ostream& operator<<(std::ostream& os, const MessageBase* msg);

// Reads serialised trace messages from a descriptor and parses them one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "libqbtrace/MessageBase.h"
#include "libqbutil/utility.h"

/// A byte buffer in front of one descriptor, parsed into trace messages.
///
/// read() appends what the descriptor has to the buffer; getNextMessage() takes one complete
/// message off its front. A message that has arrived in part stays buffered until the rest has
/// been read. Bytes that cannot start a valid message are dropped up to the next place where a
/// message header could start, and getNextMessage() reports them by throwing QBException, so
/// that a caller that keeps calling never sees the same bad bytes twice and finds the valid
/// message that follows. A header announcing a body longer than MessageBase::MAX_BODY_SIZE is
/// refused the same way before anything is allocated for it.
///
/// Memory: bytes already parsed are erased from the front of the buffer once they are at least
/// 4 KiB and no fewer than the unparsed ones, so the buffer stays within a small multiple of what
/// has been read and not yet parsed; read() takes at most READ_CHUNK_LIMIT bytes per call, and
/// none while READ_CHUNK_LIMIT unparsed bytes starting with a whole message are buffered. So the
/// unparsed bytes stay below twice READ_CHUNK_LIMIT plus one message, and a writer faster than
/// the parser waits on the descriptor.
///
/// Thread rules: with a null mutex, one thread uses the object. With a mutex, read(),
/// getNextMessage() and the queries take it, so that one thread may read while another parses.
/// The descriptor is not owned and not closed.
class TraceMessageBuffer {
  public:
    /// read() result: the descriptor reported end of file (the writer has closed it).
    static constexpr int END_OF_INPUT = -2;
    /// Most bytes one read() call takes from the descriptor.
    static constexpr size_t READ_CHUNK_LIMIT = 64 * 1024;

    TraceMessageBuffer(int fd, std::mutex* mutex);
    virtual ~TraceMessageBuffer();
    TraceMessageBuffer(const TraceMessageBuffer&) = delete;
    TraceMessageBuffer& operator=(const TraceMessageBuffer&) = delete;

    /// Reads what is available on the descriptor into the buffer.
    /// Returns the number of bytes read (0 when a non-blocking descriptor has nothing now, or
    /// when enough is buffered, see Memory above: neither is a failure), END_OF_INPUT at end of
    /// file, or -1 on failure with errno set (the buffer stays usable). Interrupted reads are
    /// resumed. On a non-blocking descriptor it reads until the descriptor is empty, at end of
    /// file, or after READ_CHUNK_LIMIT bytes; bytes that came before the end of file in the same
    /// call are returned as a count and the end is reported by the next call (atEndOfInput() is
    /// true from the first). On a blocking descriptor it makes one read() call, which waits for
    /// data.
    int read();

    /// Adds bytes to the buffer as if they had been read (for callers that get the bytes
    /// elsewhere, and for tests and fuzzers).
    void feed(const uint8_t* data, size_t len);

    /// The next complete message, newly allocated and owned by the caller; null when no complete
    /// message is buffered. Throws QBException, after dropping them, for bytes that cannot be
    /// parsed (and, under MessageBase::IMH_RETURN_NULL, for a message whose body is invalid).
    MessageBase* getNextMessage();

    /// True once read() has seen end of file.
    bool atEndOfInput() const;
    /// True if getNextMessage() would return a message or throw without a further read():
    /// a whole message, or bytes to drop, are buffered.
    bool hasUnparsedInput() const;
    /// Number of bytes buffered and not yet parsed.
    size_t bufferedBytes() const;

  private:
    int fd;
    std::mutex* mutex;
    byteVec_t buffer;
    size_t start;  // offset of the first unparsed byte in buffer
    bool endOfInput;
};

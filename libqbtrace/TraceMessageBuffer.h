// Reads serialised trace messages from a descriptor and parses them one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>

#include "libqbtrace/MessageBase.h"
#include "libqbutil/utility.h"

/// A reader of serialised trace messages (format version 2, docs/wire-format.md) in front of
/// one descriptor.
///
/// read() takes what the descriptor has and decodes it at once: bytes outside a frame are
/// dropped, a frame (FRAME_START, escaped content, FRAME_END) is collected, and a frame whose
/// content is whole (long enough, right CRC-32, known version) is queued. getNextMessage() takes
/// the first queued message and builds its object. A message that has arrived in part stays
/// collected until the rest has been read.
///
/// Damage: a frame that is cut short (by the start of the next frame or by the end of input),
/// that fails its CRC, that has a bad escape or an unknown version, or that grows beyond
/// MessageBase::MAX_CONTENT_SIZE is dropped; so are bytes outside frames. Consecutive dropped
/// bytes make one run, reported by one QBException from getNextMessage() ("trace message
/// stream: dropped N bytes: REASON"), thrown before the next whole message is returned, at end
/// of input, or when the run reaches DROP_REPORT_LIMIT bytes. A run never hides a whole message:
/// the next whole message is returned by the call after the one that throws. A frame can start
/// only at a FRAME_START, which never occurs inside a message, so no bytes inside a message can
/// be taken for a message of their own, whatever came before them.
///
/// Memory: dropped bytes are counted, not kept. The message arriving holds at most
/// MessageBase::MAX_CONTENT_SIZE bytes (a longer one is dropped as it arrives). read() takes at
/// most READ_CHUNK_LIMIT bytes per call, and none while READ_CHUNK_LIMIT bytes of whole messages
/// wait to be taken; so a writer faster than the parser waits on the descriptor. feed() has no
/// such brake: its caller decides how much it gives.
///
/// Thread rules: with a null mutex, one thread uses the object. With a mutex, read(), feed(),
/// getNextMessage() and the queries take it, so that one thread may read while another parses.
/// The descriptor is not owned and not closed.
class TraceMessageBuffer {
  public:
    /// read() result: the descriptor reported end of file (the writer has closed it).
    static constexpr int END_OF_INPUT = -2;
    /// Most bytes one read() call takes from the descriptor.
    static constexpr size_t READ_CHUNK_LIMIT = 64 * 1024;
    /// A run of dropped bytes is reported at the latest when it reaches this many bytes, so
    /// that an endless flood of garbage is still heard of (one exception per 1 MiB).
    static constexpr size_t DROP_REPORT_LIMIT = 1024 * 1024;

    TraceMessageBuffer(int fd, std::mutex* mutex);
    virtual ~TraceMessageBuffer();
    TraceMessageBuffer(const TraceMessageBuffer&) = delete;
    TraceMessageBuffer& operator=(const TraceMessageBuffer&) = delete;

    /// Reads what is available on the descriptor and decodes it.
    /// Returns the number of bytes read (0 when a non-blocking descriptor has nothing now, or
    /// when enough whole messages wait, see Memory above: neither is a failure), END_OF_INPUT
    /// at end of file, or -1 on failure with errno set (the buffer stays usable). Interrupted
    /// reads are resumed. On a non-blocking descriptor it reads until the descriptor is empty,
    /// at end of file, or after READ_CHUNK_LIMIT bytes; bytes that came before the end of file
    /// in the same call are returned as a count and the end is reported by the next call
    /// (atEndOfInput() is true from the first). On a blocking descriptor it makes one read()
    /// call, which waits for data. At end of file a message still arriving is dropped as cut
    /// short and the run of dropped bytes is reported.
    int read();

    /// Like read(), for a reader that waits for readiness (select, poll) before each call: it
    /// stops at the first read() that returns less than it asked for, since that one found the
    /// descriptor empty (pipes and stream sockets hand over all they hold), instead of making
    /// one more that could only report EAGAIN or the end of file. The mode of the descriptor is
    /// looked up only after a full chunk, to know whether to read on. So an end of file that
    /// follows bytes is reported by a later call (the descriptor stays readable for it). Meant
    /// for pipes and stream sockets, not for datagram sockets.
    int readAvailable();

    /// Decodes bytes as if they had been read (for callers that get the bytes elsewhere, and
    /// for tests and fuzzers).
    void feed(const uint8_t* data, size_t len);

    /// The next whole message, newly allocated and owned by the caller; null when none is
    /// queued. Throws QBException for a run of dropped bytes (see Damage above) and, under
    /// MessageBase::IMH_RETURN_NULL, for a whole message whose body is not valid for its
    /// identifier (that message is dropped); either way, calling again goes on behind them.
    MessageBase* getNextMessage();

    /// True once read() has seen end of file.
    bool atEndOfInput() const;
    /// True if getNextMessage() would return a message or throw without a further read().
    bool hasUnparsedInput() const;
    /// True if the last read() or readAvailable() may have left bytes in the descriptor: it
    /// stopped at READ_CHUNK_LIMIT, or before reading because enough messages waited, or after
    /// one read() of a blocking descriptor. False after one that emptied it or met its end.
    bool mayHaveMoreInput() const;
    /// Bytes held for messages not yet returned: the frames of the queued messages and the
    /// bytes of the message arriving (dropped bytes are not held).
    size_t bufferedBytes() const;

  private:
    enum DecodeState {
        DS_HUNT,    // outside a frame: every byte but FRAME_START is dropped
        DS_FRAME,   // inside a frame
        DS_ESCAPE,  // inside a frame, after FRAME_ESCAPE
        DS_SKIP,    // inside a frame already dropped: dropped up to its end or the next start
    };
    struct Item {
        byteVec_t content;   // header, body and CRC of a whole message; empty for a report
        size_t frameBytes;   // encoded size of the message
        std::string report;  // the text of a run of dropped bytes
    };

    int readDescriptor(bool untilEmpty);
    void decode(const uint8_t* data, size_t len);
    void startFrame();
    void finishFrame();
    void dropFrame(const char* reason);
    void drop(size_t count, const std::string& reason, bool newPiece);
    void flushDropped();
    void endOfInputReached();

    int fd;
    std::mutex* mutex;
    DecodeState state;
    byteVec_t frame;    // decoded content of the message arriving
    size_t frameBytes;  // its encoded bytes so far, FRAME_START included
    std::deque<Item> queue;
    size_t queuedBytes;  // encoded bytes of the messages in `queue`
    size_t droppedBytes;
    size_t droppedPieces;
    bool lastDropInHunt;
    std::string firstDropReason;
    bool endOfInput;
    bool moreInput;  // see mayHaveMoreInput()
};

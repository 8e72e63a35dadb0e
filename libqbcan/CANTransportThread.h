// One endpoint of the segmented CAN transport protocol, run as one worker thread behind two
// pipes.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "libqbcan/cantransport.h"
#include "libqbio/LogUtil.h"
#include "libqbproc/Mutex.h"
#include "libqbproc/Thread.h"
#include "libqbtrace/MessageBase.h"
#include "libqbtrace/TraceMessageBuffer.h"

/// One endpoint of the CAN transport protocol.
///
/// Payloads of up to 4095 bytes are cut into 8-byte CAN frames (a single frame, or a first frame
/// and consecutive frames) and sent under the peer's flow control; frames from the peer are
/// reassembled and handed back to the application. The endpoint meets the world only through
/// descriptors and one callback:
/// - open() creates two pipes and returns the application's ends. Into `writeFD` the
///   application writes serialised trace messages: payloads to send (MSGID_CAN_TRANSPORT) and
///   the CAN frames it receives from its CAN proxy (MSGID_CAN, MSGID_CAN_EXT, MSGID_CAN_PROXY).
///   From `readFD` it reads every reassembled payload as one serialised
///   CANTransportTraceMessage.
/// - Each outgoing frame goes to the CAN proxy descriptor (setConnection()) as one serialised
///   CANExtTraceMessage; the endpoint never reads that descriptor and never closes it.
/// - Status changes (connected, disconnected, send and receive time-outs, acknowledgements) are
///   reported through the status callback, on the transport thread, with no lock held.
/// Diagnostic lines go to std::cout and std::cerr in the library's log-line format (LogUtil.h).
///
/// Use: construct; setSendCANid(), setDelegate(), setDebugLevel(); open(); setConnection();
/// start(). Set the status callback before start() if payloads are sent: an acknowledgement
/// with no callback throws std::bad_function_call out of the thread body, which then ends
/// (isRunning() turns false and exitReason() names it).
///
/// Choices made by this implementation (the protocol itself is unchanged):
/// - Starting and stopping are Thread's: start() runs threadCode() on a new thread; stop() ends
///   it at its wait (within one iteration of the loop; the wait is the loop's only point of
///   cancellation) and joins it. The destructor stops a thread that still runs before it
///   releases anything, so destroying a running endpoint is safe.
/// - A CAN trace message with 9 data bytes (data length code 9) passes the length check and
///   reaches handleCANData() with LEN 9; its bytes are copied through a buffer of the largest
///   message size, and the record keeps the first 8 (no write past the record). Printing a
///   record shows at most the 8 data bytes it holds.
/// - A single frame with a length nibble of 8 to 15 is delivered with that length; the bytes
///   beyond the frame's 7 payload bytes are delivered as 0x00 (no read past the frame).
/// - A consecutive frame that arrives with bytesToReceive already zero or negative contributes
///   no bytes: it completes the transfer with what was collected (an empty payload after a
///   first frame that was delivered at once).
/// - A repeated open() closes the previous pipes and deletes the previous reader first. Call it
///   only while the thread is not running.
/// - An empty input pipe writes no error line (the reader reports "nothing now", not a
///   failure). When the application closes its write end, the loop logs the info line
///   "input pipe closed by the application: no further input is read" once and stops waiting on
///   the pipe (it keeps serving the protocol timer), so end of file does not make it spin.
/// - Bytes on the input pipe that do not parse are logged ("Got exception: ...") and dropped;
///   whole messages buffered behind them are handled in the same pass instead of waiting for
///   the next input.
/// - A message whose identifier names a CAN frame or a payload but whose object is not of that
///   kind (possible only with MessageBase::IMH_RETURN_INVALID_MESSAGE) is treated as an unknown
///   message: logged, dumped and dropped. A message that ends the thread by an exception is
///   still deleted.
/// - `state` and `debug` are atomics: clear() and setDebugLevel() may run on application
///   threads while the transport thread reads them. The other setters are meant for the time
///   before start().
/// - clear(true) may drop the payload in flight while its flow control is being handled; the
///   acknowledgement and ready-to-receive paths then find an empty queue and do nothing with it
///   instead of reading a missing element: no CTT_ACKNOWLEDGED is reported for a payload the
///   application has dropped, and deleteFirstMessage() on an empty queue returns 0.
/// - Every message is written whole (Thread::writeAll()): a partial write is continued, a write
///   interrupted by a signal is resumed, and a non-blocking CAN proxy descriptor that is full
///   is waited for with poll() instead of losing the frame. A write that fails is logged as
///   before.
/// - A payload written to an application that has stopped reading blocks the thread once the
///   pipe is full; stop() still ends it there (the write is a point of cancellation; frames to
///   the CAN proxy are written under mutexBufferLock and are not). A payload cut by such a stop
///   is dropped by the reader (format version 2: the next message's frame start ends it), and
///   the next message in the pipe arrives whole.
/// - stop() called on the transport thread itself (from the status callback) requests the end
///   and returns; the thread ends at its next wait or payload write, and the owner's stop() or
///   the destructor joins it. Destroying the object on its own thread cannot be made safe: the
///   destructor writes "[ERROR] CANTransportThread::~CANTransportThread() destroyed on its own
///   thread: the thread would go on in freed memory; aborting" and aborts the process.
/// - The dump of an unknown message is written after its error line has released the log
///   mutex, one row per write to std::cerr's buffer, so other threads can log meanwhile.
/// - The transport thread blocks SIGPIPE for itself, so a closed CAN proxy or application pipe
///   makes write() fail with EPIPE (logged) instead of ending the process.
class CANTransportThread : public Thread {
  public:
    /// Status reported through the callback.
    enum statuschange_t {
        CTT_CONNECTED = 0,
        CTT_DISCONNECTED = 1,
        CTT_SEND_TIMEOUT = 2,
        CTT_RECEIVE_TIMEOUT = 3,
        CTT_ACKNOWLEDGED = 4,
    };

    /// One CAN frame. Every frame the endpoint builds has LEN 8, unused bytes 0x00, and
    /// ID = sendCANid.
    struct TPCANMsg {
        uint32_t ID;
        uint8_t LEN;
        uint8_t DATA[8];
    };

    /// Which frame kind the receiving side expects next.
    enum frametype_t {
        CTF_SINGLE_OR_FIRST_FRAME = 0,
        CTF_CONSECUTIVE_FRAME = 1,
    };

    /// The next frame of the payload being sent.
    typedef std::vector<TPCANMsg>::iterator msgpart_t;

    /// The status callback: the status and, for CTT_ACKNOWLEDGED, the acknowledged payload's
    /// identifier (DATA[1] of its first frame); 0 otherwise.
    typedef std::function<void(statuschange_t, uint16_t)> delstatus_t;

    /// Sets the defaults; creates no descriptor and starts nothing.
    explicit CANTransportThread(int _debug);
    /// Stops the thread if it runs, closes the four pipe ends, drops every queued payload and
    /// deletes the reader. The CAN proxy descriptor is left open.
    ~CANTransportThread() override;
    CANTransportThread(const CANTransportThread&) = delete;
    CANTransportThread& operator=(const CANTransportThread&) = delete;

    /// The CAN identifier of every frame sent (data and flow control). On the bus only its low
    /// 11 bits survive.
    void setSendCANid(uint16_t canID) { sendCANid = canID; }
    /// Copies the callable; an empty one clears the callback.
    void setDelegate(delstatus_t& delegate);
    /// Takes effect from the next log line; may be called from any thread.
    void setDebugLevel(int level) { debug = level; }

    /// Creates both pipes and the reader. Returns the application's ends: `readFD` to read
    /// payloads from, `writeFD` to write payloads and received CAN frames into. On failure
    /// writes the error line and throws QBException. The descriptors stay owned by this object.
    void open(int& readFD, int& writeFD);
    /// The same pair open() returned.
    void getFileDescriptors(int& readFD, int& writeFD);
    /// The CAN proxy descriptor; frames are written to it. Not owned.
    void setConnection(int canFD) { canProxyFD = canFD; }

    /// Drops queued payloads: all of them with `all`, else all but the one being sent.
    /// May be called from any thread.
    void clear(bool all);
    /// True when every payload handed over has been acknowledged or dropped and nothing waits in
    /// the input pipe. May be called from any thread. Between the loop's read of a payload from
    /// the pipe and its entry into the queue (microseconds) it reads true too early: a caller
    /// that must be sure asks again a few milliseconds later.
    bool sendQueueEmpty();

    static const char* logName() { return "CANTransportThread"; }

  protected:
    /// The transport state, a bit set.
    typedef int canState_t;
    static constexpr canState_t RCTS_IDLE = 0;
    static constexpr canState_t RCTS_SENDING = 1;
    static constexpr canState_t RCTS_RECEIVING = 2;
    static constexpr canState_t RCTS_WAIT_FOR_FC = 4;

    /// No frame of the front payload is in flight.
    static const msgpart_t MSGPART_INVALID;

    /// The thread body: waits on the input pipe under the protocol timer, forever.
    void threadCode() override;
    /// Drains the input pipe, one trace message at a time, dispatching each by identifier.
    void handleData();
    /// One read (TraceMessageBuffer::readAvailable(); none with `readFirst` false, for a
    /// message already buffered) and one parse; null if no message is ready. `rejectedInput`,
    /// if given, is set when the reader refused bytes (so that the caller may look for messages
    /// behind them).
    MessageBase* getNextTraceMessage(bool* rejectedInput = nullptr, bool readFirst = true);
    /// Acts on an expired protocol timer by state.
    void handleTimeout();
    /// Arms the protocol timer; (0, 0) switches it off.
    void setSelectTimeout(int sec, int msec) {
        selectTimeout.tv_sec = sec;
        selectTimeout.tv_usec = msec * 1000;
        timeNotSlept = selectTimeout;
        QB_DEBUG(debug > 1, "select timeout set to " << selectTimeout);
    }

    // Sending side.
    void prepareData(const uint8_t* data, size_t len);
    void processSendQueue();
    void sendCANMessage(TPCANMsg& msg);
    uint16_t deleteFirstMessage();
    void checkFlowControl(TPCANMsg& msg);
    void handleSendError(bool doResend);

    // Receiving side.
    void handleCANData(TPCANMsg& msg);
    void checkSingleFrame(TPCANMsg& msg);
    void checkFirstFrame(TPCANMsg& msg);
    void checkConsecutiveFrame(TPCANMsg& msg);
    void addReceivedData(uint16_t canID, const uint8_t* data, size_t len);
    void sendFlowControl(int code);
    void showError(TPCANMsg& msg);
    void showErrorAndClearBuffer(TPCANMsg& msg);

    /// "RCTS_IDLE" for 0, else the names of the set bits, each with a trailing blank, and
    /// "UNKNWON (0x<hex>)" for a value above 7.
    std::string printState(canState_t state);

    TraceMessageBuffer* msgBuffer;
    delstatus_t delegateStatusChanged;
    int canProxyFD;
    sockaddr_in canProxySock;
    std::atomic<canState_t> state;
    int readPipe[2];
    int writePipe[2];
    Mutex mutexBufferLock;
    frametype_t nextFrame;
    uint16_t sendCANid;
    int flowControl;
    int cfCounter;
    int retryCount;
    int bytesToReceive;
    timeval selectTimeout;
    timeval timeNotSlept;
    bool connected;
    bool logDisconnected;
    std::atomic<int> debug;
    std::deque<std::vector<TPCANMsg>*> sendQueue;
    std::vector<uint8_t> receiveBuffer;
    msgpart_t curSendPtr;
    byteVec_t frameBuffer;  // serialised form of the frame being written (reused)

  private:
    void closePipes();
    /// Takes the front payload off the queue and frees it; false (and nothing reported) if
    /// clear(true) on another thread has emptied the queue meanwhile.
    bool removeFirstMessage(uint16_t& id);
    static ssize_t writeMessage(int fd, const byteVec_t& bytes, bool cancellable);
};

/// Writes the status name ("CTT_CONNECTED", ...; "ERROR" for any other value).
std::ostream& operator<<(std::ostream& os, CANTransportThread::statuschange_t st);

/// Writes " 0x<ID, 8 hex digits> <LEN in hex>" and, if LEN > 0, " " and " 0x<byte>" for each
/// data byte (at most the 8 the record holds). The stream is left as it was found.
std::ostream& operator<<(std::ostream& os, const CANTransportThread::TPCANMsg& msg);

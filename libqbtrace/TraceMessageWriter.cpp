#include "libqbtrace/TraceMessageWriter.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

#include "libqbutil/QBException.h"

namespace {

ssize_t plainWrite(int fd, const void* data, size_t size) {
    return ::write(fd, data, size);
}

int pollWritable(int fd) {
    pollfd p{fd, POLLOUT, 0};
    return ::poll(&p, 1, -1);
}

const TraceMessageWriter::SystemCalls plainCalls{&plainWrite, &pollWritable};

// Blocks SIGPIPE in the calling thread while alive, so that a write into a pipe without a
// reader fails with EPIPE instead of ending the process. A SIGPIPE that the write raised is
// taken off again before the mask is restored; one that was blocked already is the thread
// owner's and is left alone.
class SigpipeBlock {
  public:
    SigpipeBlock() {
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &set, &saved);
        wasBlocked = sigismember(&saved, SIGPIPE) == 1;
    }
    ~SigpipeBlock() {
        if (raised && !wasBlocked) {
            // The SIGPIPE of a failed write is directed at this thread, so it is pending here
            // and sigtimedwait() takes it; a zero wait never blocks.
            const int savedErrno = errno;
            const timespec zero{0, 0};
            while (sigtimedwait(&set, nullptr, &zero) < 0 && errno == EINTR) {
            }
            errno = savedErrno;
        }
        if (!wasBlocked) {
            pthread_sigmask(SIG_SETMASK, &saved, nullptr);
        }
    }
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;
    void noteEpipe() { raised = true; }

  private:
    sigset_t set;
    sigset_t saved;
    bool wasBlocked = false;
    bool raised = false;
};

}  // namespace

const TraceMessageWriter::SystemCalls& TraceMessageWriter::defaultCalls() {
    return plainCalls;
}

TraceMessageWriter::TraceMessageWriter(int fd) : descriptor(fd) {}

bool TraceMessageWriter::write(const MessageBase& msg) {
    return write(msg, plainCalls);
}

bool TraceMessageWriter::write(const MessageBase& msg, const SystemCalls& calls) {
    byteVec_t bytes;
    try {
        msg.createByteArray(bytes, true, false);
    } catch (const QBException&) {
        errno = EMSGSIZE;
        return false;
    }
    return writeBytes(bytes.data(), bytes.size(), calls);
}

bool TraceMessageWriter::writeBytes(const uint8_t* data, size_t size) {
    return writeBytes(data, size, plainCalls);
}

bool TraceMessageWriter::writeBytes(const uint8_t* data, size_t size, const SystemCalls& calls) {
    if (size == 0) {
        return true;
    }
    std::lock_guard<std::mutex> guard(lock);
    return writeLocked(data, size, calls);
}

bool TraceMessageWriter::writeLocked(const uint8_t* data, size_t size, const SystemCalls& calls) {
    SigpipeBlock block;
    size_t done = 0;
    while (done < size) {
        const ssize_t written = calls.write(descriptor, data + done, size - done);
        if (written > 0) {
            done += static_cast<size_t>(written);
            continue;
        }
        if (written == 0) {
            // write() returns 0 only for a count of 0; treat a descriptor that takes nothing
            // like a full one rather than looping without a wait.
            errno = EAGAIN;
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            // Non-blocking descriptor: wait until the reader has made room.
            while (calls.waitWritable(descriptor) < 0) {
                if (errno != EINTR) {
                    return false;
                }
            }
            continue;
        }
        if (errno == EPIPE) {
            block.noteEpipe();
        }
        return false;
    }
    return true;
}

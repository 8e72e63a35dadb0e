// A bounded queue of the endpoint's status reports, filled on the transport thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

/// The status reports of one endpoint, in the order the transport thread made them.
///
/// push() is what the status callback of CANTransportThread does: it takes a lock for an
/// instant, never waits and never calls out, so the transport thread is not held up by a slow
/// reader. The queue keeps at most `limit` events; when it is full the oldest is dropped and
/// counted (dropped()), so that an application that never reads its events does not make the
/// process grow.
///
/// A queue may start disabled (enable() later): pushes to it are ignored until then. The
/// callback dispatcher's queue is enabled only when a callback is set.
///
/// Thread rules: every function may be called from any thread. close() wakes every pop() and
/// makes later ones return false at once.
class StatusQueue {
  public:
    struct Event {
        int status;      ///< CANTransportThread::statuschange_t
        uint16_t ackId;  ///< the acknowledged identifier for CTT_ACKNOWLEDGED, else 0
        double time;     ///< wall-clock time of the report (seconds since the epoch)
    };

    StatusQueue(size_t limit, bool enabled);

    void enable();
    /// Appends an event (drops the oldest when full). Ignored while disabled or closed.
    void push(const Event& event);
    /// Waits up to `waitMs` for an event; true with `out` set, false when none came or closed.
    bool pop(Event& out, int waitMs);
    void close();
    bool isClosed() const;
    uint64_t dropped() const;

  private:
    const size_t limit;
    mutable std::mutex lock;
    std::condition_variable changed;
    std::deque<Event> events;
    uint64_t droppedCount = 0;
    bool enabled;
    bool closed = false;
};

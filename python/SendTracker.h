// The outcome of every payload handed to a transport endpoint, learnt from its status reports.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>

/// Tells the application what became of each payload it handed to an endpoint.
///
/// The endpoint reports an acknowledgement (CTT_ACKNOWLEDGED) with an identifier that does not
/// name the payload (DATA[1] of its first frame: a payload byte or a length byte), so payloads
/// are matched by order instead: the endpoint sends them strictly one after the other, in the
/// order they entered its input, and each acknowledgement belongs to the oldest payload still
/// open. Every payload gets a ticket, in the order of the writes into the endpoint's input (the
/// caller holds one lock around add() and its write).
///
/// How a ticket is settled:
/// - ACKNOWLEDGED: the oldest open ticket, at each acknowledgement.
/// - SEND_TIMEOUT or DISCONNECTED: when the endpoint reports that it gave up, it has dropped its
///   whole queue; every open ticket whose write had completed is settled with that status.
/// - CLEARED: clear(all) settles the tickets of the payloads CANTransportThread::clear() drops:
///   every written open ticket with `all`, every one but the oldest without (the oldest open
///   payload is taken to be the one in flight).
/// - A payload can also leave the endpoint without any report: after a loss of the peer has been
///   reported once, the endpoint gives up further payloads silently until the peer is heard
///   again; and clear(false) drops the front payload too when it is not being sent (during the
///   10 ms pause after an acknowledgement). A watcher thread therefore looks at
///   sendQueueEmpty() every 10 ms while written tickets are open: three readings in a row of an
///   empty queue with no acknowledgement in between settle every ticket written before the
///   first reading, as CLEARED if clear() ran after the ticket was taken, else with the status
///   of a give-up reported after it, else SEND_TIMEOUT (the silent give-up).
/// - CLOSED: every open ticket, at close().
///
/// Known limit: a payload written into the endpoint's input in the very instant of a give-up
/// (microseconds before the report, still in the pipe) is settled with the give-up although the
/// endpoint then sends it; its acknowledgement is then taken for the next open ticket.
///
/// Outcomes are kept only for tickets taken with `keep` true, until wait() has returned them or
/// forget() is called: a sender that does not wait leaves nothing behind.
///
/// Thread rules: every function may be called from any thread. onAcknowledged() and onGiveUp()
/// are called on the transport thread from its status callback; they take the tracker's lock
/// for an instant and never wait. clear() calls `doClear` under the tracker's lock (lock order:
/// the tracker's lock before the endpoint's queue lock).
class SendTracker {
  public:
    enum Outcome : int {
        PENDING = -1,
        DISCONNECTED = 1,  ///< CANTransportThread::CTT_DISCONNECTED
        SEND_TIMEOUT = 2,  ///< CANTransportThread::CTT_SEND_TIMEOUT
        ACKNOWLEDGED = 4,  ///< CANTransportThread::CTT_ACKNOWLEDGED
        CLEARED = 16,
        CLOSED = 17,
    };

    /// `queueEmpty` is CANTransportThread::sendQueueEmpty(); the watcher calls it without any
    /// lock of the tracker held. start() starts the watcher.
    explicit SendTracker(std::function<bool()> queueEmpty);
    ~SendTracker();
    SendTracker(const SendTracker&) = delete;
    SendTracker& operator=(const SendTracker&) = delete;

    void start();

    /// A new ticket, in the order of the endpoint's input. Its payload is about to be written.
    uint64_t add(bool keep);
    /// The payload of `ticket` is whole in the endpoint's input.
    void written(uint64_t ticket);
    /// The write of `ticket` failed: the ticket is removed.
    void abandon(uint64_t ticket);

    void onAcknowledged();
    void onGiveUp(Outcome status);
    /// Calls `doClear` (CANTransportThread::clear(all)) and settles the tickets it drops.
    void clear(bool all, const std::function<void()>& doClear);

    /// Waits up to `waitMs` for the outcome of a kept ticket; PENDING if still open. A returned
    /// outcome is forgotten. An unknown ticket reads CLOSED once closed, else PENDING.
    Outcome wait(uint64_t ticket, int waitMs);
    /// Drops the kept outcome of `ticket` (a caller that stopped waiting for it).
    void forget(uint64_t ticket);

    /// Number of open tickets.
    size_t openTickets() const;

    /// Stops the watcher and settles every open ticket CLOSED. Idempotent.
    void close();

  private:
    struct Ticket {
        uint64_t id;
        bool written;
        bool keep;
        uint64_t clearEpoch;
        uint64_t giveUpEpoch;
    };

    void settle(const Ticket& t, Outcome outcome);
    Outcome drainOutcome(const Ticket& t) const;
    void watch();

    std::function<bool()> queueEmpty;
    mutable std::mutex lock;
    std::condition_variable changed;
    std::deque<Ticket> open;
    std::unordered_map<uint64_t, Outcome> outcomes;
    uint64_t nextId = 1;
    uint64_t acknowledgements = 0;
    uint64_t clearEpoch = 0;
    uint64_t giveUpEpoch = 0;
    Outcome lastGiveUp = SEND_TIMEOUT;
    bool closed = false;
    std::thread watcher;
};

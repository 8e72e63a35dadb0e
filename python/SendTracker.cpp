#include "python/SendTracker.h"

#include <chrono>
#include <utility>

SendTracker::SendTracker(std::function<bool()> queueEmpty) : queueEmpty(std::move(queueEmpty)) {}

SendTracker::~SendTracker() {
    close();
}

void SendTracker::start() {
    std::lock_guard<std::mutex> guard(lock);
    if (!closed && !watcher.joinable()) {
        watcher = std::thread([this] { watch(); });
    }
}

uint64_t SendTracker::add(bool keep) {
    std::lock_guard<std::mutex> guard(lock);
    const uint64_t id = nextId++;
    open.push_back(Ticket{id, false, keep, clearEpoch, giveUpEpoch});
    return id;
}

void SendTracker::written(uint64_t ticket) {
    {
        std::lock_guard<std::mutex> guard(lock);
        for (Ticket& t : open) {
            if (t.id == ticket) {
                t.written = true;
                break;
            }
        }
    }
    changed.notify_all();
}

void SendTracker::abandon(uint64_t ticket) {
    std::lock_guard<std::mutex> guard(lock);
    for (auto it = open.begin(); it != open.end(); ++it) {
        if (it->id == ticket) {
            open.erase(it);
            break;
        }
    }
}

void SendTracker::settle(const Ticket& t, Outcome outcome) {
    if (t.keep) {
        outcomes[t.id] = outcome;
    }
}

void SendTracker::onAcknowledged() {
    {
        std::lock_guard<std::mutex> guard(lock);
        ++acknowledgements;
        // The oldest open ticket, written or not: its write may have completed an instant before
        // the writer could mark it, and acknowledgements come in the order of the input.
        if (!open.empty()) {
            settle(open.front(), ACKNOWLEDGED);
            open.pop_front();
        }
    }
    changed.notify_all();
}

void SendTracker::onGiveUp(Outcome status) {
    {
        std::lock_guard<std::mutex> guard(lock);
        ++giveUpEpoch;
        lastGiveUp = status;
        for (auto it = open.begin(); it != open.end();) {
            if (it->written) {
                settle(*it, status);
                it = open.erase(it);
            } else {
                ++it;
            }
        }
    }
    changed.notify_all();
}

void SendTracker::clear(bool all, const std::function<void()>& doClear) {
    {
        std::lock_guard<std::mutex> guard(lock);
        doClear();
        ++clearEpoch;
        bool keptFront = all;  // with `all` nothing is kept
        for (auto it = open.begin(); it != open.end();) {
            if (!keptFront) {
                keptFront = true;
                ++it;
                continue;
            }
            if (it->written) {
                settle(*it, CLEARED);
                it = open.erase(it);
            } else {
                ++it;
            }
        }
    }
    changed.notify_all();
}

SendTracker::Outcome SendTracker::wait(uint64_t ticket, int waitMs) {
    std::unique_lock<std::mutex> guard(lock);
    auto found = [&] { return closed || outcomes.count(ticket) != 0; };
    changed.wait_for(guard, std::chrono::milliseconds(waitMs > 0 ? waitMs : 0), found);
    auto it = outcomes.find(ticket);
    if (it != outcomes.end()) {
        const Outcome outcome = it->second;
        outcomes.erase(it);
        return outcome;
    }
    return closed ? CLOSED : PENDING;
}

void SendTracker::forget(uint64_t ticket) {
    std::lock_guard<std::mutex> guard(lock);
    outcomes.erase(ticket);
    for (Ticket& t : open) {
        if (t.id == ticket) {
            t.keep = false;
        }
    }
}

size_t SendTracker::openTickets() const {
    std::lock_guard<std::mutex> guard(lock);
    return open.size();
}

SendTracker::Outcome SendTracker::drainOutcome(const Ticket& t) const {
    if (clearEpoch > t.clearEpoch) {
        return CLEARED;
    }
    if (giveUpEpoch > t.giveUpEpoch) {
        return lastGiveUp;
    }
    return SEND_TIMEOUT;
}

void SendTracker::watch() {
    std::unique_lock<std::mutex> guard(lock);
    int emptyReadings = 0;
    uint64_t acksAtFirst = 0;
    uint64_t writtenUpTo = 0;
    auto anyWritten = [this] {
        for (const Ticket& t : open) {
            if (t.written) {
                return true;
            }
        }
        return false;
    };
    while (!closed) {
        if (!anyWritten()) {
            emptyReadings = 0;
            changed.wait(guard, [&] { return closed || anyWritten(); });
            continue;
        }
        changed.wait_for(guard, std::chrono::milliseconds(10), [this] { return closed; });
        if (closed) {
            break;
        }
        const uint64_t acks = acknowledgements;
        uint64_t newestWritten = 0;
        for (const Ticket& t : open) {
            if (t.written) {
                newestWritten = t.id;
            }
        }
        guard.unlock();
        const bool empty = queueEmpty();
        guard.lock();
        if (!empty || acknowledgements != acks) {
            emptyReadings = 0;
            continue;
        }
        if (emptyReadings == 0 || acknowledgements != acksAtFirst) {
            emptyReadings = 1;
            acksAtFirst = acknowledgements;
            writtenUpTo = newestWritten;
            continue;
        }
        if (++emptyReadings < 3) {
            continue;
        }
        emptyReadings = 0;
        for (auto it = open.begin(); it != open.end();) {
            if (it->written && it->id <= writtenUpTo) {
                settle(*it, drainOutcome(*it));
                it = open.erase(it);
            } else {
                ++it;
            }
        }
        changed.notify_all();
    }
}

void SendTracker::close() {
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!closed) {
            closed = true;
            for (const Ticket& t : open) {
                settle(t, CLOSED);
            }
            open.clear();
        }
    }
    changed.notify_all();
    if (watcher.joinable() && watcher.get_id() != std::this_thread::get_id()) {
        watcher.join();
    }
}

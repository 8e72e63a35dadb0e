#include "python/StatusQueue.h"

#include <chrono>

StatusQueue::StatusQueue(size_t limit, bool enabled)
    : limit(limit > 0 ? limit : 1), enabled(enabled) {}

void StatusQueue::enable() {
    std::lock_guard<std::mutex> guard(lock);
    enabled = true;
}

void StatusQueue::push(const Event& event) {
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!enabled || closed) {
            return;
        }
        if (events.size() >= limit) {
            events.pop_front();
            ++droppedCount;
        }
        events.push_back(event);
    }
    changed.notify_one();
}

bool StatusQueue::pop(Event& out, int waitMs) {
    std::unique_lock<std::mutex> guard(lock);
    changed.wait_for(guard, std::chrono::milliseconds(waitMs > 0 ? waitMs : 0),
                     [this] { return closed || !events.empty(); });
    if (closed || events.empty()) {
        return false;
    }
    out = events.front();
    events.pop_front();
    return true;
}

void StatusQueue::close() {
    {
        std::lock_guard<std::mutex> guard(lock);
        closed = true;
        events.clear();
    }
    changed.notify_all();
}

bool StatusQueue::isClosed() const {
    std::lock_guard<std::mutex> guard(lock);
    return closed;
}

uint64_t StatusQueue::dropped() const {
    std::lock_guard<std::mutex> guard(lock);
    return droppedCount;
}

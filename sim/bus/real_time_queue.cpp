// An event queue on the real clock, with a few threads of its own.

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "common/monotonic_condition.h"
#include "sim/bus/event_queue.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;

// At least two, so that several devices can report at the same time. More threads than processors
// would only compete.
std::size_t threadCount() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, 4U);
}

class RealTimeQueue : public EventQueue {
public:
    // Not in the constructor: if a thread cannot start, the destructor still joins the others.
    void start() {
        const std::size_t count = threadCount();
        try {
            while (threads.size() < count) {
                threads.emplace_back([this] { runEvents(); });
            }
        } catch (const std::system_error& error) {
            throw std::system_error(error.code(), "cannot start a thread");
        }
    }

    ~RealTimeQueue() override { RealTimeQueue::stop(); }

    void stop() override {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopped = true;
        }
        changed.notifyAll();
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

    Microseconds now() const override {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - openedAt)
            .count();
    }

    void sleep(Microseconds duration) override {
        std::this_thread::sleep_for(std::chrono::microseconds(duration));
    }

    void schedule(Microseconds when, Event event) override {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            events.emplace(when, std::move(event));
        }
        changed.notifyOne();
    }

private:
    void runEvents() {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopped) {
            if (events.empty()) {
                changed.wait(lock);
                continue;
            }
            const auto first = events.begin();
            if (first->first > now()) {
                changed.waitUntil(lock, openedAt + std::chrono::microseconds(first->first));
                continue;
            }
            const Event event = std::move(first->second);
            events.erase(first);
            changed.notifyOne();  // another thread runs the next event if this one blocks
            lock.unlock();
            event();
            lock.lock();
        }
    }

    const Clock::time_point openedAt = Clock::now();
    std::mutex mutex;  // guards events and stopped
    MonotonicCondition changed;
    std::multimap<Microseconds, Event> events;
    bool stopped = false;
    std::vector<std::thread> threads;
};

}  // namespace

std::unique_ptr<EventQueue> makeEventQueue() {
    auto queue = std::make_unique<RealTimeQueue>();
    queue->start();
    return queue;
}

}  // namespace sim

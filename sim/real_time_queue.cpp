// Events on the real clock, run by a few threads of the queue's own.

#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "sim/event_queue.h"

namespace sim {

namespace {

using Clock = std::chrono::steady_clock;

// A virtual machine takes 20 to 90 us to wake a thread, which would make every answer that much
// later than the bus file says.
constexpr Microseconds kWakesEarly = 100;

// At least two, so that several devices report at the same moment; more than there are processors
// would stand in each other's way.
std::size_t threadCount() {
    return std::clamp(std::thread::hardware_concurrency(), 2U, 4U);
}

class RealTimeQueue : public EventQueue {
public:
    // Not in the constructor, so that the destructor ends those that there are when one cannot be
    // had.
    void start() {
        const std::size_t count = threadCount();
        try {
            while (threads_.size() < count) {
                threads_.emplace_back([this] { runEvents(); });
            }
        } catch (const std::system_error& error) {
            throw std::system_error(error.code(), "cannot start a thread");
        }
    }

    ~RealTimeQueue() override { RealTimeQueue::stop(); }

    void stop() override {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            stopped_ = true;
        }
        changed_.notify_all();
        for (std::thread& thread : threads_) {
            thread.join();
        }
        threads_.clear();
    }

    Microseconds now() const override {
        return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_).count();
    }

    void sleep(Microseconds duration) override {
        std::this_thread::sleep_for(std::chrono::microseconds(duration));
    }

    void schedule(std::vector<TimedEvent> events) override {
        bool hasNewFirst = false;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            for (TimedEvent& each : events) {
                const auto entry = events_.emplace(each.when, std::move(each.event));
                hasNewFirst = hasNewFirst || entry == events_.begin();
            }
        }
        // No idle thread waits for longer than until the first event: whoever makes an event the
        // first one wakes them all.
        if (hasNewFirst) {
            changed_.notify_all();
        }
    }

private:
    void runEvents() {
        setUpScheduling();
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopped_) {
            if (events_.empty() || events_.begin()->first > now()) {
                awaitNextEvent(lock);
                continue;
            }
            const auto first = events_.begin();
            Event event = std::move(first->second);
            events_.erase(first);
            lock.unlock();
            event();
            event = nullptr;
            lock.lock();
        }
    }

    // Batch threads do not preempt the sender when they are woken. Otherwise the scheduler would
    // decide for each packet whether an answer without delay is there when the call returns; now it
    // nearly never is, even where a processor is idle, and on a busy machine it is later still.
    static void setUpScheduling() {
        const sched_param priority{};  // 0, as the policy wants it
        sched_setscheduler(0, SCHED_BATCH, &priority);
        prctl(PR_SET_TIMERSLACK, 1UL);  // the kernel adds up to 50 us to a wait otherwise
    }

    // Returns when an event may be due or the queue was stopped; maybe earlier.
    void awaitNextEvent(std::unique_lock<std::mutex>& lock) {
        if (events_.empty()) {
            changed_.wait(lock);
            return;
        }
        const Microseconds wakeUp = events_.begin()->first - kWakesEarly;
        if (wakeUp > now()) {
            changed_.wait_until(lock, start_ + std::chrono::microseconds(wakeUp));
            return;
        }
        lock.unlock();
        std::this_thread::yield();
        lock.lock();
    }

    const Clock::time_point start_ = Clock::now();
    std::mutex mutex_;  // guards events_ and stopped_
    std::condition_variable changed_;
    std::multimap<Microseconds, Event> events_;
    bool stopped_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace

std::unique_ptr<EventQueue> makeEventQueue() {
    auto queue = std::make_unique<RealTimeQueue>();
    queue->start();
    return queue;
}

}  // namespace sim

#ifndef COMMON_MONOTONIC_CONDITION_H
#define COMMON_MONOTONIC_CONDITION_H

#include <pthread.h>

#include <chrono>
#include <ctime>
#include <mutex>

// A condition variable whose waits do not change when the time of the system is set. In place of
// std::condition_variable, whose waits with a limit need a C library of 2019.
class MonotonicCondition {
public:
    using Clock = std::chrono::steady_clock;

    MonotonicCondition() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&condition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    ~MonotonicCondition() { pthread_cond_destroy(&condition); }
    MonotonicCondition(const MonotonicCondition&) = delete;
    MonotonicCondition& operator=(const MonotonicCondition&) = delete;

    void notifyOne() { pthread_cond_signal(&condition); }
    void notifyAll() { pthread_cond_broadcast(&condition); }

    // The waits may end early.
    void wait(const std::unique_lock<std::mutex>& lock) {
        pthread_cond_wait(&condition, lock.mutex()->native_handle());
    }
    void waitUntil(const std::unique_lock<std::mutex>& lock, Clock::time_point end) {
        using std::chrono::duration_cast;
        const auto time = end.time_since_epoch();
        const auto seconds = duration_cast<std::chrono::seconds>(time);
        const auto rest = duration_cast<std::chrono::nanoseconds>(time - seconds);
        const timespec limit{static_cast<std::time_t>(seconds.count()),
                             static_cast<long>(rest.count())};
        pthread_cond_timedwait(&condition, lock.mutex()->native_handle(), &limit);
    }

    // Waits until the predicate is true, at most so long.
    template <typename Predicate>
    void waitFor(const std::unique_lock<std::mutex>& lock, Clock::duration longest,
                 Predicate predicate) {
        const Clock::time_point end = Clock::now() + longest;
        while (!predicate() && Clock::now() < end) {
            waitUntil(lock, end);
        }
    }

private:
    pthread_cond_t condition;
};

#endif

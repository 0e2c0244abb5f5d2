#ifndef TESTS_SUPPORT_VIRTUAL_TIME_H
#define TESTS_SUPPORT_VIRTUAL_TIME_H

#include <cstddef>
#include <functional>
#include <limits>
#include <map>

#include "sim/bus/event_queue.h"

namespace sim {

// A sleep would end after the time limit.
struct TimeLimitReached {};

// A clock that stands still until the program sleeps. It takes the place of usleep and time in the
// program that links it: a sleep runs every event that falls due meanwhile, on the sleeper's own
// thread, so that a run takes no real time and is the same every time. For programs with a single
// thread.
class VirtualTime {
public:
    static constexpr Microseconds kNoLimit = std::numeric_limits<Microseconds>::max();

    static VirtualTime& instance();

    // Microseconds since the last reset.
    Microseconds now() const { return time; }

    // Throws TimeLimitReached when that would go beyond the limit.
    void advance(Microseconds duration);

    // How many events are still to happen, and runs the nth of them, from 0, now.
    std::size_t pending() const { return events.size(); }
    void runEarly(std::size_t number);

    // Runs before each sleep of the program; none if empty. A reset leaves it.
    std::function<void(Microseconds duration)> beforeSleep;

    // The clock goes no further. A reset sets it to kNoLimit.
    Microseconds limit = kNoLimit;

    // Back to the start. Drops what is still to happen.
    void reset();

private:
    friend class VirtualTimeQueue;
    struct Entry {
        const EventQueue* owner;
        Event event;
    };

    void run(std::multimap<Microseconds, Entry>::iterator entry);

    Microseconds time = 0;
    std::multimap<Microseconds, Entry> events;
};

}  // namespace sim

#endif

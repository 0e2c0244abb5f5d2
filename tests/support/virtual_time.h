#ifndef TESTS_SUPPORT_VIRTUAL_TIME_H
#define TESTS_SUPPORT_VIRTUAL_TIME_H

#include <functional>
#include <limits>
#include <map>

#include "sim/bus/event_queue.h"

namespace sim {

// Thrown if a sleep would end after the time limit.
struct TimeLimitReached {};

// A clock that advances only when the program sleeps. It replaces usleep and time in the program
// that links it. A sleep runs every event that becomes due, on the same thread, so that a run takes
// no real time and is deterministic. Only for single-threaded programs.
class VirtualTime {
public:
    static constexpr Microseconds kNoLimit = std::numeric_limits<Microseconds>::max();

    static VirtualTime& instance();

    // Microseconds since the last reset.
    Microseconds now() const { return time; }

    // Throws TimeLimitReached if the time would exceed the limit.
    void advance(Microseconds duration);

    // Runs before each sleep of the program, if set. A reset keeps it.
    std::function<void(Microseconds duration)> beforeSleep;

    // The latest time of the clock. A reset sets it to kNoLimit.
    Microseconds limit = kNoLimit;

    // Sets the clock to its start and drops all pending events.
    void reset();

private:
    friend class VirtualTimeQueue;
    struct Entry {
        const EventQueue* owner;
        Event event;
    };

    Microseconds time = 0;
    std::multimap<Microseconds, Entry> events;
};

}  // namespace sim

#endif

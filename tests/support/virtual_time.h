#ifndef TESTS_SUPPORT_VIRTUAL_TIME_H
#define TESTS_SUPPORT_VIRTUAL_TIME_H

#include <cstddef>
#include <limits>
#include <map>

#include "sim/bus/event_queue.h"

namespace sim {

// Thrown if a sleep would end after the time limit.
struct TimeLimitReached {};

// A clock that advances only when the program sleeps. It replaces usleep and time in the program
// that links it. A sleep runs every event that becomes due, on the same thread, so that a run takes
// no real time and is deterministic. Only for single-threaded programs, and for one bus at a time.
class VirtualTime : public EventQueue {
public:
    static constexpr Microseconds kNoLimit = std::numeric_limits<Microseconds>::max();

    static inline Microseconds time = 0;  // since the last reset
    static inline Microseconds limit = kNoLimit;
    static inline std::multimap<Microseconds, Event> events;  // that are still to happen

    // Sets the clock to its start, with that limit, and drops all events.
    static void reset(Microseconds newLimit = kNoLimit);

    // Runs the nth of the events, from 0, now.
    static void runEarly(std::size_t number);

    void stop() override { events.clear(); }
    Microseconds now() const override { return time; }
    void sleep(Microseconds duration) override;
    void schedule(Microseconds when, Event event) override;
};

}  // namespace sim

#endif

#ifndef SIM_VIRTUAL_TIME_H
#define SIM_VIRTUAL_TIME_H

#include <functional>
#include <limits>
#include <map>
#include <utility>

#include "sim/event_queue.h"

namespace sim {

// Somebody sleeps beyond the end of the time that was given.
struct TimeLimitReached {};

// A clock that stands still until somebody sleeps. A program that links it gets its usleep and its
// time from it: a sleep runs every event that falls due meanwhile, on the sleeper's own thread, so
// that a run is over in no time and always the same. For programs with a single thread.
class VirtualTime {
public:
    static VirtualTime& instance();

    // Microseconds since the last reset.
    Microseconds now() const { return now_; }

    // Throws TimeLimitReached when that would go beyond the limit.
    void advance(Microseconds duration);

    // Runs before each sleep of the program; none if empty. A reset leaves it.
    void beforeSleep(std::function<void(Microseconds duration)> look) {
        beforeSleep_ = std::move(look);
    }

    // For programs that must not hang on what they run. A reset takes it back.
    void setLimit(Microseconds limit) { limit_ = limit; }

    // Back to the start. Drops whatever is still to happen.
    void reset();

private:
    static constexpr Microseconds kNoLimit = std::numeric_limits<Microseconds>::max();

    friend class VirtualTimeQueue;
    struct Entry {
        const EventQueue* owner;
        Event event;
    };

    std::function<void(Microseconds)> beforeSleep_;
    Microseconds now_ = 0;
    Microseconds limit_ = kNoLimit;
    std::multimap<Microseconds, Entry> events_;
};

}  // namespace sim

#endif

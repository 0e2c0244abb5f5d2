#ifndef SIM_VIRTUAL_TIME_H
#define SIM_VIRTUAL_TIME_H

#include <map>

#include "sim/event_queue.h"

namespace sim {

// A clock that stands still until somebody sleeps. A program that links it gets its usleep and its
// time from it: a sleep runs every event that falls due meanwhile, on the sleeper's own thread, so
// that a run is over in no time and always the same. For programs with a single thread.
class VirtualTime {
public:
    static VirtualTime& instance();

    // Microseconds since the last reset.
    Microseconds now() const { return now_; }

    void advance(Microseconds duration);

    // Back to the start. Drops whatever is still to happen.
    void reset();

private:
    friend class VirtualTimeQueue;
    struct Entry {
        const EventQueue* owner;
        Event event;
    };

    Microseconds now_ = 0;
    std::multimap<Microseconds, Entry> events_;
};

}  // namespace sim

#endif

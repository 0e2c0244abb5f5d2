#ifndef SIM_BUS_EVENT_QUEUE_H
#define SIM_BUS_EVENT_QUEUE_H

#include <cstdint>
#include <functional>
#include <memory>

namespace sim {

using Microseconds = std::int64_t;
using Event = std::function<void()>;

// The clock of a simulated bus, and what is to happen on it. Events are taken in the order of their
// times, those of the same time in the order in which they were scheduled; with several threads of
// its own the queue may run several at once, and a later one may overtake. An event may schedule
// others.
class EventQueue {
public:
    // Stops.
    virtual ~EventQueue() = default;

    // Once it returns no event runs any more; those that no thread has taken yet, and any
    // scheduled later, are dropped. Not to be called from an event. The clock goes on.
    virtual void stop() = 0;

    virtual Microseconds now() const = 0;
    virtual void sleep(Microseconds duration) = 0;
    virtual void schedule(Microseconds when, Event event) = 0;
};

// The event queue of a new bus. Which clock it runs on is settled when the program is linked:
// real_time_queue.cpp, or the virtual time of the tests.
std::unique_ptr<EventQueue> makeEventQueue();

}  // namespace sim

#endif

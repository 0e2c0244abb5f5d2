#ifndef SIM_BUS_EVENT_QUEUE_H
#define SIM_BUS_EVENT_QUEUE_H

#include <cstdint>
#include <functional>
#include <memory>

namespace sim {

using Microseconds = std::int64_t;
using Event = std::function<void()>;

// The clock of a simulated bus and its scheduled events. The queue takes events in the order of
// their times, then in the order of scheduling. A queue with several threads may run several events
// at once, and a later one may overtake. An event may schedule others.
class EventQueue {
public:
    // Calls stop.
    virtual ~EventQueue() = default;

    // After it returns, no event runs. Pending events and events scheduled later are dropped. The
    // clock continues. An event must not call it.
    virtual void stop() = 0;

    virtual Microseconds now() const = 0;
    virtual void sleep(Microseconds duration) = 0;
    virtual void schedule(Microseconds when, Event event) = 0;
};

// Makes the event queue of a new bus. The linked file selects the clock: real_time_queue.cpp, or
// the virtual time of the tests.
std::unique_ptr<EventQueue> makeEventQueue();

}  // namespace sim

#endif

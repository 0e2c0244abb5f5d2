#include "support/virtual_time.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "support/memory_system.h"

namespace sim {

void VirtualTime::reset(Microseconds newLimit) {
    events.clear();
    time = 0;
    limit = newLimit;
}

void VirtualTime::runEarly(std::size_t number) {
    if (number < events.size()) {
        const auto entry = std::next(events.begin(), static_cast<std::ptrdiff_t>(number));
        const Event event = std::move(entry->second);
        events.erase(entry);
        event();
    }
}

void VirtualTime::sleep(Microseconds duration) {
    const Microseconds end = time + duration;
    if (end > limit) {
        throw TimeLimitReached();
    }
    while (!events.empty() && events.begin()->first <= end) {
        time = std::max(time, events.begin()->first);
        runEarly(0);
    }
    time = std::max(time, end);  // an event may itself have slept
}

void VirtualTime::schedule(Microseconds when, Event event) {
    events.emplace(when, std::move(event));
}

std::unique_ptr<EventQueue> makeEventQueue() {
    return std::make_unique<VirtualTime>();
}

}  // namespace sim

// Replace the functions of the system.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int usleep(useconds_t duration) {
    const OutsideTheTool outside;
    constexpr useconds_t kPoll = 1'000;  // of the packet loop
    if (duration != kPoll) {
        MemorySystem::instance().tell("sleep " + std::to_string(duration / 1'000) + " ms");
    }
    sim::VirtualTime().sleep(duration);
    return 0;
}

extern "C" std::time_t time(std::time_t* out) noexcept {
    constexpr std::time_t kEpoch = 1'700'000'000;
    const std::time_t now = kEpoch + static_cast<std::time_t>(sim::VirtualTime::time / 1'000'000);
    if (out != nullptr) {
        *out = now;
    }
    return now;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

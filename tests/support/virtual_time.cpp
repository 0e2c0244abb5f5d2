#include "support/virtual_time.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

namespace sim {

namespace {

constexpr std::time_t kEpoch = 1'700'000'000;
constexpr Microseconds kSecond = 1'000'000;

}  // namespace

class VirtualTimeQueue : public EventQueue {
public:
    ~VirtualTimeQueue() override { VirtualTimeQueue::stop(); }

    void stop() override {
        stopped = true;
        auto& events = VirtualTime::instance().events;
        for (auto entry = events.begin(); entry != events.end();) {
            entry = entry->second.owner == this ? events.erase(entry) : std::next(entry);
        }
    }

    Microseconds now() const override { return VirtualTime::instance().now(); }

    void sleep(Microseconds duration) override { VirtualTime::instance().advance(duration); }

    void schedule(Microseconds when, Event event) override {
        if (!stopped) {
            VirtualTime::instance().events.emplace(when,
                                                   VirtualTime::Entry{this, std::move(event)});
        }
    }

private:
    bool stopped = false;
};

VirtualTime& VirtualTime::instance() {
    static VirtualTime time;
    return time;
}

void VirtualTime::advance(Microseconds duration) {
    if (beforeSleep) {
        beforeSleep(duration);
    }
    const Microseconds end = time + duration;
    if (end > limit) {
        throw TimeLimitReached();
    }
    while (!events.empty() && events.begin()->first <= end) {
        const auto first = events.begin();
        time = std::max(time, first->first);
        const Event event = std::move(first->second.event);
        events.erase(first);
        event();
    }
    time = std::max(time, end);  // an event may itself have slept
}

void VirtualTime::reset() {
    events.clear();
    time = 0;
    limit = kNoLimit;
}

std::unique_ptr<EventQueue> makeEventQueue() {
    return std::make_unique<VirtualTimeQueue>();
}

}  // namespace sim

// Replace the functions of the system.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" int usleep(useconds_t duration) {
    sim::VirtualTime::instance().advance(duration);
    return 0;
}

extern "C" std::time_t time(std::time_t* out) noexcept {
    const auto seconds =
        static_cast<std::time_t>(sim::VirtualTime::instance().now() / sim::kSecond);
    const std::time_t now = sim::kEpoch + seconds;
    if (out != nullptr) {
        *out = now;
    }
    return now;
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

#include "sim/virtual_time.h"

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
        stopped_ = true;
        auto& events = VirtualTime::instance().events_;
        for (auto entry = events.begin(); entry != events.end();) {
            entry = entry->second.owner == this ? events.erase(entry) : std::next(entry);
        }
    }

    Microseconds now() const override { return VirtualTime::instance().now(); }

    void sleep(Microseconds duration) override { VirtualTime::instance().advance(duration); }

    void schedule(std::vector<TimedEvent> events) override {
        if (stopped_) {
            return;
        }
        for (TimedEvent& each : events) {
            VirtualTime::instance().events_.emplace(
                each.when, VirtualTime::Entry{this, std::move(each.event)});
        }
    }

private:
    bool stopped_ = false;
};

VirtualTime& VirtualTime::instance() {
    static VirtualTime time;
    return time;
}

void VirtualTime::advance(Microseconds duration) {
    if (beforeSleep_) {
        beforeSleep_(duration);
    }
    const Microseconds end = now_ + duration;
    if (end > limit_) {
        throw TimeLimitReached();
    }
    while (!events_.empty() && events_.begin()->first <= end) {
        const auto first = events_.begin();
        now_ = std::max(now_, first->first);
        const Event event = std::move(first->second.event);
        events_.erase(first);
        event();
    }
    now_ = std::max(now_, end);  // an event may have slept itself
}

void VirtualTime::reset() {
    events_.clear();
    now_ = 0;
    limit_ = kNoLimit;
}

std::unique_ptr<EventQueue> makeEventQueue() {
    return std::make_unique<VirtualTimeQueue>();
}

}  // namespace sim

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

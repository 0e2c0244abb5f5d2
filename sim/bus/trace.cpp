#include "sim/bus/trace.h"

#include <stdexcept>
#include <vector>

namespace sim {

namespace {

// Start times of this thread's running calls. They nest, because a callback may call the bus.
thread_local std::vector<Microseconds> startTimes;

}  // namespace

Trace::Trace(const std::string& path, const EventQueue& clock)
    : queue(clock), openedAt(clock.now()) {
    if (path.empty()) {
        return;
    }
    try {
        file = std::make_unique<recording::Recording>(path);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("/trace: ") + error.what());
    }
}

std::optional<InjectedResult> Trace::before(const Call& call) {
    startTimes.push_back(queue.now());
    if (file && isCallback(call.function)) {
        file->append({startTimes.back() - openedAt, 0, recording::threadNumber()}, call);
    }
    return std::nullopt;
}

void Trace::after(const Call& call) {
    const Microseconds start = startTimes.back();
    startTimes.pop_back();
    if (file && !isCallback(call.function)) {
        file->append({start - openedAt, queue.now() - start, recording::threadNumber()}, call);
    }
}

}  // namespace sim

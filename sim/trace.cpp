#include "sim/trace.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "sim/one_line.h"

namespace sim {

Trace::Trace(const std::string& path, const EventQueue& clock)
    : queue(clock), openedAt(clock.now()) {
    if (path.empty()) {
        return;
    }
    file.reset(std::fopen(path.c_str(), "ae"));
    if (!file) {
        throw std::runtime_error("/trace: cannot be opened: " + std::string(std::strerror(errno)));
    }
    std::setvbuf(file.get(), nullptr, _IOLBF, BUFSIZ);
}

std::optional<Intervention> Trace::before(const Call& call) {
    if (isCallback(call.function)) {
        write(call);
    }
    return std::nullopt;
}

void Trace::after(const Call& call) {
    if (!isCallback(call.function)) {
        write(call);
    }
}

void Trace::write(const Call& call) {
    if (file == nullptr) {
        return;
    }
    const std::string line = traceLine(queue.now() - openedAt, call) + '\n';
    const std::lock_guard<std::mutex> lock(mutex);
    std::fputs(line.c_str(), file.get());
}

std::string traceLine(Microseconds time, const Call& call) {
    constexpr Microseconds kSecond = 1'000'000;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%6lld.%06lld ", static_cast<long long>(time / kSecond),
                  static_cast<long long>(time % kSecond));
    return seconds + onOneLine(describe(call));
}

}  // namespace sim

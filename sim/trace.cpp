#include "sim/trace.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "files/one_line.h"

namespace sim {

Trace::Trace(const std::string& path) {
    if (path.empty()) {
        return;
    }
    file_.reset(std::fopen(path.c_str(), "ae"));
    if (!file_) {
        throw std::runtime_error("/trace: cannot be opened: " + std::string(std::strerror(errno)));
    }
    std::setvbuf(file_.get(), nullptr, _IOLBF, BUFSIZ);
}

void Trace::write(Microseconds time, const std::string& line) {
    if (!isOn()) {
        return;
    }
    constexpr Microseconds kSecond = 1'000'000;
    const std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(file_.get(), "%6lld.%06lld %s\n", static_cast<long long>(time / kSecond),
                 static_cast<long long>(time % kSecond), onOneLine(line).c_str());
}

}  // namespace sim

#ifndef SIM_TRACE_H
#define SIM_TRACE_H

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "sim/event_queue.h"

namespace sim {

// The record of what happens on a bus: a line for every bus call and every callback, with the time
// in seconds since the connection was opened. Any thread.
class Trace {
public:
    // Appends to the file; an empty path keeps no record. Throws std::runtime_error when the file
    // cannot be opened.
    explicit Trace(const std::string& path);

    // So that nobody composes lines in vain.
    bool isOn() const { return file_ != nullptr; }

    void write(Microseconds time, const std::string& line);

private:
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::mutex mutex_;
    std::unique_ptr<std::FILE, Close> file_;
};

}  // namespace sim

#endif

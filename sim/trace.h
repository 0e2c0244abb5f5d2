#ifndef SIM_TRACE_H
#define SIM_TRACE_H

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "sim/call.h"
#include "sim/event_queue.h"

namespace sim {

// Writes what happens on a bus into a file: a line for every call and every callback, with the time
// in seconds since the connection was opened. Any thread.
class Trace : public Observer {
public:
    // Appends to the file; an empty path keeps no record. `clock` must outlive the trace. Throws
    // std::runtime_error when the file cannot be opened.
    Trace(const std::string& path, const EventQueue& clock);

    std::optional<Intervention> before(const Call& call) override;  // a callback
    void after(const Call& call) override;                          // any other call

private:
    struct Close {
        void operator()(std::FILE* open) const { std::fclose(open); }
    };

    void write(const Call& call);

    const EventQueue& queue;
    const Microseconds openedAt;
    std::mutex mutex;  // guards the file
    std::unique_ptr<std::FILE, Close> file;
};

// One line of a trace: the time in seconds, and the call.
std::string traceLine(Microseconds time, const Call& call);

}  // namespace sim

#endif

#ifndef SIM_BUS_TRACE_H
#define SIM_BUS_TRACE_H

#include <memory>
#include <string>

#include "recording/recording.h"
#include "sim/bus/event_queue.h"
#include "sim/bus/interceptor.h"

namespace sim {

// Records the calls and callbacks of a connection. Thread-safe.
class Trace : public Interceptor {
public:
    // Appends to the file; with an empty path, records nothing. `clock` must outlive the trace.
    // Throws std::runtime_error if the file cannot be opened.
    Trace(const std::string& path, const EventQueue& clock);

    std::optional<InjectedResult> before(const Call& call) override;
    void after(const Call& call) override;

private:
    const EventQueue& queue;
    const Microseconds openedAt;
    std::unique_ptr<recording::Recording> file;
};

}  // namespace sim

#endif

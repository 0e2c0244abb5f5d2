#ifndef SIM_BUS_CALL_FAULTS_H
#define SIM_BUS_CALL_FAULTS_H

#include <mutex>
#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus/interceptor.h"

namespace sim {

// Injects the results of the bus's call faults. Thread-safe.
class CallFaults : public Interceptor {
public:
    // `clock` must outlive this.
    CallFaults(const std::vector<CallFault>& callFaults, EventQueue& clock);

    std::optional<InjectedResult> before(const Call& call) override;

private:
    struct Counted {
        CallFault fault;
        std::uint32_t calls = 0;  // number of calls so far of this function to this device
    };
    InjectedResult injectedResult(const CallFault& fault);

    EventQueue& queue;
    std::mutex mutex;  // guards the counts
    std::vector<Counted> faults;
};

}  // namespace sim

#endif

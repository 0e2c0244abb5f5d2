#ifndef SIM_BUS_CALL_FAULTS_H
#define SIM_BUS_CALL_FAULTS_H

#include <mutex>
#include <vector>

#include "sim/bus/bus_description.h"
#include "sim/bus/interceptor.h"

namespace sim {

// Makes calls end as the fault that strikes them says. Any thread.
class CallFaults : public Interceptor {
public:
    // `clock` must outlive this.
    CallFaults(const std::vector<CallFault>& callFaults, EventQueue& clock);

    std::optional<InjectedResult> before(const Call& call) override;

private:
    struct Counted {
        CallFault fault;
        std::uint32_t calls = 0;  // so far, of its function and device
    };
    InjectedResult injectedResult(const CallFault& fault);

    EventQueue& queue;
    std::mutex mutex;  // guards the counts
    std::vector<Counted> faults;
};

}  // namespace sim

#endif

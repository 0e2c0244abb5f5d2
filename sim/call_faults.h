#ifndef SIM_CALL_FAULTS_H
#define SIM_CALL_FAULTS_H

#include <mutex>
#include <vector>

#include "sim/bus_description.h"
#include "sim/call.h"

namespace sim {

// Makes calls end with the result of the fault that strikes them. Any thread.
class CallFaults : public Observer {
public:
    explicit CallFaults(const std::vector<CallFault>& callFaults);

    std::optional<Intervention> before(const Call& call) override;

private:
    struct Counted {
        CallFault fault;
        std::uint32_t calls = 0;  // that it could have struck so far
    };
    std::mutex mutex;  // guards the counts
    std::vector<Counted> faults;
};

}  // namespace sim

#endif

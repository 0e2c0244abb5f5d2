#include "sim/call_faults.h"

#include "sim/identifier.h"

namespace sim {

namespace {

bool concerns(const CallFault& fault, const Call& call) {
    return fault.function == call.function &&
           (!fault.device || (call.device && sameIdentifier(*fault.device, *call.device)));
}

}  // namespace

CallFaults::CallFaults(const std::vector<CallFault>& callFaults) {
    for (const CallFault& fault : callFaults) {
        faults.push_back({fault, 0});
    }
}

std::optional<Intervention> CallFaults::before(const Call& call) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<Intervention> intervention;
    for (Counted& each : faults) {
        if (concerns(each.fault, call) && each.fault.calls.contains(++each.calls)) {
            intervention = Intervention{each.fault.result, false};
        }
    }
    return intervention;
}

}  // namespace sim

#include "sim/bus/call_faults.h"

#include "common/vanid_text.h"

namespace sim {

namespace {

bool concerns(const CallFault& fault, const Call& call) {
    return fault.function == call.function &&
           (!fault.device || (call.device && isSameVanid(*fault.device, *call.device)));
}

}  // namespace

CallFaults::CallFaults(const std::vector<CallFault>& callFaults, EventQueue& clock) : queue(clock) {
    for (const CallFault& fault : callFaults) {
        faults.push_back({fault, 0});
    }
}

std::optional<Intervention> CallFaults::before(const Call& call) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<Intervention> intervention;
    for (Counted& each : faults) {
        if (concerns(each.fault, call) && each.fault.calls.contains(++each.calls)) {
            intervention = makeIntervention(each.fault);
        }
    }
    return intervention;
}

Intervention CallFaults::makeIntervention(const CallFault& fault) {
    Intervention intervention{fault.result, fault.carriedOut, fault.answer};
    if (fault.takes > 0) {
        intervention.sleep = [this, duration = fault.takes] { queue.sleep(duration); };
    }
    return intervention;
}

}  // namespace sim

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

std::optional<InjectedResult> CallFaults::before(const Call& call) {
    const std::lock_guard<std::mutex> lock(mutex);
    std::optional<InjectedResult> injected;
    for (Counted& each : faults) {
        if (concerns(each.fault, call) && each.fault.calls.contains(++each.calls)) {
            injected = injectedResult(each.fault);
        }
    }
    return injected;
}

InjectedResult CallFaults::injectedResult(const CallFault& fault) {
    InjectedResult injected{fault.result, fault.carriedOut, fault.answer};
    if (fault.takes > 0) {
        injected.sleep = [this, duration = fault.takes] { queue.sleep(duration); };
    }
    return injected;
}

}  // namespace sim

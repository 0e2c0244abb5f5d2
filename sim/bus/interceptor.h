// The one seam at the bus interface: every call of the tool and every callback passes the
// interceptors. They see it, and may inject its result.
#ifndef SIM_BUS_INTERCEPTOR_H
#define SIM_BUS_INTERCEPTOR_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "talm/bus_call.h"

namespace sim {

using talm::Call;
using talm::Function;
using talm::isCallback;
using talm::kNameBytes;
using talm::kPacketBytes;
using talm::nameOf;

// What a call writes beside its result, as in Call.
struct Answer {
    std::vector<std::int64_t> numbers;
    std::vector<vanid_t> members;
    std::string name;
};

// What a call ends with instead of its own result.
struct InjectedResult {
    int result = 0;
    bool carriedOut = false;  // the bus carries it out all the same; its own result is lost
    std::optional<Answer> answer = {};  // in place of the call's own
    std::function<void()> sleep = {};   // before the call returns; empty: not at all
};

// Called on the caller's thread, several at once, without any lock of the bus held.
class Interceptor {
public:
    virtual ~Interceptor() = default;

    // Before the call is carried out. The first result that is injected counts; a callback that
    // gets one is not made.
    virtual std::optional<InjectedResult> before(const Call& /*call*/) { return std::nullopt; }

    // After the call, with its outcome.
    virtual void after(const Call& /*call*/) {}
};

// The interceptors of all buses of this process, asked before those of a bus itself. Not owned.
// Change them only while no bus is in use.
std::vector<Interceptor*>& interceptors();

// Gives the call the injected result, after the time that it is to take.
void inject(Call& call, const InjectedResult& injected);

// Asks all interceptors, carries the call out unless one injects a result, and shows them the
// outcome.
// `carryOut` fills in what the call writes, and returns its result.
template <typename CarryOut>
int pass(Call& call, const std::vector<Interceptor*>& ofTheBus, CarryOut carryOut) {
    const std::vector<Interceptor*>* const lists[] = {&interceptors(), &ofTheBus};
    std::optional<InjectedResult> injected;
    for (const auto* const list : lists) {
        for (Interceptor* const interceptor : *list) {
            const std::optional<InjectedResult> own = interceptor->before(call);
            injected = injected ? injected : own;
        }
    }
    if (!injected || injected->carriedOut) {
        call.result = carryOut();
    }
    if (injected) {
        inject(call, *injected);
    }
    for (const auto* const list : lists) {
        for (Interceptor* const interceptor : *list) {
            interceptor->after(call);
        }
    }
    return call.result;
}

}  // namespace sim

#endif

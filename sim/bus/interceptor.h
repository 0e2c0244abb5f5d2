// Interceptors observe every call of the tool and every callback, and can inject a result.
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

// The outputs of a call, as in Call.
struct Answer {
    std::vector<std::int64_t> numbers;
    std::vector<vanid_t> members;
    std::string name;
};

// Replaces the result of a call.
struct InjectedResult {
    int result = 0;
    bool carriedOut = false;            // the bus executes the call, but its result is lost
    std::optional<Answer> answer = {};  // replaces the outputs of the call
    std::function<void()> sleep = {};   // runs before the call returns; empty: no delay
};

// Runs on the thread of the caller, without the lock of the bus. Must be thread-safe.
class Interceptor {
public:
    virtual ~Interceptor() = default;

    // Runs before the call. The first injected result applies. A callback with an injected result
    // is not made.
    virtual std::optional<InjectedResult> before(const Call& /*call*/) { return std::nullopt; }

    // Runs after the call; `call` has its result and outputs.
    virtual void after(const Call& /*call*/) {}
};

// The interceptors for all buses of this process. They run before those of a bus itself. Not owned.
// Change the list only while no bus is in use.
std::vector<Interceptor*>& interceptors();

// Sets the injected result in the call, and sleeps if the injected result asks for it.
void inject(Call& call, const InjectedResult& injected);

// Shows the call to all interceptors, executes it unless one injects a result, and shows them the
// result. `carryOut` executes the call: it fills in the outputs and returns the result.
template <typename CarryOut>
int pass(Call& call, const std::vector<Interceptor*>& ofTheBus, CarryOut carryOut) {
    const std::vector<Interceptor*>* const lists[] = {&interceptors(), &ofTheBus};
    std::optional<InjectedResult> injected;
    for (const auto* const list : lists) {
        for (Interceptor* const interceptor : *list) {
            const std::optional<InjectedResult> result = interceptor->before(call);
            injected = injected ? injected : result;
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
